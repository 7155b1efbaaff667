#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

namespace tarn {

// A platform that answers from a recorded machine: the folder holds "manifest.plist", a
// dictionary with
//   "commands": array of {"launchPath", "arguments" (array of text), "output" (a file name
//               beside the manifest), optional "exitCode" (integer, default 0)};
//   "host":     {"hostName", "localizedName",
//               "interfaces" (array of {"name", "family", "address"}),
//               "vmStatistics" {"pageSize", "free", "active", "inactive", "wired"}}.
// A tool run is answered with the recorded output of the entry whose launch path and
// arguments match exactly; a command not recorded, or whose output file is missing, could
// not be launched (Run raises as the live runner does, RunToFile fails). A missing host fact reads as the live platform's failure (empty name, no
// addresses, no statistics). The process table and the own process stay live, so the
// single-instance guard still guards this computer. HTTP goes out live.
//
// Gives nothing, after a console message, when the manifest cannot be read or is not a
// dictionary.
std::unique_ptr<Platform> MakeReplayPlatform(const std::string& machineDirectory);

}  // namespace tarn
