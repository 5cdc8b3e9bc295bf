#include "engines/OutputSize.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KxTranscoder.h"
#include "tests/engines/Notes.h"

using engines::computeOutputSize;
using engines::OutputSize;
using engines::SizeRequest;
using testing::ElementsAre;

namespace {

constexpr const char* kFallback = "can not calculate w & h, set w & h as usr's input\n";

struct Ratio {
  int num = 0;
  int den = 0;
};

KxStream video(int width, int height, Ratio dar = {}, int rotation = 0) {
  KxStream stream;
  stream.m_isEmpty = false;
  stream.m_width = width;
  stream.m_height = height;
  stream.m_rotation = rotation;
  if (dar.num != 0) stream.m_sar_num = stream.m_sar_den = 1;
  stream.m_dar_num = dar.num;
  stream.m_dar_den = dar.den;
  return stream;
}

std::vector<std::string> logged(const OutputSize& size) {
  return kxtest::textsOf(size.notes, "getResizeBasedOnDAR_");
}

std::string sizeLine(int width, int height) {
  return "resize_w=" + std::to_string(width) + ", resize_h=" + std::to_string(height) + "\n";
}

struct SizeCase {
  const char* name;
  KxStream stream;
  SizeRequest request;
  int width;
  int height;
  std::vector<std::string> before;  // what is logged before the size line
};

}  // namespace

class OutputSizeRules : public testing::TestWithParam<SizeCase> {};

