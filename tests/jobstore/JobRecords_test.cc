#include "tests/jobstore/JobStoreFixture.h"

using kxtest::RecordingLog;
using testing::ElementsAre;

namespace {

KxDBTaskParam sample() {
  KxDBTaskParam job;
  job.id = 12;
  job.src = "/share/a:b.mkv";
  job.dst = "/out";
  job.dateAdd = 100;
  job.dateStart = 200;
  job.dateFinish = 300;
  job.status = 3;
  job.jobFlag = 0x2f;
  job.insertType = 1;
  job.fileSize = 5000000000;
  job.rotation = 90;
  job.duration = 60;
  job.width = 1920;
  job.height = 1080;
  job.aid = 1;
  job.sid = 2;
  job.subtitle = "s.srt";
  job.subSize = 20;
  job.subSeek = -3;
  job.subColor = "red";
  job.priority = 4;
  job.hwStart = 5;
  job.mediaType = 2;
  job.rank = 6;
  job.vid = 7;
  return job;
}

}  // namespace

TEST(JobRecords, AFreshJobHasNoIdNoSubtitleAndZeroesElsewhere) {
  const KxDBTaskParam job;
  EXPECT_EQ(job.id, -1);
  EXPECT_EQ(job.sid, -1);
  EXPECT_EQ(job.src, "");
  EXPECT_EQ(job.dst, "");
  EXPECT_EQ(job.subtitle, "");
  EXPECT_EQ(job.subColor, "");
  for (const int64_t number : {job.dateAdd, job.dateStart, job.dateFinish, job.fileSize, job.rank})
    EXPECT_EQ(number, 0);
  EXPECT_EQ(job.jobFlag, 0U);
  for (const int32_t number :
       {job.status, job.insertType, job.rotation, job.duration, job.width, job.height, job.aid,
        job.subSize, job.subSeek, job.priority, job.hwStart, job.mediaType, job.vid})
    EXPECT_EQ(number, 0);
}

TEST(JobRecords, ClearRestoresEveryDefault) {
  KxDBTaskParam job = sample();
  job.clear();
  RecordingLog log;
  job.dump();
  const auto cleared = log.texts();
  log.clear();
  KxDBTaskParam().dump();
  EXPECT_EQ(cleared, log.texts());
}

TEST(JobRecords, JobsThatDifferOnlyInStateAndSizesAreEqual) {
  const KxDBTaskParam job = sample();
  KxDBTaskParam other = job;
  other.dateAdd = other.dateStart = other.dateFinish = other.fileSize = other.rank = 99;
  other.status = other.rotation = other.duration = other.width = other.height = 99;
  other.priority = other.hwStart = other.mediaType = 99;
  EXPECT_TRUE(job == other);
}

TEST(JobRecords, EachIdentifyingFieldMakesJobsDifferent) {
  const std::vector<void (*)(KxDBTaskParam&)> changes = {
      [](KxDBTaskParam& j) { j.id = 99; },         [](KxDBTaskParam& j) { j.src = "x"; },
      [](KxDBTaskParam& j) { j.dst = "x"; },       [](KxDBTaskParam& j) { j.jobFlag = 99; },
      [](KxDBTaskParam& j) { j.insertType = 99; }, [](KxDBTaskParam& j) { j.aid = 99; },
      [](KxDBTaskParam& j) { j.sid = 99; },        [](KxDBTaskParam& j) { j.subtitle = "x"; },
      [](KxDBTaskParam& j) { j.subSize = 99; },    [](KxDBTaskParam& j) { j.subSeek = 99; },
      [](KxDBTaskParam& j) { j.subColor = "x"; },  [](KxDBTaskParam& j) { j.vid = 99; }};
  for (size_t i = 0; i < changes.size(); ++i) {
    KxDBTaskParam other = sample();
    changes[i](other);
    EXPECT_FALSE(sample() == other) << "change " << i;
  }
}

TEST(JobRecords, TheDefaultLineKeepsItsFieldOrder) {
  EXPECT_EQ(sample().genDefaultOutput(0),
            "12:/share/a:b.mkv:100:300:3:1:2f:200:5000000000:1920x1080:60\n");
}

TEST(JobRecords, TheDefaultLineEndsInTheExtraNumberFromOneUp) {
  KxDBTaskParam job = sample();
  EXPECT_EQ(job.genDefaultOutput(0), job.genDefaultOutput(-5));
  EXPECT_EQ(job.genDefaultOutput(7),
            "12:/share/a:b.mkv:100:300:3:1:2f:200:5000000000:1920x1080:60:7\n");
  EXPECT_EQ(job.genDefaultOutput(1).substr(job.genDefaultOutput(1).size() - 3), ":1\n");
}

TEST(JobRecords, ADefaultLineThatIsTooLongIsCutAndStillEnds) {
  KxDBTaskParam job = sample();
  job.src = std::string(5000, 'a');
  const std::string line = job.genDefaultOutput(7);
  EXPECT_EQ(line, "12:" + std::string(4092, 'a') + ":7\n");
}

