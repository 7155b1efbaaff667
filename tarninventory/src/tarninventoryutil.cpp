#include "tarninventory/src/tarninventoryutil.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "framework/logging/logger.h"
#include "framework/persistent/dbutility.h"
#include "framework/utils/stringutils.h"
#include "platform/exception/platform_exception.h"
#include "tarninventory/src/FullScanHandler.h"
#include "tarninventory/src/InvClassHandler.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/TarnStringutil.h"

namespace tarn {
namespace {

constexpr const char* kInstanceKey = "KEY";
constexpr const char* kSoftwareGroupKey = "1814";
constexpr const char* kOsExtGroup = "OS_EXT";
constexpr const char* kEveryoneGroup = "S-1-1-0";

constexpr const char* kNullText = "(null)";
constexpr const char* kAbsentValue = "-";

// The operating system's software-row link (class 1) is recorded with the
// software row's instance number, but belongs to the one OS instance.
constexpr std::int32_t kOsSoftwareInstanceProperty = 117;

constexpr const char* kAddAgentParamsforInvinXMLSignature =
    "void AddAgentParamsforInvinXML(const std::string&, const std::optional<std::string>&)";
constexpr const char* kSaveScanDataSignature =
    "void SaveScanData(std::int32_t, std::int32_t, std::int32_t, std::int32_t, "
    "const std::optional<std::string>&)";
constexpr const char* kWriteToINVScanDataSignature =
    "void WriteToINVScanData(const PlistPtr&, std::int32_t)";
constexpr const char* kGetDictStatusSignature =
    "std::string GetDictStatus(const PlistPtr&, std::int32_t)";
constexpr const char* kCompareDictsSignature =
    "DWORD CompareDicts(const PlistPtr&, const PlistPtr&)";
constexpr const char* kAddUserinDictSignature = "void AddUserinDict(const PlistPtr&)";
constexpr const char* kAddAgentParamsinDictSignature =
    "void AddAgentParamsinDict(const PlistPtr&, const std::optional<std::string>&, "
    "const std::string&, const std::optional<std::string>&)";
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

// Text read as an integer: leading digits after an optional sign, 0 without
// any, clamped to the 32-bit range.
std::int32_t IntValue(const std::optional<std::string>& text) {
  if (!text) return 0;
  const long value = std::strtol(text->c_str(), nullptr, 10);
  return static_cast<std::int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

// The settings of the run; before the driver made them, every setting reads as absent.
const TarnGlobvars& Settings() {
  static const TarnGlobvars none;
  return HasGlobvars() ? gv_globvars() : none;
}

// ---- Rows.

// The column values of one row by position, with the sizes recorded for them.
// Raises std::bad_alloc when a value cannot be stored.
class RowBuilder {
 public:
  explicit RowBuilder(std::size_t columns) : row_(RowObject::Create(columns)) {}

  RowBuilder& Int(std::size_t position, std::int32_t value) {
    return Put(position, OwnedBlock::Of(value), sizeof value);
  }
  RowBuilder& Int64(std::size_t position, std::int64_t value) {
    return Put(position, OwnedBlock::Of(value), sizeof value);
  }
  // A text recorded with the given size, or with its own length when none is
  // given. An absent text leaves the column null.
  RowBuilder& Text(std::size_t position, const std::optional<std::string>& text,
                   std::optional<std::int32_t> size = std::nullopt) {
    if (!text) return *this;
    if (AllocateAndDoStrcpy(row_->values[position], text->c_str()) != kAllocSuccess) {
      throw std::bad_alloc();
    }
    row_->lengths[position] = size.value_or(static_cast<std::int32_t>(text->size()));
    return *this;
  }
  // A text without NUL characters, stored as AllocateAndDoStrcpy stores it, with its size.
  RowBuilder& PlainText(std::size_t position, std::string_view text, std::int32_t size) {
    if (AllocateAndDoMemcpy(row_->values[position], text.data(), text.size()) != kAllocSuccess) {
      throw std::bad_alloc();
    }
    row_->lengths[position] = size;
    return *this;
  }

  // Adds the row to the table: the row, now owned by the table, or null when refused.
  RowObject* AddTo(const char* tableName) {
    TableData* table = GetTableDataByName(tableName);
    if (AddNewRow(table, std::move(row_)) != 1) return nullptr;
    return table->rows.back().get();
  }

 private:
  RowBuilder& Put(std::size_t position, OwnedBlock value, std::int32_t size) {
    row_->values[position] = std::move(value);
    row_->lengths[position] = size;
    return *this;
  }

  RowPtr row_;
};

bool IsTextColumn(int type) {
  return type == kTypeSqlChar || type == kTypeChar || type == kTypeText;
}

// "{NAME=value, ...}" for a row of the table, for the log.
std::string DescribeRow(const char* tableName, const RowObject& row) {
  const TableData* table = GetTableDataByName(tableName);
  std::string text = "{";
  if (table != nullptr && table->tableDefn) {
    const auto& columns = table->tableDefn->columns();
    for (std::size_t i = 0; i < columns.size() && i < row.values.size(); ++i) {
      if (i > 0) text += ", ";
      text += columns[i].name + "=";
      const ValueSlot& value = row.values[i];
      if (!value) {
        text += kNullText;
      } else if (IsTextColumn(columns[i].type)) {
        text += value->c_str();
      } else if (value->size() == sizeof(std::int64_t)) {
        text += std::to_string(value->Read<std::int64_t>());
      } else {
        text += std::to_string(value->Read<std::int32_t>());
      }
    }
  }
  return text + "}";
}

void AddAgentParam(const char* name, const std::optional<std::string>& value) {
  // An absent setting is left out, as in the difference document.
  if (value) CreateAndAddAgentParamsRow(name, value, 1);
}

// ---- Instances.

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

// The debug log takes a dictionary's text only when it would write it.
bool DebugLogging() { return GetLogLevelValue() >= 3; }

}  // namespace

// ---- Rows.

void addtoTable(const PlistPtr& instance, std::int32_t classId, std::int32_t instanceNumber) {
  if (!instance) return;
  const std::vector<PlistValue::Entry> entries = instance->Entries();
  for (const auto& [propertyId, value] : entries) {
    AddRowWMIFetchValueTable(IntValue(propertyId), classId, instanceNumber, 0,
                             value ? std::optional<std::string>(value->String()) : std::nullopt);
  }
}

void addtoTable(const PlistPtr& instances, std::int32_t classId) {
  if (!instances) return;
  const std::vector<PlistValue::Entry> entries = instances->Entries();
  std::int32_t instanceNumber = 0;
  for (const auto& entry : entries) addtoTable(entry.second, classId, ++instanceNumber);
}

void AddRowWMIFetchValueTable(std::int32_t propertyId, std::int32_t classId,
                              std::int32_t instanceNumber, std::int32_t flag,
                              const std::optional<std::string>& value) {
  SaveScanData(propertyId, classId, propertyId == kOsSoftwareInstanceProperty ? 1 : instanceNumber,
               flag, value);
  const std::int32_t valueId = ++CurrentScanRun().valueIdCounter;
  try {
    // Most values need no escaping: they are stored as they are, without a copy.
    std::optional<std::string> escaped;
    std::string_view text = kAbsentValue;
    if (value) {
      if (NeedsAlteration(*value)) escaped = alterChars(value->c_str());
      text = escaped ? std::string_view(*escaped) : std::string_view(*value);
    }
    RowBuilder row(6);
    row.Int(0, valueId)
        .Int(1, propertyId)
        .Int(2, classId)
        .Int(3, instanceNumber)
        .PlainText(4, text, 8)
        .Int(5, flag);
    if (row.AddTo("WMIFetchedValue") == nullptr) {
      ErrorLogMessage("\t Error while adding row for ADResource table !!! \n");
    }
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("\t Error while allocating memory during domain users table creation! \n");
  }
}

void CreateWMIParentTablevalues(std::uint32_t number,
                                const std::optional<std::string>& securityId) {
  try {
    CreateTable("WMIData");
    const OptText& computerName = Settings().localComputerName();
    const OptText& nameSpace = Settings().localNameSpace();
    const bool isLocal =
        !computerName || (nameSpace && EqualsIgnoringCase(*computerName, *nameSpace));
    RowBuilder row(6);
    row.Text(0, securityId.value_or(kEveryoneGroup), 8)
        .Int(1, 0)
        .Int(2, static_cast<std::int32_t>(number))
        .Text(3, UploadText(computerName), 8)
        .Text(4, UploadText(nameSpace), 8)
        .Int(5, isLocal ? 1 : 0);
    if (row.AddTo("WMIData") == nullptr) {
      ErrorLogMessage("\t Error while adding row for ADResource table !!! \n");
    }
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("\t Error while allocating memory during domain users table creation! \n");
  }
}

RowObject* createComputerInfoRow() {
  UserLogMessage("\t @@@@@@@@ Inside createComputerInfoRow Method @@@@@@@@ \n");
  try {
    CreateTable("Resource");
    const TarnGlobvars& settings = Settings();
    RowBuilder row(8);
    row.Int(0, IntValue(settings.tarnAgentResourceID()))
        .Text(1, UploadText(settings.localComputerName()))
        .Text(2, UploadText(settings.localNameSpace()))
        .Int(3, 1)
        .Text(4, "0", 1)
        .Int(5, 0)
        .Int(6, 0)
        .Int(7, IntValue(settings.tarnCustomerID()));
    RowObject* added = row.AddTo("Resource");
    if (added == nullptr) {
      ErrorLogMessage("\t Error while adding row for Resource table !!! \n");
      return nullptr;
    }
    UserLogMessage("\t Successfully added a row to Resource table : %s\n",
                   DescribeRow("Resource", *added).c_str());
    DebugLogMessage("Printing Resource data\n");
    PrintTableData("Resource");
    UserLogMessage("\tEnd Of createComputerInfoRow Method\n");
    return added;
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("\t Error while allocating memory during domain users table creeation! \n");
    return nullptr;
  }
}

RowObject* createInvAuditEntryRow(std::int64_t auditId) {
  UserLogMessage("\t @@@@@@@@ Inside createInvAuditEntryRow Method @@@@@@@@ \n");
  try {
    CreateTable("InvAuditEntry");
    RowBuilder row(6);
    row.Int64(0, auditId).Int64(1, 0).Int64(2, 0).Int64(3, 0).Int64(4, 0).Text(5, "0", 1);
    RowObject* added = row.AddTo("InvAuditEntry");
    if (added == nullptr) {
      ErrorLogMessage("\t Error while adding row for InvAuditEntry table !!! \n");
      return nullptr;
    }
    UserLogMessage("\t Successfully added a row to InvAuditEntry table : %s\n",
                   DescribeRow("InvAuditEntry", *added).c_str());
    UserLogMessage("\tEnd Of createInvAuditEntryRow Method\n");
    return added;
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("\t Error while allocating memory during domain users table creeation! \n");
    return nullptr;
  }
}

DWORD CreateAndAddAgentParamsRow(const std::optional<std::string>& paramName,
                                 const std::optional<std::string>& paramValue,
                                 std::int32_t number) {
  DebugLogMessage("@@@@@@@@ Inside CreateAndAddAgentParamRowInternal Method @@@@@@@@ \n");
  DebugLogMessage("CreateAndAddAgentParamRowInternal: paramName:%s,paramvalue:%s\n",
                  Describe(paramName), Describe(paramValue));
  try {
    RowBuilder row(3);
    row.Int(0, number).Text(1, paramName).Text(2, paramValue);
    if (row.AddTo("AgentParams") != nullptr) {
      UserLogMessage("Successfully added the params row to AgentParams Table (%s) \n",
                     Describe(paramName));
    } else {
      ErrorLogMessage("Failed to add the params row to AgentParams Table : %s , %s \n",
                      Describe(paramName), Describe(paramValue));
    }
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("Error while allocating memory during status table creation! \n");
  }
  DebugLogMessage("@@@@@@@@ End Of CreateAndAddAgentParamRowInternal Method @@@@@@@@ \n");
  return 0;
}

void AddAgentParamsforInvinXML(const std::string& currentScanTime,
                               const std::optional<std::string>& previousScanTime) {
  try {
    UnLoadTable("AgentParams");
    CreateTable("AgentParams");
    const TarnGlobvars& settings = Settings();
    const bool diffScan = IsDiffScan();
    // Names from the host and the id from the server are escaped like recorded values; the
    // other parameters come from the agent's own settings files.
    AddAgentParam("COMPUTER_NAME", UploadText(settings.localComputerName()));
    AddAgentParam("DOMAIN_NETBIOS_NAME", UploadText(settings.localNameSpace()));
    AddAgentParam("RESOURCE_ID", UploadText(settings.tarnAgentResourceID()));
    AddAgentParam("MSP_NAME", settings.tarnMSPName());
    AddAgentParam("CUSTOMER_NAME", settings.tarnCustomerName());
    AddAgentParam("CUSTOMER_ID", settings.tarnCustomerID());
    AddAgentParam("currScanTime", currentScanTime);
    if (diffScan) AddAgentParam("prevScanTime", previousScanTime.value_or("0"));
    AddAgentParam("scanType", diffScan ? "0" : "1");
  } catch (const std::exception& failure) {
    ConsoleWhere(kAddAgentParamsforInvinXMLSignature, __LINE__,
                 "AddAgentParamsforInvinXML :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

// ---- Instances and differences.

void SaveScanData(std::int32_t propertyId, std::int32_t classId, std::int32_t instanceNumber,
                  std::int32_t /*flag*/, const std::optional<std::string>& value) {
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
    run.propertyDict.Set(propertyId, value ? std::string_view(*value) : kNullText);
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
      AddtoDiffData(status, classId, filed.ToPlist());
    }
  } catch (const std::exception& failure) {
    ConsoleWhere(kWriteToINVScanDataSignature, __LINE__,
                 "SaveScanData :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

namespace {

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

}  // namespace

std::string GetDictStatus(const ScanData::Instance& instance, std::int32_t classId) {
  std::string status = kStatusNew;
  try {
    FullScanHandler* snapshot = CurrentScanRun().fullScanobj.get();
    const std::optional<std::string_view> key = instance.Find(kInstanceKey);
    if (snapshot == nullptr || !key) return NewlyAdded();
    const std::string keyText(*key);
    // A class still held compact is matched in place; any other through its dictionary.
    const FullScanHandler::CompactMatch compact = snapshot->FindFirstCompact(classId, keyText);
    if (compact.held) {
      if (!compact.instance) return NewlyAdded();
      status = MatchedStatus(CompareDicts(instance, *compact.instance));
      snapshot->RemoveMatchedCompact(classId, compact);
      return status;
    }
    const PlistPtr match = snapshot->FindFirstByKey(classId, keyText);
    if (!match) return NewlyAdded();
    status = MatchedStatus(CompareDicts(instance, match));
    snapshot->RemoveMatched(classId, match);
  } catch (const std::exception& failure) {
    ConsoleWhere(kGetDictStatusSignature, __LINE__, "GetDictStatus :Caught exception>>>>>>>>>>>:%s",
                 failure.what());
  }
  return status;
}

namespace {

// The previous text of a key (the current instance's `position`-th), nothing when the key is
// absent; raises for a value that is not text, as the platform would.
std::optional<std::string_view> PreviousText(const PlistPtr& previous, std::string_view key,
                                             std::size_t /*position*/) {
  const PlistPtr value = previous->ValueForKey(key);
  if (!value) return std::nullopt;
  return std::string_view(value->String());
}
std::optional<std::string_view> PreviousText(const ScanData::Instance& previous,
                                             std::string_view key, std::size_t position) {
  return previous.Find(key, position);
}

void RequirePrevious(const PlistPtr& previous) { Require(previous, "previous instance"); }
void RequirePrevious(const ScanData::Instance&) {}

// True when both instances list the same entries in the same order (and so are described
// alike).
bool SameEntriesInOrder(const ScanData::Instance& a, const ScanData::Instance& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].key != b[i].key || a[i].value != b[i].value) return false;
  }
  return true;
}

// The one-way comparison of CompareDicts over the `count` entries of the current instance
// (the previous one held as a dictionary or viewed in the snapshot): keyAt(i) gives an
// entry's key, textAt(i) its value text (raising for a value that is not text, as the
// platform would). The descriptions are the callers', made only when the debug log takes them.
template <typename Previous, typename KeyAt, typename TextAt>
DWORD CompareInstances(std::size_t count, const Previous& previous,
                       const std::string& previousDescription,
                       const std::string& currentDescription, KeyAt keyAt, TextAt textAt) {
  try {
    RequirePrevious(previous);
    if (DebugLogging()) {
      DebugLogMessage("CompareDicts :PrevData : %s ", previousDescription.c_str());
      DebugLogMessage("CompareDicts :CurData : %s", currentDescription.c_str());
    }
    for (std::size_t i = 0; i < count; ++i) {
      const std::string_view propertyId = keyAt(i);
      const std::optional<std::string_view> previousText = PreviousText(previous, propertyId, i);
      if (!previousText) {
        UserLogMessage("CompareDicts  propertyId : %s doesnt found in prevScanData \n",
                       std::string(propertyId).c_str());
        return kDictsDiffer;
      }
      const std::string_view value = textAt(i);
      if (value != *previousText) {
        UserLogMessage("CompareDicts :modified propertyID : %s curValue:%s prevValue : %s",
                       std::string(propertyId).c_str(), std::string(value).c_str(),
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

}  // namespace

DWORD CompareDicts(const ScanData::Instance& current, const PlistPtr& previous) {
  const bool describe = DebugLogging() && previous;
  return CompareInstances(
      current.size(), previous, describe ? previous->Description() : std::string(),
      describe ? current.Description() : std::string(),
      [&current](std::size_t i) { return current[i].key; },
      [&current](std::size_t i) { return current[i].value; });
}

DWORD CompareDicts(const ScanData::Instance& current, const ScanData::Instance& previous) {
  std::string previousDescription;
  std::string currentDescription;
  if (DebugLogging()) {
    previousDescription = previous.Description();
    currentDescription = SameEntriesInOrder(current, previous) ? previousDescription
                                                               : current.Description();
  }
  return CompareInstances(
      current.size(), previous, previousDescription, currentDescription,
      [&current](std::size_t i) { return current[i].key; },
      [&current](std::size_t i) { return current[i].value; });
}

DWORD CompareDicts(const PlistPtr& current, const PlistPtr& previous) {
  if (!current) {
    ConsoleWhere(kCompareDictsSignature, __LINE__, "CompareDicts :Caught exception>>>>>>>>>>>:%s",
                 PlatformException(kInvalidArgumentException, "no current instance").what());
    return 0;
  }
  const auto& entries = current->Entries();
  const bool describe = DebugLogging() && previous;
  return CompareInstances(
      entries.size(), previous, describe ? previous->Description() : std::string(),
      describe ? current->Description() : std::string(),
      [&entries](std::size_t i) { return std::string_view(entries[i].first); },
      [&entries](std::size_t i) { return std::string_view(entries[i].second->String()); });
}

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

void AddUserinDict(const PlistPtr& diffData) {
  try {
    const TarnGlobvars& settings = Settings();
    PlistPtr user = PlistValue::MakeDictionary();
    const auto put = [&](const char* key, const std::optional<std::string>& value) {
      user->SetValueForKey(key, value ? PlistValue::MakeString(*value) : nullptr);
    };
    put("DOMAIN_NAME", settings.adDomain());
    put("IS_LOCAL_ACCOUNT", "false");
    put("TYPE", "0");
    put("USER_ID", "0");
    put("USER_NAME", settings.localComputerName());
    put("USID", kEveryoneGroup);
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
    const TarnGlobvars& settings = Settings();
    const bool diffScan = IsDiffScan();
    PlistPtr params = PlistValue::MakeDictionary();
    const auto put = [&](const char* key, const std::optional<std::string>& value) {
      params->SetValueForKey(key, value ? PlistValue::MakeString(*value) : nullptr);
    };
    put("COMPUTER_NAME", settings.localComputerName());
    put("DOMAIN_NETBIOS_NAME", settings.localNameSpace());
    put("MSP_NAME", settings.tarnMSPName());
    put("CUSTOMER_NAME", settings.tarnCustomerName());
    put("CUSTOMER_ID", settings.tarnCustomerID());
    put("currScanTime", currentScanTime);
    if (diffScan) put("prevScanTime", previousScanTime.value_or("0"));
    put("scanType", diffScan ? "0" : "1");
    put("AUDIT_ID", auditId.value_or(kNullText));
    put("RESOURCE_ID", settings.tarnAgentResourceID());
    Require(diffData, "difference document")->SetObjectForKey("AgentParams", params);
  } catch (const std::exception& failure) {
    ConsoleWhere(kAddAgentParamsinDictSignature, __LINE__,
                 "AddAgentParamsinDict :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

}  // namespace tarn
