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

PlannedCommand DiskInfo(const std::string& identifier) {
  return {kDiskutil, {"info", "-plist", identifier}, true, WaitPolicy::kUnbounded, nullptr};
}

// With the modern disks on: the whole disk of a volume diskutil calls external, as the volume
// walk asks for it when the USB report lists no medium.
std::vector<PlannedCommand> WholeDiskOfExternalVolume(std::string_view output) {
  try {
    const PlistPtr info = ParsePlist(output);
    const PlistPtr parent = info && info->IsDictionary() ? info->ValueForKey("ParentWholeDisk")
                                                         : nullptr;
    if (parent && parent->IsString() && IsExternalVolume(info)) return {DiskInfo(parent->String())};
  } catch (const PlatformException&) {
    // The volume walk reads the odd answer itself.
  }
  return {};
}

// One "diskutil info" per volume the list names.
std::vector<PlannedCommand> VolumeInfos(std::string_view output, bool modernDisks) {
  std::vector<PlannedCommand> infos;
  const PlistPtr list = ParsePlist(output);
  const PlistPtr identifiers = list && list->IsDictionary() ? list->ValueForKey("VolumesFromDisks")
                                                            : nullptr;
  if (!identifiers || !identifiers->IsArray()) return infos;
  for (const PlistPtr& identifier : identifiers->Elements()) {
    if (const OptText text = TextOf(identifier)) {
      infos.push_back(DiskInfo(*text));
      if (modernDisks) infos.back().then = WholeDiskOfExternalVolume;
    }
  }
  return infos;
}

}  // namespace

std::vector<PlannedCommand> CollectorCommands(bool modernDisks) {
  PlannedCommand serialAta = Profiler("SPSerialATADataType");
  serialAta.then = SasReportWhenNoSerialAta;
  PlannedCommand volumeList{kDiskutil, {"list", "-plist"}, true, WaitPolicy::kUnbounded, nullptr};
  volumeList.then = [modernDisks](std::string_view output) {
    return VolumeInfos(output, modernDisks);
  };
  // The order is the order they start in: the slowest report first, then the order in
  // which the run asks for them (the network report already while the agent's details are
  // read, before the collectors).
  std::vector<PlannedCommand> commands{
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
      std::move(volumeList),
      Tool(kSysctl, "hw.ncpu"),
      Tool(kUsers, " ", WaitPolicy::kUnbounded),
      Tool(kSysctl, "kern.hostname"),
      Profiler("SPPrintersDataType"),
      Profiler("SPMemoryDataType"),
  };
  // The NVMe report is read only when the Serial-ATA and SAS reports give no disk; it is
  // started anyway, beside the others: a report nobody reads is never logged.
  if (modernDisks) commands.push_back(Profiler("SPNVMeDataType"));
  return commands;
}

}  // namespace tarn
