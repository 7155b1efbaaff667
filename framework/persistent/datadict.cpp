#include "framework/persistent/datadict.h"


#include <array>
#include <cstring>

#include "framework/logging/logger.h"
#include "framework/utils/advtime.h"
#include "framework/utils/agentutils.h"

namespace tarn {
namespace {

struct TypeName {
  const char* text;
  int code;
};

// Data-type texts in lookup order; the first match wins.
constexpr std::array<TypeName, 34> kTypeNames = {{
    {"ADV_SQL_NOT_SUPPORTED_TYPE", kTypeNotSupported},
    {"ADV_SQL_TINYINT", kTypeTinyInt},
    {"ADV_SQL_UNSIGNED_TINYINT", kTypeUnsignedTinyInt},
    {"ADV_SQL_SMALLINT", kTypeSmallInt},
    {"ADV_SQL_UNSIGNED_SMALLINT", kTypeUnsignedSmallInt},
    {"ADV_SQL_INT", kTypeInt},
    {"BIGINT", kTypeInt},
    {"INTEGER", kTypeInt},
    {"LONG", kTypeInt},
    {"ADV_SQL_UNSIGNED_INT", kTypeUnsignedInt},
    {"ADV_SQL_UNSIGNED_LONG_INT", kTypeUnsignedLongInt},
    {"ADV_SQL_FLOAT", kTypeFloat},
    {"FLOAT", kTypeFloat},
    {"ADV_SQL_DOUBLE", kTypeDouble},
    {"ADV_SQL_REAL", kTypeReal},
    {"ADV_SQL_DECIMAL", kTypeDecimal},
    {"ADV_SQL_NUMERIC", kTypeNumeric},
    {"ADV_SQL_CHAR", kTypeSqlChar},
    {"CHAR", kTypeChar},
    {"NCHAR", kTypeChar},
    {"ADV_SQL_DATE", kTypeDate},
    {"DATE", kTypeDate},
    {"ADV_SQL_TIME", kTypeTime},
    {"TIME", kTypeTime},
    {"ADV_SQL_DATETIME", kTypeDateTime},
    {"DATETIME", kTypeDateTime},
    {"TIMESTAMP", kTypeDateTime},
    {"BOOLEAN", kTypeBoolean},
    {"ADV_SQL_BLOB", kTypeBlob},
    {"BLOB", kTypeBlob},
    {"ADV_SQL_CLOB", kTypeClob},
    {"CLOB", kTypeClob},
    {"ADV_SQL_TEXT", kTypeText},
    {"TEXT", kTypeText},
}};

constexpr std::int32_t kTextThreshold = 256;
constexpr std::int32_t kDateRecordLength = 4;
constexpr std::int32_t kTimeRecordLength = 3;
constexpr std::int32_t kInt32Length = 4;

bool IsIntegerType(int type) { return type >= kTypeTinyInt && type <= kTypeUnsignedInt; }

// The default text in the storage form rows use for the column's type.
void ConvertDefault(ColumnDefn& column, const char* text) {
  if (IsIntegerType(column.type)) {
    column.defaultValue = OwnedBlock::Of(AlphaToInt(text));
    column.defaultLength = kInt32Length;
    return;
  }
  std::int32_t length = static_cast<std::int32_t>(std::strlen(text));
  auto value = ConvertToGenSQLType(text, length, column.type);
  if (!value) {
    return;
  }
  if (column.type == kTypeDate || column.type == kTypeTime) {
    const AdvDateTime record = LoadAdvDateTime(*value).value_or(AdvDateTime{});
    if (column.type == kTypeDate) {
      value = OwnedBlock::Of(record.date.value_or(AdvDate{}));
      length = kDateRecordLength;
    } else {
      value = OwnedBlock::Of(record.time.value_or(AdvTime{}));
      length = kTimeRecordLength;
    }
  }
  column.defaultValue = std::move(value);
  column.defaultLength = length;
}

const char* TextOrNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : "NULL";
}

TableDefnVector& DefinitionList() {
  static TableDefnVector gv_tableDefnVect;
  return gv_tableDefnVect;
}

}  // namespace

std::string FoldCase(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) c = AsciiLower(c);
  return folded;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  if (a == b) return true;  // names are mostly spelt alike
  // ASCII letters only, as the C locale the program runs in folds them.
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] && AsciiLower(a[i]) != AsciiLower(b[i])) return false;
  }
  return true;
}

TableDefn::TableDefn(std::string name, std::optional<std::string> description,
                     std::vector<ColumnDefn> columns, std::optional<ConstraintDefn> constraints)
    : name_(std::move(name)),
      description_(std::move(description)),
      columns_(std::move(columns)),
      constraints_(std::move(constraints)) {
  for (int i = 0; i < static_cast<int>(columns_.size()); ++i) {
    exactIndex_.try_emplace(columns_[i].name, i);
    foldedIndex_.try_emplace(FoldCase(columns_[i].name), i);
  }
}

int TableDefn::FindColumn(std::string_view name) const {
  const auto found = exactIndex_.find(std::string(name));
  return found == exactIndex_.end() ? -1 : found->second;
}

int TableDefn::FindColumnIgnoringCase(std::string_view name) const {
  const auto found = foldedIndex_.find(FoldCase(name));
  return found == foldedIndex_.end() ? -1 : found->second;
}

void TableDefnVector::Add(std::shared_ptr<const TableDefn> definition) {
  firstByFoldedName_.try_emplace(FoldCase(definition->name()), definition);
  definitions_.push_back(std::move(definition));
}

