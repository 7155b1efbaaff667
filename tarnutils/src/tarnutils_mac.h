// Start-up helpers of the agent: the scan log's level, starting and stopping
// the logging engine, and rotation of the agent's logs.
#pragma once

#include <cstdint>
#include <string>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

// Size at which a log is rotated (2 MiB).
inline constexpr std::uintmax_t kRotateLogThreshold = 2097152;

// "Loglevel" of "agent-conf.plist" in the agent data directory; 3 when it is
// missing or the store fails.
int GetLogLevel();

// Starts the logging engine on fileName in the agent log directory at level,
// and re-opens standard error onto the same file (append). Returns 0.
int StartLoggingEngine(const char* fileName, int level);

// Stops the engine and releases its names. Returns 0.
int StopLoggingEngine();

// Rotates "<log dir>/<baseName>.log" once it has reached 2 MiB, keeping
// generations "<baseName>1.log" (newest) to "<baseName>9.log". 0 when the log
// was small or a pass ran, 1 when the log directory could not be listed or is
// empty.
DWORD RotateLog(const std::string& baseName);

}  // namespace tarn
