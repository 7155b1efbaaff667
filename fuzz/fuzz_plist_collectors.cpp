// Property lists, XML and binary: whatever ParsePlist gives must keep its promises (nesting
// within kMaxPlistDepth, texts and keys UTF-8 without a NUL character), and every collector's
// parse step must take whatever parses (a raise is how a collector ends).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "platform/text/utf8.h"
#include "tarninventory/src/invscanhandler.h"

namespace {

using tarn::PlistPtr;

// A parse step that may end by raising, as it does on odd input.
template <typename Step>
void Guarded(Step step) {
  try {
    step();
  } catch (const tarn::PlatformException&) {
  }
}

bool IsFaithfulText(std::string_view text) {
  return tarn::IsValidUtf8(text) && text.find('\0') == std::string_view::npos;
}

// The tree holds only what a property list can: the promises ParsePlist makes.
void ExpectWithinPromises(const tarn::PlistValue& value, int depth) {
  if (depth > tarn::kMaxPlistDepth) std::abort();
  if (value.IsString() && !IsFaithfulText(value.String())) std::abort();
  if (value.IsUnsignedInteger()) std::abort();
  if (value.IsArray()) {
    for (const PlistPtr& element : value.Elements()) ExpectWithinPromises(*element, depth + 1);
  } else if (value.IsDictionary()) {
    for (const auto& [key, child] : value.Entries()) {
      if (!IsFaithfulText(key)) std::abort();
      ExpectWithinPromises(*child, depth + 1);
    }
  }
}

// Every parse step on the bytes' tree; the rows stay in memory, nothing is recorded.
void RunParseSteps(const PlistPtr& root, std::string_view bytes) {
  const auto items = [&] { return tarn::ValueForKey(tarn::ObjectAtIndex(root, 0), "_items"); };
  const std::optional<std::string> text(bytes);
  tarn::CollectorFacts facts;
  tarn::Rows rows;
  Guarded([&] { tarn::ParseMemorySize(1, 2, text, facts, rows); });
  tarn::ParseProductName(text, facts);
  tarn::ParseProductVersion(text, facts, rows);
  tarn::ParseBuildVersion(text, rows);
  Guarded([&] { tarn::ParseHardwareReport(items(), facts, rows); });
  tarn::ParseOsSoftwareRow("macOS", facts, rows);
  Guarded([&] { tarn::ParseProcessorCount(text, facts, rows); });
  tarn::ParseSystemEnclosure(facts, rows);
  Guarded([&] { tarn::ParsePhysicalMemory(items(), facts, rows); });
  Guarded([&] { tarn::ParseVideoController(items(), rows); });
  Guarded([&] { tarn::ParseCDDrive(root, rows); });
  Guarded([&] {
    tarn::ParseNetworkAdapters(
        items(), [&] { return text; }, rows);
  });
  Guarded([&] { tarn::ParsePrinters(items(), rows); });
  PlistPtr internal;
  PlistPtr removable;
  PlistPtr volume;
  Guarded([&] { internal = tarn::DiskDrivesFromControllers(items()); });
  Guarded([&] { tarn::DiskDrivesFromNvmeControllers(items()); });
  Guarded([&] { removable = tarn::RemovableDisksFromReport(root); });
  Guarded([&] { tarn::IsExternalVolume(root); });
  Guarded([&] {
    if (!removable) removable = tarn::PlistValue::MakeDictionary();
    removable->SetObjectForKey("disk4", tarn::RemovableDiskFromDiskInfo("disk4", root));
  });
  Guarded([&] { volume = tarn::VolumeInstance("disk1s1", root, internal, removable); });
  Guarded([&] { tarn::VolumeInstance("disk1s1", root, internal, removable, true); });
  Guarded([&] {
    const PlistPtr volumes = tarn::PlistValue::MakeDictionary();
    if (volume) volumes->SetObjectForKey("disk1s1", volume);
    tarn::ParseDisksAndVolumes(internal, removable, volumes, rows);
  });
  tarn::SoftwareSet seen;
  Guarded([&] { tarn::ParseInstalledSoftware(items(), "/Agent", seen, facts, rows); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const PlistPtr root = tarn::ParsePlist(bytes);
  if (root) ExpectWithinPromises(*root, 1);
  RunParseSteps(root, bytes);
  return 0;
}
