#include "framework/utils/agentutils.h"

#include <cctype>

namespace tarn {
namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// Skips an optional sign; returns true for "-".
bool ReadSign(const char*& p) {
  if (*p == '+' || *p == '-') {
    return *p++ == '-';
  }
  return false;
}

// Reads the digits of a whole text into an unsigned accumulator that wraps;
// false when the text is not sign + digits only.
template <typename Unsigned>
bool ReadWholeNumber(const char* text, Unsigned& magnitude, bool& negative) {
  if (text == nullptr) {
    return false;
  }
  const char* p = text;
  negative = ReadSign(p);
  if (!IsDigit(*p)) {
    return false;
  }
  magnitude = 0;
  for (; IsDigit(*p); ++p) {
    magnitude = static_cast<Unsigned>(magnitude * 10u + static_cast<Unsigned>(*p - '0'));
  }
  return *p == '\0';
}

template <typename Signed, typename Unsigned>
Signed AlphaToSigned(const char* text) {
  Unsigned magnitude = 0;
  bool negative = false;
  if (!ReadWholeNumber(text, magnitude, negative)) {
    return 0;
  }
  return static_cast<Signed>(negative ? static_cast<Unsigned>(0u - magnitude) : magnitude);
}

}  // namespace

std::int32_t AlphaToInt(const char* text) {
  return AlphaToSigned<std::int32_t, std::uint32_t>(text);
}

std::int64_t AlphaToInt64(const char* text) {
  return AlphaToSigned<std::int64_t, std::uint64_t>(text);
}

double AlphaToDouble(const char* text) {
  if (text == nullptr) {
    return 0;
  }
  const char* p = text;
  const bool negative = ReadSign(p);
  if (!IsDigit(*p)) {
    return 0;
  }
  double value = 0;
  for (; IsDigit(*p); ++p) {
    value = value * 10 + (*p - '0');
  }
  if (*p == '.') {
    ++p;
    // Powers of ten that still fit a 32-bit signed integer: 10^1 .. 10^9.
    constexpr int kMeaningfulFractionDigits = 9;
    std::int32_t power = 1;
    for (int position = 1; IsDigit(*p); ++p, ++position) {
      if (position <= kMeaningfulFractionDigits) {
        power *= 10;
        value += static_cast<double>(*p - '0') / power;
      }
    }
  }
  if (*p != '\0') {
    return 0;
  }
  return negative ? -value : value;
}

}  // namespace tarn
