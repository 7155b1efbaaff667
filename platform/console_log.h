#pragma once

#include <cstdarg>
#include <string_view>

namespace tarn {

// Writes one line to the platform's console log: standard error, prefixed with the local
// time stamp, the process name and id ("2024-04-12 15:26:32.123 tarninventory[812] ").
// The format is printf's; control characters of the inserted texts are written "\xNN"
// (FormatEscapingValues). A line end is added when the message has none. Never raises.
void ConsoleLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// As ConsoleLog, with a lead text (written as it stands) between the prefix and the message.
void ConsoleLogWithLead(std::string_view lead, const char* format, std::va_list arguments);

// As ConsoleLog for a message that is already formatted (and escaped where it needs to be):
// it is written as it stands.
void ConsoleLogMessage(std::string_view message);

}  // namespace tarn
