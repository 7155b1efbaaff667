#include "tarninventory/src/scansettings.h"

#include <memory>
#include <optional>
#include <string>

#include "framework/imds/dataset.h"
#include "framework/imds/xmltodo.h"
#include "framework/logging/logger.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/plist/plist_value.h"
#include "tarninventory/src/FullScanHandler.h"
#include "tarninventory/src/fileattributes.h"
#include "tarninventory/src/runcontext.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/TarnSystemutil_mac.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

constexpr const char* kReadScanSettingsSignature = "INT ReadScanSettingsFromXml(int)";
constexpr int kStampsLine = 840;
constexpr int kReadScanSettingsFailureLine = 906;
constexpr const char* kOneTimeFullScanSignature = "BOOL IsOneTimeFullScanEnabled()";
constexpr int kOneTimeFullScanFailureLine = 801;

constexpr const char* kSettingsTable = "InvParams";
constexpr const char* kValueColumn = "param_value";
constexpr const char* kEnableDiffScanCriteria = "param_name='ENABLE_DIFF_SCAN'";
constexpr const char* kFullScanUpdatedTimeCriteria = "param_name='FULL_SCAN_UPDATED_TIME'";

// The OS version from which every difference request ends as a full scan.
constexpr const char* kFullScanOnlyFromOS = "10.12";

// The selection frees itself when it goes out of scope, also when a raise leaves the loop over it.
std::unique_ptr<ResultData> SelectSettings(const char* criteria) {
  return SelectRows(kSettingsTable, criteria);
}

// The value of the row under the selection's cursor, or nothing.
std::optional<std::string> RowValue(const ResultData& selection) {
  const OwnedBlock* value = GetColumnValueByName(kValueColumn, nullptr, &selection);
  if (value == nullptr) {
    return std::nullopt;
  }
  return std::string(value->c_str());
}

// The scan state store. Before the driver opens it there is none: every value then reads as
// absent and changes go nowhere.
Proplisthandler* Store() { return CurrentScanRun().tarninventory_datalist.get(); }

PlistPtr StoredValue(const char* key) {
  Proplisthandler* store = Store();
  return store != nullptr ? store->GetValueForKey(key) : nullptr;
}

// The stored text, or nothing when the key is absent. A value of another kind raises
// PlatformException, the way a text comparison sent to a number raises on the platform; only
// the guarded settings readers use this.
std::optional<std::string> StoredTextOrRaise(const char* key) {
  const PlistPtr value = StoredValue(key);
  if (!value) {
    return std::nullopt;
  }
  return value->String();
}

// The stored text; a missing value and a value of another kind both give nothing.
std::optional<std::string> StoredText(const char* key) {
  const PlistPtr value = StoredValue(key);
  return value ? value->AsString() : std::nullopt;
}

void StoreText(const char* key, const std::string& text) {
  if (Proplisthandler* store = Store()) {
    store->SetValueForKey(key, PlistValue::MakeString(text));
  }
}

void WriteStore() {
  if (Proplisthandler* store = Store()) {
    store->WriteToProplist();
  }
}

void StoreTextAndWrite(const char* key, const std::string& text) {
  StoreText(key, text);
  WriteStore();
}

// An absent or empty stamp counts as "0".
std::string StampOrZero(const char* key) {
  std::optional<std::string> stamp = StoredTextOrRaise(key);
  return stamp && !stamp->empty() ? *stamp : "0";
}

// "<data-dictionary directory>/<name>"; an unknown directory prints as "(null)", as the
// platform formats an absent object.
std::string DataDictFile(const std::string& name) {
  const OptText directory = HasGlobvars() ? gv_globvars().tarnagentDataDictPath() : std::nullopt;
  return std::string(Describe(directory)) + "/" + name;
}

// Loads the settings file named in the store. False when there is no name or the file does not
// load; the caller then keeps the requested run type. The name must be a plain file name in
// the data directory: a path ("../../tmp/x.xml", "/etc/x") does not load.
bool LoadChangedSettingsFile() {
  const std::optional<std::string> name = StoredTextOrRaise(kDiffSettingsXmlName);
  UserLogMessage("ReadScanSettingsFromXml: %s has been modified \n", Describe(name));
  if (!name) {
    return false;
  }
  const std::string path = DataDictFile(*name);
  if (!IsPlainFileName(*name) || CreateDOFromXMLFile(path.c_str()) == 0) {
    ErrorLogMessage("ReadScanSettingsFromXml : Unable to load settings file %s\n", path.c_str());
    return false;
  }
  return true;
}

// Walks the ENABLE_DIFF_SCAN rows, storing each value: 5 once a row says "0", the requested
// type again after a row without value, else the requested type.
std::int32_t ApplyEnableDiffScanRows(std::int32_t requested) {
  std::unique_ptr<ResultData> rows = SelectSettings(kEnableDiffScanCriteria);
  if (!rows) {
    return requested;
  }
  std::int32_t result = requested;
  while (GotoNextRowObject(rows.get()) != nullptr) {
    const std::optional<std::string> value = RowValue(*rows);
    if (!value) {
      result = requested;
      continue;
    }
    UserLogMessage("ReadScanSettingsFromXml : ENABLE_DIFF_SCAN : %s\n", value->c_str());
    StoreTextAndWrite(kEnableDiffScan, *value);
    if (*value == "0") {
      UserLogMessage("ReadScanSettingsFromXml :DiffScan is disabled\n");
      result = kFullScanType;
    }
  }
  return result;
}

}  // namespace

