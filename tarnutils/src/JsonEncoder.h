#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/plist/plist_value.h"

namespace tarn {

// Option bits of EncodeJson, as callers pass them.
inline constexpr unsigned kJsonPrettyPrint = 1;            // layout with line breaks, sorted keys
inline constexpr unsigned kJsonEscapeUnicode = 2;          // non-ASCII as \uXXXX escapes
inline constexpr unsigned kJsonEscapeForwardSlashes = 16;  // "/" as "\/"

inline constexpr const char* kJsonEncoderErrorDomain = "JSONEncoderErrorDomain";

// The deepest nesting of containers EncodeJson writes; the difference document nests four.
inline constexpr std::size_t kMaxJsonNesting = 512;

// The failure of an encoding run: domain "JSONEncoderErrorDomain", code -1 and the message.
struct JsonEncoderError {
  std::string domain;
  int code = 0;
  std::string localizedDescription;
};

// Serialises a dictionary or array (dictionaries, arrays, texts, Booleans, integers, reals
// inside) as JSON in UTF-8, with no trailing newline. In pretty mode keys are sorted by plain
// byte comparison and the layout is:
//   "{" / "[": the character, then a line break and the next level's indent (two spaces per
//   level); ",": the comma, line break, indent; ":": colon and one space; "}" / "]": line
//   break, the outer level's indent, the character. An empty container keeps both breaks.
// Without pretty mode keys keep their insertion order and no white space is written.
//
// Gives nothing and fills *error (when given) at the first failure: a value that JSON cannot
// hold ("Unable to serialize object class %@." with the platform's class name: "__NSDate"
// for a date, "NSConcreteData" for data), a top-level value that is not a container ("...,
// expected a NSArray or NSDictionary."), a real that is NaN or infinite, text that is not
// UTF-8, containers nested deeper than kMaxJsonNesting ("Unable to serialize objects nested
// deeper than 512 levels."), memory running out ("Unable to resize temporary buffer."). The
// input must not contain itself.
std::optional<std::string> EncodeJson(const PlistPtr& object, unsigned options,
                                      JsonEncoderError* error = nullptr);

}  // namespace tarn
