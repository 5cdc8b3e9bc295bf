#include "resources/CutPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "resources/PieceCommand.h"
#include "resources/WorkRoom.h"

using namespace runner;
using testing::ElementsAre;

namespace {

// Pictures with the given numbers of a raster of 25 a second.
VideoTimes at(const std::vector<double>& numbers) {
  VideoTimes times;
  times.rateNum = 25;
  for (const double number : numbers) times.seconds.push_back(number / 25);
  return times;
}

std::vector<double> upTo(int count) {
  std::vector<double> numbers(static_cast<size_t>(count));
  for (size_t i = 0; i < numbers.size(); ++i) numbers[i] = static_cast<double>(i);
  return numbers;
}

}  // namespace

TEST(CutPlan, PiecesOfARegularSourceKeepTheirPictures) {
  const CutPlan plan = planCut(at(upTo(10)), {4, 4, 2});
  EXPECT_EQ(plan.fault, "");
  EXPECT_THAT(plan.pieces,
              ElementsAre(PiecePlan{4, 4, 0, 0}, PiecePlan{4, 4, 0, 0}, PiecePlan{2, 2, 0, 0}));
  EXPECT_EQ(plan.frames(), 10);
}

TEST(CutPlan, PicturesInTheOrderOfDecodingAreNoObstacle) {
  EXPECT_EQ(planCut(at({0, 3, 1, 2, 4, 7, 5, 6}), {4, 4}).fault, "");
}

TEST(CutPlan, PicturesShownBeforeTheFirstOfTheirPieceForbidTheCut) {
  EXPECT_EQ(planCut(at({0, 1, 2, 5, 3, 4}), {3, 3}).fault, "its pieces need each other");
  EXPECT_EQ(planCut(at({0, 1, 4, 2, 3, 5}), {3, 3}).fault, "its pieces overlap");
}

TEST(CutPlan, GapsAreFilledAsTheEncoderFillsThem) {
  const CutPlan plan = planCut(at({0, 1, 2, 6, 7, 10}), {3, 2, 1});
  EXPECT_THAT(plan.pieces,
              ElementsAre(PiecePlan{3, 6, 0, 3}, PiecePlan{2, 4, 0, 2}, PiecePlan{1, 1, 0, 0}));
  EXPECT_EQ(plan.frames(), 11);
}

TEST(CutPlan, AFirstPictureThatComesLateIsShownFromTheStart) {
  const CutPlan plan = planCut(at({3, 4, 5, 6}), {2, 2});
  EXPECT_THAT(plan.pieces, ElementsAre(PiecePlan{2, 5, 3, 0}, PiecePlan{2, 2, 0, 0}));
}

TEST(CutPlan, IrregularTimesForbidTheCut) {
  EXPECT_EQ(rasterFault(at({0, 1.1, 1.9, 3, 4.1})), "");
  EXPECT_EQ(rasterFault(at({0, 1.3, 2, 3})), "its pictures come at irregular times");
  EXPECT_EQ(rasterFault(at({0, 1, 1.1, 2})), "its pictures come faster than its picture rate");
  EXPECT_EQ(rasterFault(at({0, 1, 200})), "there is a gap in its time stamps");
  EXPECT_EQ(rasterFault(at({0.49, 1.49, 2.5})),
            "its first picture comes between two of the result");
  EXPECT_EQ(rasterFault(at({})), "it has no pictures");
}

TEST(CutPlan, PiecesMustHoldAllPictures) {
  EXPECT_NE(planCut(at(upTo(10)), {4, 4}).fault, "");
  EXPECT_NE(planCut(at(upTo(10)), {10}).fault, "");
  EXPECT_NE(planCut(at(upTo(10)), {5, 0, 5}).fault, "");
}

