#include <gtest/gtest.h>

#include "daemon/RequestJson.h"
#include "tests/daemon/Records.h"

using kxtest::jsonRequest;
using kxtest::makeRequest;
using kxtest::putText;
using xcoded::RequestError;
using xcoded::RequestJson;

namespace {

template <class Body>
std::string errorOf(Body body) {
  try {
    body();
  } catch (const RequestError& error) {
    return error.what();
  }
  return "";
}

std::string parseError(const std::string& text) {
  const auto request = jsonRequest(21, text);
  return errorOf([&] { RequestJson json(*request); });
}

}  // namespace

TEST(RequestJson, AnEmptyTextIsAnEmptyObject) {
  const auto request = makeRequest(21);
  RequestJson json(*request);
  EXPECT_FALSE(json.has("id"));
  EXPECT_EQ(json.integer("limit", 1, 10, 7), 7);
  EXPECT_NO_THROW(json.finish());
}

TEST(RequestJson, TextThatIsNoObjectIsRefused) {
  for (const char* text :
       {"{", "nonsense", "[1]", "3", "\"x\"", "{\"a\":1}x", "{'a':1}", "{\"a\":\"\xff\"}"})
    EXPECT_NE(parseError(text), "") << text;
}

TEST(RequestJson, DeepNestingIsNoTrouble) {
  EXPECT_NE(parseError(std::string(60000, '[')), "");
  EXPECT_NE(parseError("{\"a\":" + std::string(30000, '[') + std::string(30000, ']') + "}"), "x");
}

TEST(RequestJson, ATextWithoutNulIsRefused) {
  const auto request = makeRequest(20);
  putText(*request, 4, std::string(KxSockData_s::kTextSize, ' '));
  EXPECT_EQ(errorOf([&] { RequestJson json(*request); }),
            "the text in blocks 4-19 is not NUL-terminated");
  putText(*request, 1, std::string(KxSockData_s::kBlockSize, 'a'));
  EXPECT_EQ(errorOf([&] { xcoded::requestText(*request, 1); }),
            "the text in block 1 is not NUL-terminated");
}

TEST(RequestJson, NumbersMustBeIntegersInRange) {
  const auto request = jsonRequest(
      20, R"({"a":5,"text":"5","real":1.5,"big":18446744073709551615,"neg":-1,"null":null})");
  RequestJson json(*request);
  EXPECT_EQ(json.integer("a", 5, 5), 5);
  EXPECT_EQ(json.integer("neg", -1, 5), -1);
  EXPECT_EQ(errorOf([&] { json.integer("a", 6, 9); }), "\"a\" is not between 6 and 9");
  EXPECT_EQ(errorOf([&] { json.integer("none", 0, 9); }), "\"none\" is missing");
  for (const char* key : {"text", "real", "big", "null"})
    EXPECT_NE(errorOf([&] { json.integer(key, INT64_MIN, INT64_MAX); }), "") << key;
}

TEST(RequestJson, TextsAndSwitchesKeepTheirTypes) {
  const auto request =
      jsonRequest(20, R"({"t":"abc","n":1,"b":true,"nl":"a\nb","nul":"a\u0000b"})");
  RequestJson json(*request);
  EXPECT_EQ(json.text("t", 3, ""), "abc");
  EXPECT_EQ(json.text("other", 3, "def"), "def");
  EXPECT_TRUE(json.flag("b", false));
  EXPECT_NE(errorOf([&] { json.text("t", 2, ""); }), "");
  EXPECT_NE(errorOf([&] { json.text("n", 9, ""); }), "");
  EXPECT_NE(errorOf([&] { json.flag("n", false); }), "");
  EXPECT_NE(errorOf([&] { json.text("nl", 9, ""); }), "");
  EXPECT_NE(errorOf([&] { json.text("nul", 9, ""); }), "");
}

TEST(RequestJson, FieldsNobodyAskedForAreRefused) {
  const auto request = jsonRequest(20, R"({"id":1,"idd":2})");
  RequestJson json(*request);
  json.integer("id", 1, 9);
  EXPECT_EQ(errorOf([&] { json.finish(); }), "unknown field \"idd\"");
}

TEST(RequestPaths, OnlyPlainAbsolutePathsPass) {
  const auto refused = [](const std::string& path) {
    return errorOf([&] { xcoded::checkPath(path, "it"); });
  };
  EXPECT_EQ(refused("/share/My Video [1] \xc3\xa4 'quoted'.mp4"), "");
  EXPECT_EQ(refused("/share/..hidden/x..y"), "");
  EXPECT_EQ(refused("/a/\xff.mp4"), "");
  for (const std::string path : {"", "relative/x.mp4", "/a/../b", "/a/..", "/a\nb", "/a\tb"})
    EXPECT_NE(refused(path), "") << path;
  EXPECT_NE(refused("/" + std::string(4095, 'x')), "");
}
