#include "tarnutils/src/JsonEncoder.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "platform/text/utf8.h"

namespace tarn {
namespace {

// The class names the platform reports for each kind of value, used in error messages.
const char* PlatformClassNameOf(PlistType type) {
  switch (type) {
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

const char* PlatformClassName(const PlistPtr& value) {
  return value ? PlatformClassNameOf(value->type()) : "(null)";
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
    try {
      return WriteTree(*object);
    } catch (const std::bad_alloc&) {
      std::string().swap(out_);
      return Fail(kOutOfMemory);
    }
  }

  std::string TakeOutput() { return std::move(out_); }
  const std::string& message() const { return message_; }

 private:
  static constexpr const char* kOutOfMemory = "Unable to resize temporary buffer.";

  // A container being written: its entries (a dictionary's in writing order) and the next one.
  struct Frame {
    const PlistValue* container;
    std::vector<const PlistValue::Entry*> entries;  // dictionaries only
    std::size_t next = 0;
    std::size_t Count() const {
      return container->IsDictionary() ? entries.size() : container->Elements().size();
    }
  };

  bool Pretty() const { return (options_ & kJsonPrettyPrint) != 0; }

  bool Fail(std::string message) {
    message_ = std::move(message);
    return false;
  }

  // Writes the tree depth first with an explicit stack, so deep nesting costs no call depth.
  bool WriteTree(const PlistValue& root) {
    if (!WriteValue(root)) return false;
    while (!stack_.empty()) {
      Frame& frame = stack_.back();
      if (frame.next == frame.Count()) {
        Close(frame.container->IsDictionary() ? '}' : ']');
        stack_.pop_back();
        continue;
      }
      if (frame.next > 0) Separate();
      const PlistValue* child;
      if (frame.container->IsDictionary()) {
        const PlistValue::Entry& entry = *frame.entries[frame.next++];
        if (!WriteString(entry.first)) return false;
        out_ += Pretty() ? ": " : ":";
        child = entry.second.get();
      } else {
        child = frame.container->Elements()[frame.next++].get();
      }
      if (!WriteValue(*child)) return false;  // may push a frame: `frame` is not used after
    }
    return true;
  }

  void NewlineAndIndent() {
    out_ += '\n';
    out_.append(stack_.size() * 2, ' ');
  }

  // Writes the opening bracket of a container and makes it the one being written.
  bool Open(const PlistValue& container) {
    if (stack_.size() >= kMaxJsonNesting) {
      return Fail("Unable to serialize objects nested deeper than " +
                  std::to_string(kMaxJsonNesting) + " levels.");
    }
    Frame frame{&container, {}, 0};
    if (container.IsDictionary()) {
      const auto& entries = container.Entries();
      frame.entries.reserve(entries.size());
      for (const auto& entry : entries) frame.entries.push_back(&entry);
      if (Pretty()) {
        std::sort(frame.entries.begin(), frame.entries.end(),
                  [](const auto* left, const auto* right) { return left->first < right->first; });
      }
    }
    out_ += container.IsDictionary() ? '{' : '[';
    stack_.push_back(std::move(frame));
    if (Pretty()) NewlineAndIndent();
    return true;
  }

  void Separate() {
    out_ += ',';
    if (Pretty()) NewlineAndIndent();
  }

  // Ends the innermost container; it is still on the stack.
  void Close(char bracket) {
    if (Pretty()) {
      out_ += '\n';
      out_.append((stack_.size() - 1) * 2, ' ');
    }
    out_ += bracket;
  }

  bool WriteValue(const PlistValue& value) {
    switch (value.type()) {
      case PlistType::kDictionary:
      case PlistType::kArray:
        return Open(value);
      case PlistType::kString:
        return WriteString(value.String());
      case PlistType::kBoolean:
        out_ += *value.AsBoolean() ? "true" : "false";
        return true;
      case PlistType::kInteger:
        out_ += value.IsUnsignedInteger() ? std::to_string(*value.AsUnsigned())
                                          : std::to_string(*value.AsInteger());
        return true;
      case PlistType::kReal:
        return WriteReal(*value.AsReal());
      default:
        return Fail(std::string("Unable to serialize object class ") +
                    PlatformClassNameOf(value.type()) + ".");
    }
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

  // True for a byte that is written as it is.
  bool IsPlain(unsigned char byte) const {
    if (byte >= 0x80) return (options_ & kJsonEscapeUnicode) == 0;
    if (byte == '/') return (options_ & kJsonEscapeForwardSlashes) == 0;
    return byte >= 0x20 && byte != '"' && byte != '\\';
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
        out_ += "\\/";
        return;
      default:
        WriteUnicodeEscape(static_cast<unsigned char>(c));
    }
  }

  bool WriteString(std::string_view text) {
    if (!IsValidUtf8(text)) {
      return Fail("An error occurred converting the contents of a NSString to UTF8.");
    }
    out_ += '"';
    std::size_t i = 0;
    while (i < text.size()) {
      // Runs of bytes written as they are go in one piece.
      std::size_t plain = i;
      while (plain < text.size() && IsPlain(static_cast<unsigned char>(text[plain]))) ++plain;
      out_.append(text, i, plain - i);
      i = plain;
      if (i == text.size()) break;
      if (static_cast<unsigned char>(text[i]) < 0x80) {
        WriteAsciiByte(text[i++]);
      } else {
        WriteEscapedCodePoint(NextCodePoint(text, i));
      }
    }
    out_ += '"';
    return true;
  }

  unsigned options_;
  std::vector<Frame> stack_;
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
