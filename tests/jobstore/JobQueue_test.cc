#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/jobstore/JobStoreFixture.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class JobQueue : public JobStoreTest {
 protected:
  KxDBTaskParam byId(int64_t id) {
    KxDBTaskParam param;
    param.id = id;
    return param;
  }
  // What selects every job of a source or folder.
  KxDBTaskParam everyJobOf(const std::string& src) {
    KxDBTaskParam param;
    param.src = src;
    param.status = -1;
    param.insertType = -1;
    return param;
  }
  void queueAll(const std::vector<std::string>& names) {
    for (const std::string& name : names) queueSource(name);
  }
  // Sets ranks and the like as an operation of another time would have left them.
  void change(const std::string& sql) { ASSERT_EQ(store->exec(sql), 0); }
};

KxDBTaskParam fullRequest(const std::string& src) {
  KxDBTaskParam param;
  param.src = src;
  param.dst = "/out";
  param.jobFlag = 5;
  param.insertType = 1;
  param.fileSize = 999999;
  param.rotation = 90;
  param.duration = 60;
  param.width = 1920;
  param.height = 1080;
  param.aid = 1;
  param.sid = 2;
  param.subtitle = "s.srt";
  param.subSize = 20;
  param.subSeek = -3;
  param.subColor = "red";
  param.priority = 4;
  param.hwStart = 5;
  param.mediaType = 2;
  param.vid = 7;
  return param;
}

}  // namespace

TEST_F(JobQueue, AQueuedJobKeepsEverySettingAndGetsSizeDateAndRank) {
  const int64_t before = time(nullptr);
  KxDBTaskParam asked = fullRequest(source("song.mp3", 1234));
  asked.id = 77;
  asked.status = 3;
  asked.rank = 50;
  asked.dateAdd = 1;
  asked.dateStart = 2;
  asked.dateFinish = 3;
  const KxDBTaskParam job = queue(asked);
  EXPECT_EQ(job.id, 1);
  EXPECT_EQ(job.dst, "/out");
  EXPECT_GE(job.dateAdd, before);
  EXPECT_LE(job.dateAdd, time(nullptr));
  EXPECT_EQ(job.dateStart, 0);
  EXPECT_EQ(job.dateFinish, 0);
  EXPECT_EQ(job.status, JOB_WAITING);
  EXPECT_EQ(job.jobFlag, 5U);
  EXPECT_EQ(job.insertType, 1);
  EXPECT_EQ(job.fileSize, 1234);
  EXPECT_EQ(job.rotation, 90);
  EXPECT_EQ(job.duration, 60);
  EXPECT_EQ(job.width, 1920);
  EXPECT_EQ(job.height, 1080);
  EXPECT_EQ(job.aid, 1);
  EXPECT_EQ(job.sid, 2);
  EXPECT_EQ(job.subtitle, "s.srt");
  EXPECT_EQ(job.subSize, 20);
  EXPECT_EQ(job.subSeek, -3);
  EXPECT_EQ(job.subColor, "red");
  EXPECT_EQ(job.priority, 4);
  EXPECT_EQ(job.hwStart, 5);
  EXPECT_EQ(job.mediaType, 2);
  EXPECT_EQ(job.rank, 1);
  EXPECT_EQ(job.vid, 7);
}

TEST_F(JobQueue, AJobWithoutSourceOrProfilesIsRefused) {
  EXPECT_EQ(store->addDBJob(request("")), 1);
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "addDBJob fail, src path empty\n"));
  EXPECT_EQ(store->addDBJob(request(source(), 0)), 1);
  EXPECT_TRUE(log.has("addDBJob fail, transcode config is not assigned\n"));
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(JobQueue, AMissingSourceIsRefusedAtLevelThree) {
  EXPECT_EQ(store->addDBJob(request("/missing/a.mp3")), 1);
  EXPECT_TRUE(
      log.has(3, "KxTransDBMgr", "stat /missing/a.mp3 fail:" + std::to_string(ENOENT) + "\n"));
}

