#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/ControlClient.h"

namespace xcodectl {

// What `add` sends for every file.
struct AddOptions {
  std::vector<std::string> files;
  std::vector<std::string> profiles;
  bool allProfiles = false;
  int rotation = 0;        // degrees clockwise, 0: as the file says
  int audioTrack = 0;      // counted from 0
  int videoTrack = 0;      // counted from 0; the service picks the largest when it can
  std::string subtitle;    // external subtitle file
  int subtitleTrack = -1;  // embedded subtitle stream, -1: none
  int subtitleSize = 0;
  int subtitleShift = 0;
  std::string subtitleColor;
  int priority = 0;  // lower runs first
  bool wait = false;
};

// What `list` and `count` ask for.
struct ListOptions {
  std::string status = "all";
  int limit = 0;  // 0: everything
  int offset = 0;
  std::string order = "Rank";
  bool descending = false;
};

// What `folder add` and `folder update` take.
struct FolderOptions {
  std::string path;
  std::vector<std::string> profiles;
  bool allProfiles = false;
};

// The subcommands. Each prints to standard output, as text or as JSON, and returns the exit
// code; failures are thrown.
class Commands {
 public:
  Commands(ControlClient client, bool json) : m_client(std::move(client)), m_json(json) {}

  int add(const AddOptions& options);
  int list(const ListOptions& options);
  int show(int64_t id);
  int watch(bool once);
  int wait(const std::vector<int64_t>& ids);
  int cancel(const std::vector<int64_t>& ids);
  int retry(const std::vector<int64_t>& ids);
  int remove(const std::vector<int64_t>& ids, const std::string& file, const std::string& folder);
  int move(int64_t id, int64_t rank);
  int swapPlaces(int64_t id, int64_t with);
  int clean(bool waiting);
  int start();
  int stop();
  int pause(int seconds);
  int resume();
  int status();
  int limits(const int* cpuPercent, const int* memKilobytes);
  int resources();
  int processes();
  int units();
  int hwaccel(const std::string& value);
  int dump(const std::string& what);
  int importLegacy(const std::string& file);
  int folderAdd(const FolderOptions& options);
  int folderUpdate(const FolderOptions& options);
  int folderRemove(const std::string& path);
  int folderList();
  int scan(bool stop);
  int config();

 private:
  int sendFolder(KxCommand_e command, const FolderOptions& options, const std::string& done);
  nlohmann::json watchStatus();
  // One page after the other of a list command; the JSON rows of all of them.
  nlohmann::json allRows(KxCommand_e command);
  nlohmann::json queryPage(const ListOptions& options, int limit, int offset, int64_t& total);
  nlohmann::json jobRow(int64_t id);
  nlohmann::json rowAtEnd(int64_t id);
  int simple(KxCommand_e command, const std::string& done);
  int forEachId(KxCommand_e command, const std::vector<int64_t>& ids, const std::string& done);
  void print(const nlohmann::json& value) const;

  ControlClient m_client;
  bool m_json;
};

}  // namespace xcodectl
