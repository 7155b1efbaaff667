#include "platform/console_log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>

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

}  // namespace

void ConsoleLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string message = FormatEscapingValues(format, arguments);
  va_end(arguments);
  ConsoleLogMessage(std::move(message));
}

void ConsoleLogMessage(std::string message) {
  if (message.empty() || message.back() != '\n') message += '\n';
  static const std::string processName = ExecutableShortName();
  const std::string line =
      TimeStamp() + " " + processName + "[" + std::to_string(::getpid()) + "] " + message;
  // One write call per line, so lines of several writers do not interleave.
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace tarn
