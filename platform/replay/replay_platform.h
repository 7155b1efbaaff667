#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/platform.h"

namespace tarn {

// A platform that answers from a recorded machine: the folder holds "manifest.plist", a
// dictionary with
//   "commands": array of {"launchPath", "arguments" (array of text), "output" (a file name
//               beside the manifest), optional "exitCode" (integer, default 0), optional
//               "seconds" (real or integer: how long the tool took when recorded)};
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
struct ReplayOptions {
  // Each recorded command takes its recorded "seconds" before it answers; a bounded run no
  // longer than boundedWait (the live runner's longest bounded wait), after which it answers
  // with the recorded output as it always does.
  bool timing = false;
  std::chrono::milliseconds boundedWait{31000};
  // How a run waits; tests count the waits instead.
  std::function<void(std::chrono::microseconds)> sleep;
};

std::unique_ptr<Platform> MakeReplayPlatform(const std::string& machineDirectory,
                                             ReplayOptions options = {});

}  // namespace tarn