TEST_P(OutputSizeRules, GiveTheSizeAndTheLog) {
  const SizeCase& c = GetParam();
  const OutputSize size = computeOutputSize(c.stream, c.request);
  EXPECT_TRUE(size.known);
  EXPECT_EQ(size.width, c.width);
  EXPECT_EQ(size.height, c.height);
  std::vector<std::string> expected = c.before;
  expected.push_back(sizeLine(c.width, c.height));
  EXPECT_EQ(logged(size), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, OutputSizeRules,
    testing::Values(
        SizeCase{"FullHdTo720p", video(1920, 1080, {16, 9}), {1280, 720, 72}, 1280, 720, {}},
        SizeCase{
            "TheSourceSizeIsRecomputed", video(1280, 720, {16, 9}), {1280, 720, 72}, 1280, 720, {}},
        SizeCase{"RecomputingMayChangeAnEqualSize",
                 video(640, 480, {16, 9}),
                 {640, 480, 48},
                 852,
                 480,
                 {}},
        SizeCase{"HeightOffByExactlyTheTolerance",
                 video(1280, 792, {16, 9}),
                 {1280, 720, 72},
                 1280,
                 720,
                 {kFallback}},
        SizeCase{"HeightOffByLessThanTheTolerance",
                 video(1280, 791, {1280, 791}),
                 {1280, 720, 72},
                 1164,
                 720,
                 {}},
        SizeCase{"HeightOffByTheToleranceButWidthByMore",
                 video(1400, 792, {1400, 792}),
                 {1280, 720, 72},
                 1272,
                 720,
                 {}},
        SizeCase{
            "EqualSizesWithoutTolerance", video(1281, 721), {1281, 721, 0}, 1281, 721, {kFallback}},
        SizeCase{"UnknownAspectKeepsTheStoredShape", video(720, 576), {640, 480, 48}, 600, 480, {}},
        SizeCase{"IgnoringTheAspectKeepsTheStoredShape",
                 video(720, 576, {16, 9}),
                 {640, 480, 48, true},
                 600,
                 480,
                 {}},
        SizeCase{
            "WidthsAreRoundedDownToEven", video(1920, 1080, {16, 9}), {640, 480, 48}, 852, 480, {}},
        SizeCase{"HeightsAreRoundedDownToEven",
                 video(1920, 1080, {16, 9}),
                 {640, 361, 36},
                 640,
                 360,
                 {}},
        SizeCase{"TooWideWithAnAspect",
                 video(1920, 1080, {16, 9}),
                 {3840, 2160, 216},
                 1920,
                 1080,
                 {"width > 1920, fix width resize"}},
        SizeCase{"TooWideWithoutAnAspect",
                 video(4000, 1000),
                 {1920, 1080, 108},
                 1920,
                 480,
                 {"width > 1920, fix width resize"}},
        SizeCase{"TooWideAndTurnedUsesTheCodedSize",
                 video(1080, 3840, {}, 90),
                 {1920, 1080, 108},
                 1920,
                 6826,
                 {"width > 1920, fix width resize"}},
        SizeCase{
            "WidthOfExactly1920", video(1920, 1080, {16, 9}), {1920, 1080, 108}, 1920, 1080, {}},
        SizeCase{"TooWideToHaveAHeight",
                 video(100000, 10, {10000, 1}),
                 {1920, 1080, 108},
                 1920,
                 1080,
                 {"width > 1920, fix width resize", kFallback}},
        SizeCase{"TooNarrowToHaveAWidth", video(2, 2000), {360, 240, 24}, 360, 240, {kFallback}},
        SizeCase{"AWidthOfOneRoundsToNothing", video(10, 2000), {360, 240, 24}, 0, 240, {}},
        SizeCase{
            "TurnedWithAnAspect", video(1920, 1080, {16, 9}, 90), {1280, 720, 72}, 1280, 720, {}},
        SizeCase{
            "TurnedWithoutAnAspect", video(1920, 1080, {}, 270), {1280, 720, 72}, 404, 720, {}},
        SizeCase{"UpsideDownCountsAsUpright",
                 video(1920, 1080, {}, 180),
                 {1280, 720, 72},
                 1280,
                 720,
                 {}},
        SizeCase{"AnamorphicWithoutARequest", video(720, 576, {16, 9}), {0, 0, 0}, 1024, 576, {}},
        SizeCase{"SquarePixelsWithoutARequest",
                 video(1920, 1080, {16, 9}),
                 {0, 0, 0},
                 0,
                 0,
                 {kFallback}},
        SizeCase{"AnamorphicAndTooWide",
                 video(1440, 1080, {64, 27}),
                 {0, 0, 0},
                 1920,
                 810,
                 {"width > 1920, fix width resize\n"}},
        SizeCase{"UnknownAspectWithoutARequest", video(720, 576), {0, 0, 0}, 0, 0, {kFallback}},
        SizeCase{"IgnoredAspectWithoutARequest",
                 video(720, 576, {16, 9}),
                 {0, 0, 0, true},
                 0,
                 0,
                 {kFallback}},
        SizeCase{"TurnedWithoutAspectOrRequest",
                 video(1920, 1080, {}, 90),
                 {0, 0, 0},
                 0,
                 0,
                 {kFallback}},
        SizeCase{"OnlyAWidth", video(1920, 1080, {16, 9}), {640, 0, 0}, 640, 0, {kFallback}},
        SizeCase{"OnlyAHeight", video(1920, 1080, {16, 9}), {0, 480, 48}, 0, 480, {kFallback}},
        SizeCase{
            "OnlyAHeightTurned", video(1920, 1080, {16, 9}, 90), {0, 480, 48}, 480, 0, {kFallback}},
        SizeCase{"NegativeSizes", video(1920, 1080, {16, 9}), {-2, -3, 0}, -2, -3, {kFallback}},
        SizeCase{"NoSourceSize", video(0, 0, {16, 9}), {641, 361, 36}, 641, 361, {kFallback}}),
    [](const testing::TestParamInfo<SizeCase>& test) { return test.param.name; });

TEST(OutputSize, HalfAnAspectRatioCountsAsUnknown) {
  KxStream stream = video(720, 576, {16, 9});
  stream.m_sar_den = 0;
  EXPECT_EQ(computeOutputSize(stream, {640, 480, 48}).width, 600);
  stream = video(720, 576, {16, -9});
  EXPECT_EQ(computeOutputSize(stream, {640, 480, 48}).width, 600);
}

TEST(OutputSize, WithoutAVideoStreamThereIsNone) {
  const OutputSize size = computeOutputSize(KxStream(), {640, 480, 48});
  EXPECT_FALSE(size.known);
  EXPECT_THAT(logged(size), ElementsAre("can not get video stream info\n"));
}

TEST(OutputSize, TheSevenProfilesOfAFullHdSource) {
  const KxStream source = video(1920, 1080, {16, 9});
  const std::pair<int, int> expected[7] = {{426, 240},   {640, 360}, {852, 480}, {1280, 720},
                                           {1920, 1080}, {0, 0},     {0, 0}};
  for (size_t i = 0; i < 7; ++i) {
    const TransConfigEntry& row = gTransConfig[i];
    const OutputSize size =
        computeOutputSize(source, {row.width, row.height, row.height / 10, false});
    EXPECT_EQ(std::make_pair(size.width, size.height), expected[i]) << row.name;
  }
}
