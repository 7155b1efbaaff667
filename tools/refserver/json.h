// A strict JSON reader (RFC 8259) for the difference uploads, and the string
// escaping the server's own JSON answers use.
//
// Accepted: objects, arrays, strings (with every escape, \uXXXX included, and
// surrogate pairs joined into one code point), numbers, true, false, null, with
// whitespace between tokens. Refused with a JsonError that names the byte
// offset: trailing data, invalid UTF-8, raw control characters in strings, lone
// surrogates, duplicate keys in one object, and nesting deeper than kMaxDepth.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarn::refserver {

class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct JsonMember;

struct JsonValue {
  struct Null {};
  // A number keeps the text it was written with; it has been checked against the grammar.
  struct Number {
    std::string text;
  };
  using Array = std::vector<JsonValue>;
  // Members in document order; keys are unique.
  using Object = std::vector<JsonMember>;

  std::variant<Null, bool, Number, std::string, Array, Object> value;

  bool IsObject() const { return std::holds_alternative<Object>(value); }
  bool IsArray() const { return std::holds_alternative<Array>(value); }
  bool IsString() const { return std::holds_alternative<std::string>(value); }
  const Object& AsObject() const { return std::get<Object>(value); }
  const Array& AsArray() const { return std::get<Array>(value); }
  const std::string& AsString() const { return std::get<std::string>(value); }
  // The member's value, or nullptr when the object has no such key (or this is no object).
  const JsonValue* Find(std::string_view key) const;
  // "object", "array", "string", "number", "true/false" or "null", for messages.
  const char* KindName() const;
};

struct JsonMember {
  std::string key;
  JsonValue value;
};

inline constexpr std::size_t kMaxJsonDepth = 64;

// Parses a whole document; raises JsonError on anything outside the grammar.
JsonValue ParseJson(std::string_view text);

// Appends text as a JSON string literal (quotes included). Control characters are
// escaped; other bytes are copied, so valid UTF-8 stays valid UTF-8.
void AppendJsonString(std::string& out, std::string_view text);

}  // namespace tarn::refserver
