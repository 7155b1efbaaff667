#include "tools/refserver/json.h"

#include <cstdint>

namespace tarn::refserver {

namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  JsonValue Document() {
    SkipWhitespace();
    JsonValue value = Value(0);
    SkipWhitespace();
    if (pos_ != text_.size()) Fail("unexpected data after the document");
    return value;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw JsonError("invalid JSON at byte " + std::to_string(pos_) + ": " + what);
  }

  bool AtEnd() const { return pos_ >= text_.size(); }
  char Peek() const { return AtEnd() ? '\0' : text_[pos_]; }

  void SkipWhitespace() {
    while (!AtEnd() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\n' || Peek() == '\r')) {
      ++pos_;
    }
  }

  void Expect(char c) {
    if (Peek() != c || AtEnd()) Fail(std::string("expected '") + c + "'");
    ++pos_;
  }

  JsonValue Value(std::size_t depth) {
    if (AtEnd()) Fail("unexpected end of the document");
    switch (Peek()) {
      case '{':
        return Object(depth + 1);
      case '[':
        return Array(depth + 1);
      case '"':
        return JsonValue{String()};
      case 't':
        Literal("true");
        return JsonValue{true};
      case 'f':
        Literal("false");
        return JsonValue{false};
      case 'n':
        Literal("null");
        return JsonValue{JsonValue::Null{}};
      default:
        if (Peek() == '-' || (Peek() >= '0' && Peek() <= '9')) return JsonValue{Number()};
        Fail(std::string("unexpected character '") + Peek() + "'");
    }
  }

