// JSON for the reference server: the reader of difference uploads (nlohmann-json, members
// kept in document order) with the limits an upload must respect, and the string
// escaping the server's own JSON answers use.
//
// Accepted: RFC 8259 documents. Refused with a JsonError: anything outside the grammar
// (trailing data, invalid UTF-8, raw control characters in strings, lone surrogates),
// with the byte offset the parser stopped at; duplicate keys in one object, and nesting
// deeper than kMaxJsonDepth, as soon as the parser meets them.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarn::refserver {

using JsonValue = nlohmann::ordered_json;

class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr std::size_t kMaxJsonDepth = 64;

// Parses a whole document; raises JsonError on anything outside the grammar or the limits.
JsonValue ParseJson(std::string_view text);

// Appends text as a JSON string literal (quotes included). Control characters are
// escaped; bytes that are not UTF-8 become U+FFFD, so the answer stays valid JSON.
void AppendJsonString(std::string& out, std::string_view text);

}  // namespace tarn::refserver
