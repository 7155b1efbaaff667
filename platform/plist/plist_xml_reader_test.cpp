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

namespace tarn {
namespace {

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Tree = std::unique_ptr<void, PlistFree>;

Tree Ours(const std::string& xml) { return Tree(ReadXmlPlist(xml, 256)); }

Tree Libplists(const std::string& xml) {
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
  return Tree(root);
}

// The first difference between two trees, or "" when they are the same node for node (reals
// bit for bit, dictionary entries in order).
std::string Difference(plist_t a, plist_t b, const std::string& path = "/") {
  if (plist_get_node_type(a) != plist_get_node_type(b)) return path + ": kinds differ";
  switch (plist_get_node_type(a)) {
    case PLIST_ARRAY: {
      if (plist_array_get_size(a) != plist_array_get_size(b)) return path + ": sizes differ";
      for (std::uint32_t i = 0; i < plist_array_get_size(a); ++i) {
        const std::string found = Difference(plist_array_get_item(a, i), plist_array_get_item(b, i),
                                             path + std::to_string(i) + "/");
        if (!found.empty()) return found;
      }
      return "";
    }
    case PLIST_DICT: {
      if (plist_dict_get_size(a) != plist_dict_get_size(b)) return path + ": sizes differ";
      plist_dict_iter rawA = nullptr;
      plist_dict_iter rawB = nullptr;
      plist_dict_new_iter(a, &rawA);
      plist_dict_new_iter(b, &rawB);
      const std::unique_ptr<void, decltype(&std::free)> iterA(rawA, &std::free);
      const std::unique_ptr<void, decltype(&std::free)> iterB(rawB, &std::free);
      for (;;) {
        char* keyA = nullptr;
        char* keyB = nullptr;
        plist_t childA = nullptr;
        plist_t childB = nullptr;
        plist_dict_next_item(a, iterA.get(), &keyA, &childA);
        plist_dict_next_item(b, iterB.get(), &keyB, &childB);
        const std::unique_ptr<char, decltype(&std::free)> ownA(keyA, &std::free);
        const std::unique_ptr<char, decltype(&std::free)> ownB(keyB, &std::free);
        if (childA == nullptr || childB == nullptr) return "";
        if (std::strcmp(keyA, keyB) != 0) return path + ": keys differ";
        const std::string found = Difference(childA, childB, path + keyA + "/");
        if (!found.empty()) return found;
      }
    }
    case PLIST_REAL: {
      double x = 0;
      double y = 0;
      plist_get_real_val(a, &x);
      plist_get_real_val(b, &y);
      return std::memcmp(&x, &y, sizeof x) == 0 ? "" : path + ": reals differ";
    }
    case PLIST_UINT: {
      std::uint64_t x = 0;
      std::uint64_t y = 0;
      plist_get_uint_val(a, &x);
      plist_get_uint_val(b, &y);
      return x == y ? "" : path + ": " + std::to_string(x) + " against " + std::to_string(y);
    }
    case PLIST_DATE: {
      std::int32_t x[2] = {};
      std::int32_t y[2] = {};
      plist_get_date_val(a, &x[0], &x[1]);
      plist_get_date_val(b, &y[0], &y[1]);
      return x[0] == y[0] && x[1] == y[1]
                 ? ""
                 : path + ": " + std::to_string(x[0]) + "." + std::to_string(x[1]) + " against " +
                       std::to_string(y[0]) + "." + std::to_string(y[1]);
    }
    default:
      return plist_compare_node_value(a, b) ? "" : path + ": values differ";
  }
}

void ExpectAsLibplist(const std::string& xml) {
  SCOPED_TRACE(xml.substr(0, 200));
  const Tree theirs = Libplists(xml);
  const Tree ours = Ours(xml);
  ASSERT_NE(theirs, nullptr);
  ASSERT_NE(ours, nullptr);
  EXPECT_EQ(Difference(static_cast<plist_t>(ours.get()), static_cast<plist_t>(theirs.get())), "");
}

std::string InArray(const std::string& values) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD "
         "PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist "
         "version=\"1.0\"><array>" +
         values + "</array></plist>\n";
}

TEST(XmlPlistReader, ReadsEveryRecordedReportAsLibplistDoes) {
  int reports = 0;
  for (const auto& entry :
       std::filesystem::recursive_directory_iterator(TARN_SOURCE_DIR "/testdata/machines")) {
    const std::string name = entry.path().filename().string();
    if (!entry.is_regular_file() || (!name.ends_with(".xml") && !name.ends_with(".plist"))) {
      continue;
    }
    std::ifstream file(entry.path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    if (bytes.str().starts_with("bplist")) continue;
    ExpectAsLibplist(bytes.str());
    ++reports;
  }
  EXPECT_GT(reports, 40);
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
  EXPECT_EQ(Tree(ReadXmlPlist(nested(20), 19)), nullptr);
  EXPECT_NE(Tree(ReadXmlPlist(nested(20), 20)), nullptr);
  // What another reader took for quoted or skipped text hides nothing from this one.
  std::string hidden = "<plist><array x='>";
  for (int i = 0; i < 300000; ++i) hidden += "<array>";
  EXPECT_EQ(Ours(hidden + "'>"), nullptr);
  EXPECT_EQ(Ours(nested(100000, "<!-- </array> -->")), nullptr);
  EXPECT_EQ(Ours(nested(100000, "<? </array> ?>")), nullptr);
}

}  // namespace
}  // namespace tarn
