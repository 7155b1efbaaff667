#include "platform/plist/plist_io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"

namespace tarn {
namespace {

const std::string kXmlHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string XmlDocument(const std::string& body) { return kXmlHeader + body + "</plist>\n"; }

// A binary property list written by another writer: {"name": "Mac", "count": -5, "big": 2^40,
// "ok": true, "pi": 1.5, "when": 2024-04-12T15:26:32Z, "blob": <0001>, "list": ["a", "é"]},
// "é" stored as UTF-16.
const std::string kBinarySample(
    "\x62\x70\x6c\x69\x73\x74\x30\x30\xd8\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d"
    "\x0e\x0f\x10\x54\x6e\x61\x6d\x65\x55\x63\x6f\x75\x6e\x74\x53\x62\x69\x67\x52\x6f\x6b\x52"
    "\x70\x69\x54\x77\x68\x65\x6e\x54\x62\x6c\x6f\x62\x54\x6c\x69\x73\x74\x53\x4d\x61\x63\x13"
    "\xff\xff\xff\xff\xff\xff\xff\xfb\x13\x00\x00\x01\x00\x00\x00\x00\x00\x09\x23\x3f\xf8\x00"
    "\x00\x00\x00\x00\x00\x33\x41\xc5\xe4\xc5\x14\x00\x00\x00\x42\x00\x01\xa2\x11\x12\x51\x61"
    "\x61\x00\xe9\x08\x19\x1e\x24\x28\x2b\x2e\x33\x38\x3d\x41\x4a\x53\x54\x5d\x66\x69\x6c\x6e"
    "\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x13\x00\x00\x00\x00\x00\x00"
    "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x71",
    164);

constexpr double kApril12th2024 = 734628392;  // 2024-04-12T15:26:32Z, seconds since 2001

// A binary property list of `depth` arrays, each holding the next; the innermost is empty.
// With `cycle`, the innermost holds the outermost instead.
std::string NestedBinaryArrays(int depth, bool cycle = false) {
  std::string bytes = "bplist00";
  std::vector<std::size_t> offsets;
  for (int i = 0; i < depth; ++i) {
    offsets.push_back(bytes.size());
    const bool innermost = i == depth - 1;
    if (innermost && !cycle) {
      bytes += '\xA0';
    } else {
      bytes += '\xA1';
      const int next = innermost ? 0 : i + 1;
      bytes += static_cast<char>(next >> 8);
      bytes += static_cast<char>(next & 0xFF);
    }
  }
  const std::size_t tableStart = bytes.size();
  for (std::size_t offset : offsets) {
    bytes += static_cast<char>(offset >> 8);
    bytes += static_cast<char>(offset & 0xFF);
  }
  const auto bigEndian64 = [&bytes](std::uint64_t value) {
    for (int shift = 56; shift >= 0; shift -= 8)
      bytes += static_cast<char>((value >> shift) & 0xFF);
  };
  bytes += std::string(6, '\0');
  bytes += '\x02';  // offset width
  bytes += '\x02';  // reference width
  bigEndian64(static_cast<std::uint64_t>(depth));
  bigEndian64(0);
  bigEndian64(tableStart);
  return bytes;
}

std::string NestedXmlArrays(int depth) {
  std::string body;
  for (int i = 0; i < depth; ++i) body += "<array>";
  for (int i = 0; i < depth; ++i) body += "</array>";
  return XmlDocument(body);
}

TEST(PlistIoTest, ReadsToolOutputAndWritesThePlatformsXmlForm) {
  const std::string toolOutput = XmlDocument(
      "<array>\n\t<dict>\n"
      "\t\t<key>_dataType</key>\n\t\t<string>SPHardwareDataType</string>\n"
      "\t\t<key>_items</key>\n\t\t<array>\n\t\t\t<dict>\n"
      "\t\t\t\t<key>machine_name</key>\n\t\t\t\t<string>MacBook Pro</string>\n"
      "\t\t\t\t<key>number_processors</key>\n\t\t\t\t<integer>8</integer>\n"
      "\t\t\t\t<key>offset</key>\n\t\t\t\t<integer>-7</integer>\n"
      "\t\t\t\t<key>ratio</key>\n\t\t\t\t<real>0.5</real>\n"
      "\t\t\t\t<key>smc</key>\n\t\t\t\t<true/>\n"
      "\t\t\t</dict>\n\t\t</array>\n"
      "\t\t<key>_timeStamp</key>\n\t\t<date>2024-04-12T15:26:32Z</date>\n"
      "\t\t<key>_versionInfo</key>\n\t\t<dict/>\n"
      "\t</dict>\n</array>\n");
  const PlistPtr root = ParsePlist(toolOutput);
  ASSERT_NE(root, nullptr);
  const PlistPtr item = ObjectAtIndex(ValueForKey(ObjectAtIndex(root, 0), "_items"), 0);
  EXPECT_EQ(item->ValueForKey("machine_name")->String(), "MacBook Pro");
  EXPECT_EQ(item->ValueForKey("number_processors")->AsInteger(), 8);
  EXPECT_EQ(item->ValueForKey("offset")->AsInteger(), -7);
  EXPECT_EQ(item->ValueForKey("ratio")->AsReal(), 0.5);
  EXPECT_EQ(item->ValueForKey("smc")->AsBoolean(), true);
  EXPECT_EQ(root->ObjectAtIndex(0)->ValueForKey("_timeStamp")->AsDate(), kApril12th2024);
  EXPECT_EQ(root->ObjectAtIndex(0)->Keys(),
            (std::vector<std::string>{"_dataType", "_items", "_timeStamp", "_versionInfo"}));

  // Written back it is the same document, byte for byte, and reads back equal.
  EXPECT_EQ(ToXmlPlist(*root), toolOutput);
  EXPECT_TRUE(*ParsePlist(ToXmlPlist(*root)) == *root);
}

TEST(PlistIoTest, ReadsBinaryWithSignsDatesDataAndUtf16Text) {
  const PlistPtr root = ParsePlist(kBinarySample);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->Keys(),
            (std::vector<std::string>{"name", "count", "big", "ok", "pi", "when", "blob", "list"}));
  EXPECT_EQ(root->ValueForKey("count")->AsInteger(), -5);
  EXPECT_EQ(root->ValueForKey("big")->AsInteger(), std::int64_t{1} << 40);
  EXPECT_EQ(root->ValueForKey("when")->AsDate(), kApril12th2024);
  EXPECT_EQ(root->ValueForKey("blob")->Data(), (std::vector<std::uint8_t>{0, 1}));
  EXPECT_EQ(root->ValueForKey("list")->ObjectAtIndex(1)->String(), "\xC3\xA9");

