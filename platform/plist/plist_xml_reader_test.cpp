#include "platform/plist/plist_xml_reader.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/plist/plist_binary_reader.h"

namespace tarn {
namespace {

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};

PlistPtr Ours(const std::string& xml) { return ReadXmlPlist(xml, 256); }

// libplist's own reading of the document, converted once.
PlistPtr Libplists(const std::string& xml) {
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
  const std::unique_ptr<void, PlistFree> tree(root);
  return tree ? PlistFromLibplistTree(tree.get()) : nullptr;
}

std::string Bits(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return std::to_string(bits);
}

// What a scalar is, exactly: its kind, signedness, reals and dates bit for bit.
std::string Exactly(const PlistValue& value) {
  const std::string kind = std::to_string(static_cast<int>(value.type())) + ":";
  switch (value.type()) {
    case PlistType::kInteger:
      return kind + (value.IsUnsignedInteger() ? "u" : "") + std::to_string(*value.AsUnsigned());
    case PlistType::kReal:
      return kind + Bits(*value.AsReal());
    case PlistType::kDate:
      return kind + Bits(*value.AsDate());
    default:
      return kind + value.Description();
  }
}

// The first difference between two trees, or "" when they are the same value for value
// (dictionary entries in order).
std::string Difference(const PlistValue& a, const PlistValue& b, const std::string& path = "/") {
  if (a.type() != b.type()) return path + ": kinds differ";
  if (a.IsArray()) {
    if (a.Count() != b.Count()) return path + ": sizes differ";
    for (std::size_t i = 0; i < a.Count(); ++i) {
      const std::string found =
          Difference(*a.Elements()[i], *b.Elements()[i], path + std::to_string(i) + "/");
      if (!found.empty()) return found;
    }
    return "";
  }
  if (a.IsDictionary()) {
    if (a.Count() != b.Count()) return path + ": sizes differ";
    for (std::size_t i = 0; i < a.Count(); ++i) {
      const auto& [keyA, childA] = a.Entries()[i];
      const auto& [keyB, childB] = b.Entries()[i];
      if (keyA != keyB) return path + ": keys differ";
      const std::string found = Difference(*childA, *childB, path + keyA + "/");
      if (!found.empty()) return found;
    }
    return "";
  }
  const std::string x = Exactly(a);
  const std::string y = Exactly(b);
  return x == y ? "" : path + ": " + x + " against " + y;
}

void ExpectAsLibplist(const std::string& xml) {
  SCOPED_TRACE(xml.substr(0, 200));
  const PlistPtr theirs = Libplists(xml);
  const PlistPtr ours = Ours(xml);
  ASSERT_NE(theirs, nullptr);
  ASSERT_NE(ours, nullptr);
  EXPECT_EQ(Difference(*ours, *theirs), "");
}

std::string InArray(const std::string& values) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD "
         "PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist "
         "version=\"1.0\"><array>" +
         values + "</array></plist>\n";
}

// The XML property lists under the folder, each as its bytes.
std::vector<std::string> XmlPlistsUnder(const std::filesystem::path& folder) {
  std::vector<std::string> documents;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (!entry.is_regular_file() || (!name.ends_with(".xml") && !name.ends_with(".plist"))) {
      continue;
    }
    std::ifstream file(entry.path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    if (bytes.str().starts_with("bplist") || bytes.str().find("<plist") == std::string::npos) {
      continue;
    }
    documents.push_back(bytes.str());
  }
  return documents;
}

TEST(XmlPlistReader, ReadsEveryRecordedReportAsLibplistDoes) {
  const std::vector<std::string> recorded = XmlPlistsUnder(TARN_SOURCE_DIR "/testdata/machines");
  EXPECT_GT(recorded.size(), 40u);
  for (const std::string& report : recorded) ExpectAsLibplist(report);
  // Reports captured on real machines, where the shared test data lies beside the sources.
  const std::filesystem::path captured = TARN_SOURCE_DIR "/../shared/real-captures";
  if (std::filesystem::is_directory(captured)) {
    for (const std::string& report : XmlPlistsUnder(captured)) ExpectAsLibplist(report);
  }
}

