#include "tarnutils/src/JsonEncoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace tarn {
namespace {

PlistPtr Text(const std::string& text) { return PlistValue::MakeString(text); }

PlistPtr Dictionary(std::initializer_list<std::pair<std::string, PlistPtr>> entries) {
  auto dictionary = PlistValue::MakeDictionary();
  for (const auto& [key, value] : entries) dictionary->SetObjectForKey(key, value);
  return dictionary;
}

std::string Pretty(const PlistPtr& object) {
  JsonEncoderError error;
  const auto json = EncodeJson(object, kJsonPrettyPrint, &error);
  EXPECT_TRUE(json.has_value()) << error.localizedDescription;
  return json.value_or("");
}

// The text of a one-entry document's value, without the surrounding layout.
std::string EncodedValue(const PlistPtr& value, unsigned options = kJsonPrettyPrint) {
  const auto json = EncodeJson(PlistValue::MakeArray({value}), options);
  if (!json) return "<failed>";
  const bool pretty = (options & kJsonPrettyPrint) != 0;
  return json->substr(pretty ? 4 : 1, json->size() - (pretty ? 6 : 2));
}

std::string FailureOf(const PlistPtr& object) {
  JsonEncoderError error;
  EXPECT_EQ(EncodeJson(object, kJsonPrettyPrint, &error), std::nullopt);
  EXPECT_EQ(error.domain, "JSONEncoderErrorDomain");
  EXPECT_EQ(error.code, -1);
  return error.localizedDescription;
}

TEST(JsonEncoderTest, PrettyLayoutByteForByte) {
  EXPECT_EQ(Pretty(Dictionary({{"b", PlistValue::MakeArray({Text("1"), Text("2")})}, {"a", Text("x")}})),
            "{\n"
            "  \"a\": \"x\",\n"
            "  \"b\": [\n"
            "    \"1\",\n"
            "    \"2\"\n"
            "  ]\n"
            "}");
  EXPECT_EQ(Pretty(PlistValue::MakeDictionary()), "{\n  \n}");
  EXPECT_EQ(Pretty(Dictionary({{"0", PlistValue::MakeArray()}, {"1", PlistValue::MakeDictionary()}})),
            "{\n"
            "  \"0\": [\n"
            "    \n"
            "  ],\n"
            "  \"1\": {\n"
            "    \n"
            "  }\n"
            "}");
  // Without pretty printing: insertion order, no white space.
  EXPECT_EQ(EncodeJson(Dictionary({{"b", PlistValue::MakeInteger(1)}, {"a", PlistValue::MakeArray()}}), 0),
            "{\"b\":1,\"a\":[]}");
}

TEST(JsonEncoderTest, KeysSortByPlainByteComparison) {
  EXPECT_EQ(Pretty(Dictionary({{"9", Text("")}, {"USER", Text("")}, {"10", Text("")},
                               {"AgentParams", Text("")}, {"\xC3\xA9", Text("")}, {"a", Text("")}})),
            "{\n  \"10\": \"\",\n  \"9\": \"\",\n  \"AgentParams\": \"\",\n  \"USER\": \"\",\n"
            "  \"a\": \"\",\n  \"\xC3\xA9\": \"\"\n}");
}

TEST(JsonEncoderTest, StringEscapes) {
  EXPECT_EQ(EncodedValue(Text("q\"b\\")), "\"q\\\"b\\\\\"");
  EXPECT_EQ(EncodedValue(Text("\b\t\n\f\r")), "\"\\b\\t\\n\\f\\r\"");
  EXPECT_EQ(EncodedValue(Text("\v\x01\x1f")), "\"\\u000b\\u0001\\u001f\"");
  EXPECT_EQ(EncodedValue(Text("del\x7f")), "\"del\x7f\"");
  EXPECT_EQ(EncodedValue(Text("a/b")), "\"a/b\"");
  EXPECT_EQ(EncodedValue(Text("a/b"), kJsonPrettyPrint | kJsonEscapeForwardSlashes), "\"a\\/b\"");
  EXPECT_EQ(EncodedValue(Text("caf\xC3\xA9")), "\"caf\xC3\xA9\"");
  EXPECT_EQ(EncodedValue(Text("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
                         kJsonPrettyPrint | kJsonEscapeUnicode),
            "\"caf\\u00e9 \\u20ac \\ud83d\\ude00\"");
}

TEST(JsonEncoderTest, NumbersAndBooleans) {
  EXPECT_EQ(EncodedValue(PlistValue::MakeBoolean(true)), "true");
  EXPECT_EQ(EncodedValue(PlistValue::MakeBoolean(false)), "false");
  EXPECT_EQ(EncodedValue(PlistValue::MakeInteger(-42)), "-42");
  EXPECT_EQ(EncodedValue(PlistValue::MakeInteger(INT64_MIN)), "-9223372036854775808");
  EXPECT_EQ(EncodedValue(PlistValue::MakeUnsigned(UINT64_MAX)), "18446744073709551615");
  EXPECT_EQ(EncodedValue(PlistValue::MakeReal(0.1)), "0.10000000000000001");
  EXPECT_EQ(EncodedValue(PlistValue::MakeReal(2)), "2");
  EXPECT_EQ(EncodedValue(PlistValue::MakeReal(1e300)), "1.0000000000000001e+300");
}

TEST(JsonEncoderTest, FailuresGiveNoDocumentAndTheExactMessage) {
  const char* notFinite = "Floating point values must be finite.  JSON does not support NaN or Infinity.";
  EXPECT_EQ(FailureOf(Dictionary({{"x", PlistValue::MakeReal(std::nan(""))}})), notFinite);
  EXPECT_EQ(FailureOf(PlistValue::MakeArray({PlistValue::MakeReal(-INFINITY)})), notFinite);
  EXPECT_EQ(FailureOf(Dictionary({{"when", PlistValue::MakeDate(0)}})),
            "Unable to serialize object class __NSDate.");
  EXPECT_EQ(FailureOf(PlistValue::MakeArray({PlistValue::MakeData({1})})),
            "Unable to serialize object class NSConcreteData.");
  EXPECT_EQ(FailureOf(Text("top")),
            "Unable to serialize object class __NSCFString, expected a NSArray or NSDictionary.");
  EXPECT_EQ(FailureOf(nullptr),
            "Unable to serialize object class (null), expected a NSArray or NSDictionary.");
  EXPECT_EQ(FailureOf(Dictionary({{"v", Text("caf\xE9")}})),
            "An error occurred converting the contents of a NSString to UTF8.");
  // The first error wins and ends the run.
  EXPECT_EQ(FailureOf(PlistValue::MakeArray({PlistValue::MakeDate(0), PlistValue::MakeReal(NAN)})),
            "Unable to serialize object class __NSDate.");
  EXPECT_EQ(EncodeJson(PlistValue::MakeArray({PlistValue::MakeDate(0)}), 0), std::nullopt);  // no error record asked for
}

}  // namespace
}  // namespace tarn
