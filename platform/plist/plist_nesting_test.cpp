#include "platform/plist/plist_nesting.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarn {
namespace {

TEST(XmlNestingTest, CountsOpenContainersAsLibplistReadsTheMarkup) {
  struct Case {
    const char* name;
    std::string xml;
    int deepest;  // the smallest maxDepth that accepts it; -1: never accepted
  };
  const Case cases[] = {
      {"plain", "<plist><array><dict><key>a</key><array/></dict></array></plist>", 2},
      {"empty elements do not nest", "<array><array/><array /><dict/></array>", 1},
      {"closing tag with blanks", "<array><array></array ><array></array></array>", 2},
      {"attributes", "<array a=\"1\" b='2'><array></array></array>", 2},
      {"declaration and doctype",
       "<?xml version=\"1.0\"?><!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
       "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\"><array><array/></array>",
       1},
      // Closing tags the reader skips do not lower the count...
      {"closing hidden in a comment", "<array><!-- </array> --><array></array></array>", 2},
      {"closing hidden in a processing instruction",
       "<array><? ></array>?><array><? ></array>?></array>", 2},
      {"closing hidden in a quoted attribute", "<array a=\"></array>\"><array/></array>", 1},
      {"closing hidden in CDATA", "<array><![CDATA[ </array> ]]></array>", 1},
      // ... and openings it skips still count.
      {"openings hidden in a comment", "<array><!-- <array><dict> --></array>", 3},
      {"openings hidden in a processing instruction", "<? <array> ?>", 1},
      // Input that cannot be followed.
      {"doctype with internal subset", "<!DOCTYPE x [ <!ENTITY a \"b\"> ]><array/>", -1},
      {"unterminated comment", "<array><!-- </array>", -1},
      {"unterminated processing instruction", "<array><? </array>", -1},
      {"unterminated quote", "<array a=\"></array>", -1},
      {"unterminated tag", "<array", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.deepest < 0) {
      EXPECT_FALSE(XmlNestingWithin(c.xml, 1000));
      continue;
    }
    EXPECT_TRUE(XmlNestingWithin(c.xml, c.deepest));
    if (c.deepest > 0) {
      EXPECT_FALSE(XmlNestingWithin(c.xml, c.deepest - 1));
    }
  }
}

TEST(XmlNestingTest, ProcessingInstructionsCannotHideDeepNesting) {
  std::string xml = "<plist>";
  for (int i = 0; i < 200000; ++i) xml += "<array><? ></array>?>";
  EXPECT_FALSE(XmlNestingWithin(xml, 256));
}

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
    for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>((value >> shift) & 0xFF);
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
  EXPECT_TRUE(BinaryNestingWithin(small, 2, 5));
  EXPECT_FALSE(BinaryNestingWithin(small, 1, 5));
  EXPECT_FALSE(BinaryNestingWithin(small, 2, 4));

  const std::string doubling = DoublingArrays(20);
  EXPECT_LT(doubling.size(), 130u);
  EXPECT_TRUE(BinaryNestingWithin(doubling, 20, (std::uint64_t{1} << 21) - 1));
  EXPECT_FALSE(BinaryNestingWithin(doubling, 20, (std::uint64_t{1} << 21) - 2));
  EXPECT_FALSE(BinaryNestingWithin(DoublingArrays(62), 256, 1u << 20));

  // A string holding a NUL character (libplist asserts on one), as ASCII and as UTF-16.
  std::string nul = small;
  nul[9] = '\0';
  EXPECT_FALSE(BinaryNestingWithin(nul, 2, 5));
  std::string utf16("bplist00\x61\x00\x00", 11);
  utf16 += std::string("\x08", 1) + std::string(6, '\0') + "\x01\x01";
  for (const std::uint64_t field : {std::uint64_t{1}, std::uint64_t{0}, std::uint64_t{11}}) {
    for (int shift = 56; shift >= 0; shift -= 8) utf16 += static_cast<char>(field >> shift);
  }
  EXPECT_FALSE(BinaryNestingWithin(utf16, 2, 5));
  utf16[10] = 'x';
  EXPECT_TRUE(BinaryNestingWithin(utf16, 2, 5));

  // A reference cycle and a damaged trailer cannot be followed.
  EXPECT_FALSE(BinaryNestingWithin(BinaryPlist({{}, {2}, {1}}), 256, 1000));
  EXPECT_FALSE(BinaryNestingWithin(small.substr(0, small.size() - 1), 256, 1000));
}

}  // namespace
}  // namespace tarn