TEST_F(JobQueue, EmptyTextIsStoredAsTextNotAsNull) {
  queueSource("a.mp3");
  EXPECT_EQ(
      OtherConnection(dbPath()).value(
          "SELECT typeof(DstPath)||typeof(SubtitlePath)||typeof(SubtitleColor) FROM JobTable"),
      "texttexttext");
}

TEST_F(JobQueue, TheHighestProfileBitSurvives) {
  const uint64_t all = ~uint64_t{0};
  EXPECT_EQ(queueSource("a.mp3", all).jobFlag, all);
}

TEST_F(JobQueue, QueueingTheSameFileTwiceMergesItsProfiles) {
  const KxDBTaskParam first = queue(fullRequest(source()));
  KxDBTaskParam again = fullRequest(source());
  again.jobFlag = 10;
  again.dst = "/elsewhere";
  again.duration = 1;
  again.width = 2;
  again.height = 3;
  const KxDBTaskParam merged = queue(again);
  ASSERT_EQ(jobs().size(), 1U);
  EXPECT_EQ(merged.jobFlag, 15U);
  EXPECT_EQ(merged.id, first.id);
  EXPECT_EQ(merged.rank, first.rank);
  EXPECT_EQ(merged.dateAdd, first.dateAdd);
  EXPECT_EQ(merged.dst, "/out");
  EXPECT_EQ(merged.width, 1920);
}

TEST_F(JobQueue, AnyOtherSettingMakesASecondJobBehindTheFirst) {
  const std::vector<void (*)(KxDBTaskParam&)> changes = {
      [](KxDBTaskParam& j) { j.insertType = 0; }, [](KxDBTaskParam& j) { j.rotation = 0; },
      [](KxDBTaskParam& j) { j.aid = 99; },       [](KxDBTaskParam& j) { j.subtitle = "x"; },
      [](KxDBTaskParam& j) { j.sid = 99; },       [](KxDBTaskParam& j) { j.subSize = 99; },
      [](KxDBTaskParam& j) { j.subSeek = 99; },   [](KxDBTaskParam& j) { j.subColor = "x"; },
      [](KxDBTaskParam& j) { j.priority = 99; },  [](KxDBTaskParam& j) { j.hwStart = 99; },
      [](KxDBTaskParam& j) { j.mediaType = 99; }, [](KxDBTaskParam& j) { j.vid = 99; }};
  queue(fullRequest(source()));
  for (size_t i = 0; i < changes.size(); ++i) {
    KxDBTaskParam other = fullRequest(source());
    changes[i](other);
    ASSERT_EQ(store->addDBJob(other), 0);
    EXPECT_EQ(jobs().size(), i + 2) << "change " << i;
    EXPECT_EQ(jobs().back().rank, static_cast<int64_t>(i + 2));
  }
  source("song.mp3", 11);
  ASSERT_EQ(store->addDBJob(fullRequest(folder / "song.mp3")), 0);
  EXPECT_EQ(jobs().back().fileSize, 11);
  EXPECT_EQ(jobs().size(), changes.size() + 2);
}

