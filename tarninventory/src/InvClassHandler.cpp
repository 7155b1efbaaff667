#include "tarninventory/src/InvClassHandler.h"

#include <exception>
#include <string>
#include <utility>

#include "framework/imds/dataset.h"
#include "framework/logging/logger.h"
#include "platform/exception/platform_exception.h"
#include "tarnutils/src/TarnDiagnostics.h"

namespace tarn {
namespace {

constexpr const char* kCreateInvTableSignature = "-[InvClassHandler CreateInvTable]";
constexpr const char* kSetLastPropertyIDSignature = "-[InvClassHandler SetLastPropertyID]";

using Selection = std::unique_ptr<ResultData>;

// The rows of table matching criteria (all rows for null criteria); null when
// the table is not loaded or nothing matches.
Selection SelectNonEmpty(const char* table, const char* criteria) {
  Selection selection = SelectRows(table, criteria);
  if (selection && selection->rowCount == 0) {
    selection.reset();
  }
  return selection;
}

const OwnedBlock& RequireValue(const ResultData& row, const char* column) {
  const OwnedBlock* value = GetColumnValueByName(column, nullptr, &row);
  if (value == nullptr) {
    throw PlatformException(kInvalidArgumentException,
                            std::string("attempt to insert nil value for ") + column);
  }
  return *value;
}

std::int32_t RequireInt(const ResultData& row, const char* column) {
  return RequireValue(row, column).Read<std::int32_t>();
}

std::string RequireText(const ResultData& row, const char* column) {
  return RequireValue(row, column).c_str();
}

// Only the value 1 marks a primary-key property; a missing value does not.
bool IsPrimaryKey(const ResultData& row) {
  const OwnedBlock* value = GetColumnValueByName("primary_key", nullptr, &row);
  return value != nullptr && value->Read<std::int32_t>() == 1;
}

}  // namespace

void InvClassHandler::Initialize() {
  classes_.clear();
  lastPropertyId_.reset();
  classIds_.clear();
}

DWORD InvClassHandler::CreateInvTable() {
  try {
    Selection classRows = SelectNonEmpty("WMIClass", nullptr);
    if (!classRows) {
      ErrorLogMessage("CreateInvTable: WMIClass table is empty\n");
      return 1;
    }
    SortResultSet(classRows.get(), "class_id", 1);
    SetLastPropertyID();
    while (GotoNextRowObject(classRows.get()) != nullptr) {
      const std::int32_t classId = RequireInt(*classRows, "class_id");
      const std::string className = RequireText(*classRows, "CLASS_NAME");
      classIds_.push_back(std::to_string(classId));
      if (!IndexClass(classId, className)) {
        ErrorLogMessage("CreateInvTable: WMIClassProps table is empty\n");
        return 1;
      }
    }
    return 0;
  } catch (const std::exception& failure) {
    ConsoleWhere(kCreateInvTableSignature, __LINE__,
                 "CreateInvTable : Caught exception>>>>>>>>>>>:%s", failure.what());
    return 1;
  }
}

bool InvClassHandler::IndexClass(std::int32_t classId, const std::string& className) {
  const std::string criteria = "class_id = " + std::to_string(classId);
  Selection propertyRows = SelectNonEmpty("WMIClassProps", criteria.c_str());
  if (!propertyRows) {
    return false;
  }
  SortResultSet(propertyRows.get(), "PROPERTY_ID", 1);
  ClassEntry entry;
  entry.className = className;
  auto propertyIds = std::make_shared<std::vector<std::string>>();
  auto primaryKeys = std::make_shared<std::vector<std::string>>();
  while (GotoNextRowObject(propertyRows.get()) != nullptr) {
    std::string propertyId = std::to_string(RequireInt(*propertyRows, "PROPERTY_ID"));
    entry.propertyNames[propertyId] = RequireText(*propertyRows, "PROPERTY_NAME");
    if (IsPrimaryKey(*propertyRows)) {
      primaryKeys->push_back(propertyId);
    }
    propertyIds->push_back(std::move(propertyId));
  }
  entry.propertyIds = std::move(propertyIds);
  entry.primaryKeys = std::move(primaryKeys);
  classes_[std::to_string(classId)] = std::move(entry);
  return true;
}

void InvClassHandler::SetLastPropertyID() {
  try {
    Selection rows = SelectNonEmpty("MacProperties", nullptr);
    PrintResultData(rows.get());
    std::int32_t lastPropertyId = 0;
    if (rows) {
      while (GotoNextRowObject(rows.get()) != nullptr) {
        lastPropertyId = RequireInt(*rows, "LAST_PROPERTY_ID");
        UserLogMessage("SetLastPropertyID : %d\n", lastPropertyId);
      }
    }
    lastPropertyId_ = lastPropertyId;
  } catch (const std::exception& failure) {
    ConsoleWhere(kSetLastPropertyIDSignature, __LINE__,
                 "SetLastPropertyID :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

int InvClassHandler::GetLastPropertyID() const { return lastPropertyId_.value_or(0); }

std::size_t InvClassHandler::classCount() const { return classIds_.size(); }

std::vector<std::string> InvClassHandler::GetclassIdArr() const { return classIds_; }

const InvClassHandler::ClassEntry* InvClassHandler::FindClass(std::uint32_t classId) const {
  const auto found = classes_.find(std::to_string(classId));
  return found == classes_.end() ? nullptr : &found->second;
}

std::optional<std::string> InvClassHandler::GetclassName(std::uint32_t classId) const {
  const ClassEntry* entry = FindClass(classId);
  if (entry == nullptr) {
    return std::nullopt;
  }
  return entry->className;
}

std::size_t InvClassHandler::GetpropertiesCountforClass(std::uint32_t classId) const {
  const ClassEntry* entry = FindClass(classId);
  return entry == nullptr ? 0 : entry->propertyIds->size();
}

PropertyIdList InvClassHandler::GetpropertyIDArr(std::uint32_t classId) const {
  const ClassEntry* entry = FindClass(classId);
  return entry == nullptr ? nullptr : entry->propertyIds;
}

PropertyIdList InvClassHandler::GetPrimaryKeysArr(std::uint32_t classId) const {
  const ClassEntry* entry = FindClass(classId);
  return entry == nullptr ? nullptr : entry->primaryKeys;
}

std::optional<std::string> InvClassHandler::GetpropertyName(std::uint32_t classId,
                                                            const std::string& propertyId) const {
  const ClassEntry* entry = FindClass(classId);
  if (entry == nullptr) {
    return std::nullopt;
  }
  const auto found = entry->propertyNames.find(propertyId);
  if (found == entry->propertyNames.end()) {
    return std::nullopt;
  }
  return found->second;
}

void InvClassHandler::dealloc() { Initialize(); }

InvClassHandler& invClassObj() {
  static InvClassHandler handler;
  return handler;
}

}  // namespace tarn
