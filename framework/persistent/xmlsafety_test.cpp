#include "framework/persistent/xmlsafety.h"

#include <gtest/gtest.h>

#include <string>

namespace tarn {
namespace {

std::string ElementWithAttributes(int count, const std::string& value = "v") {
  std::string element = "<e";
  for (int i = 0; i < count; ++i) element += " a" + std::to_string(i) + "=\"" + value + "\"";
  return element + "/>";
}

TEST(XmlSafety, AttributesAreCountedPerStartTagOnly) {
  struct Case {
    std::string document;
    bool within;  // at most 3 attributes per element
  };
  const Case cases[] = {
      {"<r>" + ElementWithAttributes(3) + ElementWithAttributes(3) + "</r>", true},
      {"<r>" + ElementWithAttributes(4) + "</r>", false},
      {"<r " + std::string("a='1' b='2' c='3' d='4'") + "/>", false},
      // "=" inside quoted values, either quote, and ">" inside a value count for nothing.
      {"<r a=\"x=y=z\" b='p=q>r' c=\"'=\"/>", true},
      {"<r a = \"1\" b\n=\n'2'/>", true},
      // Comments, CDATA, processing instructions, declarations and end tags are skipped.
      {"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" x=\"1\"?>"
       "<!DOCTYPE r [<!ATTLIST r a CDATA \"1\" b CDATA \"2\" c CDATA \"3\" d CDATA \"4\">]>"
       "<r><!-- a=1 b=2 c=3 d=4 --><![CDATA[<e a=1 b=2 c=3 d=4>]]></r>",
       true},
      {"<r>text a=b c=d e=f g=h</r>", true},
      // Unfinished constructs are left to the parser, which refuses them.
      {"<r a=\"1\" b=\"2", true},
      {"<!-- never closed <e a=1 b=2 c=3 d=4>", true},
      {"", true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(AttributeCountsWithin(c.document, 3), c.within) << c.document;
  }
}

TEST(XmlSafety, AHundredThousandAttributesAreFoundInAMegabyteAtOnce) {
  const std::string document = "<r>" + ElementWithAttributes(111001, "") + "</r>";
  EXPECT_FALSE(AttributeCountsWithin(document, 256));
  EXPECT_TRUE(AttributeCountsWithin("<r>" + ElementWithAttributes(256) + "</r>", 256));
}

}  // namespace
}  // namespace tarn