TEST(JobRecords, AJobIsDumpedInSevenLines) {
  RecordingLog log;
  sample().dump();
  EXPECT_THAT(log.texts(),
              ElementsAre("id=12, src=/share/a:b.mkv, dst=/out\n",
                          "dateAdd=100, dateStart=200, dateFinish=300\n",
                          "status=3, jobFlag=47, insertType=1\n",
                          "fileSize=5000000000, rotation=90, duration=60\n",
                          "width=1920, height=1080, aid=1\n",
                          "sid=2, subtitle=s.srt, subSize=20, subSeek=-3, subColor=red\n",
                          "priority=4, hwStart=5, mediaType=2, rank=6, vid=7\n"));
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.level, 5);
    EXPECT_EQ(line.source, "KxDBTask");
    EXPECT_EQ(line.func, "dump");
  }
}

TEST(JobRecords, ATaskIsEmptyUntilItGetsAJob) {
  KxDBTask task;
  EXPECT_TRUE(task.isEmpty);
  KxDBTaskParam job = sample();
  EXPECT_EQ(task.init(job), 0);
  EXPECT_FALSE(task.isEmpty);
  EXPECT_TRUE(task.param == job);
  EXPECT_EQ(task.param.rank, 6);
  EXPECT_EQ(task.param.dateFinish, 300);
  task.clear();
  EXPECT_TRUE(task.isEmpty);
  EXPECT_TRUE(task.param == KxDBTaskParam());
}

TEST(JobRecords, TasksAreEqualWhenFlagAndJobAre) {
  KxDBTaskParam job = sample();
  KxDBTask a;
  KxDBTask b;
  EXPECT_TRUE(a == b);
  a.init(job);
  EXPECT_FALSE(a == b);
  b.param = job;
  EXPECT_FALSE(a == b);
  b.init(job);
  EXPECT_TRUE(a == b);
  job.aid = 99;
  b.init(job);
  EXPECT_FALSE(a == b);
}

TEST(JobRecords, ATaskDumpsItsFlagBeforeTheJob) {
  KxDBTask task;
  RecordingLog log;
  task.dump();
  const auto texts = log.texts();
  ASSERT_EQ(texts.size(), 9U);
  EXPECT_EQ(texts[0], "---KxDBTask:\n");
  EXPECT_EQ(texts[1], "isEmpty=1\n");
  EXPECT_EQ(texts[2], "id=" + std::to_string(~0UL) + ", src=, dst=\n");
}

TEST(JobRecords, AQueryTakesItsArgumentsInOrder) {
  KxDBGetJobParam query(0b1001, 10, "Rank", 20, true, 1, 2);
  EXPECT_EQ(query.flagSet.to_ulong(), 9U);
  EXPECT_EQ(query.limit, 10);
  EXPECT_EQ(query.orderBy, "Rank");
  EXPECT_EQ(query.offset, 20);
  EXPECT_TRUE(query.isOrderASC);
  EXPECT_EQ(query.insertType, 1);
  EXPECT_EQ(query.mediaType, 2);
  query.setValue(0b10, 11, "Id", 21, false, -1, 0);
  RecordingLog log;
  query.dump();
  EXPECT_THAT(log.texts(),
              ElementsAre("---KxDBGetJobParam---", "FlagSet: 00000010\n", "LimitNum: 11\n",
                          "Offset:21\n", "InsertType: -1\n", "MediaType: 0\n", "IsOrderASC:0\n",
                          "OrderBy:Id\n", "------"));
}

TEST(JobRecords, ATrackedFileTakesItsArgumentsInOrder) {
  KxDBMgrFileParam file("a.mkv", "/share/", 5, 6);
  EXPECT_EQ(file.filename, "a.mkv");
  EXPECT_EQ(file.fullpath, "/share/");
  EXPECT_EQ(file.modifiedTime, 5);
  EXPECT_EQ(file.filesize, 6);
  file.setValue("b.mkv", "/other/", 7, 5000000000);
  RecordingLog log;
  file.dump();
  EXPECT_THAT(log.texts(),
              ElementsAre("---KxDBMgrFileParam---", "Filename: b.mkv\n", "Fullpath: /other/\n",
                          "ModifiedTime: 7\n", "Filesize: 5000000000\n"));
}

TEST(JobRecords, AnOldJobDumpsItsMediaTypeWithTheStatus) {
  Kx43xDBTaskParam job;
  job.id = 3;
  job.src = "a";
  job.dst = "b";
  job.mediaType = 2;
  job.status = 1;
  job.jobFlag = 4;
  job.insertType = 1;
  job.fileSize = 9;
  RecordingLog log;
  job.dump();
  EXPECT_THAT(log.texts(),
              ElementsAre("dump Kx43xDBTaskParam:\n", "id=3, src=a, dst=b\n",
                          "dateAdd=0, dateStart=0, dateFinish=0\n",
                          "status=1, jobFlag=4, insertType=1, mediaType=2\n",
                          "fileSize=9, rotation=0, duration=0\n", "width=0, height=0, aid=0\n",
                          "sid=-1, subtitle=, subSize=0, subSeek=0, subColor=\n"));
}
