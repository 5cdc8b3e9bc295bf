#include "resources/AcceleratorTool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "resources/BoundedRun.h"
#include "tests/resources/ResourceFixtures.h"

using kxtest::FakeAccelerator;
using kxtest::PrivateRoot;
using kxtest::RecordingLog;
using namespace std::chrono_literals;

namespace {

class AcceleratorToolTest : public testing::Test {
 protected:
  std::optional<std::vector<KxResource2>> discover(std::chrono::milliseconds limit = 20s) {
    return AcceleratorTool(accel.path(), limit).discover();
  }
  std::vector<std::string> ids() {
    const auto cards = discover();
    EXPECT_TRUE(cards.has_value());
    std::vector<std::string> result;
    if (cards)
      for (const KxResource2& card : *cards) result.push_back(card.id);
    return result;
  }

  RecordingLog log;
  PrivateRoot root;
  FakeAccelerator accel{root};
};

using Ids = std::vector<std::string>;

}  // namespace

TEST_F(AcceleratorToolTest, SaysWhichProgramIsMissing) {
  const std::string path = root.file("/sbin/none");
  EXPECT_FALSE(AcceleratorTool(path).discover().has_value());
  EXPECT_TRUE(log.has(5, "KxResMgr2", "path " + path + " do not exist\n"));
}

TEST_F(AcceleratorToolTest, DescribesSeveralCardsInTheOrderOfTheQuery) {
  accel.setCards({"gpu0", "gpu1"});
  accel.answer("-l", "gpu0:Maker:First:internal:3:more:fields\ngpu1:Other:Second:external:12\n");
  accel.answer("-q", "count=2\ngpu1\ngpu0\n");
  accel.answer("-T gpu0", "devno=7\n");
  accel.answer("-s gpu1", "name=a=b,real_status=2, transcode=1,devno=0000:03:00.0\n");
  const auto cards = discover();
  ASSERT_TRUE(cards.has_value());
  ASSERT_EQ(cards->size(), 2U);
  const KxResource2& first = (*cards)[0];
  EXPECT_EQ(first.id, "gpu1");
  EXPECT_EQ(first.resType, RES2_GPU_EXTERNAL);
  EXPECT_EQ(first.vendorName, "Other");
  EXPECT_EQ(first.devName, "Second");
  EXPECT_EQ(first.modeSupport, 12);
  EXPECT_EQ(first.devNumber, "0000:03:00.0");
  const KxResource2& second = (*cards)[1];
  EXPECT_EQ(second.id, "gpu0");
  EXPECT_EQ(second.resType, RES2_GPU_INTERNAL);
  EXPECT_EQ(second.modeSupport, 3);
  EXPECT_EQ(second.devNumber, "7");
  EXPECT_TRUE(log.has("accelctl -q output:count=2\ngpu1\ngpu0\n\n"));
  EXPECT_TRUE(log.has("status:real_status=2,transcode=1\n\n"));
  EXPECT_TRUE(log.hasPart("res info:gpu1:Other:Second:3:12:"));
}

TEST_F(AcceleratorToolTest, NoCardsIsASuccessfulAnswer) {
  EXPECT_EQ(ids(), Ids{});
}

TEST_F(AcceleratorToolTest, FailsWhenListOrQueryFail) {
  accel.setCards({"gpu0"});
  accel.fail("-q");
  EXPECT_FALSE(discover().has_value());
  EXPECT_TRUE(log.has(5, "KxResMgr2", "accelctl query fail"));
  accel.fail("-l");
  EXPECT_FALSE(discover().has_value());
  EXPECT_TRUE(log.has(5, "KxResMgr2", "accelctl list fail"));
}

TEST_F(AcceleratorToolTest, FailsWhenTheQueryDoesNotBeginWithACount) {
  accel.setCards({"gpu0"});
  for (const char* text :
       {"", "gpu0\n", "count\ngpu0\n", "count=\ngpu0\n", "count=x\ngpu0\n", "count=1x\ngpu0\n",
        "count=-1\ngpu0\n", "\ncount=1\ngpu0\n", "count=99999999999999999999999\ngpu0\n"}) {
    accel.answer("-q", text);
    EXPECT_FALSE(discover().has_value()) << text;
  }
}

TEST_F(AcceleratorToolTest, ACountBeyondTheLinesDoesNoHarm) {
  accel.setCards({"gpu0"});
  accel.answer("-q", "count=4000000000\ngpu0\n");
  EXPECT_EQ(ids(), Ids{"gpu0"});
  accel.answer("-q", "count=2\r\ngpu0\r\n");
  log.clear();
  EXPECT_EQ(ids(), Ids{"gpu0"});
  EXPECT_TRUE(log.has("can't get id of card 1\n"));
}

TEST_F(AcceleratorToolTest, LinesBeyondTheCountAreNotCards) {
  accel.setCards({"gpu0", "gpu1"});
  accel.answer("-q", "count=1\ngpu0\ngpu1\n");
  EXPECT_EQ(ids(), Ids{"gpu0"});
  EXPECT_EQ(accel.calls("-s gpu1"), 0U);
}

TEST_F(AcceleratorToolTest, GoesOnAfterAnEmptyIdLine) {
  accel.setCards({"gpu0"});
  accel.answer("-q", "count=2\n\ngpu0\n");
  EXPECT_EQ(ids(), Ids{"gpu0"});
  EXPECT_TRUE(log.has(5, "KxResMgr2", "can't get id of card 0\n"));
}

