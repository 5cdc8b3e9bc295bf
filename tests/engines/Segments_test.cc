#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "Misc.h"
#include "tests/engines/EngineFixture.h"

namespace fs = std::filesystem;
using kxtest::RecordingLog;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Makes every later fork of this process fail.
void refuseForks() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 2, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
  };
  const sock_fprog filter = {sizeof program / sizeof program[0], program};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) _exit(77);
}

std::string ask(const std::string& path, const std::string& entries) {
  const auto answer =
      kxtest::run({"ffprobe", "-v", "error", "-count_packets", "-select_streams", "v:0",
                   "-show_entries", entries, "-of", "default=nw=1:nk=1", path});
  return answer ? answer->substr(0, answer->find('\n')) : "";
}

int videoFrames(const std::string& path) {
  return atoi(ask(path, "stream=nb_read_packets").c_str());
}

// Time stamps of the video's packets in decoding order of a file, in its own units.
std::vector<long> videoTimes(const std::string& path) {
  const auto text = kxtest::run({"ffprobe", "-v", "error", "-select_streams", "v:0",
                                 "-show_entries", "packet=pts", "-of", "csv=p=0", path});
  std::vector<long> times;
  std::istringstream lines(text.value_or(""));
  for (std::string line; std::getline(lines, line);) times.push_back(atol(line.c_str()));
  std::ranges::sort(times);
  return times;
}

}  // namespace

// The shipped front-end and configuration, on a machine that transcodes in pieces.
class Segments : public kxtest::EngineTest {
 protected:
  Segments() {
    fs::remove(root.file("/usr/local/medialibrary/bin/ffmpeg"));
    staged =
        kxtest::run({std::string(KX_SOURCE_DIR) + "/scripts/stage-root", root.path(), KX_BUILD_DIR})
            .has_value();
    setPlatform("X86_GENERIC");
  }

  void setPlatform(const std::string& name) {
    root.write("/etc/platform.conf", "Platform = " + name + "\n");
  }

  // A film of the given length with a key frame every 20 seconds and a little sound.
  std::string film(const std::string& name, int seconds, std::vector<std::string> options = {}) {
    std::vector<std::string> argv = kxtest::quietFfmpeg(
        {"-f",       "lavfi",     "-i",   "testsrc=s=64x48:r=2:d=" + std::to_string(seconds),
         "-f",       "lavfi",     "-i",   "sine=r=44100:d=3",
         "-pix_fmt", "yuv420p",   "-c:v", "libx264",
         "-preset",  "ultrafast", "-bf",  "2",
         "-g",       "40",        "-c:a", "aac"});
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(media(name));
    if (!kxtest::run(argv)) ADD_FAILURE() << "cannot make " << name;
    return media(name);
  }

  TranscodeParam longJob(const std::string& source) const {
    TranscodeParam param = job(source);
    param.m_aid = 0;
    param.m_width = 32;
    param.m_height = 24;
    return param;
  }

  // Transcodes a piece as the service does: pieces have no sound.
  int transcodePiece(const Seg_t& segment, const TranscodeParam& whole) {
    TranscodeParam param = whole;
    param.m_inFile = segment.segIn;
    param.m_outFile = segment.segOut;
    param.m_aid = -1;
    KxTranscoder transcoder;
    if (transcoder.init(param) != 0) return -1;
    KxResource2 cpu = resource(RES2_SW_CPU);
    return finish(transcoder.transcode(cpu, true));
  }

  std::vector<std::string> segmentTexts(const RecordingLog& log) const {
    std::vector<std::string> texts;
    for (const auto& line : log.lines()) {
      if (line.source == "KxTranscoder" &&
          (line.func == "doSegment" || line.func == "doMerge" || line.func.starts_with("gen")))
        texts.push_back(line.text);
    }
    return texts;
  }

  bool staged = false;
};

