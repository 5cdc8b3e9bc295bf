#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "KxTransDBMgr.h"
#include "tests/support/OtherConnection.h"
#include "tests/support/TestSupport.h"

// A job store on an empty database, with sources to queue and a media-library command that
// writes down what it is told.
class JobStoreTest : public testing::Test {
 public:
  JobStoreTest();
  ~JobStoreTest() override;

 protected:
  std::string dbPath() const { return folder / "jobs.db"; }
  // An existing source file. Audio by its name, so that it is not probed.
  std::string source(const std::string& name = "song.mp3", size_t bytes = 10) const;
  KxDBTaskParam request(const std::string& src, uint64_t profiles = 1) const;
  // Queues a job and returns its row.
  KxDBTaskParam queue(const KxDBTaskParam& param);
  KxDBTaskParam queueSource(const std::string& name, uint64_t profiles = 1);
  // The whole queue in rank order.
  std::vector<KxDBTaskParam> jobs();
  KxDBTaskParam jobOf(const std::string& src);
  std::vector<int64_t> ranks();
  // "name:rank" of each job, in rank order.
  std::vector<std::string> places();
  void setStatus(int64_t id, int32_t status);

  void installMediaLibrary() const;
  // What the media library was told, oldest first: "path value".
  std::vector<std::string> marks() const;
  void forgetMarks() const;

  kxtest::TempDir folder;
  kxtest::PrivateRoot root;
  kxtest::RecordingLog log;
  KxTransDBMgr* const store = KxTransDBMgr::getInstance();
};
