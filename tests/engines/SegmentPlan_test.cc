#include "engines/SegmentPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engines/SegmentMerge.h"
#include "tests/engines/Notes.h"
#include "tests/support/TestSupport.h"

using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::textsOf;
using kxtest::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Words = std::vector<std::string>;

TranscodeParam job() {
  TranscodeParam param;
  param.m_inFile = "/media/film.mkv";
  param.m_outFile = "/out/film.mp4";
  param.m_formatId = KX_FORMAT_MP4;
  return param;
}

KxStream video(int codec) {
  KxStream stream;
  stream.m_isEmpty = false;
  stream.m_codecId = codec;
  return stream;
}

struct Verdict {
  bool accepted;
  Words texts;
};

Verdict judge(const TranscodeParam& param, int duration, const KxStream& stream) {
  std::vector<engines::EngineNote> notes;
  const bool accepted = engines::sourceCanBeCut(param, duration, stream, notes);
  return {accepted, textsOf(notes, "doSegment")};
}

Verdict judgePlatform(const std::string& name, int type) {
  std::vector<engines::EngineNote> notes;
  const bool accepted = engines::platformCanCut(name, type, notes);
  return {accepted, textsOf(notes, "doSegment")};
}

Words sideAudio(const TranscodeParam& param) {
  return engines::sideAudioCommand("/ffmpeg", "/in", param, "/work/reAudio.mp4");
}

Words merge(const TranscodeParam& param, Words* texts = nullptr) {
  std::vector<engines::EngineNote> notes;
  Words words =
      engines::mergeCommand("/ffmpeg", "/work//merge_list", "/work/reAudio.mp4", param, notes);
  if (texts != nullptr) *texts = textsOf(notes, "doMerge");
  return words;
}

Words doMergeTexts(const RecordingLog& log) {
  Words texts;
  for (const auto& line : log.lines())
    if (line.source == "KxTranscoder" && line.func == "doMerge") texts.push_back(line.text);
  return texts;
}

}  // namespace

TEST(SegmentPlan, ASourceOf1200SecondsIsCutAndOneOf1199IsNot) {
  const Verdict shorter = judge(job(), 1199, video(28));
  EXPECT_FALSE(shorter.accepted);
  EXPECT_THAT(shorter.texts, ElementsAre("/media/film.mkv duration is less than 1200, we do not "
                                         "use segment transcode\n"));
  const Verdict longer = judge(job(), 1200, video(28));
  EXPECT_TRUE(longer.accepted);
  EXPECT_THAT(longer.texts, ElementsAre("h264 support segment transcode\n"));
}

TEST(SegmentPlan, OnlyH264AndHevcAreCut) {
  EXPECT_THAT(judge(job(), 5000, video(174)).texts,
              ElementsAre("hevc support segment transcode\n"));
  EXPECT_TRUE(judge(job(), 5000, video(174)).accepted);
  for (const int codec : {13 /* MPEG-4 Part 2 */, 168 /* VP9 */, 27, 173, 0}) {
    const Verdict other = judge(job(), 5000, video(codec));
    EXPECT_FALSE(other.accepted) << codec;
    EXPECT_THAT(other.texts, ElementsAre("non-h264 and non-hevc do not support segment "
                                         "transcode\n"));
  }
}

TEST(SegmentPlan, ASubtitleKeepsASourceWholeWhateverItsLength) {
  TranscodeParam external = job();
  external.m_subtitle = "/media/film.srt";
  TranscodeParam embedded = job();
  embedded.m_sid = 0;
  for (const TranscodeParam& param : {external, embedded}) {
    const Verdict verdict = judge(param, 100000, video(28));
    EXPECT_FALSE(verdict.accepted);
    EXPECT_THAT(verdict.texts, ElementsAre("subtitle do not support segment transcode\n"));
  }
}

TEST(SegmentPlan, TheFirstReasonInOrderIsTheOneThatIsLogged) {
  TranscodeParam param = job();
  param.m_sid = 0;
  EXPECT_THAT(judge(param, 10, KxStream()).texts, ElementsAre("can not get video stream info\n"));
  EXPECT_THAT(judge(param, 10, video(1)).texts,
              ElementsAre(testing::HasSubstr("duration is less than 1200")));
  EXPECT_THAT(judge(param, 1200, video(1)).texts,
              ElementsAre("subtitle do not support segment transcode\n"));
}

