#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "framework/persistent/dbutility.h"
#include "framework/utils/advtime.h"
#include "framework/utils/agentutils.h"

namespace tarn {
namespace {

TEST(StrictParsers, WholeTextMustBeTheNumber) {
  const struct {
    const char* text;
    std::int32_t expected;
  } intCases[] = {
      {"42", 42},   {"-7", -7}, {"+15", 15}, {"42 ", 0}, {" 42", 0}, {"", 0},
      {"'42'", 0},  {"-", 0},   {"4x2", 0},  {"007", 7}, {"2147483647", 2147483647},
      {"2147483648", std::numeric_limits<std::int32_t>::min()},  // wraps as 32-bit arithmetic
  };
  for (const auto& c : intCases) {
    EXPECT_EQ(AlphaToInt(c.text), c.expected) << '"' << c.text << '"';
  }
  EXPECT_EQ(AlphaToInt(nullptr), 0);
  EXPECT_EQ(AlphaToInt64("9007199254740993"), 9007199254740993LL);
  EXPECT_EQ(AlphaToInt64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(AlphaToInt64("12 "), 0);
}

TEST(StrictParsers, DoubleSumsFractionDigitByDigit) {
  const struct {
    const char* text;
    double expected;
  } cases[] = {
      {"1.25", 1.25}, {"-2.5", -2.5}, {"3", 3.0}, {"+0.5", 0.5}, {"1e3", 0},
      {".5", 0},      {"1.2.3", 0},   {"1.5 ", 0}, {"", 0},     {"abc", 0},
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(AlphaToDouble(c.text), c.expected) << '"' << c.text << '"';
  }
  // Only nine fraction digits count; a very long fraction must neither divide
  // by zero nor overflow, and any non-digit in it still rejects the text.
  EXPECT_NEAR(AlphaToDouble("0.1234567891111"), 0.123456789, 1e-12);
  const std::string longFraction = "7." + std::string(40, '9');
  EXPECT_NEAR(AlphaToDouble(longFraction.c_str()), 7.999999999, 1e-12);
  EXPECT_EQ(AlphaToDouble(("1." + std::string(40, '1') + "x").c_str()), 0);
}

TEST(AdvDateTimeText, ParsesTheThreeShapesAndPrintsThem) {
  auto both = ConvertStringToAdvDateTime("2024-03-05 10:20:30");
  ASSERT_TRUE(both);
  EXPECT_EQ(*ConvertAdvDateTimeToString(both.get()), "2024-03-05 10:20:30");

  auto dateOnly = ConvertStringToAdvDateTime("2024-03-05");
  ASSERT_TRUE(dateOnly && dateOnly->time);
  EXPECT_EQ(*ConvertAdvDateTimeToString(dateOnly.get()), "2024-03-05 00:00:00");

  auto timeOnly = ConvertStringToAdvDateTime("10:20");
  ASSERT_TRUE(timeOnly && timeOnly->date);
  EXPECT_EQ(*ConvertAdvDateTimeToString(timeOnly.get()), "0000-00-00 10:20:00");

  EXPECT_FALSE(ConvertStringToAdvDateTime("20240305"));
  EXPECT_FALSE(ConvertStringToAdvDateTime(nullptr));

  AdvDateTime partial;
  partial.date = AdvDate{2023, 12, 1};
  EXPECT_EQ(*ConvertAdvDateTimeToString(&partial), "2023-12-01");
  partial.date.reset();
  partial.time = AdvTime{7, 8, 9};
  EXPECT_EQ(*ConvertAdvDateTimeToString(&partial), "07:08:09");
  partial.time.reset();
  EXPECT_FALSE(ConvertAdvDateTimeToString(&partial));
  EXPECT_FALSE(ConvertAdvDateToString(nullptr));
}

TEST(AdvDateTimeText, CurrentTimeHasLocalCalendarFields) {
  const auto now = CurrentSystemTime();
  ASSERT_TRUE(now && now->date && now->time);
  EXPECT_GE(now->date->year, 2024);
  EXPECT_GE(now->date->month, 1);
  EXPECT_LE(now->date->month, 12);
  EXPECT_GT(GetCurrentSystemTime(), 1700000000);
}

template <typename T>
T ReadAs(const OwnedBlock& block) {
  return block.Read<T>();
}

TEST(ConvertToGenSQLType, EveryTypeCodeGivesItsStorageForm) {
  std::int32_t length = 0;
  // Integers in the type's storage size, low-order bytes.
  const struct {
    int type;
    std::int32_t size;
  } ints[] = {{1, 1}, {2, 1}, {3, 2}, {4, 2}, {5, 4}, {6, 4}};
  for (const auto& c : ints) {
    auto v = ConvertToGenSQLType("300", length, c.type);
    ASSERT_TRUE(v) << c.type;
    EXPECT_EQ(length, c.size) << c.type;
    EXPECT_EQ(v->size(), static_cast<std::size_t>(c.size)) << c.type;
    EXPECT_EQ(v->data()[0], 300 & 0xff) << c.type;
  }
  auto small = ConvertToGenSQLType("-2", length, 3);
  EXPECT_EQ(small->Read<std::int16_t>(), -2);
  auto wide = ConvertToGenSQLType("-5000000000", length, 7);
  EXPECT_EQ(length, 8);
  EXPECT_EQ(wide->Read<std::int64_t>(), -5000000000LL);
  EXPECT_EQ(ConvertToGenSQLType("18", length, 8)->Read<std::int64_t>(), 18);
  EXPECT_EQ(length, 8);

  for (int type : {9, 11}) {
    auto f = ConvertToGenSQLType("1.5", length, type);
    EXPECT_EQ(length, 4);
    EXPECT_FLOAT_EQ(f->Read<float>(), 1.5f);
  }
  auto d = ConvertToGenSQLType("2.25", length, 10);
  EXPECT_EQ(length, 8);
  EXPECT_DOUBLE_EQ(d->Read<double>(), 2.25);

  // Raw bytes take the length slot as input and end with an extra zero.
  for (int type : {0, 12, 13, 20, 21}) {
    length = 3;
    auto raw = ConvertToGenSQLType("abcdef", length, type);
    ASSERT_TRUE(raw) << type;
    EXPECT_EQ(length, 3);
    EXPECT_STREQ(raw->c_str(), "abc") << type;
  }
  length = 5;
  EXPECT_EQ(ConvertToGenSQLType("ab", length, 20)->size(), 5u);  // zero-filled, no over-read

  for (int type : {14, 15, 22}) {
    length = 0;
    auto text = ConvertToGenSQLType("hello", length, type);
    EXPECT_EQ(length, 5);
    EXPECT_STREQ(text->c_str(), "hello");
  }

  for (int type : {16, 17, 18}) {
    auto when = ConvertToGenSQLType("2024-03-05", length, type);
    ASSERT_TRUE(when) << type;
    EXPECT_EQ(length, 24);
    const auto record = LoadAdvDateTime(*when);
    ASSERT_TRUE(record && record->date && record->time);
    EXPECT_EQ(record->date->year, 2024);
    EXPECT_EQ(record->date->day, 5);
  }
  EXPECT_FALSE(ConvertToGenSQLType("soon", length, 16));

  auto yes = ConvertToGenSQLType("true", length, 19);
  EXPECT_EQ(length, 1);
  EXPECT_EQ(yes->data()[0], 1);
  EXPECT_EQ(ConvertToGenSQLType("FaLsE", length, 19)->data()[0], 0);
  EXPECT_FALSE(ConvertToGenSQLType("yes", length, 19));

  EXPECT_FALSE(ConvertToGenSQLType("1", length, 23));
  EXPECT_FALSE(ConvertToGenSQLType(nullptr, length, 5));
}

}  // namespace
}  // namespace tarn
