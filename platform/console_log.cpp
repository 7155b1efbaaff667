#include "platform/console_log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include "platform/host/live_host_info.h"
#include "platform/text/log_text.h"

namespace tarn {
namespace {

std::string TimeStamp() {
  timeval now{};
  gettimeofday(&now, nullptr);
  std::tm local{};
  localtime_r(&now.tv_sec, &local);
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(now.tv_usec / 1000));
  return buffer;
}

std::string ConsolePrefix() {
  static const std::string processName = ExecutableShortName();
  return TimeStamp() + " " + processName + "[" + std::to_string(::getpid()) + "] ";
}

// Ends the line when the message did not, and writes it in one call, so that lines of
// several writers do not interleave.
void WriteConsoleLine(std::string& line, std::size_t prefixLength) {
  if (line.size() == prefixLength || line.back() != '\n') line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace

void ConsoleLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ConsoleLogWithLead({}, format, arguments);
  va_end(arguments);
}

void ConsoleLogWithLead(std::string_view lead, const char* format, std::va_list arguments) {
  std::string line = ConsolePrefix();
  const std::size_t prefixLength = line.size();
  line += lead;
  StringSink sink(line);
  FormatEscapingValuesTo(sink, format, arguments);
  WriteConsoleLine(line, prefixLength);
}

void ConsoleLogMessage(std::string_view message) {
  std::string line = ConsolePrefix();
  const std::size_t prefixLength = line.size();
  line += message;
  WriteConsoleLine(line, prefixLength);
}

}  // namespace tarn
