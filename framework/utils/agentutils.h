// Strict decimal parsers of the data store: the whole text must be the number.
#pragma once

#include <cstdint>

namespace tarn {

// Optional "+" or "-", then decimal digits to the end of the text. Anything
// else (a leading blank, a trailing character, no digit, a null text) gives 0.
// Digits beyond the type's range wrap as in 32-bit resp. 64-bit arithmetic.
std::int32_t AlphaToInt(const char* text);
std::int64_t AlphaToInt64(const char* text);

// Optional sign, digits, optionally "." and further digits, to the end of the
// text; no exponent, a leading digit is required. Fraction digit i counts as
// digit / 10^i with 10^i a 32-bit integer, so only the first nine fraction
// digits contribute; later ones are checked but ignored.
double AlphaToDouble(const char* text);

}  // namespace tarn
