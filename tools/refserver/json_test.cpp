#include "tools/refserver/json.h"

#include <gtest/gtest.h>

#include <string>

namespace tarn::refserver {
namespace {

TEST(Json, ReadsTheGrammarInDocumentOrderAndDecodesEveryEscape) {
  const JsonValue document = ParseJson(
      " {\"z\" : [1, -2.5e+3, 0, true, false, null, {}, []],\n"
      "  \"text\": \"q\\\" b\\\\ s\\/ \\b\\f\\n\\r\\t \\u00e9 \\u20AC \\ud83d\\ude00\",\n"
      "  \"raw\": \"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"} ");
  ASSERT_TRUE(document.is_object());
  ASSERT_EQ(document.size(), 3u);
  EXPECT_EQ(document.begin().key(), "z");  // not sorted: as written
  const JsonValue& array = document.at("z");
  ASSERT_EQ(array.size(), 8u);
  EXPECT_EQ(array[1].get<double>(), -2500.0);
  EXPECT_TRUE(array[5].is_null());
  // A surrogate pair becomes one four-byte character; escapes and raw UTF-8 agree.
  EXPECT_EQ(document.at("text").get<std::string>(),
            "q\" b\\ s/ \b\f\n\r\t \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_EQ(document.at("raw").get<std::string>(), "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
}

TEST(Json, RefusesWhatIsNotStrictJsonWithItsPlace) {
  const char* const texts[] = {
      "", "{\"a\": 1,}", "[1, 2,]", "{\"a\" 1}", "{\"a\": 1} x", "{'a': 1}", "[01]", "[1.]",
      "[tru]", "[\"a\tb\"]", "[\"\\x\"]", "[\"\\u12g4\"]", "[\"\\ud83d\"]", "[\"\\ude00\"]",
      "[\"\xc3\"]", "[\"\xc0\xaf\"]", "[\"\xed\xa0\x80\"]", "[\"\xf4\x90\x80\x80\"]", "[\"abc",
  };
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    try {
      ParseJson(text);
      ADD_FAILURE() << "accepted";
    } catch (const JsonError& error) {
      EXPECT_EQ(std::string(error.what()).rfind("invalid JSON at byte ", 0), 0u) << error.what();
      EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos) << error.what();
    }
  }
}

TEST(Json, DuplicateKeysAndDeepNestingAreRefusedWhereTheParserMeetsThem) {
  auto reason = [](const std::string& text) {
    try {
      ParseJson(text);
    } catch (const JsonError& error) {
      return std::string(error.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(reason("{\"k\": 1, \"k\": 2}"), "invalid JSON: duplicate key \"k\"");
  EXPECT_EQ(reason("{\"a\": {\"k\": 1}, \"b\": [{\"k\": 1}, {\"k\": 2, \"k\": 3}]}"),
            "invalid JSON: duplicate key \"k\"");
  EXPECT_EQ(reason("{\"a\": {\"k\": 1}, \"k\": [{\"k\": 1}, {\"k\": 2}]}"), "accepted");

  auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(reason(nested(kMaxJsonDepth)), "accepted");
  EXPECT_EQ(reason(nested(kMaxJsonDepth + 1)), "invalid JSON: nesting deeper than 64 levels");
  EXPECT_EQ(reason(std::string(kMaxJsonDepth, '[') + "{\"a\": 1}" + std::string(kMaxJsonDepth, ']')),
            "invalid JSON: nesting deeper than 64 levels");
  EXPECT_EQ(reason(nested(100000)), "invalid JSON: nesting deeper than 64 levels");
}

TEST(Json, WrittenStringsReadBackUnchanged) {
  const std::string texts[] = {"", "plain", "quote \" backslash \\ slash /",
                               std::string("nul \0 and \x01 \x1f", 13), "tab\tline\nreturn\r",
                               "caf\xc3\xa9 \xf0\x9f\x98\x80"};
  for (const std::string& text : texts) {
    std::string written;
    AppendJsonString(written, text);
    EXPECT_EQ(ParseJson("[" + written + "]").at(0).get<std::string>(), text) << written;
  }
  // Bytes that are not UTF-8 cannot break the answer.
  std::string written;
  AppendJsonString(written, "a\xff" "b");
  EXPECT_EQ(ParseJson("[" + written + "]").at(0).get<std::string>(), "a\xef\xbf\xbd" "b");
}

}  // namespace
}  // namespace tarn::refserver
