// The data dictionary: definitions of every table the store can hold, read
// from data-dictionary XML files (see xmldatadictparser.h) into the
// process-wide list gv_tableDefnVect.
//
// Table names are looked up without regard to letter case, column names by
// GetColumnDefnEntry with letter case significant. A table defined twice is
// kept twice; lookups return the first definition.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framework/persistent/dbutility.h"
#include "framework/utils/ownedblock.h"

namespace tarn {

// Kinds of allowed values of a column.
inline constexpr int kAllowedValuesEnumeration = 0;
inline constexpr int kAllowedValuesRange = 1;

struct AllowedValues {
  int kind = kAllowedValuesEnumeration;
  // The enumerated texts, or the two texts from and to of a range.
  std::vector<std::string> values;
};

struct ColumnDefn {
  std::string name;
  int type = kTypeNotSupported;
  // The default in the type's storage form: 32-bit integers for codes 1 to 6,
  // AdvDate for DATE, AdvTime for TIME, AdvDateTime for DATETIME.
  std::optional<OwnedBlock> defaultValue;
  std::int32_t defaultLength = 0;
  bool unique = false;
  std::optional<std::string> generatorName;
  std::optional<std::string> description;
  std::int32_t maxSize = 0;
  bool nullable = true;
  std::optional<AllowedValues> allowedValues;
};

struct FKeyDefn {
  std::string localColumn;
  std::string referenceColumn;
  std::string referenceTable;
  bool onDeleteCascade = false;
  bool bidirectional = false;
};

struct ConstraintDefn {
  std::vector<std::string> primaryKeyColumns;
  std::vector<FKeyDefn> foreignKeys;
};

// One table definition. Immutable once built; keeps name indexes of its
// columns so that lookups by name do not rescan the column list.
class TableDefn {
 public:
  TableDefn(std::string name, std::optional<std::string> description,
            std::vector<ColumnDefn> columns, std::optional<ConstraintDefn> constraints);

  const std::string& name() const { return name_; }
  const std::optional<std::string>& description() const { return description_; }
  const std::vector<ColumnDefn>& columns() const { return columns_; }
  // Absent when the table has neither primary nor foreign keys.
  const std::optional<ConstraintDefn>& constraints() const { return constraints_; }

  // Position of the first column named exactly name, or -1.
  int FindColumn(std::string_view name) const;
  // Position of the first column whose name equals name ignoring letter case, or -1.
  int FindColumnIgnoringCase(std::string_view name) const;

 private:
  std::string name_;
  std::optional<std::string> description_;
  std::vector<ColumnDefn> columns_;
  std::optional<ConstraintDefn> constraints_;
  std::unordered_map<std::string, int> exactIndex_;
  std::unordered_map<std::string, int> foldedIndex_;
};

// The process-wide list of table definitions, in load order, with a
// case-folded name index that always points at the first definition of a name.
class TableDefnVector {
 public:
  void Add(std::shared_ptr<const TableDefn> definition);
  // First definition named name (ignoring letter case), or null.
  std::shared_ptr<const TableDefn> Find(std::string_view name) const;
  // Removes the first definition named name. False when there is none.
  bool Remove(std::string_view name);
  void Clear();
  const std::vector<std::shared_ptr<const TableDefn>>& definitions() const { return definitions_; }

 private:
  std::vector<std::shared_ptr<const TableDefn>> definitions_;
  std::unordered_map<std::string, std::shared_ptr<const TableDefn>> firstByFoldedName_;
};

// The ASCII lower-case letter for an upper-case one; every other byte as it is.
constexpr char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
// ASCII lower-case copy of text, the key of every name lookup that ignores letter case.
std::string FoldCase(std::string_view text);
// True when a and b are equal ignoring ASCII letter case.
bool EqualsIgnoringCase(std::string_view a, std::string_view b);

// The type code of a data-type text (letter case ignored, first match wins);
// 0 for an unknown text. A null text logs "Column data type not supported -
// Error while creating column definition.\n" and gives 0.
int GetGenDataTypeMacro(const char* dataTypeText);

// Builds a column definition: CHAR and NCHAR columns (codes 14, 15) with
// maxSize 256 or more become TEXT (22); the default text, when given, is
// converted to the type's storage form (a BOOLEAN default other than
// TRUE/FALSE leaves no default).
ColumnDefn CreateColumnDefn(std::string name, int type, const char* defaultText, bool unique,
                            std::optional<std::string> generatorName,
                            std::optional<std::string> description, std::int32_t maxSize,
                            bool nullable, std::optional<AllowedValues> allowedValues);

// The list itself (gv_tableDefnVect).
TableDefnVector& GetTableDefnVector();

// Empties the list.
void InitDataDictionary();
// Frees every definition. Tables already created keep their own definition alive.
void DeInitDataDictionary();
// Removes and frees the first definition named tableName. Returns 1, or 0 when absent.
int FreeTableDefn(const char* tableName);

// Appends a definition to gv_tableDefnVect.
void AddTableDefnIntoVector(std::shared_ptr<const TableDefn> definition);

// First definition whose name equals tableName ignoring letter case; null when
// none. Logs "Table Name is NULL.\n" for a null name.
const TableDefn* GetTableDefnEntry(const char* tableName);
// As GetTableDefnEntry, sharing ownership (for tables that must outlive a reload).
std::shared_ptr<const TableDefn> GetSharedTableDefn(const char* tableName);

// The column of tableName named exactly columnName, or null. Logs "Cannot
// fetch default value;\n" for a null argument and "No definition found for
// table %s\n" for an unknown table.
const ColumnDefn* GetColumnDefnEntry(const char* tableName, const char* columnName);

// The column's type code, 0 when the column is not found.
int GetColumnType(const char* tableName, const char* columnName);

// The column's stored default, or null when it has none. found is set to
// whether the column exists.
const OwnedBlock* GetDefaultValue(const char* tableName, const char* columnName, bool& found);

// The foreign key of definition whose local column equals localColumn ignoring
// letter case, or null. Logs "No constraint Definition \n" or "No Foreignkey
// Entries in Definition \n" when the table has no constraints or no foreign keys.
const FKeyDefn* GetFKeyDefn(const TableDefn* definition, const char* localColumn);

// Writes the definition to the debug log.
void PrintTableDefinition(const TableDefn* definition);

}  // namespace tarn
