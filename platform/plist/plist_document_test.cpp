#include "platform/plist/plist_document.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"

namespace tarn {
namespace {

std::string Xml(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body +
         "</plist>\n";
}

// The answer of a read, or the description of what it raised.
template <typename Read>
std::string Outcome(Read read) {
  try {
    return "value " + read();
  } catch (const PlatformException& failure) {
    return "raised " + failure.description();
  }
}

std::string Shown(const std::optional<std::string>& text) { return text.value_or("<absent>"); }

// Every read the collectors make, on the document and on ParsePlist's tree, must agree.
void ExpectSameReadings(const std::string& bytes) {
  SCOPED_TRACE(bytes);
  const PlistPtr tree = ParsePlist(bytes);
  const std::unique_ptr<PlistDocument> document = PlistDocument::Parse(bytes);
  ASSERT_EQ(document != nullptr, tree != nullptr);
  if (!tree) return;
  const PlistNode root = document->Root();
  EXPECT_TRUE(*root.ToValue() == *tree);
  const std::vector<std::string> keys = {"_items", "_name", "version", "missing", ""};
  for (std::size_t index : {0u, 1u, 5u}) {
    EXPECT_EQ(Outcome([&] { return Shown(TextOf(ObjectAtIndex(root, index))); }),
              Outcome([&] { return Shown(TextOf(ObjectAtIndex(tree, index))); }));
    for (const std::string& key : keys) {
      EXPECT_EQ(Outcome([&] {
                  return Shown(TextOf(ValueForKey(ObjectAtIndex(root, index), key)));
                }),
                Outcome([&] { return Shown(TextOf(ValueForKey(ObjectAtIndex(tree, index), key))); }));
      EXPECT_EQ(Outcome([&] {
                  return std::to_string(Count(ValueForKey(ObjectAtIndex(root, index), key)));
                }),
                Outcome([&] {
                  return std::to_string(Count(ValueForKey(ObjectAtIndex(tree, index), key)));
                }));
    }
  }
  // Several keys in one walk read as the tree reads each key.
  static constexpr const char* kSeveral[] = {"version", "_name", "missing", "_name"};
  for (std::size_t index : {0u, 1u}) {
    EXPECT_EQ(Outcome([&] {
                PlistNode values[std::size(kSeveral)];
                ValuesForKeys(ObjectAtIndex(root, index), kSeveral, values);
                std::string shown;
                for (const PlistNode& value : values) shown += Shown(TextOf(value)) + "|";
                return shown;
              }),
              Outcome([&] {
                std::string shown;
                for (const char* key : kSeveral) {
                  shown += Shown(TextOf(ValueForKey(ObjectAtIndex(tree, index), key))) + "|";
                }
                return shown;
              }));
  }
  for (const std::string& key : keys) {
    EXPECT_EQ(Outcome([&] { return Shown(TextOf(ValueForKey(root, key))); }),
              Outcome([&] { return Shown(TextOf(ValueForKey(tree, key))); }));
  }
  EXPECT_EQ(Outcome([&] { return std::to_string(Count(root)); }),
            Outcome([&] { return std::to_string(Count(tree)); }));
}

TEST(PlistDocumentTest, ReadsAsParsePlistsTreeReads) {
  const std::vector<std::string> documents = {
      Xml("<array><dict><key>_items</key><array><dict><key>_name</key><string>Mail</string>"
          "<key>version</key><integer>7</integer></dict><dict><key>_name</key><real>1.5</real>"
          "<key>version</key><array><string>a</string></array></dict><string>x</string>"
          "</array></dict></array>"),
      Xml("<array/>"),                                   // element 0 raises
      Xml("<dict><key>_name</key><true/></dict>"),       // a dictionary at the top
      Xml("<string>top</string>"),                        // counting a text raises
      Xml("<dict><key>_name</key><integer>-3</integer><key>_name</key>"
          "<string>again</string></dict>"),               // a repeated key
      Xml("<array><dict><key>_name</key><date>2024-04-12T15:26:32Z</date></dict></array>"),
      Xml("<array><dict><key>_name</key><data>AAE=</data></dict></array>"),
      Xml("<array><string>&#xD800;</string></array>"),  // a lone surrogate: refused
      Xml("<array><string>&#233;t&#xE9;</string></array>"),
      "\xEF\xBB\xBF" + Xml("<array><string>bom</string></array>"),
      Xml("<array><string>caf\xE9</string></array>"),   // not UTF-8: refused
      "not a property list",
      "",
  };
  for (const std::string& document : documents) ExpectSameReadings(document);
  EXPECT_NE(ParsePlist(documents[0]), nullptr);
  EXPECT_NE(ParsePlist(documents[8]), nullptr);

  // Binary lists: [{"_name": "Mac"}] as libplist writes it, and with a Latin-1 byte in "Mac".
  const std::string binary(
      "\x62\x70\x6c\x69\x73\x74\x30\x30\xa1\x01\xd1\x02\x03\x55\x5f\x6e\x61\x6d\x65\x53"
      "\x4d\x61\x63\x08\x0a\x0d\x13\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00"
      "\x00\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x17",
      59);
  ASSERT_NE(ParsePlist(binary), nullptr);
  ExpectSameReadings(binary);
  std::string latin1 = binary;
  latin1[20] = '\xE9';
  ExpectSameReadings(latin1);
}

}  // namespace
}  // namespace tarn