TEST_F(AcceleratorToolTest, SkipsCardsThatAreNotReadyOrCannotTranscode) {
  accel.setCards({"a", "b", "c", "d", "e", "f"});
  accel.answer("-s a", "real_status=1,transcode=1\n");
  accel.answer("-s b", "real_status=2,transcode=0\n");
  accel.answer("-s c", "real_status=2\n");
  accel.answer("-s d", "transcode=1,real_status=2 \n");
  accel.answer("-s e", "");
  accel.fail("-s f");
  EXPECT_EQ(ids(), Ids{"d"});
  EXPECT_TRUE(log.has(2, "KxResMgr2", "get status fail"));
}

TEST_F(AcceleratorToolTest, SkipsCardsThatAreNotListedOrListedWrongly) {
  accel.setCards({"a", "b", "c", "d"});
  accel.answer("-l", "a:v:d:internal:1\nb:v:d:sideways:1\n:v:d:internal:1\nc\nnonsense\n");
  EXPECT_EQ(ids(), Ids{"a"});
  EXPECT_EQ(log.count("KxResource2 init fail\n"), 2U);
}

TEST_F(AcceleratorToolTest, LeavesOutACardWhoseDetailsFail) {
  accel.setCards({"a", "b"});
  accel.fail("-T a");
  EXPECT_EQ(ids(), Ids{"b"});
  EXPECT_TRUE(log.has(2, "KxResMgr2", "accelctl -T a fail"));
}

TEST_F(AcceleratorToolTest, TakesOnlyAsManyCardsAsAMachineCanHave) {
  std::vector<std::string> many;
  for (size_t i = 0; i < AcceleratorTool::kMaxCards + 3; ++i)
    many.push_back("gpu" + std::to_string(i));
  accel.setCards(many);
  EXPECT_EQ(ids().size(), AcceleratorTool::kMaxCards);
}

TEST_F(AcceleratorToolTest, AsksAllCardsForTheirStateAtTheSameTime) {
  accel.setCards({"a", "b", "c"});
  for (const char* call : {"-s a", "-s b", "-s c"}) accel.hold(call);
  std::optional<std::vector<KxResource2>> cards;
  std::thread caller([&] { cards = discover(); });
  EXPECT_TRUE(kxtest::waitUntil(
      [&] { return accel.running("-s a") + accel.running("-s b") + accel.running("-s c") == 3; }));
  for (const char* call : {"-s c", "-s a", "-s b"}) accel.release(call);
  caller.join();
  ASSERT_TRUE(cards.has_value());
  EXPECT_EQ(cards->size(), 3U);
}

TEST_F(AcceleratorToolTest, StopsAProgramThatHangs) {
  accel.setCards({"a", "b"});
  accel.hold("-s a");
  const auto begin = std::chrono::steady_clock::now();
  const auto cards = discover(3s);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
  ASSERT_TRUE(cards.has_value());
  ASSERT_EQ(cards->size(), 1U);
  EXPECT_EQ((*cards)[0].id, "b");
  EXPECT_TRUE(log.has(2, "KxResMgr2", "get status fail"));
  EXPECT_TRUE(log.hasPart("does not answer, we stop it\n"));
  EXPECT_EQ(BoundedRun::stuckCount(), 0);
}

TEST_F(AcceleratorToolTest, AHangingListIsAFailure) {
  accel.hold("-l");
  EXPECT_FALSE(discover(200ms).has_value());
  EXPECT_TRUE(log.has("accelctl list fail"));
}

TEST(BoundedRun, HandsOutTheResultAndTheOutput) {
  std::string out;
  EXPECT_EQ(BoundedRun({"/bin/sh", "-c", "echo hello; exit 5"}, 20s).wait(out), 5);
  EXPECT_EQ(out, "hello\n");
  EXPECT_NE(BoundedRun({"/no/such/program"}, 20s).wait(out), 0);
}

TEST(AccelParse, SplitsAnItemAtItsLastEqualsSign) {
  const auto items = accelparse::items("a=b=c, d =\t4\n,nothing,=,e=,d=5");
  EXPECT_EQ(items.at("a=b"), "c");
  EXPECT_EQ(items.at("d"), "5");
  EXPECT_EQ(items.at("e"), "");
  EXPECT_EQ(items.count("nothing"), 0U);
}

TEST(AccelParse, KeepsNumbersInRange) {
  EXPECT_EQ(accelparse::number("12"), 12);
  EXPECT_EQ(accelparse::number(" 12abc"), 12);
  EXPECT_EQ(accelparse::number("-3"), -3);
  EXPECT_EQ(accelparse::number("0x10"), 0);
  EXPECT_EQ(accelparse::number(""), 0);
  EXPECT_EQ(accelparse::number("99999999999"), 0);
  EXPECT_EQ(accelparse::count("count=0"), 0U);
  EXPECT_EQ(accelparse::count("count= 3 "), 3U);
  EXPECT_EQ(accelparse::count("Count=3"), std::nullopt);
}

TEST(AccelParse, EmptiesLinesThatAreTooLong) {
  const auto lines = accelparse::lines("a\r\n" + std::string(5000, 'x') + "\n\nb");
  EXPECT_EQ(lines, (std::vector<std::string>{"a", "", "", "b"}));
}
