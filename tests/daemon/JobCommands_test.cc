#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "KxAbstractTranscodeSvr.h"
#include "KxResMgr2.h"
#include "KxTransDBMgr.h"
#include "daemon/JobCommands.h"
#include "daemon/LibraryLocks.h"
#include "tests/daemon/Records.h"
#include "tests/support/OtherConnection.h"
#include "tests/support/TestSupport.h"

using namespace xcoded;
using nlohmann::json;

namespace {

// The job commands on a real queue; the server around them is stopped, so no job starts.
class JobCommandsTest : public testing::Test {
 protected:
  void SetUp() override {
    // The built-in resource exists even where the accelerator tool is missing.
    m_root.script("/sbin/accelctl", "case $1 in -q) echo count=0;; esac\n");
    ASSERT_EQ(store().init(m_dir / "jobs.db"), 0);
    KxResMgr2::getInstance()->init("xcode_test_commands");
    kxtest::writeFile(m_dir / "a.mp4", "no film");
    kxtest::writeFile(m_dir / "b.mp4", "no film");
    m_loop.start();
  }
  void TearDown() override {
    EXPECT_TRUE(m_loop.stop(std::chrono::seconds(5)));
    store().uninit();
  }

  KxTransDBMgr& store() { return *KxTransDBMgr::getInstance(); }
  using Command = Answer (JobCommands::*)(int, const KxSockData_s&);

  Answer run(Command command, const json& object, int32_t number = 0) {
    auto request = kxtest::jsonRequest(20, object.dump());
    if (number != 0) kxtest::putNumber(*request, 1, number);
    return (m_jobs.*command)(-1, *request);
  }
  std::string refusal(Command command, const json& object, int32_t number = 0) {
    const int64_t before = rowCount();
    std::string why;
    try {
      const Answer answer = run(command, object, number);
      if (answer.result != 0) why = json::parse(answer.text).at("error");
    } catch (const RequestError& error) {
      why = error.what();
    }
    EXPECT_EQ(rowCount(), before) << object;
    return why;
  }
  int64_t add(const std::string& name, json more = json::object()) {
    more["src"] = m_dir / name;
    if (!more.contains("jobFlag")) more["jobFlag"] = 1;
    return json::parse(run(&JobCommands::add, more).text).at("id");
  }
  KxDBTaskParam row(int64_t id) {
    StoreLock lock;
    return store().getDBJobById(id).at(0).param;
  }
  int64_t rowCount() {
    StoreLock lock;
    long long count = 0;
    store().selectOneInt("SELECT COUNT(*) AS res FROM JobTable", count);
    return count;
  }
  void setStatus(int64_t id, int status) {
    StoreLock lock;
    store().exec("UPDATE JobTable SET DateStart = 5, DateFinish = 6, Status = " +
                 std::to_string(status) + " WHERE Id = " + std::to_string(id));
  }
  std::vector<int64_t> order() {
    std::vector<int64_t> ids;
    for (const json& one : json::parse(run(&JobCommands::query, json::object()).text))
      ids.push_back(one.at("id"));
    return ids;
  }

  kxtest::PrivateRoot m_root;
  kxtest::TempDir m_dir;
  ScheduleLoop m_loop{
      {[] { return SVR_STOPPED; }, [] { return false; }, [] { return std::nullopt; }, [] {}}, 1};
  JobCommands m_jobs{m_loop};
};

}  // namespace

TEST_F(JobCommandsTest, AddKeepsEveryFieldOfTheRequest) {
  kxtest::writeFile(m_dir / "a.srt", "1");
  const int64_t id = add("a.mp4", {{"jobFlag", 67},
                                   {"dst", "/out"},
                                   {"rotation", 90},
                                   {"vid", 2},
                                   {"aid", 1},
                                   {"sid", 3},
                                   {"subtitle", m_dir / "a.srt"},
                                   {"subSize", 20},
                                   {"subSeek", -4},
                                   {"subColor", "&HFFFFFF"},
                                   {"priority", -7}});
  const KxDBTaskParam job = row(id);
  EXPECT_EQ(job.src, m_dir / "a.mp4");
  EXPECT_EQ(job.dst, "/out");
  EXPECT_EQ(job.jobFlag, 67U);
  EXPECT_EQ(job.rotation, 90);
  EXPECT_EQ(job.vid, 2) << "the file cannot be probed, so the asked track stays";
  EXPECT_EQ(job.aid, 1);
  EXPECT_EQ(job.sid, 3);
  EXPECT_EQ(job.subtitle, m_dir / "a.srt");
  EXPECT_EQ(job.subSize, 20);
  EXPECT_EQ(job.subSeek, -4);
  EXPECT_EQ(job.subColor, "&HFFFFFF");
  EXPECT_EQ(job.priority, -7);
  EXPECT_EQ(job.insertType, INSERT_USER);
  EXPECT_EQ(job.mediaType, 2);
  EXPECT_EQ(job.fileSize, 7);
  EXPECT_EQ(job.status, JOB_WAITING);
}

