// Copy helpers and the substring helpers of the data store.
//
// NumberOfCharsToFirstOccurance and NumberOfOccuranceOfSubString (and so the
// before/after/tokens helpers built on them) match with a single forward scan
// that never backtracks: on a mismatch the pattern restarts and the text moves
// past the mismatching character without testing it as a new start. So "ab"
// is not found in "aab". FindSubString is an ordinary full search.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "framework/utils/ownedblock.h"

namespace tarn {

inline constexpr int kAllocSuccess = 1;
inline constexpr int kAllocOutOfMemory = 99;

// Stores a copy of text (with its terminating zero) in slot. Returns 1, or 99
// when memory ran out or text is null; the slot is then empty.
int AllocateAndDoStrcpy(OptionalBlock& slot, const char* text);

// Stores a copy of size bytes of source, followed by a zero byte, in slot.
// Returns 1, or 99 after logging "Unable to allocate memory\n".
int AllocateAndDoMemcpy(OptionalBlock& slot, const void* source, std::size_t size);

// Position of the first occurrence of pattern in text; 0 both when the
// pattern starts the text and when it does not occur; -1 for a null argument.
int NumberOfCharsToFirstOccurance(const char* text, const char* pattern);

// Number of non-overlapping occurrences; -1 for a null argument.
int NumberOfOccuranceOfSubString(const char* text, const char* pattern);

// The text before the first occurrence (empty when not found); nullopt for a
// null argument.
std::optional<std::string> GetStringBeforeSubString(const char* text, const char* pattern);

// The text after the first occurrence. When the pattern does not occur, the
// text without its first pattern-length characters. nullopt for a null argument.
std::optional<std::string> GetStringAfterSubString(const char* text, const char* pattern);

// The pieces between occurrences of separator: n occurrences give n + 1
// texts (the last is the remainder). A text without separator gives itself.
std::vector<std::string> GetTokensListFromString(const char* text, const char* separator);

// True when pattern occurs anywhere in text; false for an empty text or one
// shorter than the pattern.
bool FindSubString(const char* text, const char* pattern);

}  // namespace tarn
