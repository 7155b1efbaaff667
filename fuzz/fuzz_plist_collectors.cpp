// Property lists, XML and binary: ParsePlist and the in-place document must agree, and every
// collector's parse step must take whatever parses (a raise is how a collector ends).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz/fuzz_util.h"
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

void RunCollectors(const PlistPtr& root, const std::string& bytes) {
  tarn::fuzzing::StartRecording();
  tarn::ProplistXMLParser parser;
  const auto items = [&] { return tarn::ValueForKey(tarn::ObjectAtIndex(root, 0), "_items"); };
  Guarded([&] { parser.RecordInstalledSoftware(items()); });
  Guarded([&] { parser.RecordHardwareReport(tarn::ObjectAtIndex(items(), 0)); });
  Guarded([&] { parser.RecordVideoController(items()); });
  Guarded([&] { parser.RecordCDDrive(root); });
  Guarded([&] { parser.RecordNetworkAdapters(items()); });
  Guarded([&] { parser.RecordPrinters(items()); });
  Guarded([&] { parser.RecordPhysicalMemory(items()); });
  PlistPtr internal;
  PlistPtr removable;
  Guarded([&] { internal = parser.DiskDrivesFromControllers(items()); });
  Guarded([&] { removable = parser.RemovableDisksFromReport(root); });
  Guarded([&] { parser.VolumeInstance("disk1s1", root, internal, removable); });
  // The applications report read in place, as the software collector reads its file.
  const tarn::fuzzing::TemporaryFile report(bytes);
  Guarded([&] { parser.RecordInstalledSoftwareReport(report.path()); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarn::fuzzing::LoadShippedStoreOnce();
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const PlistPtr root = tarn::ParsePlist(bytes);
  ExpectDocumentAgrees(bytes, root);
  RunCollectors(root, bytes);
  return 0;
}