TEST_F(JobCommandsTest, AddTellsWhatTheSourceIs) {
  kxtest::makeClip(m_dir / "clip.mp4", 320, 240, 2);
  const KxDBTaskParam job = row(add("clip.mp4"));
  EXPECT_EQ(job.width, 320);
  EXPECT_EQ(job.height, 240);
  EXPECT_EQ(job.duration, 2);
  EXPECT_EQ(job.rotation, 0);
}

TEST_F(JobCommandsTest, AnEqualJobTakesTheProfilesIn) {
  const int64_t first = add("a.mp4", {{"jobFlag", 1}});
  EXPECT_EQ(add("a.mp4", {{"jobFlag", 4}}), first);
  EXPECT_EQ(row(first).jobFlag, 5U);
  EXPECT_NE(add("a.mp4", {{"jobFlag", 4}, {"priority", 1}}), first);
  setStatus(first, JOB_RUNNING);
  EXPECT_NE(add("a.mp4", {{"jobFlag", 8}}), first) << "a running job is left alone";
}

TEST_F(JobCommandsTest, ASourceWhoseNameIsNotUtf8GoesIntoBlockOne) {
  const std::string name = m_dir / "bad\xff.mp4";
  kxtest::writeFile(name, "x");
  auto request = kxtest::jsonRequest(20, R"({"jobFlag":1})");
  kxtest::putText(*request, 1, name);
  const Answer answer = m_jobs.add(-1, *request);
  EXPECT_EQ(row(json::parse(answer.text).at("id")).src, name);
}

TEST_F(JobCommandsTest, BadAddsNeverTouchTheQueue) {
  const std::string src = m_dir / "a.mp4";
  mkfifo((m_dir / "fifo").c_str(), 0600);
  kxtest::writeFile(m_dir / "real.srt", "x");
  std::filesystem::create_symlink("real.srt", m_dir / "link.srt");
  const std::vector<json> requests = {
      json::object(),
      {{"src", src}},
      {{"src", src}, {"jobFlag", 0}},
      {{"src", src}, {"jobFlag", 128}},
      {{"src", src}, {"jobFlag", "1"}},
      {{"src", src}, {"jobFlag", 1}, {"rotation", 45}},
      {{"src", src}, {"jobFlag", 1}, {"rotation", 360}},
      {{"src", src}, {"jobFlag", 1}, {"aid", -1}},
      {{"src", src}, {"jobFlag", 1}, {"sid", -2}},
      {{"src", src}, {"jobFlag", 1}, {"priority", 100000}},
      {{"src", src}, {"jobFlag", 1}, {"subtitle", "/no/such.srt"}},
      {{"src", src}, {"jobFlag", 1}, {"subtitle", m_dir.path().string()}},
      {{"src", src}, {"jobFlag", 1}, {"subtitle", m_dir / "link.srt"}},
      {{"src", src}, {"jobFlag", 1}, {"subColor", "red'; x"}},
      {{"src", src}, {"jobFlag", 1}, {"subColor", "reddish"}},
      {{"src", src}, {"jobFlag", 1}, {"dst", "relative"}},
      {{"src", src}, {"jobFlag", 1}, {"status", 3}},
      {{"src", 5}, {"jobFlag", 1}},
      {{"src", "a.mp4"}, {"jobFlag", 1}},
      {{"src", m_dir / "none.mp4"}, {"jobFlag", 1}},
      {{"src", m_dir / "fifo"}, {"jobFlag", 1}},
      {{"src", m_dir / "a.mp4\n"}, {"jobFlag", 1}},
  };
  for (const json& request : requests)
    EXPECT_NE(refusal(&JobCommands::add, request), "") << request;
}

