#include "tarninventory/src/accesslog.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/file/file_util.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {
namespace {

// printf-style formatting into a string of whatever length the result needs.
__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list measuring;
  va_copy(measuring, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measuring);
  va_end(measuring);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.resize(static_cast<std::size_t>(length));
  }
  va_end(arguments);
  return text;
}

}  // namespace

std::string AccessLogPath(const std::string& logDirectory) {
  return logDirectory + "/" + kAccessLogFileName;
}

std::string AccessLogStartPiece(const std::string& date, const std::string& modeWord,
                                const std::string& time) {
  return Format("\n%s\t%11s\t%11s\t", date.c_str(), modeWord.c_str(), time.c_str());
}

std::string AccessLogFailurePiece(const std::string& failureWord) {
  return Format("\t%15s\t%15s", failureWord.c_str(), kNoStatus);
}

std::string AccessLogColumnPiece(const std::string& word) { return Format("\t%15s", word.c_str()); }

std::string AccessLogEndPiece(const std::string& time) { return Format("%15s", time.c_str()); }

void CreateDeviceScanAccessLog(const std::string& path) {
  if (isFileExists(path)) {
    return;
  }
  CreateFile(path);
  PrintAccessLog(path, kAccessLogHeader);
}

void PrintAccessLog(const std::string& path, std::string_view text) {
  // Without O_CREAT: the log is never created here.
  const UniqueFd file = OpenOwnFile(path, O_WRONLY | O_APPEND);
  if (file.valid()) {
    WriteAll(file.get(), text);
  }
}

void PrintAccessLogStart(const std::string& path, const std::string& modeWord) {
  PrintAccessLog(path, AccessLogStartPiece(GetCurrDateString(), modeWord, GetCurrTime()));
}

void PrintAccessLogFailure(const std::string& path, const std::string& failureWord) {
  PrintAccessLog(path, AccessLogFailurePiece(failureWord));
}

void PrintAccessLogColumn(const std::string& path, const std::string& word) {
  PrintAccessLog(path, AccessLogColumnPiece(word));
}

void PrintAccessLogEndTime(const std::string& path) {
  PrintAccessLog(path, AccessLogEndPiece(GetCurrTime()));
}

}  // namespace tarn
