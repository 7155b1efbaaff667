// The in-memory tables of the store.
//
// A table exists only for a name the data dictionary defines; its columns,
// their order and types come from that definition. Tables are kept in the
// process-wide gv_datasetVector in creation order, found by name without
// regard to letter case. Rows own their values (one slot per column, nullopt
// being SQL NULL); query results refer to rows without copying them and must
// not be used after their table is unloaded.
//
// Functions return 1 for success and 0 for failure unless said otherwise.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framework/persistent/datadict.h"
#include "framework/utils/advtime.h"
#include "framework/utils/ownedblock.h"

namespace tarn {

// Row state bits.
inline constexpr std::uint32_t kRowStatePersistent = 1;
inline constexpr std::uint32_t kRowStateNew = 2;
inline constexpr std::uint32_t kRowStateUpdated = 4;
inline constexpr std::uint32_t kRowStateDeleted = 8;

inline constexpr int kTableKind = 1;
inline constexpr int kCustomViewKind = 2;

// Bucket count of the generator sequence table.
inline constexpr std::int32_t kStoreHashBuckets = 50;

// A column value of a row: the value in its storage form, or null.
using ValueSlot = OptionalBlock;

struct RowObject;
struct RowDeleter {
  void operator()(RowObject* row) const noexcept;
};
// A row owns its slots and lengths, which live in the same allocation as the row.
using RowPtr = std::unique_ptr<RowObject, RowDeleter>;

// One row: a value slot and a recorded length per column, and the row state.
struct RowObject {
  // A row of `columns` null slots with length 0 and state new, in one allocation.
  static RowPtr Create(std::size_t columns);

  std::span<ValueSlot> values;
  std::span<std::int32_t> lengths;
  std::uint32_t state = kRowStateNew;
};

struct TableData {
  std::string name;
  int kind = kTableKind;
  std::shared_ptr<const TableDefn> tableDefn;
  std::int32_t columnCount = 0;
  std::int32_t rowCount = 0;
  std::vector<RowPtr> rows;  // insertion order
};

// The answer of a query: references to rows of one table.
struct ResultData {
  std::vector<RowObject*> rows;  // non-owning
  int kind = kTableKind;
  std::shared_ptr<const TableDefn> tableDefn;
  std::int32_t rowCount = 0;
  std::int32_t columnCount = 0;
  // Index of the row under the cursor; -1 before the first row.
  std::int32_t cursor = -1;
};

// The process-wide list of loaded tables (gv_datasetVector).
class DataSetVector {
 public:
  // Appends the table; false when a table of that name (ignoring letter case) exists.
  bool Add(std::unique_ptr<TableData> table);
  TableData* Find(std::string_view name) const;
  // Removes and frees the table. False when it is not loaded.
  bool Remove(std::string_view name);
  void Clear();
  const std::vector<std::unique_ptr<TableData>>& tables() const { return tables_; }

 private:
  // Names hashed and compared ignoring letter case, so a lookup folds nothing.
  struct CaseFoldedHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept;
  };
  struct CaseFoldedEqual {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const noexcept;
  };
  std::vector<std::unique_ptr<TableData>> tables_;
  std::unordered_map<std::string, TableData*, CaseFoldedHash, CaseFoldedEqual> byName_;
};

DataSetVector& GetDataSetVector();

// The key of the store-wide data lock (a resource lock), held by SelectRows
// from parsing its criteria to the end of evaluation.
extern const char gv_dataSyncVar;

// Makes gv_datasetVector empty.
void InitDataSet();

// Creates the empty table for a name the dictionary defines. 0 (no message)
// when there is no definition or the table is already loaded.
int CreateTable(const char* tableName);

// The loaded table named tableName (ignoring letter case), or null.
TableData* GetTableDataByName(const char* tableName);

// A new row with state 2 owning the given slots and lengths (one entry per column; missing
// lengths are 0).
RowPtr CreateNewRowObject(std::vector<ValueSlot> values, std::vector<std::int32_t> lengths);

// Completes the row (null slots of generator columns receive the next
// generated identifier, -1 when the generator has no sequence state; other
// null slots the column's default, when it has one) and appends it to the
// table. Slots beyond the column count are dropped, missing ones are null. No
// uniqueness, key or nullability check is made. 0 when the table is not
// loaded, its definition has no columns or row is null.
int AddNewRow(const char* tableName, RowPtr row);
// The same for a table already looked up (null: 0).
int AddNewRow(TableData* table, RowPtr row);

// Sequence state of a generator: next value to hand out and the last value of
// the current batch. Batches are filled by the persistence layer.
struct SequenceState {
  std::int64_t nextValue = 0;
  std::int64_t lastValue = 0;
};

// Installs the sequence state of a generator (the persistence layer's hook).
void SetSequenceState(std::string_view generatorName, SequenceState state);
// Removes every sequence state.
void ClearSequenceStates();
// The next identifier of generatorName: -1 after a trace when it has no
// state; nullopt when its batch is exhausted.
std::optional<std::int32_t> GenerateNextId(const std::string& generatorName);

// The rows of the table satisfying criteria (every row for a null criteria
// string), in table order, cursor before the first row. Null when the table
// is not loaded or the criteria do not parse.
std::unique_ptr<ResultData> SelectRows(const char* tableName, const char* criteria);

// Advances the cursor and returns the row under it, or null at the end (the
// cursor is then back before the first row).
RowObject* GotoNextRowObject(ResultData* result);
void ResetResultDataCursor(ResultData* result);

// The value of the column (name ignoring letter case) in the row under the
// cursor, pointing into the row, and its length. Null when the cursor is
// before the first row, the column is unknown or the value is null.
const OwnedBlock* GetColumnValueByName(const char* columnName, std::int32_t* length,
                                       const ResultData* result);
// The name of the column at position, or null.
const char* GetColumnNameByIndex(int position, const ResultData* result);
// The type code of the column (name ignoring letter case); 0 when unknown.
int GetColumnTypeByName(const char* columnName, const ResultData* result);

// Reorders the result's row references by the column's value read as a
// 32-bit signed integer whatever its type; order 1 ascending, any other value
// descending; equal values keep their order. 0 for an unknown column or an
// empty definition. A one-row result logs "Number of Rows is 1 for the Relvar
// to be Sorted \n" as an error and succeeds.
int SortResultSet(ResultData* result, const char* columnName, int order);

// Frees the result, never the rows.
void FreeResultData(std::unique_ptr<ResultData> result);

// Removes the table with all its rows. 0 when it is not loaded.
int UnLoadTable(const char* tableName);
void UnLoadAllTable();

// 0 when the two values of type are equal, non-zero when they differ (two
// nulls are equal, a null and a value differ). An unknown type logs "Invalid
// type.  Cannot compare values.\n" and reports equal.
int CompareValues(int type, const OwnedBlock* first, const OwnedBlock* second);

// The date-time record held in a DATETIME slot. A block that is not a
// date-time record (wrong size or flag bytes) reads as a record with neither part.
AdvDateTime ReadDateTimeRecord(const OwnedBlock& value);

// Debug dumps of a table and of a result.
void PrintTableData(const char* tableName);
void PrintResultData(const ResultData* result);

}  // namespace tarn
