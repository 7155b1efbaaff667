#include "framework/imds/dotoxml.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <new>

#include "framework/imds/dataset.h"
#include "framework/logging/logger.h"

namespace tarn {
namespace {

// Appends the formatted text, cut to what the scratch space holds.
void AppendScratch(std::string& document, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

void AppendScratch(std::string& document, const char* format, ...) {
  char scratch[kXmlScratchSize];
  std::va_list args;
  va_start(args, format);
  const int written = std::vsnprintf(scratch, sizeof scratch, format, args);
  va_end(args);
  if (written > 0) {
    document.append(scratch,
                    std::min<std::size_t>(static_cast<std::size_t>(written), sizeof scratch - 1));
  }
}

void AppendTextAttribute(std::string& document, const char* name, const OwnedBlock& value) {
  document += name;
  document += "=\"";
  document += value.c_str();
  document += "\" ";
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

void AppendAttribute(std::string& document, const ColumnDefn& column, const OwnedBlock& value) {
  const char* name = column.name.c_str();
  switch (column.type) {
    case kTypeTinyInt:
    case kTypeUnsignedTinyInt:
    case kTypeSmallInt:
    case kTypeInt:
    case kTypeUnsignedInt:
    case kTypeLongInt:
      AppendScratch(document, "%s=\"%d\" ", name, value.Read<std::int32_t>());
      return;
    case kTypeFloat:
      AppendScratch(document, "%s=\"%f\" ", name, static_cast<double>(value.Read<float>()));
      return;
    case kTypeDouble:
      AppendScratch(document, "%s=\"%f\" ", name, value.Read<double>());
      return;
    case kTypeSqlChar:
    case kTypeChar:
      AppendScratch(document, "%s=\"%s\" ", name, value.c_str());
      return;
    case kTypeDate:
    case kTypeTime:
    case kTypeDateTime:
      if (const auto text = DateTimeAttributeText(column.type, value)) {
        AppendScratch(document, "%s=\"%s\" ", name, text->c_str());
      }
      return;
    case kTypeBoolean:
      AppendScratch(document, "%s=\"%s\" ", name,
                    value.Read<std::int32_t>() == 1 ? "true" : "false");
      return;
    case kTypeText:
      AppendTextAttribute(document, name, value);
      return;
    default:
      return;
  }
}

void AppendRow(std::string& document, const char* listedName, const TableData& table,
               const RowObject& row) {
  AppendScratch(document, "<%s ", listedName);
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

void AppendTable(std::string& document, const char* listedName) {
  const TableData* table = GetTableDataByName(listedName);
  if (table == nullptr || !table->tableDefn || table->tableDefn->columns().empty()) {
    return;
  }
  for (const auto& row : table->rows) {
    AppendRow(document, listedName, *table, *row);
  }
}

}  // namespace

std::optional<std::string> ConvertDOtoXMLBuffer(std::span<const char* const> tableNames,
                                                const char* rootName) {
  TraceLogMessage("@@@ Inside  ConvertDOtoXMLBuffer @@@\n");
  const char* root = rootName == nullptr ? "" : rootName;
  std::string document;
  try {
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