TEST_F(JobCommandsTest, QueriesPageThroughTheQueue) {
  {
    StoreLock lock;
    ASSERT_EQ(store().exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE "
                           "i < 1500) INSERT INTO JobTable (SrcPath, DstPath, JobFlag, Rank) "
                           "SELECT '/share/' || i || '.mp4', '', 1, i FROM n"),
              0);
  }
  std::vector<int64_t> ranks;
  for (;;) {
    const Answer answer =
        run(&JobCommands::query, json::object(), static_cast<int32_t>(ranks.size()));
    EXPECT_EQ(answer.value2, 1500);
    const json rows = json::parse(answer.text);
    EXPECT_EQ(static_cast<size_t>(answer.value3), rows.size());
    EXPECT_LT(answer.text.size(), KxSockData_s::kTextSize);
    for (const json& one : rows) ranks.push_back(one.at("rank"));
    if (rows.empty()) break;
  }
  ASSERT_EQ(ranks.size(), 1500U);
  for (size_t i = 0; i < ranks.size(); ++i) ASSERT_EQ(ranks[i], static_cast<int64_t>(i) + 1);
}

TEST_F(JobCommandsTest, ATextThatFillsMoreThanARecordDoesNotHideTheRowsBehindIt) {
  const std::string old = m_dir / "old.db";
  OtherConnection(old).run(
      "CREATE TABLE TranscodeJob (Id INTEGER PRIMARY KEY, FileName TEXT, DateAdded INTEGER);"
      "INSERT INTO TranscodeJob VALUES (1, '/a', 1), (2, '/' || hex(zeroblob(50000)), 2), "
      "(3, '/c', 3)");
  auto request = kxtest::makeRequest(34);
  kxtest::putText(*request, 1, old);
  EXPECT_EQ(m_jobs.importLegacy(-1, *request).value2, 3);
  json rows = json::array();
  for (int first = 0; first < 3;) {
    const Answer page = run(&JobCommands::query, json::object(), first);
    ASSERT_GT(page.value3, 0);
    for (const json& row : json::parse(page.text)) rows.push_back(row);
    first += page.value3;
  }
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(rows[0].at("src"), "/a");
  EXPECT_EQ(rows[1].at("src"), "/" + std::string(999, '0'));
  EXPECT_EQ(rows[2].at("src"), "/c");
}

TEST_F(JobCommandsTest, QueriesFilterOrderAndLimit) {
  const int64_t a = add("a.mp4");
  const int64_t b = add("b.mp4");
  setStatus(b, JOB_ERROR);
  const auto ids = [&](const json& query) {
    std::vector<int64_t> found;
    for (const json& one : json::parse(run(&JobCommands::query, query).text))
      found.push_back(one.at("id"));
    return found;
  };
  using Ids = std::vector<int64_t>;
  EXPECT_EQ(ids({{"flags", 1}}), Ids{a});
  EXPECT_EQ(ids({{"flags", 4}}), Ids{b});
  EXPECT_EQ(ids({{"flags", 5}}), (Ids{a, b}));
  EXPECT_EQ(ids({{"orderBy", "Id"}, {"asc", false}}), (Ids{b, a}));
  EXPECT_EQ(ids({{"limit", 1}, {"offset", 1}}), Ids{b});
  EXPECT_EQ(ids({{"insertType", 1}}), (Ids{a, b}));
  EXPECT_EQ(ids({{"insertType", 0}}), Ids{});
  EXPECT_EQ(ids({{"flags", 4}, {"mediaType", 2}}), Ids{b});
  EXPECT_EQ(run(&JobCommands::count, {{"flags", 5}}).value2, 2);
}

TEST_F(JobCommandsTest, QueriesThatCannotBeExactAreRefused) {
  for (const json& query : std::vector<json>{{{"flags", 0}},
                                             {{"flags", 192}},
                                             {{"flags", 256}},
                                             {{"limit", 0}},
                                             {{"limit", 1001}},
                                             {{"limit", -1}},
                                             {{"offset", -1}},
                                             {{"orderBy", "Rank; DROP TABLE JobTable"}},
                                             {{"orderBy", "rank"}},
                                             {{"orderBy", 3}},
                                             {{"asc", 1}},
                                             {{"flags", 3}, {"insertType", 0}},
                                             {{"mediaType", 2}}})
    EXPECT_NE(refusal(&JobCommands::query, query), "") << query;
  EXPECT_NE(refusal(&JobCommands::query, json::object(), -1), "");
}

