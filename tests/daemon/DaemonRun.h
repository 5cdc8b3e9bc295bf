#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "KxAbstractTranscodeSvr.h"
#include "KxCommand.h"
#include "frame/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace kxtest {

// A private root for the daemon with the programs that a video job meets. The encoder is the
// real one; setEncoder() changes how it is called.
class DaemonRoot {
 public:
  DaemonRoot();

  std::string path() const { return m_dir.path().string(); }
  std::string operator/(const std::string& name) const { return m_dir / name; }
  std::string media(const std::string& name) const { return m_dir / ("media/" + name); }
  // Keys of section TRANSCODESVR.
  void configure(const std::string& keys) const;
  // Shell commands before the encoder, and options in front of its own.
  void setEncoder(const std::string& before, const std::string& options) const;
  // The encoder works as slowly as the clip plays, so that a job lasts.
  void slowEncoder() const { setEncoder("", "-re"); }
  // Progress is read from the encoder's log.
  void useRealParser() const;
  // A program of the build, as it is shipped.
  void install(const std::string& tool) const;
  // Files and folders that jobs must not leave behind.
  std::vector<std::string> leftovers() const;

  // An executable shell script below the root.
  void script(const std::string& name, const std::string& body) const;

 private:
  TempDir m_dir;
};

// The real xcoded on a private root. Killed when it goes and still runs.
class DaemonRun {
 public:
  explicit DaemonRun(const DaemonRoot& root);
  ~DaemonRun();
  DaemonRun(const DaemonRun&) = delete;
  DaemonRun& operator=(const DaemonRun&) = delete;

  pid_t pid() const { return m_child.pid(); }
  bool isRunning() { return !m_child.poll(); }
  // Sends a signal and waits for the end; the wait status.
  int end(int signalNumber);
  std::string log() const { return readFile(m_log); }

  // A new connection, or -1.
  int connect() const;
  // One exchange; nothing when no whole answer came.
  std::unique_ptr<KxSockData_s> ask(const KxSockData_s& request) const;
  // The answer to a command with a number in block 1 and a JSON object.
  std::unique_ptr<KxSockData_s> ask(int32_t code, int32_t number = 0,
                                    const nlohmann::json& object = nullptr) const;
  int32_t result(int32_t code, int32_t number = 0, const nlohmann::json& object = nullptr) const;

  int64_t add(const std::string& src, nlohmann::json more = nlohmann::json::object()) const;
  nlohmann::json show(int64_t id) const;
  int status(int64_t id) const;
  int64_t count(int flags) const;
  nlohmann::json units() const;
  // Direct children of the daemon that still run.
  std::set<pid_t> children() const;
  // Waits until an encoder of a job runs and is under way; its pid, or -1.
  pid_t waitForEncoder() const;

 private:
  std::string m_socket;
  std::string m_log;
  ChildProcess m_child;
};

bool processRuns(pid_t pid);

}  // namespace kxtest
