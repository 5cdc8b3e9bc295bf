#include "resources/ResultCheck.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <filesystem>

#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"
#include "resources/ContainerShape.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using namespace runner;
using kxtest::makeClip;
using kxtest::TempDir;
using kxtest::writeFile;
using testing::Test;

namespace {

bool always() {
  return true;
}

SourceFacts probedFacts(const std::string& path) {
  KxMediaInfo info;
  info.init(path);
  return factsOf(path, info);
}

std::string faultOf(const std::string& result, const std::string& source,
                    const ExpectedResult& expected = {0, 0}) {
  return resultFault(result, probedFacts(source), expected, always);
}

void cut(const std::string& path, double part) {
  fs::resize_file(path, static_cast<uintmax_t>(static_cast<double>(fs::file_size(path)) * part));
}

}  // namespace

class ResultCheck : public Test {
 protected:
  TempDir dir;
  std::string clip(const std::string& name, double seconds,
                   const std::vector<std::string>& more = {}) {
    makeClip(dir / name, 160, 120, seconds, more);
    return dir / name;
  }
};

TEST_F(ResultCheck, AResultThatLastsAsLongAsItsSourceIsAccepted) {
  const std::string source = clip("a.mp4", 3);
  EXPECT_EQ(faultOf(source, source), "");
  EXPECT_EQ(faultOf(clip("b.mp4", 3.4), source), "");
}

TEST_F(ResultCheck, AResultThatIsTooShortOrTooLongIsRefused) {
  const std::string source = clip("a.mp4", 5);
  EXPECT_EQ(faultOf(clip("short.mp4", 3), source),
            "the picture of the result lasts 3.0 s, of the source 5.0 s");
  EXPECT_NE(faultOf(clip("long.mp4", 7), source), "");
}

TEST_F(ResultCheck, MissingStreamsAreNamed) {
  const std::string source = clip("a.mp4", 1);
  EXPECT_EQ(faultOf(clip("silent.mp4", 1, {"-an"}), source), "the result has no sound");
  EXPECT_EQ(faultOf(clip("blind.mp4", 1, {"-vn"}), source), "the result has no picture");
  EXPECT_EQ(faultOf(clip("silent2.mp4", 1, {"-an"}), source, {0, -1}), "");
  EXPECT_EQ(faultOf(clip("sound.mp3", 1, {"-vn", "-c:a", "mp3"}), source, {-1, 0}), "");
}

TEST_F(ResultCheck, APictureThatEndsBeforeTheSoundIsRefused) {
  const std::string source = clip("a.mp4", 5);
  const std::string result = clip("b.mp4", 5, {"-frames:v", "25"});
  EXPECT_EQ(faultOf(result, source), "the picture of the result lasts 1.0 s, of the source 5.0 s");
}

TEST_F(ResultCheck, AResultThatAPlayerWouldRotateIsRefused) {
  const std::string source = clip("a.mp4", 1);
  ASSERT_TRUE(kxtest::run({"ffmpeg", "-v", "error", "-i", source, "-c", "copy", "-metadata:s:v",
                           "rotate=90", dir / "turned.mp4"}));
  EXPECT_EQ(faultOf(dir / "turned.mp4", source), "the result is still rotated");
}

TEST_F(ResultCheck, AFileThatIsNoMediaCannotBeAResult) {
  const std::string source = clip("a.mp4", 1);
  writeFile(dir / "text.mp4", "no media at all");
  EXPECT_EQ(faultOf(dir / "text.mp4", source), "the result cannot be opened");
  EXPECT_EQ(faultOf(dir / "absent.mp4", source), "the result cannot be opened");
}

TEST_F(ResultCheck, CutSourcesAreRecognisedByWhatTheirContainersState) {
  for (const std::string name : {"a.mp4", "a.mkv", "a.avi", "a.asf"}) {
    const std::string source =
        clip(name, 4,
             name == "a.mp4" ? std::vector<std::string>{"-movflags", "+faststart"}
                             : std::vector<std::string>{});
    EXPECT_EQ(examineShape(source).completeness, Completeness::Whole) << name;
    EXPECT_EQ(sourceFault(probedFacts(source)), "") << name;
    cut(source, 0.97);
    EXPECT_EQ(examineShape(source).completeness, Completeness::CutOff) << name;
    EXPECT_NE(sourceFault(probedFacts(source)).find("the source is cut off: "), std::string::npos)
        << name;
  }
}

