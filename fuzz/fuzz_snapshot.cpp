// The snapshot file: the direct reader must agree with the general one wherever it accepts,
// a loaded snapshot must take a difference scan's matching and reporting, and the direct
// writer must write what libplist writes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "fuzz/fuzz_util.h"
#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/FullScanHandler.h"
#include "tarninventory/src/snapshotfile.h"
#include "tarninventory/src/tarninventoryutil.h"

namespace {

using tarn::PlistPtr;

void ExpectPlainReadingAgrees(const std::string& bytes) {
  const std::optional<tarn::PlainSnapshot> plain = tarn::ReadPlainSnapshot(bytes);
  if (!plain) return;
  const PlistPtr root = tarn::ParsePlist(bytes);
  if (!root || !root->IsDictionary()) std::abort();
  const PlistPtr scanData = root->ValueForKey("INVDatadict");
  if (plain->hasScanData != (scanData != nullptr)) std::abort();
  if (scanData && !(*plain->scanData.ToPlist() == *scanData)) std::abort();
}

// What libplist writes for the scan data, and the direct writer likewise, when it is text only.
void ExpectWriterAgrees(const PlistPtr& scanData) {
  if (!scanData) return;
  const std::optional<tarn::ScanData> compact = tarn::ScanData::FromPlist(*scanData);
  if (!compact) return;
  const PlistPtr root = tarn::PlistValue::MakeDictionary();
  root->SetValueForKey("INVDatadict", scanData);
  std::optional<std::string> expected;
  try {
    expected = tarn::ToXmlPlist(*root);
  } catch (const tarn::PlatformException&) {
  }
  std::optional<std::string> written;
  try {
    written = tarn::SnapshotXml({}, *compact);
  } catch (const tarn::PlatformException&) {
  }
  if (expected != written) std::abort();
}

// A difference scan against the snapshot: the first instance of some classes is recorded
// again (so it is looked up by its own key and matched away), what is left is reported as
// deleted.
void RunDifferenceScan(const std::string& path, const PlistPtr& scanDict) {
  tarn::fuzzing::StartRecording();
  tarn::CurrentScanRun().scanType = tarn::kDiffScanType;
  tarn::CurrentScanRun().fullScanobj = tarn::FullScanHandler::InitWithScanDataFile(path);
  auto& snapshot = tarn::CurrentScanRun().fullScanobj;
  if (!snapshot) return;
  snapshot->Print();
  const std::optional<tarn::ScanData> previous =
      scanDict ? tarn::ScanData::FromPlist(*scanDict) : std::nullopt;
  for (std::size_t c = 0; previous && c < previous->ClassCount(); ++c) {
    if (previous->InstanceCount(c) == 0) continue;
    const tarn::ScanData::Instance first = previous->InstanceAt(c, 0);
    const std::int32_t classId = tarn::IdOf(previous->ClassKey(c));
    for (std::size_t e = 0; e < first.size(); ++e) {
      if (first[e].key != tarn::kInstanceKey) {
        tarn::SaveScanData(tarn::IdOf(std::string(first[e].key)), classId, 1, 0,
                           std::string(first[e].value));
      }
    }
  }
  tarn::SaveScanData(2808, 28, 1, 0, "end");
  snapshot->WritetoDiffData();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarn::fuzzing::LoadShippedStoreOnce();
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  ExpectPlainReadingAgrees(bytes);
  const PlistPtr root = tarn::ParsePlist(bytes);
  const PlistPtr scanDict =
      root && root->IsDictionary() ? root->ValueForKey("INVDatadict") : nullptr;
  ExpectWriterAgrees(scanDict);
  const tarn::fuzzing::TemporaryFile file(bytes);
  RunDifferenceScan(file.path(), scanDict);
  // Saving over the same file keeps its other top-level entries.
  tarn::FullScanHandler::SaveCurrentScanData(tarn::CurrentScanRun().invScanData, file.path(),
                                             tarn::CurrentScanRun().fullScanobj.get());
  return 0;
}