std::shared_ptr<const TableDefn> TableDefnVector::Find(std::string_view name) const {
  const auto found = firstByFoldedName_.find(FoldCase(name));
  return found == firstByFoldedName_.end() ? nullptr : found->second;
}

bool TableDefnVector::Remove(std::string_view name) {
  const std::string key = FoldCase(name);
  const auto first = firstByFoldedName_.find(key);
  if (first == firstByFoldedName_.end()) {
    return false;
  }
  std::erase(definitions_, first->second);
  firstByFoldedName_.erase(first);
  for (const auto& definition : definitions_) {
    if (FoldCase(definition->name()) == key) {
      firstByFoldedName_.emplace(key, definition);
      break;
    }
  }
  return true;
}

void TableDefnVector::Clear() {
  definitions_.clear();
  firstByFoldedName_.clear();
}

int GetGenDataTypeMacro(const char* dataTypeText) {
  if (dataTypeText == nullptr) {
    ErrorLogMessage("Column data type not supported - Error while creating column definition.\n");
    return kTypeNotSupported;
  }
  for (const auto& entry : kTypeNames) {
    if (strcasecmp(dataTypeText, entry.text) == 0) {
      return entry.code;
    }
  }
  return kTypeNotSupported;
}

ColumnDefn CreateColumnDefn(std::string name, int type, const char* defaultText, bool unique,
                            std::optional<std::string> generatorName,
                            std::optional<std::string> description, std::int32_t maxSize,
                            bool nullable, std::optional<AllowedValues> allowedValues) {
  ColumnDefn column;
  column.name = std::move(name);
  column.type = type;
  if ((type == kTypeSqlChar || type == kTypeChar) && maxSize >= kTextThreshold) {
    column.type = kTypeText;
  }
  if (defaultText != nullptr) {
    ConvertDefault(column, defaultText);
  }
  column.unique = unique;
  column.generatorName = std::move(generatorName);
  column.description = std::move(description);
  column.maxSize = maxSize;
  column.nullable = nullable;
  column.allowedValues = std::move(allowedValues);
  return column;
}

TableDefnVector& GetTableDefnVector() { return DefinitionList(); }

void InitDataDictionary() { DefinitionList().Clear(); }

void DeInitDataDictionary() { DefinitionList().Clear(); }

int FreeTableDefn(const char* tableName) {
  if (tableName == nullptr) {
    return 0;
  }
  return DefinitionList().Remove(tableName) ? 1 : 0;
}

void AddTableDefnIntoVector(std::shared_ptr<const TableDefn> definition) {
  if (definition) {
    DefinitionList().Add(std::move(definition));
  }
}

std::shared_ptr<const TableDefn> GetSharedTableDefn(const char* tableName) {
  if (tableName == nullptr) {
    ErrorLogMessage("Table Name is NULL.\n");
    return nullptr;
  }
  return DefinitionList().Find(tableName);
}

const TableDefn* GetTableDefnEntry(const char* tableName) {
  return GetSharedTableDefn(tableName).get();
}

const ColumnDefn* GetColumnDefnEntry(const char* tableName, const char* columnName) {
  TraceLogMessage("@@@@ Inside GetColumnDefnEntry @@@@\n");
  if (tableName == nullptr || columnName == nullptr) {
    ErrorLogMessage("Cannot fetch default value;\n");
    return nullptr;
  }
  const TableDefn* definition = GetTableDefnEntry(tableName);
  if (definition == nullptr) {
    ErrorLogMessage("No definition found for table %s\n", tableName);
    return nullptr;
  }
  const int position = definition->FindColumn(columnName);
  return position < 0 ? nullptr : &definition->columns()[static_cast<std::size_t>(position)];
}

int GetColumnType(const char* tableName, const char* columnName) {
  const ColumnDefn* column = GetColumnDefnEntry(tableName, columnName);
  return column == nullptr ? kTypeNotSupported : column->type;
}

const OwnedBlock* GetDefaultValue(const char* tableName, const char* columnName, bool& found) {
  const ColumnDefn* column = GetColumnDefnEntry(tableName, columnName);
  found = column != nullptr;
  if (column == nullptr || !column->defaultValue) {
    return nullptr;
  }
  return &*column->defaultValue;
}

const FKeyDefn* GetFKeyDefn(const TableDefn* definition, const char* localColumn) {
  if (definition == nullptr || localColumn == nullptr) {
    return nullptr;
  }
  if (!definition->constraints()) {
    DebugLogMessage("No constraint Definition \n");
    return nullptr;
  }
  const auto& foreignKeys = definition->constraints()->foreignKeys;
  if (foreignKeys.empty()) {
    DebugLogMessage("No Foreignkey Entries in Definition \n");
    return nullptr;
  }
  for (const auto& foreignKey : foreignKeys) {
    if (EqualsIgnoringCase(foreignKey.localColumn, localColumn)) {
      return &foreignKey;
    }
  }
  return nullptr;
}

void PrintTableDefinition(const TableDefn* definition) {
  if (definition == nullptr) {
    return;
  }
  DebugLogMessage("Table Name : %s\n", definition->name().c_str());
  DebugLogMessage("Description: %s\n", TextOrNull(definition->description()));
  DebugLogMessage("----------------------------------------\n");
  for (const auto& column : definition->columns()) {
    DebugLogMessage("Column Type : %d\n", column.type);
    DebugLogMessage("Unique Flag : %s\n", column.unique ? "TRUE" : "FALSE");
    DebugLogMessage("Description : %s\n", TextOrNull(column.description));
  }
  DebugLogMessage("Foreign key Constraints\n");
}

}  // namespace tarn
