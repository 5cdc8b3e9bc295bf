#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "KxTransFileMonitor.h"
#include "daemon/AnswerJson.h"
#include "daemon/ScheduleLoop.h"

namespace xcoded {

// Runs folder watching beside the server: starts it on a thread of its own, because it walks
// every folder before it is up, and tells the scheduling about jobs that come and go.
class FolderWatch {
 public:
  explicit FolderWatch(ScheduleLoop& loop);
  ~FolderWatch();
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;

  // Loads the folder list. False when there is none to be had; nothing is watched then.
  bool init(const std::string& libraryFile, const std::string& folderFile);
  void start();
  // Ends scanning and watching, or their start. The result is true when they have ended in time.
  bool stop(std::chrono::milliseconds limit);

 private:
  void run();

  ScheduleLoop& m_loop;
  const KxWatchListener m_listener;
  bool m_isReady = false;
  std::atomic<bool> m_isEnding{false};
  std::future<void> m_starting;
};

// Throws RequestError unless a text names profiles as the folder list does: the decimal number of
// their bits, 0 for none.
void checkTarget(const std::string& target);

// Throws RequestError unless a folder may be watched: it is there, lies on a volume that holds
// files of users, and is neither a folder of the system nor one that the service writes.
void checkWatchable(const std::string& path);

// State of folder watching from the asked row on.
Answer watchStatus(const KxSockData_s& request);

}  // namespace xcoded