  const std::string xml = ToXmlPlist(*root);
  EXPECT_NE(xml.find("<integer>-5</integer>"), std::string::npos);
  EXPECT_NE(xml.find("<date>2024-04-12T15:26:32Z</date>"), std::string::npos);
  EXPECT_NE(xml.find("AAE="), std::string::npos);  // base64 of 00 01
  EXPECT_TRUE(*ParsePlist(xml) == *root);
}

TEST(PlistIoTest, ByteOrderMarkIsSkippedButBadTextAndGarbageGiveAbsent) {
  EXPECT_NE(ParsePlist("\xEF\xBB\xBF" + XmlDocument("<dict/>")), nullptr);

  EXPECT_EQ(ParsePlist(XmlDocument("<string>caf\xE9</string>")), nullptr);   // Latin-1 byte
  EXPECT_EQ(ParsePlist(XmlDocument("<string>&#xD800;</string>")), nullptr);  // lone surrogate
  std::string binaryLatin1 = kBinarySample;
  binaryLatin1[0x3e] = '\xE9';  // "Mac" -> "\xE9ac" in a one-byte string
  EXPECT_EQ(ParsePlist(binaryLatin1), nullptr);

  for (const std::string& garbage :
       {std::string(), std::string("not a property list"), std::string("bplist00"),
        kBinarySample.substr(0, 100), std::string("<plist><dict><key>a</key>")}) {
    EXPECT_EQ(ParsePlist(garbage), nullptr) << garbage;
  }
}

TEST(PlistIoTest, NestingIsBoundedBeforeLibplistSeesIt) {
  EXPECT_NE(ParsePlist(NestedXmlArrays(kMaxPlistDepth)), nullptr);
  EXPECT_EQ(ParsePlist(NestedXmlArrays(kMaxPlistDepth + 1)), nullptr);
  EXPECT_EQ(ParsePlist(NestedXmlArrays(100000)), nullptr);
  // Closing tags hidden in a comment do not lower the count.
  std::string hidden = "<array>";
  for (int i = 0; i < 300; ++i) hidden += "<array><!-- </array> -->";
  EXPECT_EQ(ParsePlist(XmlDocument(hidden)), nullptr);

  EXPECT_NE(ParsePlist(NestedBinaryArrays(kMaxPlistDepth)), nullptr);
  EXPECT_EQ(ParsePlist(NestedBinaryArrays(kMaxPlistDepth + 1)), nullptr);
  EXPECT_EQ(ParsePlist(NestedBinaryArrays(20000)), nullptr);
  EXPECT_EQ(ParsePlist(NestedBinaryArrays(3, /*cycle=*/true)), nullptr);
}

// `levels` arrays over one string "x", each holding the one below twice: about 60 + 3 *
// levels bytes that libplist reads as 2^(levels + 1) - 1 values.
std::string DoublingBinaryArrays(int levels) {
  std::string bytes = "bplist00\x51x";
  for (int level = 1; level <= levels; ++level) {
    bytes += '\xA2';
    bytes += static_cast<char>(level - 1);
    bytes += static_cast<char>(level - 1);
  }
  const std::size_t table = bytes.size();
  bytes += static_cast<char>(8);
  for (int level = 1; level <= levels; ++level) bytes += static_cast<char>(10 + 3 * (level - 1));
  bytes += std::string(6, '\0') + "\x01\x01";
  for (const auto field : {std::uint64_t(levels) + 1, std::uint64_t(levels), std::uint64_t{table}}) {
    for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(field >> shift);
  }
  return bytes;
}

TEST(PlistIoTest, HiddenNestingAndSharedExpansionNeverReachLibplist) {
  // Closing tags inside processing instructions: libplist would nest 200,000 levels and
  // crash freeing them.
  std::string hidden;
  for (int i = 0; i < 200000; ++i) hidden += "<array><? ></array>?>";
  EXPECT_EQ(ParsePlist(XmlDocument(hidden)), nullptr);
  // 300,000 levels behind an apostrophe, which libplist does not read as a quote.
  std::string apostrophe = "<array x='>";
  for (int i = 0; i < 300000; ++i) apostrophe += "<array>";
  EXPECT_EQ(ParsePlist(XmlDocument(apostrophe + "'>")), nullptr);

  // 20 levels in under 130 bytes would make libplist build two million values.
  ASSERT_LT(DoublingBinaryArrays(20).size(), 130u);
  EXPECT_EQ(ParsePlist(DoublingBinaryArrays(20)), nullptr);
  // A little sharing reads as usual.
  const PlistPtr shared = ParsePlist(DoublingBinaryArrays(3));
  ASSERT_NE(shared, nullptr);
  EXPECT_EQ(shared->ObjectAtIndex(1)->ObjectAtIndex(0)->ObjectAtIndex(1)->String(), "x");
}

// libplist asserts (and aborts the process) on a string holding a NUL character.
TEST(PlistIoTest, TextWithANulCharacterIsRefusedBeforeLibplistSeesIt) {
  EXPECT_EQ(ParsePlist(XmlDocument(std::string("<array><string>a\0b</string></array>", 36))),
            nullptr);
  EXPECT_EQ(ParsePlist(XmlDocument(std::string("<dict><key>a\0b</key><true/></dict>", 34))),
            nullptr);
  // kBinarySample's "Mac" (ASCII) and "\u00e9" (UTF-16) with a NUL in place of a letter.
  std::string ascii = kBinarySample;
  ascii[0x3f] = '\0';
  EXPECT_EQ(ParsePlist(ascii), nullptr);
  std::string utf16 = kBinarySample;
  utf16[0x70] = '\0';
  EXPECT_EQ(ParsePlist(utf16), nullptr);
  EXPECT_NE(ParsePlist(kBinarySample), nullptr);
}

TEST(PlistIoTest, WritingRefusesWhatCannotBeWrittenFaithfully) {
  EXPECT_THROW(ToXmlPlist(*PlistValue::MakeString("caf\xE9")), PlatformException);
  EXPECT_THROW(ToXmlPlist(*PlistValue::MakeString(std::string("a\0b", 3))), PlatformException);
  EXPECT_THROW(ToXmlPlist(*PlistValue::MakeUnsigned(UINT64_MAX)), PlatformException);
  EXPECT_THROW(ToXmlPlist(*PlistValue::MakeDate(3e9)), PlatformException);  // year 2096
  PlistPtr deep = PlistValue::MakeArray();
  for (int i = 0; i < kMaxPlistDepth; ++i) deep = PlistValue::MakeArray({deep});
  EXPECT_THROW(ToXmlPlist(*deep), PlatformException);

  EXPECT_EQ(ToXmlPlist(*PlistValue::MakeUnsigned(INT64_MAX)),
            XmlDocument("<integer>9223372036854775807</integer>\n"));
  EXPECT_EQ(ToXmlPlist(*PlistValue::MakeDictionary()), XmlDocument("<dict/>\n"));
}

class PlistFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ =
        std::filesystem::temp_directory_path() / ("plist_io_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  std::filesystem::path directory_;
};

TEST_F(PlistFileTest, AtomicWriteReplacesTheFileAndLeavesNothingOnFailure) {
  const std::string path = (directory_ / "store.plist").string();
  ASSERT_TRUE(WriteFileAtomically(path, "first"));
  ASSERT_TRUE(WriteFileAtomically(path, XmlDocument("<dict/>")));
  EXPECT_EQ(ReadWholeFile(path), XmlDocument("<dict/>"));
  ASSERT_NE(ReadPlistFile(path), nullptr);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_),
                          std::filesystem::directory_iterator()),
            1);

  EXPECT_FALSE(WriteFileAtomically((directory_ / "missing" / "x.plist").string(), "data"));
  EXPECT_EQ(ReadPlistFile((directory_ / "absent.plist").string()), nullptr);
}

TEST_F(PlistFileTest, AtomicWriteIsOwnerOnlyWhateverTheMaskAndNeverWritesThroughALink) {
  const std::string path = (directory_ / "store.plist").string();
  const mode_t previous = ::umask(022);
  const bool written = WriteFileAtomically(path, "secret");
  ::umask(previous);
  ASSERT_TRUE(written);
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(path).permissions(), perms::owner_read | perms::owner_write);

  // A link planted at the path is replaced by the new file; its target keeps its content.
  const auto target = directory_ / "target";
  std::ofstream(target) << "untouched";
  std::filesystem::remove(path);
  std::filesystem::create_symlink(target, path);
  ASSERT_TRUE(WriteFileAtomically(path, "new"));
  EXPECT_FALSE(std::filesystem::is_symlink(path));
  EXPECT_EQ(ReadWholeFile(path), "new");
  EXPECT_EQ(ReadWholeFile(target.string()), "untouched");
}

}  // namespace
}  // namespace tarn
