#include "tarnutils/src/TarnDiagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "platform/console_log.h"

namespace tarn {
namespace {

std::string FormatMessage(const char* format, std::va_list args) {
  std::va_list copy;
  va_copy(copy, args);
  const int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (size <= 0) {
    return {};
  }
  std::vector<char> text(static_cast<std::size_t>(size) + 1);
  std::vsnprintf(text.data(), text.size(), format, args);
  return std::string(text.data(), static_cast<std::size_t>(size));
}

}  // namespace

void ConsoleWhere(const char* signature, int line, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const std::string message = FormatMessage(format, args);
  va_end(args);
  ConsoleLog("%s [Line %d] %s", signature, line, message.c_str());
}

void StderrWhere(const char* signature, int line, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const std::string message = FormatMessage(format, args);
  va_end(args);
  std::fprintf(stderr, "%s [Line %d] %s", signature, line, message.c_str());
  std::fflush(stderr);
}

}  // namespace tarn
