// Reading the binary form of a property list: libplist parses it (after the bounds of
// plist_nesting.h) and its tree is converted once into a PlistValue tree.
#pragma once

#include <string_view>

#include "platform/plist/plist_value.h"

namespace tarn {

// The tree of the binary property list ("bplist00"), or absent when libplist cannot read it,
// it nests deeper than kMaxPlistDepth, shares objects so that they expand to more than about
// two values per byte or to more string and data content than sixteen times its size and a
// mebibyte, or holds a value with no faithful PlistValue reading.
PlistPtr ReadBinaryPlist(std::string_view bytes);

// A libplist tree (plist_t) as a PlistValue tree. Absent for a kind with no PlistValue
// counterpart (keyed-archive UIDs), a key or text that is not UTF-8, or nesting deeper than
// kMaxPlistDepth. libplist's integers carry no sign: the 64 bits read as a signed integer.
// Dates keep their microseconds.
PlistPtr PlistFromLibplistTree(void* root);

}  // namespace tarn
