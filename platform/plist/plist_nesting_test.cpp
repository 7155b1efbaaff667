#include "platform/plist/plist_nesting.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/plist/plist_io.h"

namespace tarn {
namespace {

constexpr std::uint64_t kAnyPayload = UINT64_MAX;

// A binary property list made of the given objects; object i is a one-letter string when
// its list is empty, otherwise an array of the listed objects. The last object is the top.
std::string BinaryPlist(const std::vector<std::vector<int>>& objects) {
  std::string bytes = "bplist00";
  std::vector<std::size_t> offsets;
  for (const auto& references : objects) {
    offsets.push_back(bytes.size());
    if (references.empty()) {
      bytes += "\x51x";
      continue;
    }
    bytes += static_cast<char>(0xA0 | references.size());
    for (const int reference : references) bytes += static_cast<char>(reference);
  }
  const std::size_t table = bytes.size();
  for (const std::size_t offset : offsets) bytes += static_cast<char>(offset);
  const auto bigEndian64 = [&bytes](std::uint64_t value) {
    for (int shift = 56; shift >= 0; shift -= 8)
      bytes += static_cast<char>((value >> shift) & 0xFF);
  };
  bytes += std::string(6, '\0');
  bytes += '\x01';  // offset width
  bytes += '\x01';  // reference width
  bigEndian64(objects.size());
  bigEndian64(objects.size() - 1);
  bigEndian64(table);
  return bytes;
}

// Levels of [previous, previous] over one string: a few bytes that read as 2^(levels+1) - 1
// values.
std::string DoublingArrays(int levels) {
  std::vector<std::vector<int>> objects = {{}};
  for (int level = 1; level <= levels; ++level) objects.push_back({level - 1, level - 1});
  return BinaryPlist(objects);
}

TEST(BinaryNestingTest, BoundsDepthAndTheValuesSharedObjectsExpandTo) {
  // [[x, x], x]: depth 2, five values.
  const std::string small = BinaryPlist({{}, {0, 0}, {1, 0}});
  EXPECT_TRUE(BinaryNestingWithin(small, {2, 5, kAnyPayload}));
  EXPECT_FALSE(BinaryNestingWithin(small, {1, 5, kAnyPayload}));
  EXPECT_FALSE(BinaryNestingWithin(small, {2, 4, kAnyPayload}));

  const std::string doubling = DoublingArrays(20);
  EXPECT_LT(doubling.size(), 130u);
  EXPECT_TRUE(BinaryNestingWithin(doubling, {20, (std::uint64_t{1} << 21) - 1, kAnyPayload}));
  EXPECT_FALSE(BinaryNestingWithin(doubling, {20, (std::uint64_t{1} << 21) - 2, kAnyPayload}));
  EXPECT_FALSE(BinaryNestingWithin(DoublingArrays(62), {256, 1u << 20, kAnyPayload}));

  // A string holding a NUL character (libplist asserts on one), as ASCII and as UTF-16.
  std::string nul = small;
  nul[9] = '\0';
  EXPECT_FALSE(BinaryNestingWithin(nul, {2, 5, kAnyPayload}));
  std::string utf16("bplist00\x61\x00\x00", 11);
  utf16 += std::string("\x08", 1) + std::string(6, '\0') + "\x01\x01";
  for (const std::uint64_t field : {std::uint64_t{1}, std::uint64_t{0}, std::uint64_t{11}}) {
    for (int shift = 56; shift >= 0; shift -= 8) utf16 += static_cast<char>(field >> shift);
  }
  EXPECT_FALSE(BinaryNestingWithin(utf16, {2, 5, kAnyPayload}));
  utf16[10] = 'x';
  EXPECT_TRUE(BinaryNestingWithin(utf16, {2, 5, kAnyPayload}));

  // A reference cycle and a damaged trailer cannot be followed.
  EXPECT_FALSE(BinaryNestingWithin(BinaryPlist({{}, {2}, {1}}), {256, 1000, kAnyPayload}));
  EXPECT_FALSE(BinaryNestingWithin(small.substr(0, small.size() - 1), {256, 1000, kAnyPayload}));
}

// An array holding `references` references to one ASCII string of `length` bytes ("x"s), the
// string stored once: the shape of a small document that reads as a large one.
std::string SharedStringPlist(std::uint32_t length, std::uint32_t references) {
  std::string bytes = "bplist00";
  const auto bigEndian = [&bytes](std::uint64_t value, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
      bytes += static_cast<char>((value >> shift) & 0xFF);
    }
  };
  const std::size_t stringOffset = bytes.size();
  bytes += "\x5F\x12";  // ASCII string, 4-byte length
  bigEndian(length, 4);
  bytes += std::string(length, 'x');
  const std::size_t arrayOffset = bytes.size();
  bytes += "\xAF\x12";  // array, 4-byte count
  bigEndian(references, 4);
  bytes += std::string(references, '\0');  // one-byte references to object 0
  const std::size_t table = bytes.size();
  bigEndian(stringOffset, 4);
  bigEndian(arrayOffset, 4);
  bytes += std::string(6, '\0');
  bytes += '\x04';  // offset width
  bytes += '\x01';  // reference width
  bigEndian(2, 8);  // objects
  bigEndian(1, 8);  // top object
  bigEndian(table, 8);
  return bytes;
}

TEST(BinaryNestingTest, BoundsTheTextAndDataEveryReferenceExpandsTo) {
  // Counted per reference: 100 references to 1000 bytes are 100000 bytes.
  const std::string shared = SharedStringPlist(1000, 100);
  EXPECT_TRUE(BinaryNestingWithin(shared, {2, 1000, 100000}));
  EXPECT_FALSE(BinaryNestingWithin(shared, {2, 1000, 99999}));
  // Content running off the end of the data cannot be counted.
  std::string cut = shared;
  cut[10] = '\x7F';  // the string's length, now beyond the data
  EXPECT_FALSE(BinaryNestingWithin(cut, {2, 1000, kAnyPayload}));

  // Read as a property list: 2048 references to 32 KiB (64 MiB from 37 KB) are refused like
  // any unreadable report; the same shape within sixteen times its size and a mebibyte is not.
  EXPECT_EQ(ParsePlist(SharedStringPlist(32768, 2048)), nullptr);
  const PlistPtr fits = ParsePlist(SharedStringPlist(1024, 1024));
  ASSERT_NE(fits, nullptr);
  ASSERT_EQ(fits->Count(), 1024u);
  EXPECT_EQ(fits->ObjectAtIndex(1023)->String(), std::string(1024, 'x'));
}

}  // namespace
}  // namespace tarn
