#include "frame/StatusRows.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "frame/AnswerRecord.h"

namespace {

using nlohmann::json;
using Rows = std::vector<std::string>;

KxResource2 resourceNamed(const std::string& id) {
  KxResource2 resource;
  resource.init(id, RES2_GPU_EXTERNAL, "Vendor", "Device", 3, "12");
  return resource;
}

TEST(StatusRows, NameTheFactsOfAResource) {
  KxResource2 resource = resourceNamed("gpu0");
  KxRegister user;
  user.init(RES2_GPU_EXTERNAL, "gpu0", static_cast<KxRegJobType_e>(1), 4711, KxRegInfo());
  resource.addRegInfo(user);
  EXPECT_EQ(statusrows::ofResources({resource}).at(0),
            R"({"id":"gpu0","resType":3,"vendorName":"Vendor","devName":"Device",)"
            R"("modeSupport":3,"devNumber":"12","registrations":1})");
}

TEST(StatusRows, NameTheFactsOfARegistration) {
  KxRegInfo info;
  info.m_pid = 100;
  info.m_username = "admin";
  info.m_ip = "10.0.0.1";
  info.m_tag = "player";
  info.m_srcPath = "/share/a\"b\n.mp4";
  KxRegister outside;
  outside.init(RES2_GPU_EXTERNAL, "gpu0", static_cast<KxRegJobType_e>(1), 4711, info);
  KxRegister unit;
  KxDBTaskParam job;
  job.id = 5;
  KxDBTask task;
  task.init(job);
  unit.init(RES2_GPU_EXTERNAL, "gpu0", REGJOB_UNIT, task, info);
  KxResource2 resource = resourceNamed("gpu0");
  resource.addRegInfo(outside);
  resource.addRegInfo(unit);
  const Rows rows = statusrows::ofRegistrations({resourceNamed("other"), resource});
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0], R"({"pid":4711,"user":"admin","ip":"10.0.0.1","tag":"player",)"
                     R"("src":"/share/a\"b\n.mp4"})");
  EXPECT_EQ(json::parse(rows[1]).at("pid"), 100) << "a unit's registration names the service";
}

TEST(StatusRows, ReplaceBytesThatAreNotUtf8) {
  const Rows rows = statusrows::ofResources({resourceNamed("a\xff\xc3")});
  EXPECT_EQ(json::parse(rows[0]).at("id"), "a\xef\xbf\xbd\xef\xbf\xbd");
}

TEST(StatusPage, HoldsAllRowsWhenTheyFit) {
  const statusrows::Page page = statusrows::page({"{\"a\":1}", "{}", "{\"b\":2}"}, 0);
  EXPECT_EQ(page.text, R"([{"a":1},{},{"b":2}])");
  EXPECT_EQ(page.total, 3);
  EXPECT_EQ(page.count, 3);
}

TEST(StatusPage, BeginsWithTheRowAskedFor) {
  const Rows rows = {"{\"a\":1}", "{\"b\":2}"};
  EXPECT_EQ(statusrows::page(rows, 1).text, R"([{"b":2}])");
  EXPECT_EQ(statusrows::page(rows, 1).total, 2);
  EXPECT_EQ(statusrows::page(rows, 1).count, 1);
  EXPECT_EQ(statusrows::page(rows, -7).count, 2);
  for (const int beyond : {2, 3, 2147483647}) {
    EXPECT_EQ(statusrows::page(rows, beyond).text, "[]");
    EXPECT_EQ(statusrows::page(rows, beyond).count, 0);
    EXPECT_EQ(statusrows::page(rows, beyond).total, 2);
  }
  EXPECT_EQ(statusrows::page({}, 0).text, "[]");
}

TEST(StatusPage, LeavesOutWholeRowsThatDoNotFit) {
  const Rows rows = {"{\"a\":1}", "{\"b\":2}", "{}"};
  const size_t bothLong = 1 + 7 + 1 + 7 + 1;
  EXPECT_EQ(statusrows::page(rows, 0, bothLong).text, R"([{"a":1},{"b":2}])");
  const statusrows::Page cut = statusrows::page(rows, 0, bothLong - 1);
  EXPECT_EQ(cut.text, R"([{"a":1}])") << "nothing behind the first that does not fit";
  EXPECT_EQ(cut.count, 1);
  EXPECT_EQ(cut.total, 3);
}

TEST(StatusPage, PagesTogetherHoldEveryRowOnce) {
  Rows rows;
  for (int i = 0; i < 500; ++i)
    rows.push_back(json{{"n", i}, {"text", std::string(static_cast<size_t>(i), 'x')}}.dump());
  int32_t next = 0;
  int pages = 0;
  while (next < 500) {
    const statusrows::Page page = statusrows::page(rows, next);
    ASSERT_LE(page.text.size(), statusrows::kPageSize);
    ASSERT_GT(page.count, 0);
    for (const auto& row : json::parse(page.text)) EXPECT_EQ(row.at("n"), next++);
    ++pages;
  }
  EXPECT_EQ(next, 500);
  EXPECT_GT(pages, 1);
}

TEST(StatusPage, ShowsARowLargerThanAnyPageAsAnEmptyObject) {
  const Rows rows = {"{}", "{\"x\":\"" + std::string(statusrows::kPageSize, 'y') + "\"}",
                     "{\"b\":2}"};
  const statusrows::Page page = statusrows::page(rows, 0);
  EXPECT_EQ(page.text, R"([{},{},{"b":2}])");
  EXPECT_EQ(page.count, 3);
}

TEST(AnswerRecord, CarriesTheCommandOfItsRequestAndIsZeroElsewhere) {
  KxSockData_s request{};
  setRecordInt(request, 0, 24);
  setRecordInt(request, 5, 99);
  AnswerRecord answer(request);
  answer.result(-1).set(3, 7).text("[]");
  const KxSockData_s& record = answer.record();
  EXPECT_EQ(recordInt(record, 0), 24);
  EXPECT_EQ(recordInt(record, 1), -1);
  EXPECT_EQ(recordInt(record, 2), 0);
  EXPECT_EQ(recordInt(record, 3), 7);
  EXPECT_STREQ(record.block[4], "[]");
  EXPECT_EQ(recordInt(record, 5), 0);
}

TEST(AnswerRecord, EndsItsTextWithNul) {
  KxSockData_s request{};
  AnswerRecord answer(request);
  answer.text(std::string(KxSockData_s::kTextSize + 10, 'x'));
  const auto* text = reinterpret_cast<const char*>(answer.record().block[4]);
  EXPECT_EQ(strnlen(text, KxSockData_s::kTextSize), KxSockData_s::kTextSize - 1);
}

}  // namespace
