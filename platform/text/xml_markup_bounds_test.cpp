#include "platform/text/xml_markup_bounds.h"

#include <gtest/gtest.h>

#include <string>

namespace tarn {
namespace {

std::string ElementWithAttributes(int count, const std::string& value = "v") {
  std::string element = "<e";
  for (int i = 0; i < count; ++i) element += " a" + std::to_string(i) + "=\"" + value + "\"";
  return element + "/>";
}

TEST(XmlMarkupBounds, AttributesCannotHideFromTheCount) {
  const std::string four = ElementWithAttributes(4);
  struct Case {
    std::string document;
    std::size_t mostAttributes;
  };
  const Case cases[] = {
      {"<r>" + ElementWithAttributes(3) + ElementWithAttributes(2) + "</r>", 3},
      {"<r " + std::string("a='1' b='2' c='3' d='4'") + "/>", 4},
      {"<r a = \"1\" b\n=\n'2'/>", 2},
      // Text, end tags, processing instructions and declarations open no start tag.
      {"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?><r/>", 0},
      {"<r>text a=b c=d e=f g=h</r> a=1 b=2", 0},
      {"<r><!-- a=1 b=2 c=3 d=4 --></r>", 0},
      // A quoted ">" does not end a tag; "=" inside values counts.
      {"<r a=\">\" b='>' c=\"x=y\"/>", 4},
      // Whatever a declaration, comment, broken XML declaration, CDATA section or stray quote
      // holds, a start tag after a "<" is counted.
      {"<!DOCTYPE r [<!ENTITY e \"><!--\">]><r>" + four + "-->", 4},
      {"<!DOCTYPE r [<!NOTATION n SYSTEM \"x><!--\">]><r>" + four + "-->", 4},
      {"<?xml version=\"1.0\" x>" + four + "?>", 4},
      {"<r><!-- -- > " + four + " --></r>", 4},
      {"<r><![CDATA[" + four + "]]></r>", 4},
      {"<r x='>" + four + "'/>", 4},
      {"<r b\"=\"=\"=\">", 3},
      {"<r a=\"1\" b=\"2", 2},
      {"", 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(CountXmlMarkup(c.document).mostAttributes, c.mostAttributes) << c.document;
  }
}

TEST(XmlMarkupBounds, NamespaceDeclarationsAreCountedInEveryStartTag) {
  std::string document = "<r xmlns=\"u\"";
  for (int i = 1; i < 16; ++i) document += " xmlns:p" + std::to_string(i) + "='u'";
  document += "><c xmlns:q='u'/><!-- xmlns --><s>xmlns</s></r>";
  EXPECT_EQ(CountXmlMarkup(document).namespaceDeclarations, 17u);
  EXPECT_EQ(CountXmlMarkup("<r xmln='s'/>").namespaceDeclarations, 0u);
}

TEST(XmlMarkupBounds, OnePassWhateverTheShape) {
  // A hundred thousand attributes in a megabyte are all found on their element; unclosed
  // quotes end at the next "<", so each tag's span is read once.
  const std::string document = "<r>" + ElementWithAttributes(111001, "") + "</r>";
  EXPECT_EQ(CountXmlMarkup(document).mostAttributes, 111001u);
  std::string opened;
  for (int i = 0; i < 100000; ++i) opened += "<e a='";
  EXPECT_EQ(CountXmlMarkup(opened).mostAttributes, 1u);
}

}  // namespace
}  // namespace tarn