TEST_F(Segments, ALongFilmIsCutTranscodedAndJoinedWithoutLosingAFrame) {
  ASSERT_TRUE(staged);
  TranscodeParam param = longJob(film("film.mp4", 1210));
  param.m_aBitrate = 128000;
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  ASSERT_EQ(transcoder.doSegment(), 0);
  EXPECT_THAT(segmentTexts(log), ElementsAre("h264 support segment transcode\n",
                                             "model: X86_GENERIC, support segment transcode\n"));
  const std::vector<Seg_t> segments = transcoder.getSegments();
  ASSERT_EQ(segments.size(), 11U);
  EXPECT_EQ(segments[10].segIn, transcoder.getWorkFolder() + "segment_00010.mp4");
  for (const Seg_t& segment : segments) {
    EXPECT_EQ(ask(segment.segIn, "stream=codec_name"), "h264");
    ASSERT_EQ(transcodePiece(segment, param), 0);
  }
  ASSERT_EQ(transcoder.doMerge(), 0) << kxtest::readFile(transcoder.getProgressLogPath());
  EXPECT_EQ(videoFrames(param.m_outFile), videoFrames(param.m_inFile));
  const auto audio = kxtest::run({"ffprobe", "-v", "error", "-select_streams", "a", "-show_entries",
                                  "stream=codec_name", "-of", "csv=p=0", param.m_outFile});
  EXPECT_EQ(audio.value_or(""), "aac\n");
  const std::vector<long> times = videoTimes(param.m_outFile);
  ASSERT_GT(times.size(), 2U);
  for (size_t i = 2; i < times.size(); ++i)
    ASSERT_EQ(times[i] - times[i - 1], times[1] - times[0]) << "gap at frame " << i;
  EXPECT_TRUE(log.has("goto default format\n"));
}

TEST_F(Segments, TheJoinGoesOnWithoutAMissingPiece) {
  ASSERT_TRUE(staged);
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  ASSERT_EQ(transcoder.doSegment(), 0);
  const std::vector<Seg_t> segments = transcoder.getSegments();
  ASSERT_EQ(segments.size(), 10U);
  int kept = 0;
  for (size_t i = 0; i < 3; ++i) {
    if (i == 1) continue;
    fs::copy_file(segments[i].segIn, segments[i].segOut);
    kept += videoFrames(segments[i].segIn);
  }
  // No sound: the file beside the pieces has none, so the result has none.
  RecordingLog log;
  ASSERT_EQ(transcoder.doMerge(), 0);
  EXPECT_TRUE(log.has("segOut file " + segments[1].segOut + " do not exist, skip it\n"));
  EXPECT_EQ(videoFrames(param.m_outFile), kept);
}

TEST_F(Segments, ASourceThatDoesNotQualifyIsNotCut) {
  const std::string shorter = film("short.mp4", 1199, {"-an"});
  TranscodeParam param = longJob(shorter);
  param.m_aid = -1;
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_NE(transcoder.doSegment(), 0);
  EXPECT_TRUE(log.has(5, "KxTranscoder",
                      shorter + " duration is less than 1200, we do not use segment transcode\n"));
  EXPECT_THAT(transcoder.getSegments(), IsEmpty());
  EXPECT_FALSE(fs::exists(transcoder.getWorkFolder() + "reAudio.mp4"));

  const std::string mpeg4 = film("mpeg4.mp4", 1210, {"-an", "-c:v", "mpeg4"});
  param.m_inFile = mpeg4;
  KxTranscoder other;
  ASSERT_EQ(other.init(param), 0);
  EXPECT_NE(other.doSegment(), 0);
  EXPECT_TRUE(log.has("non-h264 and non-hevc do not support segment transcode\n"));
}

TEST_F(Segments, AMachineThatDoesNotCutLeavesTheSourceWhole) {
  setPlatform("X86_STEPPEEAGLE");
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  param.m_aid = -1;
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_NE(transcoder.doSegment(), 0);
  EXPECT_THAT(segmentTexts(log),
              ElementsAre("h264 support segment transcode\n",
                          "model: X86_STEPPEEAGLE, do not support segment transcode\n"));
  fs::remove(root.file("/etc/platform.conf"));
  log.clear();
  EXPECT_NE(transcoder.doSegment(), 0);
  EXPECT_THAT(segmentTexts(log), ElementsAre("h264 support segment transcode\n",
                                             "model: , do not support segment transcode\n"));
}

TEST_F(Segments, EachFailingChildEndsTheCutWithTheSameText) {
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  const std::string trace = media("trace");
  for (const bool audioFails : {true, false}) {
    root.script("/usr/local/medialibrary/bin/ffmpeg", "case \"$*\" in *segment*) echo cut >>'" +
                                                          trace + "'; exit 3 ;; esac\n" +
                                                          (audioFails ? "exit 4\n" : "exit 0\n"));
    RecordingLog log;
    EXPECT_NE(transcoder.doSegment(), 0);
    EXPECT_THAT(segmentTexts(log),
                ElementsAre("h264 support segment transcode\n",
                            "model: X86_GENERIC, support segment transcode\n", "reAudio fail\n"));
    EXPECT_TRUE(log.has(audioFails ? "child normal exit, ret=4\n" : "child normal exit, ret=3\n"));
    EXPECT_EQ(fs::exists(trace), !audioFails);
    EXPECT_THAT(transcoder.getSegments(), IsEmpty());
  }
}

