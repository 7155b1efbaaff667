#include "tarninventory/src/matching.h"

#include <exception>
#include <optional>
#include <string_view>

#include "framework/logging/logger.h"
#include "tarninventory/src/FullScanHandler.h"
#include "tarninventory/src/diffdocument.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnDiagnostics.h"

namespace tarn {
namespace {

constexpr const char* kGetDictStatusSignature =
    "std::string GetDictStatus(const PlistPtr&, std::int32_t)";
constexpr const char* kCompareDictsSignature =
    "DWORD CompareDicts(const PlistPtr&, const PlistPtr&)";

// The status of an instance whose previous instance was found, logged.
std::string MatchedStatus(DWORD comparison) {
  if (comparison == kDictsDiffer) {
    UserLogMessage("GetDictStatus :Modified \n");
    return kStatusModified;
  }
  UserLogMessage("GetDictStatus :Not modified \n");
  return kStatusNotModified;
}

std::string NewlyAdded() {
  DebugLogMessage("GetDictStatus :Newly added \n");
  return kStatusNew;
}

// The debug log takes an instance's text only when it would write it.
bool DebugLogging() { return GetLogLevelValue() >= 3; }

// True when both instances list the same entries in the same order (and so are described
// alike).
bool SameEntriesInOrder(const ScanData::Instance& a, const ScanData::Instance& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].key != b[i].key || a[i].value != b[i].value) return false;
  }
  return true;
}

}  // namespace

std::string GetDictStatus(const ScanData::Instance& instance, std::int32_t classId) {
  std::string status = kStatusNew;
  try {
    FullScanHandler* snapshot = CurrentScanRun().fullScanobj.get();
    const std::optional<std::string_view> key = instance.Find(kInstanceKey);
    if (snapshot == nullptr || !key) return NewlyAdded();
    const std::optional<FullScanHandler::Match> match = snapshot->FindFirstByKey(classId, *key);
    if (!match) return NewlyAdded();
    status = MatchedStatus(CompareDicts(instance, match->instance));
    snapshot->RemoveMatched(classId, *match);
  } catch (const std::exception& failure) {
    ConsoleWhere(kGetDictStatusSignature, __LINE__, "GetDictStatus :Caught exception>>>>>>>>>>>:%s",
                 failure.what());
  }
  return status;
}

DWORD CompareDicts(const ScanData::Instance& current, const ScanData::Instance& previous) {
  try {
    if (DebugLogging()) {
      const std::string previousDescription = previous.Description();
      DebugLogMessage("CompareDicts :PrevData : %s ", previousDescription.c_str());
      DebugLogMessage("CompareDicts :CurData : %s", SameEntriesInOrder(current, previous)
                                                        ? previousDescription.c_str()
                                                        : current.Description().c_str());
    }
    for (std::size_t i = 0; i < current.size(); ++i) {
      const InstanceEntry entry = current[i];
      const std::optional<std::string_view> previousText = previous.Find(entry.key, i);
      if (!previousText) {
        UserLogMessage("CompareDicts  propertyId : %s doesnt found in prevScanData \n",
                       std::string(entry.key).c_str());
        return kDictsDiffer;
      }
      if (entry.value != *previousText) {
        UserLogMessage("CompareDicts :modified propertyID : %s curValue:%s prevValue : %s",
                       std::string(entry.key).c_str(), std::string(entry.value).c_str(),
                       std::string(*previousText).c_str());
        return kDictsDiffer;
      }
    }
    return 0;
  } catch (const std::exception& failure) {
    ConsoleWhere(kCompareDictsSignature, __LINE__, "CompareDicts :Caught exception>>>>>>>>>>>:%s",
                 failure.what());
    return 0;
  }
}

}  // namespace tarn
