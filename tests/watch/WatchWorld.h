#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KxDBTask.h"
#include "KxTransDBMgr.h"
#include "KxTransFileMonitor.h"
#include "tests/support/TestSupport.h"

// Folder watching without a daemon: a private root, an empty job store and a media folder.
// Nothing is started.
class WatchWorld : public testing::Test {
 public:
  ~WatchWorld() override;

 protected:
  WatchWorld();

  // Absolute path of an entry of the media folder.
  std::string media(const std::string& name) const { return m_media / name; }
  // The same as a folder, which is made.
  std::string folder(const std::string& name) const;
  // A file with a video's name that is no video, so that queueing it is quick.
  std::string video(const std::string& name, size_t bytes = 8) const;

  KxTransFileInit_s paths() const;
  void initMonitor();

  // "NAME:PROFILES" of all jobs in rank order; names are below the media folder.
  std::vector<std::string> jobs() const;
  // "NAME:TIME" of the recorded files, sorted; times are "now" when they are those on disk.
  std::vector<std::string> records() const;
  std::vector<KxDBTaskParam> rows() const;
  std::string below(const std::string& path) const;
  // Waits for exactly these jobs in any order, and for the records of their files.
  bool settles(std::vector<std::string> wanted) const;
  void deleteAllJobs() const;

  kxtest::PrivateRoot m_root;
  kxtest::TempDir m_media;
  kxtest::TempDir m_state;
  kxtest::RecordingLog log;
  KxTransDBMgr* const store = KxTransDBMgr::getInstance();
  KxTransFileMonitor* const monitor = KxTransFileMonitor::getInstance();

 private:
  bool m_isMonitorReady = false;
};

// Holds the job store's lock for the length of a scope.
class StoreGuard {
 public:
  StoreGuard() { KxTransDBMgr::getInstance()->mutexLock(); }
  ~StoreGuard() { KxTransDBMgr::getInstance()->mutexUnLock(); }
  StoreGuard(const StoreGuard&) = delete;
  StoreGuard& operator=(const StoreGuard&) = delete;
};

// Changes a file's modification time.
void setTime(const std::string& path, long seconds);