TEST_F(Segments, TheWaiterEndsARunningChildAtOnce) {
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  root.script("/usr/local/medialibrary/bin/ffmpeg", "exec sleep 600\n");
  std::vector<int> children;
  transcoder.setChildWaiter([&](int pid) {
    children.push_back(pid);
    return miscAnalysisRet(ChildProcess::adopt(pid).terminate(std::chrono::seconds(5)));
  });
  RecordingLog log;
  EXPECT_NE(transcoder.doSegment(), 0);
  ASSERT_EQ(children.size(), 1U);
  EXPECT_NE(kill(children[0], 0), 0);
  EXPECT_TRUE(log.has("reAudio fail\n"));
}

TEST_F(Segments, AMissingSourceOrWorkFolderGivesNoCommand) {
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  const std::string work = transcoder.getWorkFolder();
  EXPECT_EQ(transcoder.genFfmpegReAudioParams_().back(), work + "reAudio.mp4");
  EXPECT_EQ(transcoder.genFfmpegSegmentParams_().back(), work + "segment_%05d.mp4");
  EXPECT_EQ(transcoder.genFfmpegSegmentParams_().front(),
            root.file("/usr/local/medialibrary/bin/ffmpeg"));

  fs::remove_all(work);
  RecordingLog log;
  EXPECT_THAT(transcoder.genFfmpegReAudioParams_(), IsEmpty());
  EXPECT_THAT(transcoder.genFfmpegSegmentParams_(), IsEmpty());
  EXPECT_EQ(log.count("misc folder " + work + " invalid or do not exist\n"), 2U);
  EXPECT_NE(transcoder.doSegment(), 0);
  EXPECT_TRUE(log.has("genFfmpegReAudioParams_() fail\n"));

  fs::create_directories(work);
  fs::remove(param.m_inFile);
  log.clear();
  EXPECT_THAT(transcoder.genFfmpegSegmentParams_(), IsEmpty());
  EXPECT_TRUE(log.has("src " + param.m_inFile + " is invalid or do not exist\n"));
  root.script("/usr/local/medialibrary/bin/ffmpeg", "exit 0\n");
  EXPECT_NE(transcoder.doSegment(), 0);
  EXPECT_TRUE(log.has("genFfmpegSegmentParams_() fail\n"));
}

TEST_F(Segments, AJoinWithoutPiecesFails) {
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_NE(transcoder.doMerge(), 0);
  EXPECT_THAT(log.texts(), ElementsAre("m_segVec is empty, can not do merge\n"));
}

TEST_F(Segments, AJoinThatFailsSaysSo) {
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  ASSERT_EQ(transcoder.doSegment(), 0);
  RecordingLog log;
  EXPECT_NE(transcoder.doMerge(), 0);  // no piece has a result
  EXPECT_TRUE(log.has(5, "KxTranscoder", "merge segment fail\n"));
  EXPECT_EQ(transcoder.getSegments().size(), 10U);

  fs::remove(transcoder.getWorkFolder() + "merge_list");
  fs::create_directory(transcoder.getWorkFolder() + "merge_list");
  EXPECT_NE(transcoder.doMerge(), 0);
  EXPECT_TRUE(
      log.has("can not create merge list -> " + transcoder.getWorkFolder() + "/merge_list\n"));
}

TEST_F(Segments, AChildThatCannotBeStartedIsTold) {
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  ASSERT_EQ(transcoder.doSegment(), 0);
  const auto child = [&] {
    RecordingLog log;
    refuseForks();
    const bool told = transcoder.doMerge() != 0 && log.has("launch merge segment cmd fail\n") &&
                      transcoder.doSegment() != 0 && log.has("launch reAudio cmd fail\n");
    _exit(told ? 0 : 1);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

TEST_F(Segments, ACutThatCannotBeStartedIsTold) {
  TranscodeParam param = longJob(film("film.mp4", 1200, {"-an"}));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  const auto child = [&] {
    transcoder.setChildWaiter([](int pid) {
      const int result = miscAnalysisRet(ChildProcess::adopt(pid).wait());
      refuseForks();
      return result;
    });
    RecordingLog log;
    const bool told = transcoder.doSegment() != 0 && log.has("launch segment cmd fail\n");
    _exit(told ? 0 : 1);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}