TEST_F(JobQueue, AJobThatNoLongerWaitsIsNotMergedInto) {
  for (const int32_t status : {1, 2, 3, 5}) {
    setStatus(queueSource("a.mp3").id, status);
    EXPECT_EQ(jobs().back().status, status);
  }
  EXPECT_EQ(ranks().size(), 4U);
  queueSource("a.mp3", 2);
  EXPECT_EQ(jobs().back().status, JOB_WAITING);
  EXPECT_EQ(jobs().back().jobFlag, 2U);
  EXPECT_THAT(ranks(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(JobQueue, ANewJobComesBehindTheHighestRank) {
  queueAll({"a.mp3", "b.mp3"});
  change("UPDATE JobTable SET Rank = 41 WHERE Id = 2");
  EXPECT_EQ(queueSource("c.mp3").rank, 42);
}

TEST_F(JobQueue, AFileThatCannotBeProbedKeepsTheAskedVideoTrack) {
  KxDBTaskParam asked = request(source("text.mkv"));
  asked.vid = 3;
  EXPECT_EQ(queue(asked).vid, 3);
  EXPECT_TRUE(log.has("get media info of " + asked.src + " fail, use vid 3 assigned by client\n"));
  EXPECT_FALSE(log.hasPart("spec#17964"));
}

TEST_F(JobQueue, AnAudioFileIsNotProbed) {
  KxDBTaskParam asked = request(source("a.mp3"));
  asked.vid = 3;
  EXPECT_EQ(queue(asked).vid, 3);
  EXPECT_FALSE(log.hasPart("get media info"));
  EXPECT_FALSE(log.hasPart("spec#17964"));
}

TEST_F(JobQueue, TheVideoTrackWithTheLargestPictureReplacesTheAskedOne) {
  const std::string clip = folder / "clip.mkv";
  kxtest::makeClip(clip, 160, 120, 0.2,
                   {"-map", "0:v", "-map", "0:v", "-map", "0:v", "-map", "1:a", "-filter:v:1",
                    "scale=320:240", "-filter:v:2", "scale=240:320"});
  KxDBTaskParam asked = request(clip);
  asked.vid = 2;
  // The last two are equally large: the lower index wins.
  EXPECT_EQ(queue(asked).vid, 1);
  EXPECT_TRUE(log.has("name=" + clip + ", vid=0, w=160, h=120\n"));
  EXPECT_TRUE(log.has("name=" + clip + ", vid=1, w=320, h=240\n"));
  EXPECT_TRUE(log.has("name=" + clip + ", vid=2, w=240, h=320\n"));
  EXPECT_TRUE(log.has("spec#17964, name=" + clip + ", auto choose vid = 1\n"));
  for (const auto& line : log.lines()) {
    if (line.text.starts_with("spec#")) {
      EXPECT_EQ(line.func, "addDBJob");
    }
  }
}

TEST_F(JobQueue, TheChosenTrackCountsForMerging) {
  const std::string clip = folder / "clip.mkv";
  kxtest::makeClip(clip, 160, 120, 0.2);
  KxDBTaskParam asked = request(clip, 1);
  queue(asked);
  asked.vid = 5;
  asked.jobFlag = 2;
  EXPECT_EQ(queue(asked).jobFlag, 3U);
  EXPECT_EQ(jobs().size(), 1U);
}

TEST_F(JobQueue, AFileWithoutVideoKeepsTheAskedTrack) {
  const std::string clip = folder / "sound.mkv";
  kxtest::makeClip(clip, 160, 120, 0.2, {"-map", "1:a"});
  KxDBTaskParam asked = request(clip);
  asked.vid = 4;
  EXPECT_EQ(queue(asked).vid, 4);
  EXPECT_TRUE(log.has("spec#17964, name=" + clip + ", auto choose vid = 4\n"));
}

// The media library.

TEST_F(JobQueue, QueueingMarksTheSourceAsQueued) {
  installMediaLibrary();
  const std::string odd = queueSource("it's \"odd\" $HOME.mp3").src;
  EXPECT_THAT(marks(), ElementsAre(odd + " -2"));
  EXPECT_TRUE(log.has("set " + odd + " MLDB TranscodeStatus to -2\n"));
  EXPECT_FALSE(log.has("update video status change to media library fail\n"));
  queue(request(odd, 2));
  EXPECT_EQ(marks().size(), 2U);
}

TEST_F(JobQueue, AStatusSetsTheMarkItStandsFor) {
  installMediaLibrary();
  KxDBTaskParam job = queueSource("a.mp3");
  for (const auto& [status, mark] : std::vector<std::pair<int32_t, std::string>>{
           {0, "-2"}, {1, "0"}, {2, "0"}, {3, "-2"}, {4, "0"}, {5, "0"}, {-1, "0"}}) {
    forgetMarks();
    job.status = status;
    EXPECT_EQ(store->updateDBJobStatus(job), 0);
    EXPECT_THAT(marks(), ElementsAre(job.src + " " + mark)) << status;
    EXPECT_EQ(jobs()[0].status, status);
  }
  EXPECT_TRUE(log.has("query cmd = SELECT COUNT(*) AS res FROM JobTable WHERE Id = 1\n"));
  EXPECT_TRUE(log.has("transcodeDB query cnt=1, set MLDB TranscodeStatus = -2\n"));
}

TEST_F(JobQueue, SettingAMissingJobToWaitingClearsTheMark) {
  installMediaLibrary();
  KxDBTaskParam job = byId(8);
  job.src = "/gone.mp3";
  EXPECT_EQ(store->updateDBJobStatus(job), 0);
  EXPECT_THAT(marks(), ElementsAre("/gone.mp3 0"));
  EXPECT_TRUE(log.has("transcodeDB query cnt=0, set MLDB TranscodeStatus = 0\n"));
}

TEST_F(JobQueue, AnEmptySourceStillRunsTheMarkCommand) {
  installMediaLibrary();
  KxDBTaskParam job = byId(8);
  job.status = 1;
  EXPECT_EQ(store->updateDBJobStatus(job), 0);
  EXPECT_THAT(marks(), ElementsAre(" 0"));
}

TEST_F(JobQueue, AMissingOrFailingMarkCommandDoesNotFailTheOperation) {
  queueSource("a.mp3");
  const std::string failure = "update video status change to media library fail\n";
  EXPECT_EQ(log.count(failure), 1U);
  root.script("/usr/local/medialibrary/bin/catalogcmd", "exit 3\n");
  queueSource("b.mp3");
  EXPECT_EQ(log.count(failure), 2U);
  root.script("/usr/local/medialibrary/bin/catalogcmd", "kill -9 $$\n");
  queueSource("c.mp3");
  EXPECT_EQ(log.count(failure), 3U);
  for (const auto& line : log.lines()) {
    if (line.text == failure) {
      EXPECT_EQ(line.func, "updateMLDBTranscodeStatus");
    }
  }
  EXPECT_THAT(ranks(), ElementsAre(1, 2, 3));
}

TEST_F(JobQueue, TheMarkCommandIsWaitedForWithoutAClock) {
  installMediaLibrary();
  queueSource("warm.mp3");
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) queueSource("s" + std::to_string(i) + ".mp3");
  // Ten fixed steps of half a second would take five.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  EXPECT_EQ(marks().size(), 11U);
}

TEST_F(JobQueue, AnOperationReturnsOnlyAfterItsMarkCommand) {
  const std::string begun = root.file("/begun");
  const std::string go = root.file("/go");
  root.script("/usr/local/medialibrary/bin/catalogcmd",
              ">'" + begun + "'; until [ -e '" + go + "' ]; do sleep 0.01; done\n");
  const std::string src = source("a.mp3");
  std::atomic<bool> returned = false;
  std::thread caller([&] {
    EXPECT_EQ(store->addDBJob(request(src)), 0);
    returned = true;
  });
  EXPECT_TRUE(kxtest::waitUntil([&] { return fs::exists(begun); }));
  EXPECT_FALSE(returned);
  kxtest::writeFile(go, "");
  caller.join();
  EXPECT_FALSE(log.has("update video status change to media library fail\n"));
}

// Writing single columns.

TEST_F(JobQueue, DatesAreStoredAsUnsigned32BitNumbers) {
  KxDBTaskParam job = queueSource("a.mp3");
  job.dateStart = 1700000000;
  job.dateFinish = (int64_t{1} << 32) + 5;
  EXPECT_EQ(store->updateDBJobDateStart(job), 0);
  EXPECT_EQ(store->updateDBJobDateFinish(job), 0);
  EXPECT_EQ(jobs()[0].dateStart, 1700000000);
  EXPECT_EQ(jobs()[0].dateFinish, 5);
  job.dateStart = -1;
  EXPECT_EQ(store->updateDBJobDateStart(job), 0);
  EXPECT_EQ(jobs()[0].dateStart, 4294967295);
}

TEST_F(JobQueue, TheHardwareStartIsNeverWrittenAndTheCallFails) {
  KxDBTaskParam job = queueSource("a.mp3");
  job.hwStart = 1;
  log.clear();
  EXPECT_EQ(store->updateDBJobHwStart(job), 1);
  EXPECT_THAT(log.texts(),
              ElementsAre("sqlite3_exec 'UPDATE JobTable SET HwStart = 1WHERE Id = 1' fail\n",
                          "unrecognized token: \"1WHERE\"\n"));
  EXPECT_EQ(jobs()[0].hwStart, 0);
}

TEST_F(JobQueue, NegativeIdsAreRefused) {
  const KxDBTaskParam nobody;
  EXPECT_EQ(store->updateDBJobStatus(nobody), 1);
  EXPECT_EQ(store->updateDBJobHwStart(nobody), 1);
  EXPECT_EQ(store->updateDBJobDateStart(nobody), 1);
  EXPECT_EQ(store->updateDBJobDateFinish(nobody), 1);
  EXPECT_EQ(store->deleteDBJobById(nobody), 1);
  EXPECT_EQ(log.count("invalid database id -1\n"), 5U);
}

TEST_F(JobQueue, AnEngineFailureFailsTheStatusUpdateBeforeTheMark) {
  installMediaLibrary();
  KxDBTaskParam job = queueSource("a.mp3");
  forgetMarks();
  change("CREATE TRIGGER t BEFORE UPDATE ON JobTable BEGIN SELECT RAISE(ABORT, 'refused'); END");
  job.status = 1;
  EXPECT_EQ(store->updateDBJobStatus(job), 1);
  EXPECT_TRUE(log.has("sqlite3_exec 'UPDATE JobTable SET Status = 1 WHERE Id = 1' fail\n"));
  EXPECT_TRUE(log.has("refused\n"));
  EXPECT_THAT(marks(), IsEmpty());
  EXPECT_EQ(store->addDBJob(request(job.src, 2)), 1);
  EXPECT_TRUE(log.has("step filed:refused\n"));
}

// Deleting.

TEST_F(JobQueue, DeletingAJobMovesThoseBehindItUp) {
  installMediaLibrary();
  queueAll({"a.mp3", "b.mp3", "c.mp3"});
  forgetMarks();
  EXPECT_EQ(store->deleteDBJobById(byId(2)), 0);
  EXPECT_THAT(places(), ElementsAre("a:1", "c:2"));
  const std::string b = folder / "b.mp3";
  EXPECT_TRUE(log.has("query cmd = SELECT SrcPath AS res FROM JobTable WHERE Id = 2\n"));
  EXPECT_TRUE(log.has("delete id=2 ---> srcPath=" + b + "\n"));
  EXPECT_TRUE(log.has("set " + b + " MLDB TranscodeStatus to 0\n"));
  EXPECT_THAT(marks(), ElementsAre(b + " 0"));
}

TEST_F(JobQueue, DeletingAMissingJobFails) {
  queueSource("a.mp3");
  EXPECT_EQ(store->deleteDBJobById(byId(9)), 1);
  EXPECT_TRUE(log.has("Invalid rank\n"));
  EXPECT_THAT(places(), ElementsAre("a:1"));
}

TEST_F(JobQueue, DeletingAFileMovesThoseBehindItUp) {
  installMediaLibrary();
  queueAll({"a.mp3", "b.mp3", "c.mp3"});
  forgetMarks();
  const std::string b = folder / "b.mp3";
  EXPECT_EQ(store->deleteDBJobByFilename(everyJobOf(b)), 0);
  EXPECT_THAT(places(), ElementsAre("a:1", "c:2"));
  EXPECT_THAT(marks(), ElementsAre(b + " 0"));
  EXPECT_TRUE(log.has("set " + b + " MLDB TranscodeStatus to 0\n"));
}

TEST_F(JobQueue, DeletingAFileWithSeveralJobsLeavesTheRanksDense) {
  queueAll({"a.mp3", "x.mp3", "b.mp3"});
  for (const int32_t aid : {1, 2}) {
    KxDBTaskParam more = request(folder / "x.mp3");
    more.aid = aid;
    queue(more);
    queueSource("between" + std::to_string(aid) + ".mp3");
  }
  ASSERT_THAT(places(), ElementsAre("a:1", "x:2", "b:3", "x:4", "between1:5", "x:6", "between2:7"));
  EXPECT_EQ(store->deleteDBJobByFilename(everyJobOf(folder / "x.mp3")), 0);
  EXPECT_THAT(places(), ElementsAre("a:1", "b:2", "between1:3", "between2:4"));
}

TEST_F(JobQueue, ADefaultRecordDeletesOnlyTheFilesWaitingWatcherJobs) {
  KxDBTaskParam param = request(source("a.mp3"));
  queue(param);
  param.insertType = 1;
  queue(param);
  param.insertType = 0;
  param.aid = 1;
  setStatus(queue(param).id, 1);
  ASSERT_EQ(ranks().size(), 3U);
  KxDBTaskParam selection;
  selection.src = param.src;
  EXPECT_EQ(store->deleteDBJobByFilename(selection), 0);
  EXPECT_THAT(ranks(), ElementsAre(1, 2));
  EXPECT_EQ(jobs()[0].insertType, 1);
  EXPECT_EQ(jobs()[1].status, 1);
}

TEST_F(JobQueue, DeletesByFileAndByFolderSelectByStatusAndInsertType) {
  // Every combination of status 0 and 2 with insert type 0 and 1, for each kind of selection.
  struct Case {
    int32_t status, insertType;
    size_t left;
  };
  for (const bool byFolder : {false, true}) {
    for (const Case& c : {Case{-1, -1, 0}, Case{-1, 1, 2}, Case{2, -1, 2}, Case{2, 1, 3},
                          Case{0, 0, 3}, Case{3, -1, 4}}) {
      change("DELETE FROM JobTable");
      KxDBTaskParam param = request(source("f/a.mp3"));
      for (const int32_t insertType : {0, 1}) {
        for (const int32_t status : {2, 0}) {
          param.insertType = insertType;
          ASSERT_EQ(store->addDBJob(param), 0);
          setStatus(jobs().back().id, status);
        }
      }
      ASSERT_THAT(ranks(), ElementsAre(1, 2, 3, 4));
      KxDBTaskParam selection = everyJobOf(byFolder ? folder / "f/" : param.src);
      selection.status = c.status;
      selection.insertType = c.insertType;
      const int result = byFolder ? store->deleteDBJobByDirname(selection)
                                  : store->deleteDBJobByFilename(selection);
      EXPECT_EQ(result, !byFolder && c.left == 4 ? 1 : 0);
      EXPECT_EQ(jobs().size(), c.left) << byFolder << c.status << c.insertType;
      for (const KxDBTaskParam& job : jobs()) {
        EXPECT_FALSE((c.status == -1 || job.status == c.status) &&
                     (c.insertType == -1 || job.insertType == c.insertType));
      }
    }
  }
}

TEST_F(JobQueue, DeletingAFileThatHasNoSuchJobFailsAndChangesNothing) {
  installMediaLibrary();
  queueAll({"a.mp3", "b.mp3"});
  forgetMarks();
  EXPECT_EQ(store->deleteDBJobByFilename(everyJobOf("/missing.mp3")), 1);
  EXPECT_TRUE(log.hasPart("Can not get result:"));
  KxDBTaskParam finished = everyJobOf(folder / "a.mp3");
  finished.status = 1;
  EXPECT_EQ(store->deleteDBJobByFilename(finished), 1);
  EXPECT_THAT(places(), ElementsAre("a:1", "b:2"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(JobQueue, DeletingByAnEmptyPathIsRefused) {
  queueSource("a.mp3");
  EXPECT_EQ(store->deleteDBJobByFilename(everyJobOf("")), 1);
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf("")), 1);
  EXPECT_EQ(log.count("invalid src path \n"), 2U);
  for (const auto& line : log.lines()) {
    if (line.text == "invalid src path \n") {
      EXPECT_EQ(line.func, "_deleteDBJobByName");
    }
  }
  EXPECT_EQ(jobs().size(), 1U);
}

TEST_F(JobQueue, AFolderDeleteClosesTheGapsButLeavesTheFirstRank) {
  installMediaLibrary();
  queueAll({"gone/a.mp3", "b.mp3", "gone/c.mp3", "d.mp3", "e.mp3"});
  forgetMarks();
  log.clear();
  const std::string gone = folder / "gone/";
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(gone)), 0);
  EXPECT_THAT(places(), ElementsAre("b:2", "d:3", "e:4"));
  std::vector<std::string> values;
  for (const std::string& text : log.texts())
    if (text.starts_with("value:")) values.push_back(text);
  EXPECT_THAT(values, ElementsAre("value:2\n", "value:4\n", "value:5\n"));
  // Only the folder's own path is marked, not its files.
  EXPECT_THAT(marks(), ElementsAre(gone + " 0"));
}

TEST_F(JobQueue, AFolderDeleteClosesSeveralGapsOfDifferentWidths) {
  queueAll(
      {"g/1.mp3", "a.mp3", "g/2.mp3", "g/3.mp3", "b.mp3", "c.mp3", "g/4.mp3", "d.mp3", "g/5.mp3"});
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "g/")), 0);
  EXPECT_THAT(places(), ElementsAre("a:2", "b:3", "c:4", "d:5"));
}

