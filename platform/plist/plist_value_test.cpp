#include "platform/plist/plist_value.h"

#include <gtest/gtest.h>

#include "platform/exception/platform_exception.h"

namespace tarn {
namespace {

TEST(PlistValueTest, DictionaryKeepsInsertionOrderAndHasTwoInsertionRules) {
  auto dictionary = PlistValue::MakeDictionary();
  dictionary->SetValueForKey("b", PlistValue::MakeString("1"));
  dictionary->SetValueForKey("a", PlistValue::MakeString("2"));
  dictionary->SetValueForKey("c", PlistValue::MakeString("3"));
  dictionary->SetValueForKey("b", PlistValue::MakeString("replaced"));  // keeps its place
  EXPECT_EQ(dictionary->Keys(), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(dictionary->ValueForKey("b")->String(), "replaced");
  EXPECT_EQ(dictionary->ValueForKey("missing"), nullptr);

  dictionary->SetValueForKey("a", nullptr);  // absent removes
  EXPECT_EQ(dictionary->Keys(), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(dictionary->ValueForKey("c")->String(), "3");  // positions follow the removal

  EXPECT_THROW(dictionary->SetObjectForKey("c", nullptr), PlatformException);
  EXPECT_EQ(dictionary->ValueForKey("c")->String(), "3");  // the raise changed nothing
  dictionary->SetObjectForKey("d", PlistValue::MakeInteger(4));
  EXPECT_EQ(dictionary->Count(), 3u);
}

// Large dictionaries keep a key index besides the entries; it must follow every change.
TEST(PlistValueTest, LargeDictionariesFindEveryKeyThroughGrowthRemovalAndCopies) {
  auto dictionary = PlistValue::MakeDictionary();
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    // Short keys live inside the strings, so moving the entries moves the key bytes too.
    const std::string key = (i % 2 == 0 ? "k" : "a long key that is stored apart ") +
                            std::to_string(i);
    dictionary->SetValueForKey(key, PlistValue::MakeInteger(i));
    expected.push_back(key);
  }
  for (int i = 0; i < 200; i += 3) {
    dictionary->RemoveKey(expected[static_cast<std::size_t>(i)]);
  }
  std::erase_if(expected, [&](const std::string& key) {
    return dictionary->ValueForKey(key) == nullptr;
  });
  ASSERT_EQ(dictionary->Keys(), expected);
  dictionary->SetValueForKey(expected[5], PlistValue::MakeString("replaced"));
  const PlistPtr copy = dictionary->Clone();
  for (const PlistPtr& value : {dictionary, copy}) {
    for (const std::string& key : expected) {
      ASSERT_NE(value->ValueForKey(key), nullptr) << key;
    }
    EXPECT_EQ(value->ValueForKey(expected[5])->String(), "replaced");
    EXPECT_EQ(value->ValueForKey("k0"), nullptr);
  }
  // Shrinking below the index size and growing again.
  for (std::size_t i = 0; i + 3 < expected.size(); ++i) dictionary->RemoveKey(expected[i]);
  dictionary->SetValueForKey("new", PlistValue::MakeBoolean(true));
  EXPECT_EQ(dictionary->Count(), 4u);
  EXPECT_EQ(dictionary->ValueForKey(expected.back())->AsInteger(), 199);
  EXPECT_EQ(dictionary->ValueForKey("new")->AsBoolean(), true);
}

TEST(PlistValueTest, WrongKindAndOutOfRangeRaiseButMissingKeyIsAbsent) {
  auto array = PlistValue::MakeArray({PlistValue::MakeString("x")});
  EXPECT_EQ(array->ObjectAtIndex(0)->String(), "x");
  try {
    array->ObjectAtIndex(1);
    FAIL() << "reading past the end must raise";
  } catch (const PlatformException& raised) {
    EXPECT_EQ(raised.name(), "NSRangeException");
    EXPECT_NE(raised.description().find("NSRangeException: "), std::string::npos);
  }
  EXPECT_THROW(array->Append(nullptr), PlatformException);
  EXPECT_THROW(array->ValueForKey("k"), PlatformException);
  EXPECT_THROW(PlistValue::MakeString("s")->Count(), PlatformException);

  // The nil-tolerant helpers: absent in, absent out; an empty root array still raises.
  EXPECT_EQ(ValueForKey(ObjectAtIndex(nullptr, 0), "_items"), nullptr);
  EXPECT_THROW(ObjectAtIndex(PlistValue::MakeArray(), 0), PlatformException);
  EXPECT_EQ(Count(nullptr), 0u);
}

TEST(PlistValueTest, SharedNodesCloneAndEquality) {
  auto inner = PlistValue::MakeArray();
  auto outer = PlistValue::MakeDictionary();
  outer->SetValueForKey("list", inner);
  inner->Append(PlistValue::MakeString("seen through the parent"));
  EXPECT_EQ(outer->ValueForKey("list")->Count(), 1u);

  const PlistPtr copy = outer->Clone();
  EXPECT_TRUE(*copy == *outer);
  inner->Append(PlistValue::MakeBoolean(true));
  EXPECT_FALSE(*copy == *outer);

  // Same bits, different numbers: 2^64-1 unsigned is not -1 signed; 5 equals 5 either way.
  EXPECT_FALSE(*PlistValue::MakeUnsigned(UINT64_MAX) == *PlistValue::MakeInteger(-1));
  EXPECT_TRUE(*PlistValue::MakeUnsigned(5) == *PlistValue::MakeInteger(5));
  EXPECT_FALSE(*PlistValue::MakeString("1") == *PlistValue::MakeInteger(1));

  auto set = PlistValue::MakeArray();
  auto entry = PlistValue::MakeDictionary();
  entry->SetValueForKey("Safari", PlistValue::MakeString("17.4"));
  set->Append(entry);
  EXPECT_TRUE(set->ContainsEqual(*entry->Clone()));
}

TEST(PlistValueTest, ScalarReadersConvertOnlyWhereMeaningful) {
  EXPECT_EQ(PlistValue::MakeInteger(-3)->AsInteger(), -3);
  EXPECT_EQ(PlistValue::MakeReal(2.9)->AsInteger(), 2);
  EXPECT_EQ(PlistValue::MakeReal(1e300)->AsInteger(), std::nullopt);
  EXPECT_EQ(PlistValue::MakeUnsigned(UINT64_MAX)->AsUnsigned(), UINT64_MAX);
  EXPECT_EQ(PlistValue::MakeString("12")->AsInteger(), std::nullopt);
  EXPECT_EQ(PlistValue::MakeBoolean(true)->AsInteger(), std::nullopt);
  EXPECT_EQ(PlistValue::MakeInteger(7)->AsString(), std::nullopt);
}

TEST(PlistValueTest, DescriptionQuotesWhatNeedsIt) {
  auto dictionary = PlistValue::MakeDictionary();
  dictionary->SetValueForKey("SERVER", PlistValue::MakeString("10.0.0.1"));
  dictionary->SetValueForKey("Name", PlistValue::MakeString("a \"b\""));
  dictionary->SetValueForKey(
      "List", PlistValue::MakeArray({PlistValue::MakeInteger(1), PlistValue::MakeBoolean(false)}));
  EXPECT_EQ(dictionary->Description(),
            "{\n"
            "    SERVER = 10.0.0.1;\n"
            "    Name = \"a \\\"b\\\"\";\n"
            "    List = (\n"
            "        1,\n"
            "        0\n"
            "    );\n"
            "}");
  EXPECT_EQ(PlistValue::MakeDate(0)->Description(), "\"2001-01-01 00:00:00 +0000\"");
  const std::pair<const char*, const char*> texts[] = {
      {"", "\"\""},
      {"/Apps/Mail.app-1_2:$", "/Apps/Mail.app-1_2:$"},
      {"Mail 2", "\"Mail 2\""},
      {"plainprefix\\then\ttab\nline\"", "\"plainprefix\\\\then\\ttab\\nline\\\"\""},
      {"caf\xC3\xA9", "\"caf\xC3\xA9\""},
  };
  for (const auto& [text, described] : texts) {
    EXPECT_EQ(PlistValue::MakeString(text)->Description(), described) << text;
  }
}

}  // namespace
}  // namespace tarn