TEST_F(JobCommandsTest, ShowGivesTheRowItsReasonAndItsOutputs) {
  const int64_t id = add("a.mp4", {{"jobFlag", 65}});
  {
    StoreLock lock;
    store().updateDBJobReason(id, "no such codec");
  }
  const json shown = json::parse(run(&JobCommands::show, {{"id", id}}).text);
  EXPECT_EQ(shown.at("id"), id);
  EXPECT_EQ(shown.at("src"), m_dir / "a.mp4");
  EXPECT_EQ(shown.at("reason"), "no such codec");
  ASSERT_EQ(shown.at("outputs").size(), 2U);
  EXPECT_EQ(shown["outputs"][0].at("profile"), "mobile240p");
  EXPECT_EQ(shown["outputs"][0].at("exists"), false);
  EXPECT_EQ(refusal(&JobCommands::show, {{"id", id + 1}}),
            "there is no job " + std::to_string(id + 1));
  for (const json& bad : std::vector<json>{json::object(), {{"id", 0}}, {{"id", "1"}}})
    EXPECT_NE(refusal(&JobCommands::show, bad), "");
}

TEST_F(JobCommandsTest, CancelKeepsTheRowAndRetryPutsItBack) {
  const int64_t id = add("a.mp4");
  EXPECT_NE(refusal(&JobCommands::retry, {{"id", id}}), "") << "it waits already";
  EXPECT_EQ(run(&JobCommands::cancel, {{"id", id}}).result, 0);
  EXPECT_EQ(row(id).status, JOB_CANCELLED);
  EXPECT_NE(refusal(&JobCommands::cancel, {{"id", id}}), "") << "it has ended";
  setStatus(id, JOB_ERROR);
  EXPECT_EQ(run(&JobCommands::retry, {{"id", id}}).result, 0);
  EXPECT_EQ(row(id).status, JOB_WAITING);
  EXPECT_EQ(row(id).dateStart, 0);
  EXPECT_EQ(row(id).dateFinish, 0);
  EXPECT_NE(refusal(&JobCommands::cancel, {{"id", id + 1}}), "");
}

