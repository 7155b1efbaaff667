#include "tarninventory/src/diffdocument.h"

#include <exception>
#include <string>

#include "platform/exception/platform_exception.h"
#include "tarninventory/src/agentparams.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"

namespace tarn {
namespace {

constexpr const char* kSoftwareGroupKey = "1814";
constexpr const char* kOsExtGroup = "OS_EXT";
constexpr const char* kEveryoneGroup = "S-1-1-0";
constexpr const char* kNullText = "(null)";

constexpr const char* kAddUserinDictSignature = "void AddUserinDict(const PlistPtr&)";
constexpr const char* kAddAgentParamsinDictSignature =
    "void AddAgentParamsinDict(const PlistPtr&, const std::optional<std::string>&, "
    "const std::string&, const std::optional<std::string>&)";
constexpr const char* kAddtoDiffDataSignature =
    "DWORD AddtoDiffData(const std::string&, std::int32_t, const PlistPtr&)";
constexpr const char* kAddtoSWDiffDataSignature =
    "DWORD AddtoSWDiffData(const std::string&, std::int32_t, const PlistPtr&)";

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

void LogFilingFailure(const char* signature, int line, const std::exception& failure) {
  const FailureText text = Explain(failure);
  ConsoleWhere(signature, line, "AddtoDiffData : Exception occurred: %s,%s,%s", text.name.c_str(),
               text.reason.c_str(), text.description.c_str());
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

PlistPtr MakeArray() { return PlistValue::MakeArray(); }

bool IsText(const PlistPtr& value, const char* text) {
  return value && value->IsString() && value->String() == text;
}

// The instance as a document entry: its entries without "KEY".
PlistPtr EntryOf(const ScanData::Instance& instance) {
  PlistPtr entry = PlistValue::MakeDictionary();
  for (std::size_t i = 0; i < instance.size(); ++i) {
    const InstanceEntry item = instance[i];
    if (item.key != kInstanceKey) {
      entry->SetValueForKey(item.key, PlistValue::MakeString(std::string(item.value)));
    }
  }
  return entry;
}

// A dictionary of the given settings and values in order; an absent value leaves its key out.
using Pairs = std::initializer_list<std::pair<const char*, std::optional<std::string>>>;
PlistPtr DictionaryOf(Pairs pairs) {
  PlistPtr dictionary = PlistValue::MakeDictionary();
  for (const auto& [key, value] : pairs) {
    dictionary->SetValueForKey(key, value ? PlistValue::MakeString(*value) : nullptr);
  }
  return dictionary;
}

}  // namespace

DWORD AddtoDiffData(const std::string& status, std::int32_t classId,
                    const ScanData::Instance& instance) {
  try {
    PlistPtr entry = EntryOf(instance);
    if (classId == kSoftwareClassId) {
      return AddtoSWDiffData(status, kSoftwareClassId, entry);
    }
    const PlistPtr& diffData = Require(CurrentScanRun().invDiffData, "difference document");
    const PlistPtr classDict = ChildOf(diffData, ClassKey(classId), &PlistValue::MakeDictionary);
    ChildOf(classDict, status, &MakeArray)->Append(entry);
    return 0;
  } catch (const std::exception& failure) {
    LogFilingFailure(kAddtoDiffDataSignature, __LINE__, failure);
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
    ChildOf(statusDict, group, &MakeArray)->Append(instance);
    return 0;
  } catch (const std::exception& failure) {
    LogFilingFailure(kAddtoSWDiffDataSignature, __LINE__, failure);
    return 1;
  }
}

void AddUserinDict(const PlistPtr& diffData) {
  try {
    const TarnGlobvars& settings = RunSettings();
    PlistPtr user = DictionaryOf({{"DOMAIN_NAME", settings.adDomain()},
                                  {"IS_LOCAL_ACCOUNT", "false"},
                                  {"TYPE", "0"},
                                  {"USER_ID", "0"},
                                  {"USER_NAME", settings.localComputerName()},
                                  {"USID", kEveryoneGroup}});
    Require(diffData, "difference document")->SetObjectForKey("USER", user);
  } catch (const std::exception& failure) {
    ConsoleWhere(kAddUserinDictSignature, __LINE__, "AddUserinDict :Caught exception>>>>>>>>>>>:%s",
                 failure.what());
  }
}

void AddAgentParamsinDict(const PlistPtr& diffData, const std::optional<std::string>& auditId,
                          const std::string& currentScanTime,
                          const std::optional<std::string>& previousScanTime) {
  try {
    PlistPtr params = PlistValue::MakeDictionary();
    for (const AgentParam& param :
         AgentParamsOf(RunSettings(), currentScanTime, previousScanTime, IsDiffScan())) {
      if (param.value) params->SetValueForKey(param.name, PlistValue::MakeString(*param.value));
    }
    params->SetValueForKey("AUDIT_ID", PlistValue::MakeString(auditId.value_or(kNullText)));
    Require(diffData, "difference document")->SetObjectForKey("AgentParams", params);
  } catch (const std::exception& failure) {
    ConsoleWhere(kAddAgentParamsinDictSignature, __LINE__,
                 "AddAgentParamsinDict :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

}  // namespace tarn
