// Diagnostics of the agent utilities that carry the writer's place: each line
// begins with "%s [Line %d] " filled with the function's signature text and a
// line number, then the message.
#pragma once

#include <optional>
#include <string>

namespace tarn {

// To the platform's console log.
void ConsoleWhere(const char* signature, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// To standard error (which lands in the scan log once logging has started).
void StderrWhere(const char* signature, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The text an absent object prints as in a message: "(null)".
inline const char* Describe(const std::optional<std::string>& text) {
  return text ? text->c_str() : "(null)";
}

}  // namespace tarn
