// Large synthetic recorded machines for the benchmark: every command the scanner runs, in the
// recorded-machine format of platform/replay/replay_platform.h, with outputs shaped as the
// macOS reporting tools print them.
#pragma once

#include <filesystem>
#include <string>

namespace tarn::bench {

struct MachineShape {
  int applications = 5000;
  int volumes = 64;
  int networkServices = 32;
  int printers = 16;
  int memorySlots = 16;
  // The OS version sw_vers reports; below 10.12 so that difference scans stay difference scans.
  std::string osVersion = "10.11.6";
  // The variant a difference scan sees: a few applications updated, removed and added.
  bool changed = false;
};

// How the changed variant differs from the base one (applications only).
inline constexpr int kUpdatedApplications = 5;
inline constexpr int kRemovedApplications = 2;
inline constexpr int kAddedApplications = 2;

// Writes the machine into folder (created; files already there are replaced). The same shape
// always gives the same bytes. False when a file cannot be written.
bool GenerateMachine(const std::filesystem::path& folder, const MachineShape& shape);

}  // namespace tarn::bench