TEST(SegmentPlan, SixKindsOfMachinesDoNotCut) {
  for (int type = 0; type <= 17; ++type) {
    const bool refused =
        type == 0 || type == 5 || type == 7 || type == 11 || type == 12 || type == 17;
    const Verdict verdict = judgePlatform("MODEL", type);
    EXPECT_EQ(verdict.accepted, !refused) << type;
    EXPECT_THAT(verdict.texts,
                ElementsAre(refused ? "model: MODEL, do not support segment transcode\n"
                                    : "model: MODEL, support segment transcode\n"))
        << type;
  }
}

TEST(SegmentPlan, TheSideAudioIsEncodedOnce) {
  EXPECT_THAT(sideAudio(job()),
              ElementsAre("/ffmpeg", "-y", "-i", "/in", "-c:v", "copy", "-strict", "-2", "-c:a",
                          "aac", "-ac", "2", "-ar", "44100", "-f", "mp4", "/work/reAudio.mp4"));
  TranscodeParam mono = job();
  mono.m_aChannel = 1;
  mono.m_formatId = KX_FORMAT_MATROSKA;
  EXPECT_THAT(sideAudio(mono),
              ElementsAre("/ffmpeg", "-y", "-i", "/in", "-c:v", "copy", "-strict", "-2", "-c:a",
                          "aac", "-ac", "1", "-ar", "44100", "-f", "mp4", "/work/reAudio.mp4"));
}

TEST(SegmentPlan, TheSideAudioIsChosenByTheNumberOfTheVideo) {
  TranscodeParam param = job();
  param.m_vid = 0;
  param.m_aid = 2;
  EXPECT_THAT(sideAudio(param), ElementsAre("/ffmpeg", "-y", "-i", "/in", "-c:v", "copy", "-strict",
                                            "-2", "-map", "0:a:0", "-c:a", "aac", "-ac", "2", "-ar",
                                            "44100", "-f", "mp4", "/work/reAudio.mp4"));
  param.m_vid = 3;
  param.m_aid = 1;
  EXPECT_THAT(sideAudio(param),
              ElementsAre("/ffmpeg", "-y", "-i", "/in", "-map", "0:v:3", "-c:v", "copy", "-strict",
                          "-2", "-map", "0:a:3", "-c:a", "aac", "-ac", "2", "-ar", "44100", "-f",
                          "mp4", "/work/reAudio.mp4"));
  param.m_aid = 0;
  EXPECT_THAT(sideAudio(param), ElementsAre("/ffmpeg", "-y", "-i", "/in", "-map", "0:v:3", "-c:v",
                                            "copy", "-strict", "-2", "-c:a", "aac", "-ac", "2",
                                            "-ar", "44100", "-f", "mp4", "/work/reAudio.mp4"));
}

TEST(SegmentPlan, PiecesTakeTheContainerOfTheResult) {
  struct Row {
    int formatId;
    const char* name;
    const char* pattern;
  };
  for (const Row& row :
       {Row{1, "avi", "/work/segment_%05d.avi"}, Row{2, "asf", "/work/segment_%05d.asf"},
        Row{4, "mp4", "/work/segment_%05d.mp4"}, Row{5, "mpegts", "/work/segment_%05d.ts"},
        Row{6, "matroska", "/work/segment_%05d.mkv"}, Row{7, "flv", "/work/segment_%05d.flv"},
        Row{3, "mp4", "/work/segment_%05d.mp4"}, Row{9, "mp4", "/work/segment_%05d.mp4"}}) {
    EXPECT_THAT(engines::cutCommand("/ffmpeg", "/in", row.formatId, "/work/"),
                ElementsAre("/ffmpeg", "-y", "-i", "/in", "-c:v", "copy", "-an", "-f", "segment",
                            "-segment_time", "120", "-segment_format", row.name, row.pattern));
  }
}

TEST(SegmentPlan, PiecesAreCollectedUpToTheFirstMissingNumber) {
  const TempDir folder;
  const std::string work = folder.path().string() + "/";
  EXPECT_THAT(engines::collectSegments(work, 4), IsEmpty());
  for (const char* name :
       {"segment_00000.mp4", "segment_00001.mp4", "segment_00003.mp4", "segment_00002.mkv"})
    writeFile(work + name, "x");
  const std::vector<Seg_t> segments = engines::collectSegments(work, 4);
  ASSERT_EQ(segments.size(), 2U);
  EXPECT_EQ(segments[0].segIn, work + "segment_00000.mp4");
  EXPECT_EQ(segments[0].segOut, work + "merge_segment_00000.mp4");
  EXPECT_EQ(segments[1].segIn, work + "segment_00001.mp4");
  EXPECT_EQ(segments[1].segOut, work + "merge_segment_00001.mp4");
}