  void CheckDepth(std::size_t depth) const {
    if (depth > kMaxJsonDepth) {
      Fail("nesting deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    }
  }

  JsonValue Object(std::size_t depth) {
    CheckDepth(depth);
    Expect('{');
    JsonValue::Object members;
    SkipWhitespace();
    if (Peek() == '}') {
      ++pos_;
      return JsonValue{std::move(members)};
    }
    while (true) {
      SkipWhitespace();
      if (Peek() != '"') Fail("expected a string key");
      const std::size_t keyAt = pos_;
      std::string key = String();
      for (const JsonMember& member : members) {
        if (member.key == key) {
          pos_ = keyAt;
          Fail("duplicate key \"" + key + "\"");
        }
      }
      SkipWhitespace();
      Expect(':');
      SkipWhitespace();
      members.push_back({std::move(key), Value(depth)});
      SkipWhitespace();
      if (Peek() == ',') {
        ++pos_;
        continue;
      }
      Expect('}');
      return JsonValue{std::move(members)};
    }
  }

  JsonValue Array(std::size_t depth) {
    CheckDepth(depth);
    Expect('[');
    JsonValue::Array items;
    SkipWhitespace();
    if (Peek() == ']') {
      ++pos_;
      return JsonValue{std::move(items)};
    }
    while (true) {
      SkipWhitespace();
      items.push_back(Value(depth));
      SkipWhitespace();
      if (Peek() == ',') {
        ++pos_;
        continue;
      }
      Expect(']');
      return JsonValue{std::move(items)};
    }
  }

  void Literal(std::string_view word) {
    if (text_.substr(pos_, word.size()) != word) Fail("unknown literal");
    pos_ += word.size();
  }

  void Digits() {
    if (AtEnd() || Peek() < '0' || Peek() > '9') Fail("expected a digit");
    while (!AtEnd() && Peek() >= '0' && Peek() <= '9') ++pos_;
  }

  JsonValue::Number Number() {
    const std::size_t start = pos_;
    if (Peek() == '-') ++pos_;
    if (Peek() == '0') {
      ++pos_;
      if (Peek() >= '0' && Peek() <= '9') Fail("leading zero in a number");
    } else {
      Digits();
    }
    if (Peek() == '.') {
      ++pos_;
      Digits();
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++pos_;
      if (Peek() == '+' || Peek() == '-') ++pos_;
      Digits();
    }
    return {std::string(text_.substr(start, pos_ - start))};
  }

  unsigned Hex4() {
    if (text_.size() - pos_ < 4) Fail("truncated \\u escape");
    unsigned value = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = text_[pos_++];
      value <<= 4;
      if (c >= '0' && c <= '9') {
        value |= static_cast<unsigned>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        value |= static_cast<unsigned>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        value |= static_cast<unsigned>(c - 'A' + 10);
      } else {
        Fail("bad hex digit in a \\u escape");
      }
    }
    return value;
  }

  static void AppendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  // After the backslash and the "u": one code point, joining a surrogate pair.
  std::uint32_t UnicodeEscape() {
    const unsigned first = Hex4();
    if (first >= 0xDC00 && first <= 0xDFFF) Fail("lone low surrogate");
    if (first < 0xD800 || first > 0xDBFF) return first;
    if (text_.substr(pos_, 2) != "\\u") Fail("high surrogate without its low half");
    pos_ += 2;
    const unsigned second = Hex4();
    if (second < 0xDC00 || second > 0xDFFF) Fail("high surrogate without its low half");
    return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
  }

  void Escape(std::string& out) {
    if (AtEnd()) Fail("unterminated string");
    const char c = text_[pos_++];
    switch (c) {
      case '"': out += '"'; return;
      case '\\': out += '\\'; return;
      case '/': out += '/'; return;
      case 'b': out += '\b'; return;
      case 'f': out += '\f'; return;
      case 'n': out += '\n'; return;
      case 'r': out += '\r'; return;
      case 't': out += '\t'; return;
      case 'u': AppendUtf8(out, UnicodeEscape()); return;
      default: --pos_; Fail("unknown escape");
    }
  }

  // One UTF-8 sequence starting at a byte of 0x80 or more, copied when well formed
  // (no overlong forms, no surrogates, nothing above U+10FFFF).
  void Utf8Sequence(std::string& out) {
    const auto lead = static_cast<unsigned char>(text_[pos_]);
    std::size_t length = 0;
    std::uint32_t cp = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2, cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3, cp = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4, cp = lead & 0x07;
    } else {
      Fail("invalid UTF-8");
    }
    if (text_.size() - pos_ < length) Fail("invalid UTF-8");
    for (std::size_t i = 1; i < length; ++i) {
      const auto next = static_cast<unsigned char>(text_[pos_ + i]);
      if ((next & 0xC0) != 0x80) Fail("invalid UTF-8");
      cp = (cp << 6) | (next & 0x3F);
    }
    const bool overlong = (length == 3 && cp < 0x800) || (length == 4 && cp < 0x10000);
    if (overlong || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) Fail("invalid UTF-8");
    out.append(text_.substr(pos_, length));
    pos_ += length;
  }

  std::string String() {
    Expect('"');
    std::string out;
    while (true) {
      if (AtEnd()) Fail("unterminated string");
      const auto c = static_cast<unsigned char>(text_[pos_]);
      if (c == '"') {
        ++pos_;
        return out;
      }
      if (c == '\\') {
        ++pos_;
        Escape(out);
      } else if (c < 0x20) {
        Fail("control character in a string");
      } else if (c >= 0x80) {
        Utf8Sequence(out);
      } else {
        out += static_cast<char>(c);
        ++pos_;
      }
    }
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

}  // namespace

const JsonValue* JsonValue::Find(std::string_view key) const {
  if (!IsObject()) return nullptr;
  for (const JsonMember& member : AsObject()) {
    if (member.key == key) return &member.value;
  }
  return nullptr;
}

const char* JsonValue::KindName() const {
  static constexpr const char* kNames[] = {"null", "true/false", "number",
                                           "string", "array", "object"};
  return kNames[value.index()];
}

JsonValue ParseJson(std::string_view text) { return Parser(text).Document(); }

void AppendJsonString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  for (const char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += "\\u00";
          out += kHex[(c >> 4) & 0xF];
          out += kHex[c & 0xF];
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

}  // namespace tarn::refserver
