// A class's instances as CSV (RFC 4180): one header row of the catalogue's property
// names, one row per instance, CRLF line ends. Cells a spreadsheet would take for a
// formula are neutralised.
#pragma once

#include <string>
#include <string_view>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/inventory.h"

namespace tarn::refserver {

// One cell: a text beginning with = + - @, tab or carriage return gets a leading
// apostrophe (so a spreadsheet shows it as text); then a text holding a comma, a
// double quote, CR or LF is quoted, its quotes doubled.
std::string CsvCell(std::string_view text);

// Columns: the properties any instance has, in id order (as the page's table).
std::string ClassCsv(int classId, const ClassInstances& instances, const Catalogue& catalogue);

// A file name for the download: computer and class name, characters other than
// letters, digits, '.', '-' and '_' replaced by '_'.
std::string CsvFileName(const std::string& computer, const std::string& className);

}  // namespace tarn::refserver
