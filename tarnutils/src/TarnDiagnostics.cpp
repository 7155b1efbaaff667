#include "tarnutils/src/TarnDiagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/console_log.h"
#include "platform/text/log_text.h"

namespace tarn {
namespace {

// "<signature> [Line <line>] ", written before the message.
std::string WhereLead(const char* signature, int line) {
  return std::string(signature) + " [Line " + std::to_string(line) + "] ";
}

// The lead and the message, its inserted texts escaped.
std::string WhereLine(const char* signature, int line, const char* format, std::va_list args) {
  return WhereLead(signature, line) + FormatEscapingValues(format, args);
}

}  // namespace

void ConsoleWhere(const char* signature, int line, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  ConsoleLogWithLead(WhereLead(signature, line), format, args);
  va_end(args);
}

void StderrWhere(const char* signature, int line, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const std::string text = WhereLine(signature, line, format, args);
  va_end(args);
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

}  // namespace tarn
