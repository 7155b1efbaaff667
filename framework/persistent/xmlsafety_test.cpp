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

TEST(XmlSafety, AttributesAreBoundedWithoutReadingTheMarkup) {
  const std::string four = ElementWithAttributes(4);
  struct Case {
    std::string document;
    bool within;  // at most 3 attributes per element
  };
  const Case cases[] = {
      {"<r>" + ElementWithAttributes(3) + ElementWithAttributes(3) + "</r>", true},
      {"<r>" + four + "</r>", false},
      {"<r " + std::string("a='1' b='2' c='3' d='4'") + "/>", false},
      {"<r a = \"1\" b\n=\n'2'/>", true},
      // End tags, processing instructions, comments and declarations open no start tag.
      {"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" x=\"1\"?><r/>", true},
      {"<r></r> a=1 b=2 c=3 d=4", true},
      {"<r><!-- a=1 b=2 c=3 d=4 --></r>", true},
      // Whatever the bytes up to the next "<" mean, their "=" signs count: a parser that
      // ends the construct earlier than expected must not find more attributes than that.
      {"<r>text a=b c=d e=f g=h</r>", false},
      {"<r a=\"x=y=z=w\"/>", false},
      {"<!DOCTYPE r [<!ENTITY e \"><!--\">]><r>" + four + "-->", false},
      {"<!DOCTYPE r [<!NOTATION n SYSTEM \"x><!--\">]><r>" + four + "-->", false},
      {"<?xml version=\"1.0\" x>" + four + "?>", false},
      {"<r><!-- -- > " + four + " --></r>", false},
      {"<r><![CDATA[" + four + "]]></r>", false},
      {"<r x='>" + four + "'/>", false},
      {"<r a=\"1\" b=\"2", true},
      {"", true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(AttributeCountsWithin(c.document, 3), c.within) << c.document;
  }
}

TEST(XmlSafety, NamespaceDeclarationsAreCountedWhereverTheyStand) {
  std::string document = "<r xmlns=\"u\"";
  for (int i = 1; i < 16; ++i) document += " xmlns:p" + std::to_string(i) + "='u'";
  document += "><!-- xmlns --></r>";
  EXPECT_FALSE(NamespaceDeclarationsWithin(document, 16));
  EXPECT_TRUE(NamespaceDeclarationsWithin(document, 17));
  EXPECT_TRUE(NamespaceDeclarationsWithin("<r xmln='s'/>", 0));
}

TEST(XmlSafety, AnyDeclarationIsFoundWhereverItStands) {
  EXPECT_FALSE(HasMarkupDeclaration(""));
  EXPECT_FALSE(HasMarkupDeclaration("<?xml version=\"1.0\"?><r><!-- c --><![CDATA[<x>]]></r>"));
  EXPECT_FALSE(HasMarkupDeclaration("<r>!<</r>"));
  EXPECT_TRUE(HasMarkupDeclaration("<!DOCTYPE r><r/>"));
  EXPECT_TRUE(HasMarkupDeclaration("<!DOCTYPE r [<!NOTATION n SYSTEM \"x><!--\">]><r/>"));
  EXPECT_TRUE(HasMarkupDeclaration("<?xml version=\"1.0\"?>\n<!doctype r><r/>"));
  EXPECT_TRUE(HasMarkupDeclaration("<r><!-- c --><!ENTITY e \"x\"></r>"));
  EXPECT_TRUE(HasMarkupDeclaration("<r><!-"));
}

TEST(XmlSafety, AHundredThousandAttributesAreFoundInAMegabyteAtOnce) {
  const std::string document = "<r>" + ElementWithAttributes(111001, "") + "</r>";
  EXPECT_FALSE(AttributeCountsWithin(document, 256));
  EXPECT_TRUE(AttributeCountsWithin("<r>" + ElementWithAttributes(256) + "</r>", 256));
}

}  // namespace
}  // namespace tarn
