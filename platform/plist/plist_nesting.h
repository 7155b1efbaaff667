#pragma once

#include <cstdint>
#include <string_view>

namespace tarn {

// Checks that run before property-list bytes reach libplist, which recurses over nesting
// (and crashes on very deep input when it frees or writes a tree) and expands shared
// objects of the binary form. Both answer false for input they cannot follow (an
// unterminated comment, a damaged binary trailer, a reference cycle): such input is
// rejected rather than risked.

// True when no chain of open <dict>/<array> elements of the XML text is deeper than maxDepth,
// reading the markup as libplist does: comments end at "-->", processing instructions at
// "?>", quoted attribute values may hold ">". Text libplist skips may hide openings but never
// closings. A DOCTYPE with an internal subset is not followed.
bool XmlNestingWithin(std::string_view xml, int maxDepth);

// What a binary property list may expand to when read.
struct BinaryPlistLimits {
  int maxDepth = 0;                   // containers nested in one another
  std::uint64_t maxNodes = 0;         // values, one per reference
  std::uint64_t maxPayloadBytes = 0;  // string and data content, counted per reference
};

// True when the binary property list ("bplist00") is well-formed enough to walk, stays
// within the limits from its top object, and no string it reaches holds a NUL character
// (libplist asserts on one). libplist copies an object at every reference to it, so a few
// bytes of shared containers can expand to millions of values, and a few references to one
// long string to gigabytes.
bool BinaryNestingWithin(std::string_view bytes, const BinaryPlistLimits& limits);

}  // namespace tarn
