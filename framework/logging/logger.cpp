#include "framework/logging/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "framework/system/rsrclockimpl.h"
#include "framework/utils/advtime.h"
#include "platform/text/log_text.h"

namespace tarn {
namespace {

constexpr std::uint32_t kDefaultMaxLine = 10000;

// The engine's process-wide state.
struct LogState {
  std::optional<std::string> fileName;       // gv_logFileName
  std::optional<std::string> directory;      // gv_logDirectory
  std::optional<std::string> filePath;       // gv_logFilePath
  FilePtr file;                              // gv_logFilePtr
  std::uint8_t level = kDefaultLogLevel;     // gv_logLevel
  std::uint32_t maxLine = kDefaultMaxLine;   // gv_maxLine
  std::uint32_t maxLineCached = 0;           // gv_maxLineCached
  std::uint32_t currentLineCount = 0;        // gv_currLineCnt
  std::unique_ptr<char> syncKey;             // gv_logSyncPtr
  std::optional<std::string> rootDirectory;  // gv_rootDirString
  // The time stamp of the last line written, reused for lines within the same second.
  std::time_t stampSecond = -1;
  std::string stampText;
};

LogState& State() {
  static LogState state;
  return state;
}

void ResetCounters(LogState& state) {
  state.maxLine = kDefaultMaxLine;
  state.maxLineCached = 0;
  state.level = kDefaultLogLevel;
  state.currentLineCount = 0;
}

std::string StripTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

// The path the log file opens at, creating its directory on the way.
std::string ChooseLogPath(const LogState& state) {
  const std::string& name = *state.fileName;
  if (state.directory) {
    MakeDirectory(*state.directory);
    return *state.directory + "/" + name;
  }
  if (state.rootDirectory) {
    MakeDirectory(*state.rootDirectory + "/logs");
    return *state.rootDirectory + "/logs/" + name;
  }
  MakeDirectory("../logs");
  return "../logs/" + name;
}

// How each start mode opens the file: flags for OpenOwnFile and the stream mode.
struct OpenMode {
  int flags;
  const char* streamMode;
};
constexpr OpenMode kAppendMode{O_RDWR | O_APPEND | O_CREAT, "a+"};
constexpr OpenMode kTruncateMode{O_WRONLY | O_CREAT | O_TRUNC, "w"};

int OpenLogFile(const OpenMode& mode) {
  LogState& state = State();
  if (state.file) {
    TraceLogMessage("gv_logFilePtr already Set\n");
    return 1;
  }
  if (!state.fileName) {
    return 0;
  }
  state.filePath = ChooseLogPath(state);
  state.file = OpenOwnStream(*state.filePath, mode.flags, mode.streamMode);
  if (!state.file) {
    return 0;
  }
  std::fprintf(state.file.get(), "Log open time: %s\n", CurrentDateTimeText().c_str());
  std::fflush(state.file.get());
  return 1;
}

bool Writes(std::uint8_t threshold) {
  const LogState& state = State();
  return state.file && state.level >= threshold && state.syncKey;
}

// Gathers the pieces of a message in a buffer of its own and hands it to the log file's
// stream in large writes (a logged document comes in one piece per line).
class FileSink final : public TextSink {
 public:
  explicit FileSink(std::FILE* file) : file_(file) {}
  ~FileSink() { Flush(); }
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;

  void Append(std::string_view piece) override {
    if (piece.size() > kBufferSize - used_) {
      Flush();
      if (piece.size() >= kBufferSize) {
        std::fwrite(piece.data(), 1, piece.size(), file_);
        return;
      }
    }
    std::memcpy(buffer_.data() + used_, piece.data(), piece.size());
    used_ += piece.size();
  }

  void Flush() {
    if (used_ > 0) std::fwrite(buffer_.data(), 1, used_, file_);
    used_ = 0;
  }

