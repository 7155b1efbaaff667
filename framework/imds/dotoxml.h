// The XML writer of the store: the current rows of a list of tables as one
// document.
//
// Form, byte for byte: the declaration line, "<ROOT>\n", one line per row
// "<TABLE " + attributes + "/>\n" (each attribute followed by one blank, in
// dictionary column order), "</ROOT>\n". A value equal to its column's default
// and a null value are omitted. Nothing is escaped. Integers are written as
// "%d", FLOAT and DOUBLE as "%f"; types 0, 4, 8, 11, 12, 13, 20, 21 are never
// written. Every attribute is written whole, whatever its length, so the
// document stays well-formed for long names and values.
#pragma once

#include <optional>
#include <span>
#include <string>

namespace tarn {

// The document of the tables named in tableNames (in that order, up to the
// first null entry) under rootName. A name with no loaded table, a table
// without columns or without rows adds nothing. nullopt only when memory ran
// out while copying a TEXT value (logged).
std::optional<std::string> ConvertDOtoXMLBuffer(std::span<const char* const> tableNames,
                                                const char* rootName);

}  // namespace tarn
