#include "framework/persistent/xmlsafety.h"

#include <gtest/gtest.h>

#include <string>

namespace tarn {
namespace {

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

}  // namespace
}  // namespace tarn
