#pragma once

#include <string>

namespace tarn {

// Writes one line to the platform's console log: standard error, prefixed with the local
// time stamp, the process name and id ("2024-04-12 15:26:32.123 tarninventory[812] ").
// The format is printf's; control characters of the inserted texts are written "\xNN"
// (FormatEscapingValues). A line end is added when the message has none. Never raises.
void ConsoleLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// As ConsoleLog for a message that is already formatted (and escaped where it needs to be):
// it is written as it stands.
void ConsoleLogMessage(std::string message);

}  // namespace tarn
