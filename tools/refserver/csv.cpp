#include "tools/refserver/csv.h"

#include "tools/refserver/pages.h"

namespace tarn::refserver {

namespace {

void AppendRow(std::string& out, const std::vector<std::string>& cells) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i > 0) out += ',';
    out += CsvCell(cells[i]);
  }
  out += "\r\n";
}

std::string SafeName(const std::string& text) {
  std::string safe;
  for (const char c : text) {
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == '_';
    safe += plain ? c : '_';
  }
  return safe;
}

}  // namespace

std::string CsvCell(std::string_view text) {
  std::string cell;
  if (!text.empty() && std::string_view("=+-@\t\r").find(text.front()) != std::string_view::npos) {
    cell += '\'';
  }
  cell += text;
  if (cell.find_first_of(",\"\r\n") == std::string::npos) return cell;
  std::string quoted = "\"";
  for (const char c : cell) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

std::string ClassCsv(int classId, const ClassInstances& instances, const Catalogue& catalogue) {
  const std::vector<int> columns = PropertyColumns(instances);
  std::vector<std::string> cells;
  for (const int propertyId : columns) cells.push_back(catalogue.PropertyName(classId, propertyId));
  std::string out;
  AppendRow(out, cells);
  for (const auto& [number, instance] : instances) {
    cells.clear();
    for (const int propertyId : columns) {
      const auto value = instance.find(propertyId);
      cells.push_back(value != instance.end() ? value->second : "");
    }
    AppendRow(out, cells);
  }
  return out;
}

std::string CsvFileName(const std::string& computer, const std::string& className) {
  return SafeName(computer) + "-" + SafeName(className) + ".csv";
}

}  // namespace tarn::refserver
