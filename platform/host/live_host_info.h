#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

namespace tarn {

// Host facts of the operating system the program runs on (platform/linux or platform/darwin).
std::unique_ptr<HostInfo> MakeLiveHostInfo();

// The short name of this process's executable ("tarninventory"), for log lines. Never fails:
// gives "unknown" when the system cannot tell.
std::string ExecutableShortName();

}  // namespace tarn
