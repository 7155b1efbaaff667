#include "platform/text/utf8.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/text/byte_words.h"

namespace tarn {
namespace {

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Length of the sequence a lead byte starts, or 0 for a byte that cannot start one.
std::size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

// The second byte carries the range limits that rule out overlong forms, surrogates and
// code points above U+10FFFF.
bool SecondByteInRange(unsigned char lead, unsigned char second) {
  switch (lead) {
    case 0xE0:
      return second >= 0xA0 && second <= 0xBF;
    case 0xED:
      return second >= 0x80 && second <= 0x9F;
    case 0xF0:
      return second >= 0x90 && second <= 0xBF;
    case 0xF4:
      return second >= 0x80 && second <= 0x8F;
    default:
      return IsContinuation(second);
  }
}

// Length of the well-formed sequence at bytes[i], or 0 when none starts there.
std::size_t ValidSequenceAt(std::string_view bytes, std::size_t i) {
  const auto lead = static_cast<unsigned char>(bytes[i]);
  const std::size_t length = SequenceLength(lead);
  if (length == 0 || i + length > bytes.size()) return 0;
  if (length > 1) {
    if (!SecondByteInRange(lead, static_cast<unsigned char>(bytes[i + 1]))) return 0;
    for (std::size_t k = 2; k < length; ++k) {
      if (!IsContinuation(static_cast<unsigned char>(bytes[i + k]))) return 0;
    }
  }
  return length;
}

}  // namespace

bool IsValidUtf8(std::string_view bytes) {
  std::size_t i = 0;
  while (i < bytes.size()) {
    // Most text is ASCII: skip it a word at a time.
    while (i + 8 <= bytes.size() && AllAscii(LoadWord(bytes.data() + i))) i += 8;
    if (i == bytes.size()) break;
    const std::size_t length = ValidSequenceAt(bytes, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string WithValidUtf8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  std::size_t i = 0;
  while (i < bytes.size()) {
    const std::size_t length = ValidSequenceAt(bytes, i);
    if (length == 0) {
      text += "\xEF\xBF\xBD";  // U+FFFD REPLACEMENT CHARACTER
      ++i;
    } else {
      text.append(bytes.substr(i, length));
      i += length;
    }
  }
  return text;
}

}  // namespace tarn
