#include "tarninventory/src/uploadrows.h"

#include <exception>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "framework/logging/logger.h"
#include "framework/persistent/dbutility.h"
#include "framework/utils/stringutils.h"
#include "tarninventory/src/agentparams.h"
#include "tarninventory/src/recording.h"
#include "tarninventory/src/scandata.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/TarnStringutil.h"

namespace tarn {
namespace {

constexpr const char* kEveryoneGroup = "S-1-1-0";
constexpr const char* kNullText = "(null)";
constexpr const char* kAbsentValue = "-";

// The operating system's software-row link (class 1) is recorded with the
// software row's instance number, but belongs to the one OS instance.
constexpr std::int32_t kOsSoftwareInstanceProperty = 117;

constexpr const char* kAddAgentParamsforInvinXMLSignature =
    "void AddAgentParamsforInvinXML(const std::string&, const std::optional<std::string>&)";

// Text read as an id; 0 when absent.
std::int32_t IntValue(const std::optional<std::string>& text) { return text ? IdOf(*text) : 0; }

const TarnGlobvars& Settings() { return RunSettings(); }

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

}  // namespace

// ---- Rows.

void addtoTable(const PlistPtr& instance, std::int32_t classId, std::int32_t instanceNumber) {
  if (!instance) return;
  const std::vector<PlistValue::Entry> entries = instance->Entries();
  for (const auto& [propertyId, value] : entries) {
    AddRowWMIFetchValueTable(
        IntValue(propertyId), classId, instanceNumber, 0,
        value ? std::optional<std::string_view>(value->String()) : std::nullopt);
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
                              std::optional<std::string_view> value) {
  SaveScanData(propertyId, classId, propertyId == kOsSoftwareInstanceProperty ? 1 : instanceNumber,
               flag, value);
  const std::int32_t valueId = ++CurrentScanRun().valueIdCounter;
  try {
    // Most values need no escaping: they are stored as they are, without a copy.
    std::optional<std::string> escaped;
    std::string_view text = kAbsentValue;
    if (value) {
      if (NeedsAlteration(*value)) escaped = alterChars(std::string(*value).c_str());
      text = escaped ? std::string_view(*escaped) : *value;
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
    for (const AgentParam& param :
         AgentParamsOf(Settings(), currentScanTime, previousScanTime, IsDiffScan())) {
      AddAgentParam(param.name, param.fromOutside ? UploadText(param.value) : param.value);
    }
  } catch (const std::exception& failure) {
    ConsoleWhere(kAddAgentParamsforInvinXMLSignature, __LINE__,
                 "AddAgentParamsforInvinXML :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

}  // namespace tarn