TEST(SegmentMerge, TheSamplingRateSwitchTakesTheBitRate) {
  TranscodeParam param = job();
  Words texts;
  EXPECT_THAT(merge(param, &texts),
              ElementsAre("/ffmpeg", "-y", "-f", "concat", "-i", "/work//merge_list", "-i",
                          "/work/reAudio.mp4", "-map", "0:v:0?", "-c:v", "copy", "-strict", "-2",
                          "-map", "1:a:0?", "-c:a", "aac", "/out/film.mp4"));
  EXPECT_THAT(texts, ElementsAre("goto default format\n"));
  param.m_aChannel = 2;
  param.m_aBitrate = 128000;
  param.m_aSampleRate = 48000;
  EXPECT_THAT(merge(param), ElementsAre("/ffmpeg", "-y", "-f", "concat", "-i", "/work//merge_list",
                                        "-i", "/work/reAudio.mp4", "-map", "0:v:0?", "-c:v", "copy",
                                        "-strict", "-2", "-map", "1:a:0?", "-c:a", "aac", "-ac",
                                        "2", "-ar", "128000", "/out/film.mp4"));
}

TEST(SegmentMerge, FourContainersAreNamed) {
  const auto formatOf = [](int formatId, Words& texts) {
    TranscodeParam param = job();
    param.m_formatId = formatId;
    const Words words = merge(param, &texts);
    EXPECT_EQ(words.back(), "/out/film.mp4");
    const bool named = words[words.size() - 3] == "-f" && words.size() > 18;
    return named ? words[words.size() - 2] : std::string();
  };
  Words texts;
  for (const auto& [formatId, name] :
       {std::pair{1, "avi"}, {2, "asf"}, {6, "matroska"}, {7, "flv"}}) {
    EXPECT_EQ(formatOf(formatId, texts), name);
    EXPECT_THAT(texts, IsEmpty());
  }
  for (const int formatId : {0, 3, 4, 5, 8, 9}) {
    EXPECT_EQ(formatOf(formatId, texts), "") << formatId;
    EXPECT_THAT(texts, ElementsAre("goto default format\n"));
  }
}

TEST(SegmentMerge, APieceWithoutAResultIsLeftOutOfTheList) {
  const TempDir folder;
  const std::string list = folder / "merge_list";
  const std::vector<Seg_t> segments = {
      {"", folder / "merge_0"}, {"", folder / "merge_1"}, {"", folder / "merge it's_2"}};
  writeFile(segments[0].segOut, "x");
  writeFile(segments[2].segOut, "x");
  const RecordingLog log;
  EXPECT_TRUE(engines::writeMergeList(list, segments));
  EXPECT_EQ(kxtest::readFile(list),
            "file \"" + segments[0].segOut + "\"\nfile \"" + segments[2].segOut + "\"\n");
  EXPECT_THAT(doMergeTexts(log),
              ElementsAre("write " + segments[0].segOut + " to merge list\n",
                          "segOut file " + segments[1].segOut + " do not exist, skip it\n",
                          "write " + segments[2].segOut + " to merge list\n"));
}

TEST(SegmentMerge, AListThatCannotBeMadeOrWrittenFails) {
  const TempDir folder;
  const std::vector<Seg_t> segments = {{"", folder / "merge_0"}};
  writeFile(segments[0].segOut, "x");
  RecordingLog log;
  EXPECT_FALSE(engines::writeMergeList(folder / "absent/merge_list", segments));
  EXPECT_THAT(doMergeTexts(log),
              ElementsAre("can not create merge list -> " + (folder / "absent/merge_list") + "\n"));
  log.clear();
  EXPECT_FALSE(engines::writeMergeList("/dev/full", segments));
  EXPECT_THAT(doMergeTexts(log),
              ElementsAre("can not write " + segments[0].segOut + " to mergeList /dev/full\n",
                          "some error occur, can not merge segment\n"));
}
