#include "tools/refserver/json.h"

#include <gtest/gtest.h>

#include <string>

namespace tarn::refserver {
namespace {

TEST(Json, ReadsTheGrammarAndDecodesEveryEscape) {
  const JsonValue document = ParseJson(
      " {\"a\" : [1, -2.5e+3, 0, true, false, null, {}, []],\n"
      "  \"text\": \"q\\\" b\\\\ s\\/ \\b\\f\\n\\r\\t \\u00e9 \\u20AC \\ud83d\\ude00\",\n"
      "  \"raw\": \"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"} ");
  ASSERT_TRUE(document.IsObject());
  ASSERT_EQ(document.AsObject().size(), 3u);
  EXPECT_EQ(document.AsObject()[0].key, "a");

  const JsonValue::Array& array = document.Find("a")->AsArray();
  ASSERT_EQ(array.size(), 8u);
  EXPECT_EQ(std::get<JsonValue::Number>(array[1].value).text, "-2.5e+3");
  EXPECT_EQ(std::get<bool>(array[3].value), true);
  EXPECT_STREQ(array[5].KindName(), "null");
  EXPECT_TRUE(array[6].IsObject() && array[6].AsObject().empty());
  EXPECT_TRUE(array[7].IsArray() && array[7].AsArray().empty());

  // A surrogate pair becomes one four-byte character; escapes and raw UTF-8 agree.
  EXPECT_EQ(document.Find("text")->AsString(),
            "q\" b\\ s/ \b\f\n\r\t \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_EQ(document.Find("raw")->AsString(), "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_EQ(document.Find("missing"), nullptr);
}

TEST(Json, RefusesWhatIsNotStrictJsonWithItsPlace) {
  struct Case {
    const char* text;
    const char* reason;
  };
  const Case cases[] = {
      {"", "unexpected end"},
      {"{\"a\": 1,}", "expected a string key"},
      {"[1, 2,]", "unexpected character ']'"},
      {"{\"a\" 1}", "expected ':'"},
      {"{\"a\": 1} x", "unexpected data after the document"},
      {"{'a': 1}", "expected a string key"},
      {"[01]", "leading zero"},
      {"[1.]", "expected a digit"},
      {"[-]", "expected a digit"},
      {"[tru]", "unknown literal"},
      {"[\"a\tb\"]", "control character"},
      {"[\"\\x\"]", "unknown escape"},
      {"[\"\\u12g4\"]", "bad hex digit"},
      {"[\"\\ud83d\"]", "high surrogate without its low half"},
      {"[\"\\ud83d\\u0041\"]", "high surrogate without its low half"},
      {"[\"\\ude00\"]", "lone low surrogate"},
      {"[\"\xc3\"]", "invalid UTF-8"},
      {"[\"\xc0\xaf\"]", "invalid UTF-8"},          // overlong "/"
      {"[\"\xed\xa0\x80\"]", "invalid UTF-8"},      // an encoded surrogate
      {"[\"\xf4\x90\x80\x80\"]", "invalid UTF-8"},  // above U+10FFFF
      {"[\"abc", "unterminated string"},
      {"{\"k\": 1, \"k\": 2}", "duplicate key \"k\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    try {
      ParseJson(c.text);
      ADD_FAILURE() << "accepted";
    } catch (const JsonError& error) {
      EXPECT_NE(std::string(error.what()).find(c.reason), std::string::npos) << error.what();
      EXPECT_NE(std::string(error.what()).find("at byte "), std::string::npos);
    }
  }
}

TEST(Json, NestingIsBoundedSoDeepInputCannotExhaustTheStack) {
  auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_NO_THROW(ParseJson(nested(kMaxJsonDepth)));
  EXPECT_THROW(ParseJson(nested(kMaxJsonDepth + 1)), JsonError);
  EXPECT_THROW(ParseJson(nested(100000)), JsonError);
}

TEST(Json, WrittenStringsReadBackUnchanged) {
  const std::string texts[] = {"", "plain", "quote \" backslash \\ slash /",
                               std::string("nul \0 and \x01 \x1f", 13), "tab\tline\nreturn\r",
                               "caf\xc3\xa9 \xf0\x9f\x98\x80"};
  for (const std::string& text : texts) {
    std::string written;
    AppendJsonString(written, text);
    EXPECT_EQ(ParseJson("[" + written + "]").AsArray().at(0).AsString(), text) << written;
  }
}

}  // namespace
}  // namespace tarn::refserver
