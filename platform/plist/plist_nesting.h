#pragma once

#include <cstdint>
#include <string_view>

namespace tarn {

// The check that runs before binary property-list bytes reach libplist, which recurses
// over nesting (and crashes on very deep input when it reads, frees or writes a tree) and
// expands shared objects. Input it cannot follow (a damaged trailer, a reference cycle) is
// rejected rather than risked.

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
