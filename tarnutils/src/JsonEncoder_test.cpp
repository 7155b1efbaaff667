#include "tarnutils/src/JsonEncoder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>

// GCC pairs the replaced operator delete's free() with the operator new it cannot see through
// and warns; the pair below allocates with malloc and frees with free, so it does match.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

// Fault injection for the whole test binary: while armed, every allocation of at least that
// many bytes fails as an exhausted heap would.
namespace {
std::atomic<std::size_t> gFailAllocationsFrom{0};  // 0: never
}  // namespace

void* operator new(std::size_t size) {
  const std::size_t limit = gFailAllocationsFrom.load();
  if (limit != 0 && size >= limit) throw std::bad_alloc();
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace tarn {
namespace {

// Makes allocations of at least `bytes` fail for its lifetime.
class LargeAllocationsFail {
 public:
  explicit LargeAllocationsFail(std::size_t bytes) { gFailAllocationsFrom = bytes; }
  ~LargeAllocationsFail() { gFailAllocationsFrom = 0; }
  LargeAllocationsFail(const LargeAllocationsFail&) = delete;
  LargeAllocationsFail& operator=(const LargeAllocationsFail&) = delete;
};

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

// Arrays nested `depth` deep around one text.
PlistPtr NestedArrays(std::size_t depth) {
  PlistPtr value = Text("core");
  for (std::size_t i = 0; i < depth; ++i) value = PlistValue::MakeArray({value});
  return value;
}

TEST(JsonEncoderTest, NestingIsBoundedWithoutRecursion) {
  const std::string deepest = *EncodeJson(NestedArrays(kMaxJsonNesting), 0);
  EXPECT_EQ(deepest, std::string(kMaxJsonNesting, '[') + "\"core\"" +
                         std::string(kMaxJsonNesting, ']'));
  const std::string tooDeep = "Unable to serialize objects nested deeper than 512 levels.";
  EXPECT_EQ(FailureOf(NestedArrays(kMaxJsonNesting + 1)), tooDeep);
  // Far deeper than any call stack would take.
  const PlistPtr deep = NestedArrays(200000);
  EXPECT_EQ(FailureOf(deep), tooDeep);
  // The tree is taken apart from the outside in, so that freeing it does not recurse either.
  for (PlistPtr level = deep; level && level->IsArray();) {
    PlistPtr inner = level->ObjectAtIndex(0);
    level->RemoveAtIndex(0);
    level = inner;
  }
}

TEST(JsonEncoderTest, MemoryRunningOutGivesTheErrorRecord) {
  // A document of about two megabytes, whose buffer cannot grow past one.
  const PlistPtr big = PlistValue::MakeArray();
  for (int i = 0; i < 20000; ++i) big->Append(Text(std::string(100, 'x')));
  std::string message;
  {
    const LargeAllocationsFail failing(1 << 20);
    JsonEncoderError error;
    EXPECT_EQ(EncodeJson(big, kJsonPrettyPrint, &error), std::nullopt);
    message = error.localizedDescription;
  }
  EXPECT_EQ(message, "Unable to resize temporary buffer.");
  EXPECT_TRUE(EncodeJson(big, kJsonPrettyPrint).has_value());
}

}  // namespace
}  // namespace tarn
