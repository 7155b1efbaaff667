#include "tarnutils/src/JsonEncoder.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <vector>

#include "platform/text/utf8.h"

namespace tarn {
namespace {

// The class names the platform reports for each kind of value, used in error messages.
const char* PlatformClassName(const PlistPtr& value) {
  if (!value) return "(null)";
  switch (value->type()) {
    case PlistType::kDictionary:
      return "__NSDictionaryM";
    case PlistType::kArray:
      return "__NSArrayM";
    case PlistType::kString:
      return "__NSCFString";
    case PlistType::kInteger:
      return "__NSCFNumber";
    case PlistType::kReal:
      return "__NSCFNumber";
    case PlistType::kBoolean:
      return "__NSCFBoolean";
    case PlistType::kDate:
      return "__NSDate";
    case PlistType::kData:
      return "NSConcreteData";
  }
  return "NSObject";
}

// Decodes the code point starting at bytes[i] of valid UTF-8 and advances i past it.
std::uint32_t NextCodePoint(std::string_view bytes, std::size_t& i) {
  const auto lead = static_cast<unsigned char>(bytes[i++]);
  if (lead < 0x80) return lead;
  const int continuationCount = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
  std::uint32_t codePoint = lead & (0x3F >> continuationCount);
  for (int k = 0; k < continuationCount; ++k) {
    codePoint = (codePoint << 6) | (static_cast<unsigned char>(bytes[i++]) & 0x3F);
  }
  return codePoint;
}

class JsonWriter {
 public:
  explicit JsonWriter(unsigned options) : options_(options) {}

  bool WriteDocument(const PlistPtr& object) {
    if (!object || !(object->IsDictionary() || object->IsArray())) {
      return Fail(std::string("Unable to serialize object class ") + PlatformClassName(object) +
                  ", expected a NSArray or NSDictionary.");
    }
    return WriteValue(object);
  }

  std::string TakeOutput() { return std::move(out_); }
  const std::string& message() const { return message_; }

 private:
  bool Pretty() const { return (options_ & kJsonPrettyPrint) != 0; }

  bool Fail(std::string message) {
    message_ = std::move(message);
    return false;
  }

  void NewlineAndIndent() {
    out_ += '\n';
    out_.append(static_cast<std::size_t>(depth_) * 2, ' ');
  }

  void Open(char bracket) {
    out_ += bracket;
    if (!Pretty()) return;
    ++depth_;
    NewlineAndIndent();
  }

  void Separate() {
    out_ += ',';
    if (Pretty()) NewlineAndIndent();
  }

  void Close(char bracket) {
    if (Pretty()) {
      --depth_;
      NewlineAndIndent();
    }
    out_ += bracket;
  }

  bool WriteValue(const PlistPtr& value) {
    switch (value->type()) {
      case PlistType::kDictionary:
        return WriteDictionary(*value);
      case PlistType::kArray:
        return WriteArray(*value);
      case PlistType::kString:
        return WriteString(value->String());
      case PlistType::kBoolean:
        out_ += *value->AsBoolean() ? "true" : "false";
        return true;
      case PlistType::kInteger:
        out_ += value->IsUnsignedInteger() ? std::to_string(*value->AsUnsigned())
                                           : std::to_string(*value->AsInteger());
        return true;
      case PlistType::kReal:
        return WriteReal(*value->AsReal());
      default:
        return Fail(std::string("Unable to serialize object class ") + PlatformClassName(value) +
                    ".");
    }
  }

  bool WriteDictionary(const PlistValue& dictionary) {
    std::vector<const PlistValue::Entry*> entries;
    for (const auto& entry : dictionary.Entries()) entries.push_back(&entry);
    if (Pretty()) {
      std::sort(entries.begin(), entries.end(),
                [](const auto* left, const auto* right) { return left->first < right->first; });
    }
    Open('{');
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (i > 0) Separate();
      if (!WriteString(entries[i]->first)) return false;
      out_ += Pretty() ? ": " : ":";
      if (!WriteValue(entries[i]->second)) return false;
    }
    Close('}');
    return true;
  }

  bool WriteArray(const PlistValue& array) {
    const auto& elements = array.Elements();
    Open('[');
    for (std::size_t i = 0; i < elements.size(); ++i) {
      if (i > 0) Separate();
      if (!WriteValue(elements[i])) return false;
    }
    Close(']');
    return true;
  }

  bool WriteReal(double real) {
    if (!std::isfinite(real)) {
      return Fail("Floating point values must be finite.  JSON does not support NaN or Infinity.");
    }
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.17g", real);
    out_ += buffer;
    return true;
  }

  void WriteUnicodeEscape(std::uint32_t unit) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "\\u%4.4x", static_cast<unsigned>(unit));
    out_ += buffer;
  }

  void WriteEscapedCodePoint(std::uint32_t codePoint) {
    if (codePoint <= 0xFFFF) {
      WriteUnicodeEscape(codePoint);
      return;
    }
    const std::uint32_t offset = codePoint - 0x10000;
    WriteUnicodeEscape(0xD800 + (offset >> 10));
    WriteUnicodeEscape(0xDC00 + (offset & 0x3FF));
  }

  void WriteAsciiByte(char c) {
    switch (c) {
      case '"':
        out_ += "\\\"";
        return;
      case '\\':
        out_ += "\\\\";
        return;
      case '\b':
        out_ += "\\b";
        return;
      case '\t':
        out_ += "\\t";
        return;
      case '\n':
        out_ += "\\n";
        return;
      case '\f':
        out_ += "\\f";
        return;
      case '\r':
        out_ += "\\r";
        return;
      case '/':
        out_ += (options_ & kJsonEscapeForwardSlashes) != 0 ? "\\/" : "/";
        return;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          WriteUnicodeEscape(static_cast<unsigned char>(c));
        } else {
          out_ += c;
        }
    }
  }

  bool WriteString(std::string_view text) {
    if (!IsValidUtf8(text)) {
      return Fail("An error occurred converting the contents of a NSString to UTF8.");
    }
    out_ += '"';
    std::size_t i = 0;
    while (i < text.size()) {
      const auto byte = static_cast<unsigned char>(text[i]);
      if (byte < 0x80) {
        WriteAsciiByte(text[i++]);
      } else if ((options_ & kJsonEscapeUnicode) != 0) {
        WriteEscapedCodePoint(NextCodePoint(text, i));
      } else {
        out_ += text[i++];
      }
    }
    out_ += '"';
    return true;
  }

  unsigned options_;
  int depth_ = 0;
  std::string out_;
  std::string message_;
};

}  // namespace

std::optional<std::string> EncodeJson(const PlistPtr& object, unsigned options,
                                      JsonEncoderError* error) {
  JsonWriter writer(options);
  if (writer.WriteDocument(object)) return writer.TakeOutput();
  if (error != nullptr) *error = JsonEncoderError{kJsonEncoderErrorDomain, -1, writer.message()};
  return std::nullopt;
}

}  // namespace tarn
