#include "tarnutils/src/TarnStringutil.h"

namespace tarn {
namespace {

bool IsControl(unsigned char c) { return (c >= 1 && c <= 31) || c == 127; }

}  // namespace

std::optional<std::string> alterChars(const char* text) {
  if (text == nullptr) {
    return std::nullopt;
  }
  std::string cleaned;
  for (const char* p = text; *p != '\0' && !IsControl(static_cast<unsigned char>(*p)); ++p) {
    switch (*p) {
      case '&':
        cleaned += "&amp;";
        break;
      case '<':
        cleaned += "&lt;";
        break;
      case '>':
        cleaned += "&gt;";
        break;
      case '"':
        cleaned += "&quot;";
        break;
      default:
        cleaned += *p;
    }
  }
  return cleaned;
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
