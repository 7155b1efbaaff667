#include "framework/imds/dotoxml.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <cstdio>
#include <cstring>
#include <new>

#include "framework/imds/dataset.h"
#include "framework/logging/logger.h"

namespace tarn {
namespace {

// Appends name="value" followed by one blank; the value is written whole.
void AppendAttributeText(std::string& document, std::string_view name, std::string_view value) {
  document += name;
  document += "=\"";
  document += value;
  document += "\" ";
}

void AppendIntegerAttribute(std::string& document, std::string_view name, std::int32_t value) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  AppendAttributeText(document, name, std::string_view(digits, end - digits));
}

// "%f" of the value: six decimals, however long the integral part.
void AppendFixedAttribute(std::string& document, std::string_view name, double value) {
  const int length = std::snprintf(nullptr, 0, "%f", value);
  std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
  std::snprintf(text.data(), text.size() + 1, "%f", value);
  AppendAttributeText(document, name, text);
}

std::optional<std::string> DateTimeAttributeText(int type, const OwnedBlock& value) {
  if (type == kTypeDate) {
    const auto date = value.Read<AdvDate>();
    return ConvertAdvDateToString(&date);
  }
  if (type == kTypeTime) {
    const auto time = value.Read<AdvTime>();
    return ConvertAdvTimeToString(&time);
  }
  const auto dateTime = ReadDateTimeRecord(value);
  return ConvertAdvDateTimeToString(&dateTime);
}

// The column types written as 32-bit integers (a long integer too: its first four bytes are
// read, as the document has always shown it).
bool WrittenAsInt32(int type) { return IsRowInt32Type(type) || type == kTypeLongInt; }

void AppendAttribute(std::string& document, const ColumnDefn& column, const OwnedBlock& value) {
  const std::string_view name = column.name;
  if (WrittenAsInt32(column.type)) {
    AppendIntegerAttribute(document, name, value.Read<std::int32_t>());
    return;
  }
  switch (column.type) {
    case kTypeFloat:
      AppendFixedAttribute(document, name, static_cast<double>(value.Read<float>()));
      return;
    case kTypeDouble:
      AppendFixedAttribute(document, name, value.Read<double>());
      return;
    case kTypeSqlChar:
    case kTypeChar:
    case kTypeText:
      AppendAttributeText(document, name, value.c_str());
      return;
    case kTypeDate:
    case kTypeTime:
    case kTypeDateTime:
      if (const auto text = DateTimeAttributeText(column.type, value)) {
        AppendAttributeText(document, name, *text);
      }
      return;
    case kTypeBoolean:
      AppendAttributeText(document, name, value.Read<std::int32_t>() == 1 ? "true" : "false");
      return;
    default:
      return;
  }
}

void AppendRow(std::string& document, const char* listedName, const TableData& table,
               const RowObject& row) {
  document += '<';
  document += listedName;
  document += ' ';
  const auto& columns = table.tableDefn->columns();
  const std::size_t count = std::min({static_cast<std::size_t>(std::max(table.columnCount, 0)),
                                      columns.size(), row.values.size()});
  for (std::size_t i = 0; i < count; ++i) {
    const ColumnDefn& column = columns[i];
    const ValueSlot& value = row.values[i];
    if (column.defaultValue &&
        CompareValues(column.type, &*column.defaultValue, value ? &*value : nullptr) == 0) {
      continue;
    }
    if (value) {
      AppendAttribute(document, column, *value);
    }
  }
  document += "/>\n";
}

// The loaded table a listed name writes, or null when it writes nothing.
const TableData* WrittenTable(const char* listedName) {
  const TableData* table = GetTableDataByName(listedName);
  if (table == nullptr || !table->tableDefn || table->tableDefn->columns().empty()) {
    return nullptr;
  }
  return table;
}

void AppendTable(std::string& document, const char* listedName) {
  if (const TableData* table = WrittenTable(listedName)) {
    for (const auto& row : table->rows) {
      AppendRow(document, listedName, *table, *row);
    }
  }
}

// At least as many bytes as the attribute takes (a value equal to its default is counted
// too), so that the document is allocated once.
std::size_t AttributeBound(const ColumnDefn& column, const OwnedBlock& value) {
  constexpr std::size_t kQuotesAndBlank = 4;  // ="" and the blank
  constexpr std::size_t kShortValue = 40;     // dates, times, Booleans
  std::size_t bound = column.name.size() + kQuotesAndBlank;
  if (WrittenAsInt32(column.type)) return bound + 11;  // "-2147483648"
  switch (column.type) {
    case kTypeSqlChar:
    case kTypeChar:
    case kTypeText:
      return bound + value.size();
    case kTypeFloat:
    case kTypeDouble:
      // "%f" of the largest double has 309 integral digits.
      return bound + 320;
    default:
      return bound + kShortValue;
  }
}

std::size_t DocumentBound(std::span<const char* const> tableNames, std::size_t rootLength) {
  std::size_t bound = 64 + 2 * rootLength;
  for (const char* name : tableNames) {
    if (name == nullptr) break;
    const TableData* table = WrittenTable(name);
    if (table == nullptr) continue;
    const auto& columns = table->tableDefn->columns();
    for (const auto& row : table->rows) {
      bound += std::strlen(name) + 5;  // "<", " " and "/>\n"
      const std::size_t count = std::min(columns.size(), row->values.size());
      for (std::size_t i = 0; i < count; ++i) {
        if (row->values[i]) bound += AttributeBound(columns[i], *row->values[i]);
      }
    }
  }
  return bound;
}

}  // namespace

std::optional<std::string> ConvertDOtoXMLBuffer(std::span<const char* const> tableNames,
                                                const char* rootName) {
  TraceLogMessage("@@@ Inside  ConvertDOtoXMLBuffer @@@\n");
  const char* root = rootName == nullptr ? "" : rootName;
  std::string document;
  try {
    document.reserve(DocumentBound(tableNames, std::strlen(root)));
    document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    document += '<';
    document += root;
    document += ">\n";
    for (const char* name : tableNames) {
      if (name == nullptr) {
        break;
      }
      AppendTable(document, name);
    }
    document += "</";
    document += root;
    document += ">\n";
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("Memory allocation failed while copying TEXT value.\n");
    return std::nullopt;
  }
  DebugLogMessage("\n%s\n", document.c_str());
  return document;
}

}  // namespace tarn