std::int32_t ReadScanSettingsFromXml(std::int32_t requested) {
  try {
    const std::string local = StampOrZero(kDiffSettingsModifiedTimeLocal);
    const std::string meta = StampOrZero(kDiffSettingsModifiedTimeMeta);
    ConsoleWhere(kReadScanSettingsSignature, kStampsLine, "modifiedTimeLocal %s XMLModifiedTime %s",
                 local.c_str(), meta.c_str());
    if (local == meta) {
      UserLogMessage("ReadScanSettingsFromXml : No change in settings\n");
      return requested;
    }
    // Written before the file is read, so one change is acted on once whatever happens next.
    StoreTextAndWrite(kDiffSettingsModifiedTimeLocal, meta);

    if (!LoadChangedSettingsFile()) {
      return requested;
    }
    if (IsOneTimeFullScanEnabled()) {
      UserLogMessage("ReadScanSettingsFromXml :One time full scan is enabled\n");
      StoreTextAndWrite(kEnableOneTimeFullscan, "1");
    } else {
      UserLogMessage("ReadScanSettingsFromXml :One time full scan setting is not modified\n");
    }
    return ApplyEnableDiffScanRows(requested);
  } catch (const PlatformException& failure) {
    ConsoleWhere(kReadScanSettingsSignature, kReadScanSettingsFailureLine,
                 "ReadScanSettingsFromXml : Exception occurred: %s,%s,%s", failure.name().c_str(),
                 failure.reason().c_str(), failure.description().c_str());
    return requested;
  }
}

bool IsOneTimeFullScanEnabled() {
  try {
    std::unique_ptr<ResultData> rows = SelectSettings(kFullScanUpdatedTimeCriteria);
    if (!rows || GotoNextRowObject(rows.get()) == nullptr) {
      return true;
    }
    const std::optional<std::string> updated = RowValue(*rows);
    if (!updated) {
      return true;
    }
    const std::optional<std::string> seen = StoredTextOrRaise(kFullScanUpdatedTime);
    if (seen && !seen->empty() && *seen == *updated) {
      return false;
    }
    StoreTextAndWrite(kFullScanUpdatedTime, *updated);
    return true;
  } catch (const PlatformException& failure) {
    ConsoleWhere(kOneTimeFullScanSignature, kOneTimeFullScanFailureLine,
                 "IsOneTimeFullScanEnabled : Exception occurred: %s,%s,%s", failure.name().c_str(),
                 failure.reason().c_str(), failure.description().c_str());
    return true;
  }
}

std::int32_t ReadSettingsXml(std::int32_t requested) {
  std::int32_t result = ReadScanSettingsFromXml(requested);
  if (result != kDiffScanType) {
    return result;
  }
  if (StoredText(kEnableDiffScan) == "0") {
    UserLogMessage("GetScanType :DiffScan is disabled\n");
    result = kFullScanType;
  }
  if (StoredText(kEnableOneTimeFullscan) == "1") {
    UserLogMessage("GetScanType :MustDo FullScan is enabled\n");
    // Memory only: the store's next write (the driver's or the upload's) persists it.
    StoreText(kEnableOneTimeFullscan, "0");
    return kFullScanType;
  }
  return result;
}

std::int32_t DecideRunType(const RunContext& context, std::int32_t requested) {
  const std::int32_t settled = ReadSettingsXml(requested);
  if (settled != kDiffScanType) {
    UserLogMessage("Proceeding to full scan \n");
    return settled;
  }

  const std::string snapshotPath = DataDictFile(kSnapshotFileName);
  if (!isFileExists(snapshotPath)) {
    UserLogMessage("Previous Scan data notFound at path %s, Proceeding to full scan \n",
                   snapshotPath.c_str());
    StoreTextAndWrite(kInvFullDataLastModified, "0");
    return kFullScanType;
  }

  const std::optional<std::string> saved = StoredText(kInvFullDataLastModified);
  DebugLogMessage("Previous Scan data LastModified time : %s \n", Describe(saved));
  const std::optional<std::string> modified = FileLastModifiedTime(snapshotPath);
  if (!saved || !modified || *saved != *modified) {
    UserLogMessage("Previous Scan data at path %s is modified, Proceeding to full scan \n",
                   snapshotPath.c_str());
    return kFullScanType;
  }

  UserLogMessage("Previous Scan data at path %s is not modified, Proceeding to DIFF scan \n",
                 snapshotPath.c_str());
  ScanRun& run = context.run;
  run.fullScanobj = FullScanHandler::InitWithScanDataFile(snapshotPath);
  // A file without a usable snapshot gives no handler: the run is full.
  std::int32_t decided = run.fullScanobj ? kDiffScanType : kFullScanType;
  if (checkOSCompatibility(kFullScanOnlyFromOS)) {
    UserLogMessage("In macOS Sierra 10.12 json encoder crashes , so proceeding to full scan \n");
    decided = kFullScanType;
  }
  return decided;
}

}  // namespace tarn
