#pragma once

#include <string>
#include <string_view>

#include "platform/plist/plist_value.h"

namespace tarn {

// Deepest container nesting accepted when reading or writing a property list. Real tool
// output stays below twenty levels.
inline constexpr int kMaxPlistDepth = 256;

// Parses an XML or binary property list (the form is recognised from the first bytes; a
// UTF-8 byte-order mark before XML is skipped). Every container of the result is mutable and
// owned by the caller. Gives absent, never raises, when the bytes are not a property list
// (XML: not well-formed, or declaring entities), nest deeper than kMaxPlistDepth, hold text
// that is not valid UTF-8 or holds a NUL character (XML: a NUL byte anywhere), hold a value
// kind with no PlistValue counterpart (keyed-archive UIDs), or (binary form) share objects so
// that they expand to more than about two values per byte, or to more string and data
// content than sixteen times their size and a mebibyte.
//
// The XML form is read into the tree directly (plist_xml_reader.h), the binary form by
// libplist and converted once. Values read as libplist reads them: integers as 64 bits
// without a sign, so values with the top bit set are read back as negative signed integers;
// dates as 32-bit seconds since 2001, so only dates between about 1933 and 2069 come through.
PlistPtr ParsePlist(std::string_view bytes);

// Reads the whole file and parses it. Absent when the file is missing, unreadable or not a
// property list.
PlistPtr ReadPlistFile(const std::string& path);

// The XML property-list form (version 1.0, tab indented, with the XML declaration and the
// DOCTYPE) of the value. Raises PlatformException when the value cannot be written faithfully:
// nesting deeper than kMaxPlistDepth, text that is not UTF-8 or holds a NUL byte, an unsigned
// integer above INT64_MAX, a date outside the 32-bit second range around 2001.
std::string ToXmlPlist(const PlistValue& value);

// Raises PlatformException, as ToXmlPlist does, for a key or text it cannot write: one that
// is not valid UTF-8 or holds a NUL character.
void RequirePlistWritableText(std::string_view text);

// Replaces the file at path with the bytes: they go to a new temporary file in the same
// folder, which is then renamed over the path, so readers see the old or the new content,
// never a part. The file gets mode 0600. A link at path is replaced, never written
// through. False (and no file left behind) on any failure.
bool WriteFileAtomically(const std::string& path, std::string_view bytes);

}  // namespace tarn
