#include "framework/imds/dataset.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <new>

#include "framework/imds/criteriaparser.h"
#include "framework/imds/datanotify.h"
#include "framework/logging/logger.h"
#include "framework/system/rsrclockimpl.h"
#include "framework/utils/advtime.h"
#include "framework/utils/hashtable.h"

namespace tarn {

const char gv_dataSyncVar = 0;

namespace {

constexpr std::int32_t kGeneratedIdLength = 4;
constexpr std::uint8_t kDebugLevel = 3;

DataSetVector& Tables() {
  static DataSetVector gv_datasetVector;
  return gv_datasetVector;
}

// Generator name -> sequence state, 50 buckets, empty until the persistence
// layer installs states.
HashTable<SequenceState>& SequenceTable() {
  static HashTable<SequenceState> gv_sequenceTable = [] {
    HashTable<SequenceState> table;
    InitHashTable(table, kStoreHashBuckets);
    return table;
  }();
  return gv_sequenceTable;
}

void FillNullSlot(const ColumnDefn& column, ValueSlot& slot, std::int32_t& length) {
  if (column.generatorName) {
    if (const auto id = GenerateNextId(*column.generatorName)) {
      slot = OwnedBlock::Of(*id);
      length = kGeneratedIdLength;
      return;
    }
  }
  if (column.defaultValue) {
    slot = *column.defaultValue;
    length = column.defaultLength;
  }
}

// The 32-bit signed sort key of a slot; a null slot sorts as the smallest value.
std::int32_t SortKey(const RowObject* row, std::size_t position) {
  const auto& slot = row->values[position];
  return slot ? slot->Read<std::int32_t>() : INT32_MIN;
}

bool DateEquals(const AdvDate& a, const AdvDate& b) {
  return a.year == b.year && a.month == b.month && a.day == b.day;
}

bool TimeEquals(const AdvTime& a, const AdvTime& b) {
  return a.hour == b.hour && a.minute == b.minute && a.second == b.second;
}

bool DateTimeEquals(const AdvDateTime& a, const AdvDateTime& b) {
  if (a.date.has_value() != b.date.has_value() || a.time.has_value() != b.time.has_value()) {
    return false;
  }
  return (!a.date || DateEquals(*a.date, *b.date)) && (!a.time || TimeEquals(*a.time, *b.time));
}

std::string DateTimeText(int type, const OwnedBlock& value) {
  std::optional<std::string> text;
  if (type == kTypeDate) {
    const auto date = value.Read<AdvDate>();
    text = ConvertAdvDateToString(&date);
  } else if (type == kTypeTime) {
    const auto time = value.Read<AdvTime>();
    text = ConvertAdvTimeToString(&time);
  } else {
    const auto dateTime = ReadDateTimeRecord(value);
    text = ConvertAdvDateTimeToString(&dateTime);
  }
  return text.value_or("");
}

enum class DumpKind { kTable, kResult };

// One value of a dump followed by a tab; nothing for types the dump skips.
void AppendDumpValue(std::string& line, int type, const ValueSlot& slot, DumpKind kind) {
  if (!slot) {
    line += "NULL\t";
    return;
  }
  char scratch[64];
  // A table dump shows a long integer's first four bytes too; a result dump skips it.
  if (IsRowInt32Type(type) || (type == kTypeLongInt && kind == DumpKind::kTable)) {
    std::snprintf(scratch, sizeof scratch, "%d\t", slot->Read<std::int32_t>());
    line += scratch;
    return;
  }
  switch (type) {
    case kTypeBoolean:
      std::snprintf(scratch, sizeof scratch, "%d\t", slot->Read<std::uint8_t>());
      break;
    case kTypeFloat:
      std::snprintf(scratch, sizeof scratch, "%f\t", static_cast<double>(slot->Read<float>()));
      break;
    case kTypeDouble:
      std::snprintf(scratch, sizeof scratch, "%f\t",
                    kind == DumpKind::kResult ? static_cast<double>(slot->Read<float>())
                                              : slot->Read<double>());
      break;
    case kTypeText:
      if (kind == DumpKind::kResult) {
        return;
      }
      [[fallthrough]];
    case kTypeSqlChar:
    case kTypeChar:
      line += slot->c_str();
      line += '\t';
      return;
    case kTypeDate:
    case kTypeTime:
    case kTypeDateTime:
      line += DateTimeText(type, *slot);
      line += '\t';
      return;
    default:
      return;
  }
  line += scratch;
}

void DumpRows(const TableDefn& definition, const std::vector<const RowObject*>& rows,
              DumpKind kind) {
  if (GetLogLevelValue() < kDebugLevel) {
    return;
  }
  std::string header;
  for (const auto& column : definition.columns()) {
    header += column.name + "\t";
  }
  DebugLogMessage("%s\n", header.c_str());
  const auto& columns = definition.columns();
  for (const RowObject* row : rows) {
    std::string line;
    const std::size_t count = std::min(columns.size(), row->values.size());
    for (std::size_t i = 0; i < count; ++i) {
      AppendDumpValue(line, columns[i].type, row->values[i], kind);
    }
    DebugLogMessage("%s\n", line.c_str());
  }
}

const TableDefn* DefinitionOf(const ResultData* result) {
  return result == nullptr ? nullptr : result->tableDefn.get();
}

}  // namespace

bool DataSetVector::Add(std::unique_ptr<TableData> table) {
  const auto [entry, added] = byName_.try_emplace(table->name, table.get());
  if (!added) {
    return false;
  }
  tables_.push_back(std::move(table));
  return true;
}

std::size_t DataSetVector::CaseFoldedHash::operator()(std::string_view name) const noexcept {
  // A store holds a few dozen tables: the length and a few letters (lower case) tell them
  // apart well enough, and a lookup costs next to nothing.
  const auto lower = [](char c) {
    return static_cast<std::uint64_t>(static_cast<unsigned char>(AsciiLower(c)));
  };
  std::uint64_t hash = name.size();
  if (!name.empty()) {
    hash = hash * 257 + lower(name.front());
    hash = hash * 257 + lower(name[name.size() / 2]);
    hash = hash * 257 + lower(name[name.size() / 3]);
    hash = hash * 257 + lower(name.back());
  }
  return static_cast<std::size_t>(hash * 0x9E3779B97F4A7C15ULL);
}

bool DataSetVector::CaseFoldedEqual::operator()(std::string_view a,
                                                std::string_view b) const noexcept {
  return EqualsIgnoringCase(a, b);
}

TableData* DataSetVector::Find(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : found->second;
}

bool DataSetVector::Remove(std::string_view name) {
  const auto found = byName_.find(name);
  if (found == byName_.end()) {
    return false;
  }
  const TableData* table = found->second;
  byName_.erase(found);
  std::erase_if(tables_, [table](const auto& candidate) { return candidate.get() == table; });
  return true;
}

void DataSetVector::Clear() {
  byName_.clear();
  tables_.clear();
}

DataSetVector& GetDataSetVector() { return Tables(); }

void InitDataSet() { Tables().Clear(); }

int CreateTable(const char* tableName) {
  if (tableName == nullptr) {
    return 0;
  }
  auto definition = GetTableDefnVector().Find(tableName);
  if (!definition || Tables().Find(tableName) != nullptr) {
    return 0;
  }
  auto table = std::make_unique<TableData>();
  table->name = tableName;
  table->kind = kTableKind;
  table->columnCount = static_cast<std::int32_t>(definition->columns().size());
  table->tableDefn = std::move(definition);
  return Tables().Add(std::move(table)) ? 1 : 0;
}

TableData* GetTableDataByName(const char* tableName) {
  return tableName == nullptr ? nullptr : Tables().Find(tableName);
}

namespace {

// Where a row's slots and lengths begin within its allocation.
constexpr std::size_t kSlotsOffset =
    (sizeof(RowObject) + alignof(ValueSlot) - 1) / alignof(ValueSlot) * alignof(ValueSlot);

// Moves slots and lengths into a new row of `columns`; extra ones are dropped.
RowPtr Resized(RowObject& row, std::size_t columns) {
  RowPtr resized = RowObject::Create(columns);
  const std::size_t kept = std::min(columns, row.values.size());
  for (std::size_t i = 0; i < kept; ++i) {
    resized->values[i] = std::move(row.values[i]);
    resized->lengths[i] = row.lengths[i];
  }
  resized->state = row.state;
  return resized;
}

}  // namespace

RowPtr RowObject::Create(std::size_t columns) {
  static_assert(alignof(std::int32_t) <= alignof(ValueSlot));
  const std::size_t bytes =
      kSlotsOffset + columns * (sizeof(ValueSlot) + sizeof(std::int32_t));
  void* memory = ::operator new(bytes);
  auto* row = new (memory) RowObject;
  auto* base = static_cast<unsigned char*>(memory);
  auto* slots = reinterpret_cast<ValueSlot*>(base + kSlotsOffset);
  auto* lengths = reinterpret_cast<std::int32_t*>(base + kSlotsOffset + columns * sizeof(ValueSlot));
  for (std::size_t i = 0; i < columns; ++i) {
    new (slots + i) ValueSlot();
    new (lengths + i) std::int32_t(0);
  }
  row->values = std::span<ValueSlot>(slots, columns);
  row->lengths = std::span<std::int32_t>(lengths, columns);
  return RowPtr(row);
}

void RowDeleter::operator()(RowObject* row) const noexcept {
  for (ValueSlot& slot : row->values) slot.~ValueSlot();
  row->~RowObject();
  ::operator delete(static_cast<void*>(row));
}

RowPtr CreateNewRowObject(std::vector<ValueSlot> values, std::vector<std::int32_t> lengths) {
  RowPtr row = RowObject::Create(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    row->values[i] = std::move(values[i]);
    row->lengths[i] = i < lengths.size() ? lengths[i] : 0;
  }
  row->state = kRowStateNew;
  return row;
}

void SetSequenceState(std::string_view generatorName, SequenceState state) {
  PutHashNode(SequenceTable(), generatorName, state);
}

void ClearSequenceStates() { InitHashTable(SequenceTable(), kStoreHashBuckets); }

std::optional<std::int32_t> GenerateNextId(const std::string& generatorName) {
  auto& table = SequenceTable();
  const auto* node = GetHashNode(table, generatorName);
  if (node == nullptr) {
    TraceLogMessage("Cannot generate ID for key %s.\n", generatorName.c_str());
    return -1;
  }
  ResourceGuard guard(node);
  SequenceState state = node->value;
  if (state.nextValue > state.lastValue) {
    return std::nullopt;
  }
  const auto value = static_cast<std::int32_t>(state.nextValue);
  ++state.nextValue;
  PutHashNode(table, generatorName, state);
  TraceLogMessage("AutoGenerated Value %d \n", value);
  return value;
}

int AddNewRow(const char* tableName, RowPtr row) {
  return AddNewRow(GetTableDataByName(tableName), std::move(row));
}

int AddNewRow(TableData* table, RowPtr row) {
  if (table == nullptr || !row || !table->tableDefn || table->tableDefn->columns().empty()) {
    return 0;
  }
  const auto count = static_cast<std::size_t>(table->columnCount);
  if (row->values.size() != count) row = Resized(*row, count);
  const auto& columns = table->tableDefn->columns();
  for (std::size_t i = 0; i < std::min(count, columns.size()); ++i) {
    if (!row->values[i]) {
      FillNullSlot(columns[i], row->values[i], row->lengths[i]);
    }
  }
  const RowObject& added = *row;
  table->rows.push_back(std::move(row));
  ++table->rowCount;
  SendNotification(added, table->name.c_str(), DataEvent::kRowAdded);
  return 1;
}

std::unique_ptr<ResultData> SelectRows(const char* tableName, const char* criteria) {
  TableData* table = GetTableDataByName(tableName);
  if (table == nullptr) {
    return nullptr;
  }
  auto result = std::make_unique<ResultData>();
  result->kind = table->kind;
  result->tableDefn = table->tableDefn;
  result->columnCount = table->columnCount;
  try {
    if (criteria == nullptr) {
      result->rows.reserve(table->rows.size());
      for (const auto& row : table->rows) {
        result->rows.push_back(row.get());
      }
    } else {
      ResourceGuard guard(&gv_dataSyncVar);
      if (table->kind != kTableKind || !table->tableDefn) {
        return nullptr;
      }
      CriteriaTree tree = CriteriaParser(criteria);
      if (!tree) {
        return nullptr;
      }
      FillCriteriaTreeWithIndex(*table->tableDefn, tree.get());
      PrintCriteriaTree(tree.get());
      for (const auto& row : table->rows) {
        if (EvaluateCriteriaTree(*row, tree.get())) {
          result->rows.push_back(row.get());
        }
      }
    }
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("not able to Add row \n");
    return nullptr;
  }
  result->rowCount = static_cast<std::int32_t>(result->rows.size());
  result->cursor = -1;
  return result;
}

RowObject* GotoNextRowObject(ResultData* result) {
  if (result == nullptr) {
    return nullptr;
  }
  ++result->cursor;
  if (result->cursor < 0 || static_cast<std::size_t>(result->cursor) >= result->rows.size()) {
    result->cursor = -1;
    return nullptr;
  }
  return result->rows[static_cast<std::size_t>(result->cursor)];
}

void ResetResultDataCursor(ResultData* result) {
  if (result != nullptr) {
    result->cursor = -1;
  }
}

const OwnedBlock* GetColumnValueByName(const char* columnName, std::int32_t* length,
                                       const ResultData* result) {
  const TableDefn* definition = DefinitionOf(result);
  if (definition == nullptr || columnName == nullptr || result->cursor < 0 ||
      static_cast<std::size_t>(result->cursor) >= result->rows.size()) {
    return nullptr;
  }
  const int position = definition->FindColumnIgnoringCase(columnName);
  const RowObject* row = result->rows[static_cast<std::size_t>(result->cursor)];
  if (position < 0 || static_cast<std::size_t>(position) >= row->values.size()) {
    return nullptr;
  }
  const auto& slot = row->values[static_cast<std::size_t>(position)];
  if (!slot) {
    return nullptr;
  }
  if (length != nullptr) {
    *length = row->lengths[static_cast<std::size_t>(position)];
  }
  return &*slot;
}

const char* GetColumnNameByIndex(int position, const ResultData* result) {
  const TableDefn* definition = DefinitionOf(result);
  if (definition == nullptr || position < 0 ||
      static_cast<std::size_t>(position) >= definition->columns().size()) {
    return nullptr;
  }
  return definition->columns()[static_cast<std::size_t>(position)].name.c_str();
}

int GetColumnTypeByName(const char* columnName, const ResultData* result) {
  const TableDefn* definition = DefinitionOf(result);
  if (definition == nullptr || columnName == nullptr) {
    return kTypeNotSupported;
  }
  const int position = definition->FindColumnIgnoringCase(columnName);
  return position < 0 ? kTypeNotSupported
                      : definition->columns()[static_cast<std::size_t>(position)].type;
}

int SortResultSet(ResultData* result, const char* columnName, int order) {
  const TableDefn* definition = DefinitionOf(result);
  if (definition == nullptr || columnName == nullptr || definition->columns().empty()) {
    return 0;
  }
  const int found = definition->FindColumnIgnoringCase(columnName);
  if (found < 0) {
    return 0;
  }
  if (result->rowCount == 1) {
    ErrorLogMessage("Number of Rows is 1 for the Relvar to be Sorted \n");
    return 1;
  }
  const auto position = static_cast<std::size_t>(found);
  const bool ascending = order == 1;
  std::stable_sort(result->rows.begin(), result->rows.end(),
                   [position, ascending](const RowObject* a, const RowObject* b) {
                     const std::int32_t keyA = SortKey(a, position);
                     const std::int32_t keyB = SortKey(b, position);
                     return ascending ? keyA < keyB : keyA > keyB;
                   });
  return 1;
}

AdvDateTime ReadDateTimeRecord(const OwnedBlock& value) {
  return LoadAdvDateTime(value).value_or(AdvDateTime{});
}

void FreeResultData(std::unique_ptr<ResultData> result) { result.reset(); }

int UnLoadTable(const char* tableName) {
  return tableName != nullptr && Tables().Remove(tableName) ? 1 : 0;
}

void UnLoadAllTable() { Tables().Clear(); }

namespace {

// The types CompareValues compares by their stored content rather than as 32-bit integers.
bool IsComparedByContent(int type) {
  switch (type) {
    case kTypeFloat:
    case kTypeDouble:
    case kTypeSqlChar:
    case kTypeChar:
    case kTypeBoolean:
    case kTypeText:
    case kTypeDate:
    case kTypeTime:
    case kTypeDateTime:
      return true;
    default:
      return false;
  }
}

}  // namespace

int CompareValues(int type, const OwnedBlock* first, const OwnedBlock* second) {
  if (!IsRowInt32Type(type) && !IsComparedByContent(type)) {
    ErrorLogMessage("Invalid type.  Cannot compare values.\n");
    return 0;
  }
  if (first == nullptr || second == nullptr) {
    return first == second ? 0 : 1;
  }
  switch (type) {
    case kTypeFloat:
    case kTypeDouble:
      // Both read as single precision, also for DOUBLE.
      return std::fabs(first->Read<float>() - second->Read<float>()) < 1e-10f ? 0 : 1;
    case kTypeSqlChar:
    case kTypeChar:
    case kTypeBoolean:
    case kTypeText:
      return std::strcmp(first->c_str(), second->c_str()) == 0 ? 0 : 1;
    case kTypeDate:
      return DateEquals(first->Read<AdvDate>(), second->Read<AdvDate>()) ? 0 : 1;
    case kTypeTime:
      return TimeEquals(first->Read<AdvTime>(), second->Read<AdvTime>()) ? 0 : 1;
    case kTypeDateTime:
      return DateTimeEquals(ReadDateTimeRecord(*first), ReadDateTimeRecord(*second)) ? 0 : 1;
    default:
      return first->Read<std::int32_t>() == second->Read<std::int32_t>() ? 0 : 1;
  }
}

void PrintTableData(const char* tableName) {
  const TableData* table = GetTableDataByName(tableName);
  if (table == nullptr || !table->tableDefn) {
    return;
  }
  std::vector<const RowObject*> rows;
  rows.reserve(table->rows.size());
  for (const auto& row : table->rows) {
    rows.push_back(row.get());
  }
  DumpRows(*table->tableDefn, rows, DumpKind::kTable);
}

void PrintResultData(const ResultData* result) {
  const TableDefn* definition = DefinitionOf(result);
  if (definition == nullptr) {
    return;
  }
  const std::vector<const RowObject*> rows(result->rows.begin(), result->rows.end());
  DumpRows(*definition, rows, DumpKind::kResult);
}

}  // namespace tarn
