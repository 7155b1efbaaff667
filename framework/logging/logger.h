// The logging engine: one text log file, four message functions with fixed
// severity words, whole messages serialised through the resource-lock table.
//
// Line format: "[ " date-time " ] " severity " " message, with the date and
// time as "%04d-%02d-%02d %02d:%02d:%02d" in local time. The engine adds no
// line end; every message is flushed at once. Control characters in the texts a message
// inserts (%s, %c) are written "\xNN", so no value can start a line of its own; the
// format's own line ends are kept.
//
// The log file is opened without following a link and must be a regular file of this
// process's user with one link (OpenOwnFile); a new one is created with mode 0600 in a
// folder created with mode 0700.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "platform/file/file_util.h"

namespace tarn {

inline constexpr std::uint8_t kDefaultLogLevel = 3;

// With a file open: resets limits, level 3 and the line counter. Without a
// file name: names the file "quarry.log", creates the lock key and clears the
// directory and path. Returns 1 (0 when the name could not be stored).
int InitLogging();

// Replaces file name and directory and stores the numbers. Returns 1.
int SetLoggingParameters(const char* fileName, const char* directory, std::uint32_t maxLine,
                         std::uint32_t maxLineCached, std::uint8_t level);

void SetLogLevel(std::uint8_t level);
// These refuse a null argument with 0 and return 1 otherwise.
int SetLogFileName(const char* fileName);
int SetLogDirectory(const char* directory);
int SetLogRootDirectory(const char* rootDirectory);
int SetLogFilePtr(FilePtr file);

// Opens the log file for appending (creating its directory with missing
// parents) and writes the open line. Returns 1, or 0 when the file cannot be
// opened or is refused (logging stays off). With a file already open, traces
// "gv_logFilePtr already Set\n" and returns 1.
int StartLoggingAppMode();

// As StartLoggingAppMode, but the file is truncated.
int StartLogging();

// Writes the close line, closes the file and turns logging off.
void StopLogging();

// Points standard error (descriptor 2) at the open log file, sharing its append position,
// so that what is written there lands in the log. 1, or 0 when no file is open or the
// descriptor cannot be duplicated.
int RedirectStandardErrorToLog();

// Releases name, directory, path and lock key.
void DeInitLogging();

// printf-style messages; written when the level is at least 1 (INFO),
// 2 (ERROR), 3 (DEBUG) or 4 (TRACE).
void UserLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void ErrorLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void DebugLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void TraceLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

// For a fixed text of the program's own, kept in a table (never a value from outside):
// written as it stands, neither formatted nor escaped, when UserLogMessage or
// ErrorLogMessage would write.
void UserLogText(const char* text);
void ErrorLogText(const char* text);

std::uint8_t GetLogLevelValue();
// Full path of the open (or last opened) log file, if any.
std::optional<std::string> GetLogFilePath();

// Creates directory with mode 0700, first creating a missing parent. Returns 1 when it exists
// afterwards (or already did), else the error number.
int MakeDirectory(const std::string& directory);

}  // namespace tarn
