#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "KxDBTask.h"
#include "KxTranscodeUnit2.h"
#include "tests/support/TestSupport.h"

namespace kxtest {

// Profiles as bits of a job.
enum ProfileBit : uint64_t {
  PROFILE_240P = 1 << 0,
  PROFILE_360P = 1 << 1,
  PROFILE_480P = 1 << 2,
  PROFILE_720P = 1 << 3,
  PROFILE_1080P = 1 << 4,
  PROFILE_ORIGINAL = 1 << 5,
  PROFILE_AUDIO = 1 << 6,
};

// A service without its daemon: a private root with the outside programs, a media folder, a
// job store and a resource manager. The encoder is the installed ffmpeg.
class RunnerWorld {
 public:
  enum class Cgroups { Version1, Unified };
  // The manager is set up by the first world of a process and keeps its kind of cgroups.
  explicit RunnerWorld(Cgroups cgroups = Cgroups::Version1);
  ~RunnerWorld();
  RunnerWorld(const RunnerWorld&) = delete;
  RunnerWorld& operator=(const RunnerWorld&) = delete;

  const PrivateRoot& root() const { return m_root; }
  // Absolute path of an entry of the media folder.
  std::string media(const std::string& name) const { return m_media / name; }
  // Paths below the media folder of all files and links in it, sorted.
  std::vector<std::string> mediaFiles() const;
  // A file of the cgroup tree, which is a plain folder here.
  std::string cgroupFile(const std::string& name) const;
  // The encoder's program; the text is the body of a shell script.
  void setEncoder(const std::string& body);
  // The service's front-end in place of the installed ffmpeg.
  void useFrontEnd();
  void setAgent(const std::string& body);
  void setParser(const std::string& body);
  // Lines of the accelerator tool for its card list, all of them usable.
  void setCards(const std::vector<std::string>& cards);
  // Adds lines to section TRANSCODESVR of the configuration.
  void configure(const std::string& lines);

  // Queues a job and returns its row.
  KxDBTaskParam addJob(const std::string& source, uint64_t profiles,
                       const std::function<void(KxDBTaskParam&)>& change = {});
  // Starts a unit for a job as the scheduler does.
  void start(const KxDBTaskParam& job);
  // Waits until every unit has ended, and frees them.
  bool waitForUnits(std::chrono::milliseconds limit = std::chrono::seconds(60));
  // Queues a job, runs it to its end and returns its row.
  KxDBTaskParam run(const std::string& source, uint64_t profiles,
                    const std::function<void(KxDBTaskParam&)>& change = {});
  // Runs an existing job and returns its row.
  KxDBTaskParam runAgain(const KxDBTaskParam& job);

  KxDBTaskParam row(int64_t id);
  std::string reason(int64_t id);
  // State of the only unit.
  std::optional<KxTranscodeUnit2> unit();
  bool waitForChild();
  void stop(int64_t id);
  void pending(const KxDBTaskParam& job);
  void resume(const KxDBTaskParam& job);
  // Entries of the folders that only hold work in progress.
  std::vector<std::string> leftovers() const;
  size_t registrations();
  // Runs of units that have come to their end in this world.
  int runsEnded() const { return m_runsEnded; }

 private:
  std::atomic<int> m_runsEnded{0};
  PrivateRoot m_root;
  TempDir m_media;
  TempDir m_state;
  std::string m_configuration;
};

// What ffprobe says of a file.
struct Probed {
  int width = 0;
  int height = 0;
  double sar = 1;
  double seconds = 0;
  std::string videoCodec;
  std::string profile;
  std::string audioCodec;
  int channels = 0;
  int sampleRate = 0;
  bool turned = false;
};
std::optional<Probed> probe(const std::string& path);
// True when ffmpeg decodes all of it without complaint.
bool decodesClean(const std::string& path);
bool hasIndexInFront(const std::string& mp4);

}  // namespace kxtest
