#pragma once

namespace tarn {

// Writes one line to the platform's console log: standard error, prefixed with the local
// time stamp, the process name and id ("2024-04-12 15:26:32.123 tarninventory[812] ").
// The format is printf's; a line end is added when the message has none. Never raises.
void ConsoleLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tarn