TEST(CutPlan, SurvivesBeingWritten) {
  const CutPlan plan = planCut(at({0, 1, 2, 6, 7, 10}), {3, 2, 1});
  const std::string text = textOfPlan(plan);
  const CutPlan read = planOfText(text);
  EXPECT_EQ(read.fault, "");
  EXPECT_EQ(read.pieces, plan.pieces);
  EXPECT_EQ(read.rateNum, 25);
  for (size_t length = 0; length + 1 < text.size(); ++length)
    EXPECT_NE(planOfText(text.substr(0, length)).fault, "") << length;
  EXPECT_NE(planOfText(std::string(text.size(), '\0')).fault, "");
  EXPECT_NE(planOfText("").fault, "");
}

TEST(PieceCommand, MakesExactlyTheWantedPictures) {
  const CutPlan plan = planCut(at({3, 4, 5, 9}), {3, 1});
  EXPECT_THAT(pieceCommand({"ffmpeg", "-i", "in", "-vf", "scale=2:2", "out"}, plan, 0, 1),
              ElementsAre("ffmpeg", "-i", "in", "-vf", "scale=2:2", "-r", "25/1", "-frames:v", "9",
                          "-vf",
                          "scale=2:2,tpad=start_mode=clone:stop_mode=clone:start=3:"
                          "stop_duration=0.160000",
                          "-movie_timescale", "25", "-threads", "1", "out"));
  EXPECT_THAT(pieceCommand({"ffmpeg", "-i", "in", "out"}, plan, 1, 2),
              ElementsAre("ffmpeg", "-i", "in", "-r", "25/1", "-movie_timescale", "25", "-threads",
                          "2", "out"));
}

TEST(PieceCommand, WhatACardMadeCountsItsTimeAsTheOthersDo) {
  CutPlan plan = planCut(at(upTo(10)), {5, 5});
  EXPECT_THAT(recountCommand("/ffmpeg", plan, "made", "out"),
              ElementsAre("/ffmpeg", "-y", "-i", "made", "-map", "0:v:0", "-c", "copy",
                          "-video_track_timescale", "12800", "-movie_timescale", "25", "-f", "mp4",
                          "out"));
  plan.rateNum = 60000;
  EXPECT_EQ(recountCommand("/ffmpeg", plan, "made", "out")[9], "60000");
}

TEST(PieceCommand, ProcessorsAreSharedOut) {
  EXPECT_EQ(pieceThreads(1).pieces, 1);
  EXPECT_EQ(pieceThreads(2).pieces, 2);
  EXPECT_EQ(pieceThreads(2).threads, 1);
  EXPECT_EQ(pieceThreads(16).pieces, 4);
  EXPECT_EQ(pieceThreads(16).threads, 4);
}

TEST(PieceCommand, AResultIsJudgedByItsPictures) {
  const CutPlan plan = planCut(at(upTo(10)), {5, 5});
  EXPECT_EQ(framesFault(at(upTo(5)), plan, 5, false), "");
  EXPECT_NE(framesFault(at(upTo(4)), plan, 5, true), "");
  EXPECT_NE(framesFault(at(upTo(6)), plan, 5, false), "");
  EXPECT_EQ(framesFault(at(upTo(6)), plan, 5, true), "");
  EXPECT_NE(framesFault(at({0, 1, 2, 4, 5}), plan, 5, false), "");
}

TEST(WorkRoom, IsNotGivenAwayTwice) {
  const int64_t some = int64_t{1} << 20;
  EXPECT_TRUE(WorkRoom("/tmp", some).isGranted());
  EXPECT_FALSE(WorkRoom("/tmp", int64_t{1} << 60).isGranted());
  EXPECT_FALSE(WorkRoom("/nowhere", some).isGranted());
  int64_t most = int64_t{1} << 50;
  while (most > some && !WorkRoom("/tmp", most).isGranted()) most /= 2;
  const WorkRoom first("/tmp", most);
  ASSERT_TRUE(first.isGranted());
  EXPECT_FALSE(WorkRoom("/tmp", most * 2).isGranted());
}