TEST(XmlPlistReader, ReadsEveryValueAsLibplistDoes) {
  const char* const values[] = {
      // Texts: entities, character references, CDATA, comments, carriage returns, blanks.
      "<string> x &amp;&lt;&gt;&quot;&apos;&#65;&#x42;&#233; </string>",
      "<string><![CDATA[a<b]]>c</string><string>a<!-- x -->b</string><string/><string></string>",
      "<string>a\r\nb\rc</string>",
      // Characters XML refuses and libplist writes as they are.
      "<string>\x01\x1f\x7f controls "
      "\xEF\xBF\xBE\xEF\xBF\xBF</string><dict><key>\x02</key><true/></dict>",
      "<dict>\r\n<key>k\r</key>\r\n<string>\r</string>\r\n</dict>",
      // Integers: signs, bases, blanks, overflow, junk.
      "<integer> 42 </integer><integer>-5</integer><integer>0x10</integer><integer>+7</integer>",
      "<integer>18446744073709551615</integer><integer>99999999999999999999</integer>",
      "<integer>-99999999999999999999</integer><integer>-9223372036854775809</integer>",
      "<integer>010</integer><integer>12abc</integer><integer>abc</integer><integer/>",
      "<integer>- 5</integer><integer>--5</integer><integer> --5</integer><integer>+-5</integer>",
      // Reals: rounding, hexadecimal, infinities, junk.
      "<real>0.1</real><real>9007199254740993</real><real>2.2250738585072011e-308</real>",
      "<real>4.9e-324</real><real>1e400</real><real>1e-400</real><real>-0</real>",
      "<real>0x1p3</real><real>1,5</real><real/><real>abc</real><real>  -1.5e-3x</real>",
      // Dates: the 32-bit range, partial and odd texts.
      "<date>2023-01-02T03:04:05Z</date><date>2023-01-02T03:04:05.75Z</date>",
      "<date>1933-01-01T00:00:00Z</date><date>1932-12-01T00:00:00Z</date>",
      "<date>2069-01-01T00:00:00Z</date><date>2070-01-01T00:00:00Z</date>",
      "<date>garbage</date><date/><date>2023-05-03</date><date>2023-05-03T</date>",
      "<date>2023-13-01T00:00:00Z</date><date>2023-01-02T25:61:61Z</date>",
      "<date>abcdefghijkl</date><date>2023-05-03T07:08:09Zxxxxxxxxxx</date>",
      "<date>2023-05-03T07:08:09Zxxxxxxxxxxxx</date><date>2023-02-30T00:00:00Z</date>",
      // Data: blanks, padding, bytes outside the alphabet, unfinished groups.
      "<data> AAEC\n /w== </data><data></data><data/><data>AA=</data><data>A</data>",
      "<data>!!AAEC</data><data>AAEC====</data><data>AA==AA==</data><data>YWJj ZGVm</data>",
      // Containers and Booleans.
      "<true/><false/><dict/><array/><dict><key>a</key><array><true/></array></dict>",
      // A repeated key: its first place, its last value.
      "<dict><key>a</key><integer>1</integer><key>b</key><true/><key>a</key><string>x</string>"
      "</dict>",
  };
  for (const char* value : values) ExpectAsLibplist(InArray(value));
}

TEST(XmlPlistReader, RefusesWhatIsNotAPropertyList) {
  const char* const documents[] = {
      "<plist><array></plist>",                          // not well-formed
      "<plist><array><foo/></array></plist>",            // unknown element
      "<plist><dict><key>a</key></dict></plist>",        // key without value
      "<plist><dict><string>a</string></dict></plist>",  // value without key
      "<plist><array><key>a</key></array></plist>",      // key outside a dict
      "<key>a</key>",                                    // key as the document itself
      "<!DOCTYPE y><key>9</key><string>x</string>",      // the same after a declaration
      "<plist><string>a<b/></string></plist>",           // element in a value
      "<plist><array>text</array></plist>",              // text between values
      "<plist><array/><array/></plist>",                 // two values
      "<plist></plist>",                                 // none
      "<plist><x:array xmlns:x=\"u\"/></plist>",         // namespaced
      "<!DOCTYPE plist [<!ENTITY e \"x\">]><plist><string>&e;</string></plist>",
      "<!DOCTYPE plist [<!ATTLIST plist xmlns:a CDATA \"u\">]><plist><true/></plist>",
      // Markup libxml2 reads slowly in bulk: attributes on one element, namespaces.
      "<plist a='' b='' c='' d='' e='' f='' g='' h='' i='' j='' k='' l='' m='' n='' o='' p='' "
      "q=''><true/></plist>",
      "<plist xmlns='u'><true/></plist>",
      // The private-use characters that stand in for controls, written by someone else.
      "<plist><string>\x01 \xF4\x8F\xBC\x81</string></plist>",
      // Character references to what is not a character.
      "<plist><string>&#xD800;</string></plist>",
      "<plist><dict><key>&#xDFFF;</key><true/></dict></plist>",
      "<plist><string>&#0;</string></plist>",
  };
  for (const char* document : documents) {
    EXPECT_EQ(Ours(document), nullptr) << document;
  }
}

TEST(XmlPlistReader, NestingIsBoundedByTheReaderItself) {
  const auto nested = [](int levels, const std::string& filler = "") {
    std::string xml = "<plist>";
    for (int i = 0; i < levels; ++i) xml += "<array>" + filler;
    for (int i = 0; i < levels; ++i) xml += "</array>";
    return xml + "</plist>";
  };
  EXPECT_NE(Ours(nested(256)), nullptr);
  EXPECT_EQ(Ours(nested(257)), nullptr);
  EXPECT_EQ(ReadXmlPlist(nested(20), 19), nullptr);
  EXPECT_NE(ReadXmlPlist(nested(20), 20), nullptr);
  // A value counts as one level below its container.
  EXPECT_NE(ReadXmlPlist(nested(19, "<true/>"), 20), nullptr);
  EXPECT_EQ(ReadXmlPlist(nested(20, "<true/>"), 20), nullptr);
  // What another reader took for quoted or skipped text hides nothing from this one.
  std::string hidden = "<plist><array x='>";
  for (int i = 0; i < 300000; ++i) hidden += "<array>";
  EXPECT_EQ(Ours(hidden + "'>"), nullptr);
  EXPECT_EQ(Ours(nested(100000, "<!-- </array> -->")), nullptr);
  EXPECT_EQ(Ours(nested(100000, "<? </array> ?>")), nullptr);
}

}  // namespace
}  // namespace tarn
