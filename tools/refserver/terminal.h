// Text from uploads made safe for a terminal or a log file: nothing an agent sends can
// move the cursor, retitle or clear the terminal, or start a line of its own.
#pragma once

#include <string>
#include <string_view>

#include "tools/refserver/store.h"

namespace tarn::refserver {

// The text with every control character but the tab (C0, DEL, and C1 written as UTF-8)
// and every byte outside well-formed UTF-8 written as \xNN, one escape per byte.
std::string TerminalSafe(std::string_view text);

// A copy of the computer with every text that came from an agent made TerminalSafe,
// for printing it in a terminal.
ComputerDetails TerminalSafe(const ComputerDetails& computer);

}  // namespace tarn::refserver