TEST_F(JobQueue, AFolderDeleteThatLeavesOneOrNoJobChangesNoRank) {
  queueAll({"g/1.mp3", "g/2.mp3", "a.mp3"});
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "g/")), 0);
  EXPECT_THAT(places(), ElementsAre("a:3"));
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "a")), 0);
  EXPECT_THAT(places(), IsEmpty());
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "a")), 0);
}

TEST_F(JobQueue, AFolderPathIsAPlainPrefixByteByByte) {
  queueAll({"My_Dir/a.mp3", "MyXDir/b.mp3", "my_dir/c.mp3", "My_Dir2/d.mp3", "100%/e.mp3",
            "100x/f.mp3"});
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "My_Dir/")), 0);
  EXPECT_THAT(places(), ElementsAre("b:2", "c:3", "d:4", "e:5", "f:6"));
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "100%")), 0);
  EXPECT_THAT(places(), ElementsAre("b:2", "c:3", "d:4", "f:5"));
  // Without the separator siblings go too.
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "My")), 0);
  EXPECT_THAT(places(), ElementsAre("c:3", "f:4"));
}

TEST_F(JobQueue, AFailedRankUpdateKeepsTheDelete) {
  queueAll({"a.mp3", "b.mp3", "c.mp3", "d.mp3"});
  change("CREATE TRIGGER t BEFORE UPDATE ON JobTable BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(store->deleteDBJobByFilename(everyJobOf(folder / "a.mp3")), 1);
  EXPECT_TRUE(log.has("sqlite3_exec 'UPDATE JobTable SET Rank = Rank - 1 WHERE Rank > 1;' fail\n"));
  EXPECT_TRUE(log.has("Can not update:refused\n"));
  EXPECT_EQ(store->deleteDBJobById(byId(3)), 1);
  EXPECT_THAT(places(), ElementsAre("b:2", "d:4"));
  change("DROP TRIGGER t");
  store->uninit();
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_THAT(places(), ElementsAre("b:2", "d:4"));
}

TEST_F(JobQueue, ARefusedDeleteFailsWithoutTouchingRanks) {
  queueAll({"a.mp3", "b.mp3"});
  change("CREATE TRIGGER t BEFORE DELETE ON JobTable BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(store->deleteDBJobByFilename(everyJobOf(folder / "a.mp3")), 1);
  EXPECT_EQ(store->deleteDBJobByDirname(everyJobOf(folder / "a")), 1);
  EXPECT_EQ(log.count("Exec failed:refused\n"), 2U);
  EXPECT_EQ(store->deleteDBJobById(byId(1)), 1);
  EXPECT_THAT(places(), ElementsAre("a:1", "b:2"));
}

TEST_F(JobQueue, CleaningRemovesByStateAndNeverRenumbers) {
  queueAll({"a.mp3", "b.mp3", "c.mp3", "d.mp3", "e.mp3"});
  for (const auto& [id, status] : std::vector<std::pair<int64_t, int32_t>>{{1, 1}, {3, 3}, {4, 2}})
    setStatus(id, status);
  EXPECT_EQ(store->cleanProcessedDBJob(), 0);
  EXPECT_THAT(places(), ElementsAre("b:2", "c:3", "e:5"));
  setStatus(5, 5);
  EXPECT_EQ(store->cleanUnprocessedDBJob(), 0);
  EXPECT_THAT(places(), ElementsAre("e:5"));
}

// Reordering.

TEST_F(JobQueue, SwappingTwoJobsExchangesTheirPlaces) {
  queueAll({"a.mp3", "b.mp3", "c.mp3"});
  EXPECT_EQ(store->swapDBJobOrder(1, 3), 0);
  EXPECT_THAT(places(), ElementsAre("c:1", "b:2", "a:3"));
  EXPECT_EQ(store->swapDBJobOrder(1, 2), 0);
  EXPECT_THAT(places(), ElementsAre("c:1", "a:2", "b:3"));
}

TEST_F(JobQueue, SwappingWithItselfOrAMissingJobFails) {
  queueAll({"a.mp3", "b.mp3"});
  EXPECT_EQ(store->swapDBJobOrder(1, 1), 1);
  EXPECT_TRUE(log.has("Invalid rank : 1:1, 1:0\n"));
  EXPECT_EQ(store->swapDBJobOrder(2, 9), 1);
  EXPECT_TRUE(log.has("Invalid rank : 2:2, 9:0\n"));
  EXPECT_EQ(store->swapDBJobOrder(9, 2), 1);
  EXPECT_TRUE(log.has("Invalid rank : 9:0, 2:2\n"));
  change("UPDATE JobTable SET Rank = 1");
  EXPECT_EQ(store->swapDBJobOrder(1, 2), 1);
  EXPECT_TRUE(log.has("Invalid rank : 1:1, 2:1\n"));
}

TEST_F(JobQueue, SwappingAddTimesExchangesOnlyThem) {
  queueAll({"a.mp3", "b.mp3"});
  change("UPDATE JobTable SET DateAdd = Id * 100");
  EXPECT_EQ(store->swapDBJobAddTime(1, 2), 0);
  EXPECT_EQ(jobs()[0].dateAdd, 200);
  EXPECT_EQ(jobs()[1].dateAdd, 100);
  EXPECT_THAT(places(), ElementsAre("a:1", "b:2"));
}

TEST_F(JobQueue, SwappingAddTimesWithAMissingJobWritesNothing) {
  queueAll({"a.mp3"});
  change("UPDATE JobTable SET DateAdd = 100");
  EXPECT_EQ(store->swapDBJobAddTime(1, 9), 1);
  EXPECT_EQ(store->swapDBJobAddTime(9, 1), 1);
  EXPECT_EQ(log.count("invalid database id 9\n"), 2U);
  EXPECT_EQ(jobs()[0].dateAdd, 100);
}
