#include "framework/utils/stringutils.h"

#include <cstring>
#include <new>

#include "framework/logging/logger.h"

namespace tarn {
namespace {

// Start positions of the non-overlapping occurrences of pattern in text, found
// by the single forward scan described in the header.
std::vector<std::size_t> ForwardScanMatches(const char* text, const char* pattern) {
  std::vector<std::size_t> starts;
  const std::size_t patternLength = std::strlen(pattern);
  if (patternLength == 0) {
    return starts;
  }
  std::size_t matched = 0;
  for (std::size_t i = 0; text[i] != '\0'; ++i) {
    if (text[i] == pattern[matched]) {
      if (++matched == patternLength) {
        starts.push_back(i + 1 - patternLength);
        matched = 0;
      }
    } else {
      matched = 0;
    }
  }
  return starts;
}

std::size_t FirstOccurrence(const char* text, const char* pattern) {
  const auto starts = ForwardScanMatches(text, pattern);
  return starts.empty() ? 0 : starts.front();
}

}  // namespace

int AllocateAndDoStrcpy(OptionalBlock& slot, const char* text) {
  slot.reset();
  if (text == nullptr) {
    return kAllocOutOfMemory;
  }
  try {
    slot = OwnedBlock::Copy(text, std::strlen(text));
  } catch (const std::bad_alloc&) {
    return kAllocOutOfMemory;
  }
  return kAllocSuccess;
}

int AllocateAndDoMemcpy(OptionalBlock& slot, const void* source, std::size_t size) {
  slot.reset();
  try {
    slot = OwnedBlock::Copy(source, size);
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("Unable to allocate memory\n");
    return kAllocOutOfMemory;
  }
  return kAllocSuccess;
}

int NumberOfCharsToFirstOccurance(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr) {
    return -1;
  }
  return static_cast<int>(FirstOccurrence(text, pattern));
}

int NumberOfOccuranceOfSubString(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr) {
    return -1;
  }
  return static_cast<int>(ForwardScanMatches(text, pattern).size());
}

std::optional<std::string> GetStringBeforeSubString(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr) {
    return std::nullopt;
  }
  return std::string(text, FirstOccurrence(text, pattern));
}

std::optional<std::string> GetStringAfterSubString(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr) {
    return std::nullopt;
  }
  const std::size_t from = FirstOccurrence(text, pattern) + std::strlen(pattern);
  const std::size_t length = std::strlen(text);
  return from >= length ? std::string() : std::string(text + from);
}

std::vector<std::string> GetTokensListFromString(const char* text, const char* separator) {
  std::vector<std::string> tokens;
  if (text == nullptr || separator == nullptr) {
    return tokens;
  }
  const std::size_t separatorLength = std::strlen(separator);
  std::size_t pieceStart = 0;
  for (const std::size_t start : ForwardScanMatches(text, separator)) {
    tokens.emplace_back(text + pieceStart, start - pieceStart);
    pieceStart = start + separatorLength;
  }
  tokens.emplace_back(text + pieceStart);
  return tokens;
}

bool FindSubString(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr || *text == '\0' ||
      std::strlen(text) < std::strlen(pattern)) {
    return false;
  }
  return std::strstr(text, pattern) != nullptr;
}

}  // namespace tarn
