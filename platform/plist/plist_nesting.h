#pragma once

#include <string_view>

namespace tarn {

// Checks that run before property-list bytes reach libplist, which recurses over nesting
// and crashes on very deep input. Both answer false for input they cannot follow (an
// unterminated comment, a damaged binary trailer, a reference cycle): such input is
// rejected rather than risked.

// True when no chain of open <dict>/<array> elements of the XML text is deeper than maxDepth.
bool XmlNestingWithin(std::string_view xml, int maxDepth);

// True when the binary property list ("bplist00") is well-formed enough to walk and no chain
// of nested containers from its top object is deeper than maxDepth.
bool BinaryNestingWithin(std::string_view bytes, int maxDepth);

}  // namespace tarn
