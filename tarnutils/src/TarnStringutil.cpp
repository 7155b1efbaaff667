#include "tarnutils/src/TarnStringutil.h"

#include "platform/text/utf8.h"

namespace tarn {
namespace {

bool IsControl(unsigned char c) { return (c >= 1 && c <= 31) || c == 127; }

// The XML escape alterChars writes for a markup character, or null for any other byte.
const char* EntityFor(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    default:
      return nullptr;
  }
}

}  // namespace

bool NeedsAlteration(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == 0 || IsControl(byte) || EntityFor(c) != nullptr) return true;
  }
  return false;
}

std::optional<std::string> alterChars(const char* text) {
  if (text == nullptr) {
    return std::nullopt;
  }
  // The text ends at its first control character; markup characters become entities.
  const char* end = text;
  while (*end != '\0' && !IsControl(static_cast<unsigned char>(*end))) ++end;
  std::string cleaned;
  cleaned.reserve(static_cast<std::size_t>(end - text));
  const char* runStart = text;
  for (const char* p = text; p != end; ++p) {
    const char* entity = EntityFor(*p);
    if (entity == nullptr) continue;
    cleaned.append(runStart, p);
    cleaned += entity;
    runStart = p + 1;
  }
  cleaned.append(runStart, end);
  return cleaned;
}

std::optional<std::string> UploadText(const std::optional<std::string>& value) {
  if (!value) return std::nullopt;
  if (!IsValidUtf8(*value)) return alterChars(WithValidUtf8(*value).c_str());
  if (!NeedsAlteration(*value)) return value;
  return alterChars(value->c_str());
}

std::vector<std::string> SplitText(const std::string& text, const std::string& separator) {
  if (separator.empty()) {
    return {text};
  }
  std::vector<std::string> pieces;
  std::string::size_type start = 0;
  for (;;) {
    const auto at = text.find(separator, start);
    pieces.push_back(text.substr(start, at - start));
    if (at == std::string::npos) {
      return pieces;
    }
    start = at + separator.size();
  }
}

}  // namespace tarn