 private:
  static constexpr std::size_t kBufferSize = 16 * 1024;
  std::FILE* file_;
  std::array<char, kBufferSize> buffer_;
  std::size_t used_ = 0;
};

// Writes one line: the prefix, then the message the writer hands to the file, then flushes.
template <typename MessageWriter>
void WriteLine(const char* severity, MessageWriter&& writeMessage) {
  LogState& state = State();
  ResourceGuard guard(state.syncKey.get());
  FileSink sink(state.file.get());
  const std::time_t now = std::time(nullptr);
  if (now != state.stampSecond) {
    state.stampText = DateTimeTextAt(now);
    state.stampSecond = now;
  }
  sink.Append("[ ");
  sink.Append(state.stampText);
  sink.Append(" ] ");
  sink.Append(severity);
  sink.Append(" ");
  writeMessage(sink);
  sink.Flush();
  std::fflush(state.file.get());
}

void WriteMessage(std::uint8_t threshold, const char* severity, const char* format,
                  std::va_list args) {
  if (Writes(threshold)) {
    WriteLine(severity, [&](TextSink& sink) { FormatEscapingValuesTo(sink, format, args); });
  }
}

void WriteText(std::uint8_t threshold, const char* severity, const char* text) {
  if (Writes(threshold) && text != nullptr) {
    WriteLine(severity, [text](TextSink& sink) { sink.Append(text); });
  }
}

}  // namespace

int MakeDirectory(const std::string& directory) {
  if (::mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) {
    return 1;
  }
  if (errno != ENOENT) {
    return errno;
  }
  const std::string trimmed = StripTrailingSlashes(directory);
  const auto slash = trimmed.find_last_of('/');
  if (slash != std::string::npos && slash != 0) {
    MakeDirectory(trimmed.substr(0, slash));
  }
  if (::mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) {
    return 1;
  }
  return errno;
}

int InitLogging() {
  LogState& state = State();
  if (state.file) {
    ResetCounters(state);
    return 1;
  }
  if (state.fileName) {
    return 1;
  }
  state.fileName = "quarry.log";
  state.syncKey = std::make_unique<char>(0);
  state.directory.reset();
  state.filePath.reset();
  ResetCounters(state);
  return 1;
}

int SetLoggingParameters(const char* fileName, const char* directory, std::uint32_t maxLine,
                         std::uint32_t maxLineCached, std::uint8_t level) {
  LogState& state = State();
  state.fileName = fileName ? std::optional<std::string>(fileName) : std::nullopt;
  state.directory = directory ? std::optional<std::string>(directory) : std::nullopt;
  state.maxLine = maxLine;
  state.maxLineCached = maxLineCached;
  state.level = level;
  return 1;
}

void SetLogLevel(std::uint8_t level) { State().level = level; }

int SetLogFileName(const char* fileName) {
  if (fileName == nullptr) {
    return 0;
  }
  State().fileName = fileName;
  return 1;
}

int SetLogDirectory(const char* directory) {
  if (directory == nullptr) {
    return 0;
  }
  State().directory = directory;
  return 1;
}

int SetLogRootDirectory(const char* rootDirectory) {
  if (rootDirectory == nullptr) {
    return 0;
  }
  State().rootDirectory = rootDirectory;
  return 1;
}

int SetLogFilePtr(FilePtr file) {
  if (!file) {
    return 0;
  }
  State().file = std::move(file);
  return 1;
}

int StartLoggingAppMode() { return OpenLogFile(kAppendMode); }

int StartLogging() { return OpenLogFile(kTruncateMode); }

void StopLogging() {
  LogState& state = State();
  if (!state.file) {
    return;
  }
  std::fprintf(state.file.get(), "Log close time: %s\n", CurrentDateTimeText().c_str());
  state.file.reset();
}

int RedirectStandardErrorToLog() {
  LogState& state = State();
  if (!state.file) {
    return 0;
  }
  std::fflush(stderr);
  return ::dup2(::fileno(state.file.get()), STDERR_FILENO) == STDERR_FILENO ? 1 : 0;
}

void DeInitLogging() {
  LogState& state = State();
  state.fileName.reset();
  state.directory.reset();
  state.filePath.reset();
  state.syncKey.reset();
}

std::uint8_t GetLogLevelValue() { return State().level; }

std::optional<std::string> GetLogFilePath() { return State().filePath; }

#define TARN_DEFINE_LOG_FUNCTION(name, threshold, severity) \
  void name(const char* format, ...) {                      \
    std::va_list args;                                      \
    va_start(args, format);                                 \
    WriteMessage(threshold, severity, format, args);        \
    va_end(args);                                           \
  }

TARN_DEFINE_LOG_FUNCTION(UserLogMessage, 1, "[INFO]")
TARN_DEFINE_LOG_FUNCTION(ErrorLogMessage, 2, "[ERROR]")
TARN_DEFINE_LOG_FUNCTION(DebugLogMessage, 3, "[DEBUG]")
TARN_DEFINE_LOG_FUNCTION(TraceLogMessage, 4, "[TRACE]")

#undef TARN_DEFINE_LOG_FUNCTION

void UserLogText(const char* text) { WriteText(1, "[INFO]", text); }
void ErrorLogText(const char* text) { WriteText(2, "[ERROR]", text); }

}  // namespace tarn