TEST_F(JobCommandsTest, MovingAndSwappingKeepTheRanksDense) {
  std::vector<int64_t> ids;
  for (const char* priority : {"0", "1", "2", "3"})
    ids.push_back(add("a.mp4", {{"priority", std::stoi(priority)}}));
  using Ids = std::vector<int64_t>;
  EXPECT_EQ(run(&JobCommands::swapPlaces, {{"id", ids[0]}, {"with", ids[3]}}).result, 0);
  EXPECT_EQ(order(), (Ids{ids[3], ids[1], ids[2], ids[0]}));
  EXPECT_EQ(run(&JobCommands::move, {{"id", ids[0]}, {"rank", 2}}).result, 0);
  EXPECT_EQ(order(), (Ids{ids[3], ids[0], ids[1], ids[2]}));
  const Answer last = run(&JobCommands::move, {{"id", ids[3]}, {"rank", 99}});
  EXPECT_EQ(json::parse(last.text).at("rank"), 4);
  EXPECT_EQ(order(), (Ids{ids[0], ids[1], ids[2], ids[3]}));
  for (size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(row(ids[i]).rank, static_cast<int64_t>(i) + 1);
  EXPECT_NE(refusal(&JobCommands::swapPlaces, {{"id", ids[0]}, {"with", ids[0]}}), "");
  EXPECT_NE(refusal(&JobCommands::swapPlaces, {{"id", ids[0]}, {"with", 999}}), "");
  EXPECT_NE(refusal(&JobCommands::move, {{"id", ids[0]}, {"rank", 0}}), "");
  EXPECT_NE(refusal(&JobCommands::move, {{"id", 999}, {"rank", 1}}), "");
}

TEST_F(JobCommandsTest, DeletesGoByIdByFileAndByFolder) {
  std::filesystem::create_directories(m_dir / "sub");
  std::filesystem::create_directories(m_dir / "sub2");
  for (const char* name : {"sub/x.mp4", "sub2/x.mp4"}) kxtest::writeFile(m_dir / name, "x");
  const int64_t a = add("a.mp4");
  add("b.mp4");
  setStatus(add("b.mp4", {{"priority", 1}}), JOB_DONE);
  add("sub/x.mp4");
  const int64_t sibling = add("sub2/x.mp4");
  EXPECT_EQ(run(&JobCommands::remove, {{"id", a}}).result, 0);
  EXPECT_EQ(rowCount(), 4);
  EXPECT_EQ(run(&JobCommands::remove, {{"file", m_dir / "b.mp4"}}).result, 0);
  EXPECT_EQ(rowCount(), 2) << "whatever their status";
  EXPECT_EQ(run(&JobCommands::remove, {{"folder", m_dir / "sub"}}).result, 0);
  EXPECT_EQ(order(), std::vector<int64_t>{sibling});
  EXPECT_NE(refusal(&JobCommands::remove, {{"id", 999}}), "");
  EXPECT_NE(refusal(&JobCommands::remove, {{"file", m_dir / "b.mp4"}}), "");
  EXPECT_NE(refusal(&JobCommands::remove, json::object()), "");
  EXPECT_NE(refusal(&JobCommands::remove, {{"id", sibling}, {"file", "/x"}}), "");
  EXPECT_NE(refusal(&JobCommands::remove, {{"folder", "relative"}}), "");
}

TEST_F(JobCommandsTest, CleaningTakesWhatHasEndedOrWhatHasNot) {
  const int64_t a = add("a.mp4");
  const int64_t b = add("b.mp4");
  setStatus(b, JOB_DONE);
  EXPECT_EQ(run(&JobCommands::clean, {{"which", "processed"}}).result, 0);
  EXPECT_EQ(order(), std::vector<int64_t>{a});
  EXPECT_EQ(run(&JobCommands::clean, {{"which", "unprocessed"}}).result, 0);
  EXPECT_EQ(rowCount(), 0);
  EXPECT_NE(refusal(&JobCommands::clean, {{"which", "all"}}), "");
  EXPECT_NE(refusal(&JobCommands::clean, json::object()), "");
}

TEST_F(JobCommandsTest, OutsideProcessesRegisterOnAResource) {
  const json mine = {{"resId", "sw_cpu"}, {"pid", getpid()}, {"user", "me"}, {"src", "/a"}};
  const auto registrations = [] { return KxResMgr2::getInstance()->getResVec().at(0).reg.size(); };
  EXPECT_EQ(run(&JobCommands::registerProcess, mine).result, 0);
  EXPECT_EQ(registrations(), 1U);
  json back = mine;
  back["register"] = false;
  EXPECT_EQ(run(&JobCommands::registerProcess, back).result, 0);
  EXPECT_EQ(registrations(), 0U);
  EXPECT_NE(refusal(&JobCommands::registerProcess, {{"resId", "none"}, {"pid", getpid()}}), "");
  EXPECT_NE(refusal(&JobCommands::registerProcess, {{"resId", "sw_cpu"}, {"pid", INT32_MAX}}), "");
  EXPECT_NE(refusal(&JobCommands::registerProcess, {{"resId", "sw_cpu"}, {"pid", -1}}), "");
  EXPECT_EQ(registrations(), 0U);
}

TEST_F(JobCommandsTest, OnlyARegularFileIsImported) {
  auto request = kxtest::makeRequest(34);
  kxtest::putText(*request, 1, m_dir.path().string());
  EXPECT_THROW(m_jobs.importLegacy(-1, *request), RequestError);
}

TEST_F(JobCommandsTest, TheImportTellsWhatWasKnownAndWhatWasSkipped) {
  const std::string old = m_dir / "old.db";
  OtherConnection(old).run(
      "CREATE TABLE TranscodeJob (Id INTEGER PRIMARY KEY, FileName TEXT, DateAdded INTEGER);"
      "INSERT INTO TranscodeJob VALUES (1, '/c', 3), (2, '/bad', 2), (3, '/a', 1)");
  {
    StoreLock lock;
    ASSERT_EQ(store().exec("CREATE TRIGGER t BEFORE INSERT ON JobTable WHEN NEW.SrcPath = '/bad' "
                           "BEGIN SELECT RAISE(ABORT, 'refused'); END"),
              0);
  }
  const std::string before = kxtest::readFile(old);
  auto request = kxtest::makeRequest(34);
  kxtest::putText(*request, 1, old);
  const Answer first = m_jobs.importLegacy(-1, *request);
  EXPECT_EQ(first.value2, 2);
  EXPECT_EQ(json::parse(first.text), json({{"known", 0}, {"skipped", 1}}));
  const Answer again = m_jobs.importLegacy(-1, *request);
  EXPECT_EQ(again.value2, 2);
  EXPECT_EQ(json::parse(again.text), json({{"known", 2}, {"skipped", 1}}));
  EXPECT_EQ(rowCount(), 4);
  EXPECT_EQ(row(order().front()).src, "/a");
  EXPECT_EQ(kxtest::readFile(old), before);
}
