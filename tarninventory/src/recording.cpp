#include "tarninventory/src/recording.h"

#include <exception>
#include <string_view>
#include <vector>

#include "tarninventory/src/InvClassHandler.h"
#include "tarninventory/src/diffdocument.h"
#include "tarninventory/src/matching.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnDiagnostics.h"

namespace tarn {
namespace {

constexpr const char* kNullText = "(null)";

constexpr const char* kSaveScanDataSignature =
    "void SaveScanData(std::int32_t, std::int32_t, std::int32_t, std::int32_t, "
    "std::optional<std::string_view>)";
constexpr const char* kWriteToINVScanDataSignature =
    "void WriteToINVScanData(const PlistPtr&, std::int32_t)";

// "KEY": the values of the class's primary-key properties in catalogue order,
// without separator, skipping those the instance lacks.
std::string InstanceKey(const PendingInstance& instance, std::int32_t classId) {
  std::string key;
  const PropertyIdList primaryKeys =
      invClassObj().GetPrimaryKeysArr(static_cast<std::uint32_t>(classId));
  if (!primaryKeys) return key;
  for (const std::string& propertyId : *primaryKeys) {
    if (const auto value = instance.Find(propertyId)) key += *value;
  }
  return key;
}

// Files the gathered instance (when asked) and starts an empty one.
void FileGathered(ScanRun& run, bool file) {
  if (file) WriteToINVScanData(run.propertyDict, run.prevclassID);
  run.propertyDict.Clear();
}

}  // namespace

void SaveScanData(std::int32_t propertyId, std::int32_t classId, std::int32_t instanceNumber,
                  std::int32_t /*flag*/, std::optional<std::string_view> value) {
  ScanRun& run = CurrentScanRun();
  try {
    if (run.previndexID == -1) run.previndexID = instanceNumber;
    if (run.prevclassID == 0) {
      run.prevclassID = classId;
      run.propertyDict.Clear();
    }
    if (classId != run.prevclassID) {
      // A new class ends the pending instance, even an empty one.
      FileGathered(run, true);
      run.prevclassID = classId;
      run.previndexID = -1;
    } else if (instanceNumber != run.previndexID) {
      FileGathered(run, run.propertyDict.size() > 0);
      run.previndexID = instanceNumber;
    }
    run.propertyDict.Set(propertyId, value.value_or(kNullText));
    if (propertyId == invClassObj().GetLastPropertyID()) {
      FileGathered(run, true);
      run.previndexID = instanceNumber;
    }
  } catch (const std::exception& failure) {
    ConsoleWhere(kSaveScanDataSignature, __LINE__, "SaveScanData :Caught exception>>>>>>>>>>>:%s",
                 failure.what());
  }
}

void WriteToINVScanData(const PendingInstance& instance, std::int32_t classId) {
  try {
    const std::string key = InstanceKey(instance, classId);
    std::vector<InstanceEntry> entries;
    entries.reserve(instance.size() + 1);
    for (std::size_t i = 0; i < instance.size(); ++i) entries.push_back(instance[i]);
    entries.push_back({kInstanceKey, key});
    ScanRun& run = CurrentScanRun();
    run.invScanData.AddInstance(ClassKey(classId), entries);
    if (!IsDiffScan()) return;
    const ScanData::Instance filed = run.invScanData.LastFiled();
    const std::string status = GetDictStatus(filed, classId);
    if (status == kStatusNew || status == kStatusModified) {
      AddtoDiffData(status, classId, filed);
    }
  } catch (const std::exception& failure) {
    ConsoleWhere(kWriteToINVScanDataSignature, __LINE__,
                 "SaveScanData :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

}  // namespace tarn
