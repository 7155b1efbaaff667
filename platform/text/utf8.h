#pragma once

#include <string>
#include <string_view>

namespace tarn {

// True when the bytes are well-formed UTF-8: no overlong forms, no surrogate code points,
// nothing above U+10FFFF, no truncated sequence. The empty text is valid.
bool IsValidUtf8(std::string_view bytes);

// The bytes with every byte that starts no well-formed sequence replaced by U+FFFD; valid
// text comes back unchanged.
std::string WithValidUtf8(std::string_view bytes);

}  // namespace tarn
