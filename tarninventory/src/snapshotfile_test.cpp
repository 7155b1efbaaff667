#include "tarninventory/src/snapshotfile.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"

namespace tarn {
namespace {

PlistPtr Text(const std::string& text) { return PlistValue::MakeString(text); }

// Root dictionary {others..., "INVDatadict": scanData}, as the property-list store builds it.
PlistPtr Root(const std::vector<PlistValue::Entry>& others, const PlistPtr& scanData) {
  PlistPtr root = PlistValue::MakeDictionary();
  for (const auto& [key, value] : others) root->SetValueForKey(key, value);
  root->SetValueForKey("INVDatadict", scanData);
  return root;
}

// Texts that exercise what XML writing and reading can change: markup characters, entities'
// own spelling, white space at the ends, line ends of every kind, non-ASCII, empty.
const std::vector<std::string> kTexts = {"",
                                         "plain",
                                         "a&b<c>d",
                                         "&amp; &lt;",
                                         "\"quoted\" 'single'",
                                         "  padded  ",
                                         "line\nfeed\r\nand\rreturn\ttab",
                                         "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80",
                                         "]]> <![CDATA[ <!-- -->",
                                         "a long text, 0123456789 & more <b>bold</b> text",
                                         "\x01\x1f\x7f controls"};

// A random scan data dictionary made of kTexts.
PlistPtr RandomScanData(std::mt19937& random) {
  const auto text = [&] { return kTexts[random() % kTexts.size()]; };
  PlistPtr scanData = PlistValue::MakeDictionary();
  for (int c = 0, classes = static_cast<int>(random() % 4); c < classes; ++c) {
    PlistPtr instances = PlistValue::MakeArray();
    for (int i = 0, count = static_cast<int>(random() % 4); i < count; ++i) {
      PlistPtr instance = PlistValue::MakeDictionary();
      for (int e = 0, entries = static_cast<int>(random() % 5); e < entries; ++e) {
        instance->SetValueForKey(text() + std::to_string(e), Text(text()));
      }
      instances->Append(instance);
    }
    scanData->SetValueForKey(text() + std::to_string(c), instances);
  }
  return scanData;
}

// Text libplist cannot write raises the error ToXmlPlist raises for the first such text it
// meets, wherever it sits.
TEST(SnapshotFileTest, UnwritableTextRaisesAsLibplistDoesAtTheFirstOne) {
  const std::string bad[] = {std::string("nul\0byte", 8), "latin1 \xE9", "cut \xE2\x82"};
  for (const std::string& first : bad) {
    for (const std::string& second : bad) {
      for (int where = 0; where < 3; ++where) {
        SCOPED_TRACE(where);
        PlistPtr instance = PlistValue::MakeDictionary();
        instance->SetValueForKey("1", Text("fine"));
        instance->SetValueForKey(where == 0 ? first : "2", Text(where == 1 ? first : "ok"));
        instance->SetValueForKey("3", Text(second));
        PlistPtr scanData = PlistValue::MakeDictionary();
        scanData->SetValueForKey(where == 2 ? first : "18", PlistValue::MakeArray({instance}));
        std::string expected;
        try {
          ToXmlPlist(*Root({}, scanData));
        } catch (const PlatformException& failure) {
          expected = failure.what();
        }
        ASSERT_FALSE(expected.empty());
        try {
          SnapshotXml({}, *ScanData::FromPlist(*scanData));
          ADD_FAILURE() << "no exception";
        } catch (const PlatformException& failure) {
          EXPECT_EQ(std::string(failure.what()), expected);
        }
      }
    }
  }
}

TEST(SnapshotFileTest, WritesWhatLibplistWritesAndReadsItBackAsParsePlistDoes) {
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    const PlistPtr scanData = RandomScanData(random);
    std::vector<PlistValue::Entry> others;
    if (round % 3 == 0) {
      others = {{"OTHER", Text("kept")},
                {"list", PlistValue::MakeArray({PlistValue::MakeInteger(-4), Text("&")})}};
    }
    const std::string expected = ToXmlPlist(*Root(others, scanData));
    const std::string written = SnapshotXml(others, *ScanData::FromPlist(*scanData));
    ASSERT_EQ(written, expected);

    const std::optional<PlainSnapshot> plain = ReadPlainSnapshot(written);
    ASSERT_EQ(plain.has_value(), others.empty());  // other keys go to the general reader
    if (plain) {
      ASSERT_TRUE(plain->hasScanData);
      EXPECT_TRUE(*plain->scanData.ToPlist() == *ParsePlist(written)->ValueForKey("INVDatadict"));
      EXPECT_EQ(plain->scanData.ToPlist()->Description(), scanData->Description());
      EXPECT_TRUE(ReadPlainSnapshot(written, /*buildScanData=*/false).has_value());
    }
  }
}

TEST(SnapshotFileTest, OnlyThePlainShapeIsReadDirectly) {
  const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
  const auto document = [&](const std::string& root) { return head + root + "</plist>\n"; };
  const std::string instance = "<dict><key>1801</key><string>Safari</string></dict>";
  struct Case {
    const char* name;
    std::string bytes;
    bool plain;
  };
  const std::vector<Case> cases = {
      {"compact layout", document("<dict><key>INVDatadict</key><dict><key>18</key><array>" +
                                  instance + "</array></dict></dict>"),
       true},
      {"empty root", document("<dict/>"), true},
      {"empty scan data", document("<dict><key>INVDatadict</key><dict/></dict>"), true},
      {"empty string element",
       document("<dict><key>INVDatadict</key><dict><key>1</key><array><dict><key>a</key>"
                "<string/></dict></array></dict></dict>"),
       true},
      {"another top-level key",
       document("<dict><key>X</key><string>1</string><key>INVDatadict</key><dict/></dict>"),
       false},
      {"repeated key",
       document("<dict><key>INVDatadict</key><dict><key>1</key><array><dict><key>a</key>"
                "<string>x</string><key>a</key><string>y</string></dict></array></dict></dict>"),
       false},
      {"number value",
       document("<dict><key>INVDatadict</key><dict><key>1</key><array><dict><key>a</key>"
                "<integer>1</integer></dict></array></dict></dict>"),
       false},
      {"numeric character reference",
       document("<dict><key>INVDatadict</key><dict><key>&#49;</key><array/></dict></dict>"),
       false},
      {"comment", document("<!-- c --><dict/>"), false},
      {"byte-order mark", "\xEF\xBB\xBF" + document("<dict/>"), false},
      {"trailing text", document("<dict/>") + "x", false},
      {"NUL byte", document("<dict><key>INVDatadict</key><dict><key>a\0b</key><array/></dict>"
                            "</dict>"),
       false},
      {"not UTF-8", document("<dict><key>INVDatadict</key><dict><key>\xE9</key><array/>"
                             "</dict></dict>"),
       false},
      {"doctype with subset", "<!DOCTYPE plist [ <!ENTITY a \"b\"> ]>" + document("<dict/>"),
       false},
      {"NUL byte in the declaration (found by fuzzing)",
       std::string("<?xml version=\"1.0\" encoding=\"UTF-\0" "8\"?>\n", 40) +
           "<plist version=\"1.0\">\n<dict/>\n</plist>\n",
       false},
      // A declaration libplist does not read (found by fuzzing).
      {"odd declaration",
       "<?xml version=\"1.0\" encoding=\"UTF-8\"=\"?>\n<plist>" +
           std::string("<dict><key>INVDatadict</key><dict/></dict></plist>"),
       false},
      {"declaration without a version (found by fuzzing)",
       "<?xml versidicon=\"1.0\" encoding=\"UTF-8\"?>\n<plist>" +
           std::string("<dict><key>INVDatadict</key><dict/></dict></plist>"),
       false},
      {"declaration after white space", " " + document("<dict/>"), false},
      {"no declaration", "<plist version=\"1.0\"><dict/></plist>", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::optional<PlainSnapshot> plain = ReadPlainSnapshot(c.bytes);
    ASSERT_EQ(plain.has_value(), c.plain);
    if (!plain) continue;
    // What is read directly equals the general reading.
    const PlistPtr general = ParsePlist(c.bytes);
    ASSERT_NE(general, nullptr);
    const PlistPtr scanData = general->ValueForKey("INVDatadict");
    ASSERT_EQ(plain->hasScanData, scanData != nullptr);
    if (scanData) {
      EXPECT_TRUE(*plain->scanData.ToPlist() == *scanData);
    }
  }
}

}  // namespace
}  // namespace tarn
