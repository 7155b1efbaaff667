// Tests on eight bytes at a time, for scans that pass plain text a word at a time and look
// closer only at a word that may hold a byte of interest.
#pragma once

#include <cstdint>
#include <cstring>

namespace tarn {

constexpr std::uint64_t kByteOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kByteHighBits = 0x8080808080808080ULL;

// The eight bytes at `at`, in memory order.
inline std::uint64_t LoadWord(const char* at) {
  std::uint64_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

// True when every byte of the word is ASCII (below 0x80).
constexpr bool AllAscii(std::uint64_t word) { return (word & kByteHighBits) == 0; }

// True when one of the word's bytes is below `limit` (at most 0x80). Never false when one is.
constexpr bool HasByteBelow(std::uint64_t word, unsigned char limit) {
  return ((word - limit * kByteOnes) & ~word & kByteHighBits) != 0;
}

// True when one of the word's bytes equals `byte`.
constexpr bool HasByte(std::uint64_t word, unsigned char byte) {
  return HasByteBelow(word ^ (byte * kByteOnes), 1);
}

}  // namespace tarn
