// Property lists, XML and binary: ParsePlist and the in-place document must agree, and every
// collector's parse step must take whatever parses (a raise is how a collector ends).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_document.h"
#include "platform/plist/plist_io.h"
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

// The document read in place answers as the tree: same acceptance, same values.
void ExpectDocumentAgrees(std::string_view bytes, const PlistPtr& tree) {
  const std::unique_ptr<tarn::PlistDocument> document = tarn::PlistDocument::Parse(bytes);
  if ((document != nullptr) != (tree != nullptr)) std::abort();
  if (tree && !(*document->Root().ToValue() == *tree)) std::abort();
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
  // The applications report read in place, as the software collector reads its file.
  const std::unique_ptr<tarn::PlistDocument> report = tarn::PlistDocument::Parse(bytes);
  if (report) {
    tarn::SoftwareSet seen;
    Guarded([&] {
      tarn::ParseInstalledSoftware(
          tarn::ValueForKey(tarn::ObjectAtIndex(report->Root(), 0), "_items"), "/Agent", seen,
          facts, rows);
    });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const PlistPtr root = tarn::ParsePlist(bytes);
  ExpectDocumentAgrees(bytes, root);
  RunParseSteps(root, bytes);
  return 0;
}
