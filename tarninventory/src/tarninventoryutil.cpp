#include "tarninventory/src/tarninventoryutil.h"

#include <exception>
#include <string>
#include <utility>

#include "framework/logging/logger.h"
#include "platform/exception/platform_exception.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnDiagnostics.h"

namespace tarn {
namespace {

constexpr const char* kInstanceKey = "KEY";
constexpr const char* kSoftwareGroupKey = "1814";
constexpr const char* kOsExtGroup = "OS_EXT";
constexpr const char* kEveryoneGroup = "S-1-1-0";

constexpr const char* kAddtoDiffDataSignature =
    "DWORD AddtoDiffData(const std::string&, std::int32_t, const PlistPtr&)";
constexpr const char* kAddtoSWDiffDataSignature =
    "DWORD AddtoSWDiffData(const std::string&, std::int32_t, const PlistPtr&)";

std::string ClassKey(std::int32_t classId) { return std::to_string(classId); }

// The name, reason and description of a caught failure.
struct FailureText {
  std::string name;
  std::string reason;
  std::string description;
};

FailureText Explain(const std::exception& failure) {
  if (const auto* platform = dynamic_cast<const PlatformException*>(&failure)) {
    return {platform->name(), platform->reason(), platform->description()};
  }
  return {"std::exception", failure.what(), failure.what()};
}

// The value must be there; raises as the platform does for a missing object.
const PlistPtr& Require(const PlistPtr& value, const char* what) {
  if (!value) {
    throw PlatformException(kInvalidArgumentException, std::string("no ") + what);
  }
  return value;
}

// The container under key in parent, created (by make) when missing.
PlistPtr ChildOf(const PlistPtr& parent, const std::string& key, PlistPtr (*make)()) {
  PlistPtr child = parent->ValueForKey(key);
  if (!child) {
    child = make();
    parent->SetObjectForKey(key, child);
  }
  return child;
}

bool IsText(const PlistPtr& value, const char* text) {
  return value && value->IsString() && value->String() == text;
}

}  // namespace

DWORD AddtoDiffData(const std::string& status, std::int32_t classId, const PlistPtr& instance) {
  try {
    PlistPtr copy = Require(instance, "instance")->Clone();
    copy->RemoveKey(kInstanceKey);
    if (classId == kSoftwareClassId) {
      return AddtoSWDiffData(status, kSoftwareClassId, copy);
    }
    const PlistPtr& diffData = Require(CurrentScanRun().invDiffData, "difference document");
    const PlistPtr classDict = ChildOf(diffData, ClassKey(classId), &PlistValue::MakeDictionary);
    ChildOf(classDict, status, [] { return PlistValue::MakeArray(); })->Append(copy);
    return 0;
  } catch (const std::exception& failure) {
    const FailureText text = Explain(failure);
    ConsoleWhere(kAddtoDiffDataSignature, __LINE__, "AddtoDiffData : Exception occurred: %s,%s,%s",
                 text.name.c_str(), text.reason.c_str(), text.description.c_str());
    return 1;
  }
}

DWORD AddtoSWDiffData(const std::string& status, std::int32_t classId, const PlistPtr& instance) {
  try {
    Require(instance, "instance");
    const char* group = kEveryoneGroup;
    if (IsText(instance->ValueForKey(kSoftwareGroupKey), kOsExtGroup)) {
      instance->SetObjectForKey(kSoftwareGroupKey, PlistValue::MakeString("-"));
      group = kOsExtGroup;
    }
    const PlistPtr& diffData = Require(CurrentScanRun().invDiffData, "difference document");
    const PlistPtr classDict = ChildOf(diffData, ClassKey(classId), &PlistValue::MakeDictionary);
    const PlistPtr statusDict = ChildOf(classDict, status, &PlistValue::MakeDictionary);
    ChildOf(statusDict, group, [] { return PlistValue::MakeArray(); })->Append(instance);
    return 0;
  } catch (const std::exception& failure) {
    const FailureText text = Explain(failure);
    ConsoleWhere(kAddtoSWDiffDataSignature, __LINE__,
                 "AddtoDiffData : Exception occurred: %s,%s,%s", text.name.c_str(),
                 text.reason.c_str(), text.description.c_str());
    return 1;
  }
}

}  // namespace tarn