TEST_F(ResultCheck, ACutFlvIsNoLongerKnownToBeWhole) {
  const std::string source = clip("a.flv", 4, {"-c:v", "flv", "-c:a", "mp3"});
  EXPECT_EQ(examineShape(source).completeness, Completeness::Whole);
  cut(source, 0.5);
  EXPECT_EQ(examineShape(source).completeness, Completeness::Unknown);
  const std::string result = clip("b.mp4", 2);
  EXPECT_NE(faultOf(result, source), "");
}

TEST_F(ResultCheck, JunkBehindTheLastBoxIsNotTakenForAMissingPart) {
  const std::string source = clip("a.mp4", 1);
  const std::string bytes = kxtest::readFile(source);
  writeFile(source, bytes + "\x7f\xff\xff\xffjunkjunkjunk");
  EXPECT_EQ(examineShape(source).completeness, Completeness::Unknown);
  writeFile(source, bytes + std::string(64, '\0'));
  EXPECT_NE(examineShape(source).completeness, Completeness::CutOff);
}

TEST_F(ResultCheck, ALiveRecordingStatesNoLength) {
  const std::string path = dir / "live.mkv";
  makeClip(path, 160, 120, 2, {"-f", "matroska", "-live", "1"});
  EXPECT_EQ(examineShape(path).completeness, Completeness::Unknown);
  EXPECT_EQ(faultOf(clip("b.mp4", 2), path), "");
}

TEST_F(ResultCheck, ALengthThatIsMerelyStatedWrongIsForgivenWhenTheSourceIsWhole) {
  // The header says 60 seconds, the packets last three.
  const std::string source = clip("a.mkv", 3);
  std::string bytes = kxtest::readFile(source);
  const size_t duration = bytes.find("\x44\x89\x88");
  ASSERT_NE(duration, std::string::npos);
  const char sixtyThousand[] = "\x40\xed\x4c\x00\x00\x00\x00\x00";
  bytes.replace(duration + 3, 8, std::string(sixtyThousand, 8));
  // Per-track lengths are tags that players ignore.
  writeFile(source, bytes);
  KxMediaInfo info;
  ASSERT_EQ(info.init(source), 0);
  ASSERT_EQ(info.m_duration, 60);
  EXPECT_EQ(faultOf(clip("b.mp4", 3), source), "");
  EXPECT_NE(faultOf(clip("c.mp4", 1.5), source), "");
}

TEST_F(ResultCheck, OfSeveralTracksTheChosenOneCounts) {
  const std::string source = dir / "two.mp4";
  ASSERT_TRUE(kxtest::run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                           "testsrc=size=64x64:rate=10:duration=2", "-f", "lavfi", "-i",
                           "testsrc=size=64x64:rate=10:duration=6", "-map", "0", "-map", "1",
                           "-c:v", "libx264", source}));
  const std::string two = clip("two_s.mp4", 2, {"-an"});
  const std::string six = clip("six_s.mp4", 6, {"-an"});
  EXPECT_EQ(faultOf(two, source, {0, -1}), "");
  EXPECT_NE(faultOf(six, source, {0, -1}), "");
  EXPECT_EQ(faultOf(six, source, {1, -1}), "");
  EXPECT_NE(faultOf(two, source, {1, -1}), "");
}

TEST_F(ResultCheck, NothingIsReadWhenTheRunHasToEnd) {
  const std::string source = clip("a.mp4", 1);
  const SourceFacts facts = probedFacts(source);
  const UniqueFd end(eventfd(1, EFD_CLOEXEC));
  const StopSignal stop(end.get());
  EXPECT_EQ(resultFault(source, facts, {0, 0}, always), "the result cannot be opened");
}

TEST_F(ResultCheck, CountingTheSourceStopsWhenTheRunHasToEnd) {
  const std::string source = clip("a.mp4", 5);
  const auto never = [] { return false; };
  EXPECT_EQ(
      resultFault(clip("b.mp4", 2), probedFacts(source), {0, 0}, never),
      "the picture of the result lasts 2.0 s, of the source 5.0 s (the source is incomplete)");
}
