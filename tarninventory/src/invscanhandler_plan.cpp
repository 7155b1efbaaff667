// The tool runs the collectors will ask for, known before they start, so that they can run
// side by side while the collectors read their results one after another.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/invscanhandler.h"

namespace tarn {
namespace {

PlannedCommand Profiler(const char* dataType) {
  return {kSystemProfiler, {"-xml", dataType}, false, WaitPolicy::kBounded, nullptr};
}

PlannedCommand Tool(const char* launchPath, const char* argument,
                    WaitPolicy wait = WaitPolicy::kBounded) {
  return {launchPath, {argument}, false, wait, nullptr};
}

// The SAS report is asked for only when the Serial-ATA report names no controller.
std::vector<PlannedCommand> SasReportWhenNoSerialAta(std::string_view output) {
  try {
    const PlistPtr controllers = ValueForKey(ObjectAtIndex(ParsePlist(output), 0), "_items");
    if (Count(controllers) > 0) return {};
  } catch (const PlatformException&) {
    // An odd report sends the collector on to the SAS report as well.
  }
  return {Profiler("SPSASDataType")};
}

// One "diskutil info" per volume the list names.
std::vector<PlannedCommand> VolumeInfos(std::string_view output) {
  std::vector<PlannedCommand> infos;
  const PlistPtr list = ParsePlist(output);
  const PlistPtr identifiers = list && list->IsDictionary() ? list->ValueForKey("VolumesFromDisks")
                                                            : nullptr;
  if (!identifiers || !identifiers->IsArray()) return infos;
  for (const PlistPtr& identifier : identifiers->Elements()) {
    if (const OptText text = TextOf(identifier)) {
      infos.push_back({kDiskutil, {"info", "-plist", *text}, true, WaitPolicy::kUnbounded, nullptr});
    }
  }
  return infos;
}

}  // namespace

std::vector<PlannedCommand> CollectorCommands() {
  PlannedCommand serialAta = Profiler("SPSerialATADataType");
  serialAta.then = SasReportWhenNoSerialAta;
  // The order is the order they start in: the slowest report first, then the order in
  // which the run asks for them (the network report already while the agent's details are
  // read, before the collectors).
  return {
      {kSystemProfiler, {"SPApplicationsDataType", "-xml"}, true, WaitPolicy::kUnbounded, nullptr},
      Profiler("SPNetworkDataType"),
      Tool(kSysctl, "hw.memsize"),
      Tool(kSwVers, "-productName"),
      Tool(kSwVers, "-productVersion"),
      Tool(kSwVers, "-buildVersion"),
      Profiler("SPHardwareDataType"),
      Profiler("SPDisplaysDataType"),
      Profiler("SPDiscBurningDataType"),
      std::move(serialAta),
      Profiler("SPUSBDataType"),
      {kDiskutil, {"list", "-plist"}, true, WaitPolicy::kUnbounded, VolumeInfos},
      Tool(kSysctl, "hw.ncpu"),
      Tool(kUsers, " ", WaitPolicy::kUnbounded),
      Tool(kSysctl, "kern.hostname"),
      Profiler("SPPrintersDataType"),
      Profiler("SPMemoryDataType"),
  };
}

}  // namespace tarn
