#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "daemon/AnswerJson.h"
#include "frame/UniqueFd.h"
#include "tests/daemon/Records.h"

using xcoded::Answer;
using xcoded::JsonPage;

TEST(JsonPage, RowsThatDoNotFitAreLeftOutWhole) {
  JsonPage page(40);
  EXPECT_TRUE(page.add({{"id", 1}}));
  EXPECT_FALSE(page.add({{"src", std::string(60, 'x')}}));
  EXPECT_EQ(page.rows(), 1);
  EXPECT_EQ(page.text(), R"([{"id":1}])");
}

TEST(JsonPage, APageIsFilledToTheLastByte) {
  // "[1,1,1]" is seven bytes.
  JsonPage page(7);
  EXPECT_TRUE(page.add(1));
  EXPECT_TRUE(page.add(1));
  EXPECT_TRUE(page.add(1));
  EXPECT_FALSE(page.add(1));
  EXPECT_EQ(page.text().size(), 7U);
}

TEST(JsonPage, NoRowsAreAnEmptyArray) {
  EXPECT_EQ(JsonPage().text(), "[]");
}

TEST(AnswerJson, BytesThatAreNotUtf8AreReplaced) {
  KxDBTaskParam job;
  job.src = "/a/\xff\xfe.mp4";
  const std::string text = xcoded::jsonText(xcoded::jobToJson(job));
  EXPECT_EQ(nlohmann::json::parse(text)["src"], "/a/\xef\xbf\xbd\xef\xbf\xbd.mp4");
}

TEST(AnswerJson, AnObjectThatDoesNotFitBecomesAnError) {
  const Answer answer = Answer::object({{"text", std::string(70000, 'x')}});
  EXPECT_EQ(answer.result, 1);
  EXPECT_TRUE(nlohmann::json::parse(answer.text).contains("error"));
}

TEST(AnswerJson, ARecordCarriesCommandResultValuesAndText) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const UniqueFd ours(pair[0]);
  const UniqueFd theirs(pair[1]);
  Answer answer = Answer::failure("no");
  answer.value2 = 7;
  answer.value3 = -1;
  std::thread writer([&] { EXPECT_TRUE(xcoded::sendAnswer(ours.get(), 21, answer)); });
  auto record = std::make_unique<KxSockData_s>();
  EXPECT_EQ(recv(theirs.get(), record.get(), sizeof *record, MSG_WAITALL),
            static_cast<ssize_t>(sizeof *record));
  writer.join();
  EXPECT_EQ(kxtest::numberOf(*record, 0), 21);
  EXPECT_EQ(kxtest::numberOf(*record, 1), 1);
  EXPECT_EQ(kxtest::numberOf(*record, 2), 7);
  EXPECT_EQ(kxtest::numberOf(*record, 3), -1);
  EXPECT_EQ(kxtest::jsonOf(*record), nlohmann::json({{"error", "no"}}));
}

TEST(AnswerJson, AClientThatLeftIsNoTrouble) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const UniqueFd ours(pair[0]);
  close(pair[1]);
  EXPECT_FALSE(xcoded::sendAnswer(ours.get(), 21, Answer()));
}
