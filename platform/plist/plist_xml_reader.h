// Reading the XML form of a property list with libxml2, straight into a PlistValue tree.
//
// libxml2 reads the markup (comments, processing instructions, CDATA, quoting, entities)
// and refuses nesting beyond its own limit; the values are read from the element texts as
// libplist's XML reader reads them, so the tree is the one libplist's reading would give for
// any property list a tool writes. libplist's own reader is not used: its tokenizer differs
// from XML's, and its trees are freed recursively, so a document it reads deeper than any
// check expects crashes the process.
#pragma once

#include <string_view>

#include "platform/plist/plist_value.h"

namespace tarn {

// The tree of the XML property list (UTF-8, no NUL byte), or absent when the bytes are not
// well-formed XML, have an internal DTD subset, may carry more than 16 attributes on an
// element or any namespace declaration (see CountXmlMarkup), hold a value deeper than
// maxDepth (the root is at depth 1), hold elements or text a property list cannot, a key or
// text that is not UTF-8 or holds a NUL character, or a dictionary key without its value.
// The root element is <plist> holding one value, or a value element itself. Integers are
// signed (a minus sign negates the 64 bits read), dates whole seconds.
PlistPtr ReadXmlPlist(std::string_view xml, int maxDepth);

}  // namespace tarn
