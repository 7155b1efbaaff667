#include "tools/refserver/pages.h"

#include <cstdio>
#include <ctime>
#include <set>

#include "tools/refserver/json.h"

namespace tarn::refserver {

namespace {

constexpr const char* kStyle = R"css(
body { font-family: sans-serif; margin: 1.5em; color: #222; }
table { border-collapse: collapse; margin: 0.5em 0 1.2em; }
th, td { border: 1px solid #bbb; padding: 2px 8px; text-align: left; vertical-align: top; }
th { background: #eee; }
td.number { text-align: right; }
.added { color: #1a7f37; } .deleted { color: #b3261e; } .modified { color: #8a5a00; }
.note { color: #666; font-size: 90%; }
h3 { margin-bottom: 0.2em; }
)css";

std::string Time(std::int64_t seconds) {
  if (seconds <= 0) return "-";
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
  return text;
}

const char* ChangeWord(Change change) {
  switch (change) {
    case Change::kAdded: return "added";
    case Change::kDeleted: return "deleted";
    case Change::kModified: return "modified";
  }
  return "changed";
}

std::string Head(const std::string& title) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" +
         HtmlEscape(title) + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n";
}

std::string Cell(const std::string& text) { return "<td>" + HtmlEscape(text) + "</td>"; }
std::string NumberCell(std::int64_t value) {
  return "<td class=\"number\">" + std::to_string(value) + "</td>";
}

std::string ClassCounts(const ComputerDetails& computer, const Catalogue& catalogue) {
  std::string html =
      "<h2>Inventory</h2>\n<table id=\"classes\">\n<tr><th>Class</th><th>Name</th>"
      "<th>Instances</th></tr>\n";
  for (const auto& [classId, instances] : computer.inventory) {
    html += "<tr id=\"count-" + std::to_string(classId) + "\">" + NumberCell(classId) +
            "<td><a href=\"#class-" + std::to_string(classId) + "\">" +
            HtmlEscape(catalogue.ClassName(classId)) + "</a></td>" +
            NumberCell(static_cast<std::int64_t>(instances.size())) + "</tr>\n";
  }
  return html + "</table>\n";
}

std::string ChangeLists(const UploadRecord& upload, const Catalogue& catalogue) {
  std::string html = "<ul>\n";
  for (const Change change : {Change::kAdded, Change::kDeleted, Change::kModified}) {
    for (const auto& [classId, counts] : upload.classes) {
      std::string names;
      for (const ChangedItem& item : upload.items) {
        if (item.classId != classId || item.change != change) continue;
        names += (names.empty() ? "" : ", ") + HtmlEscape(item.label);
      }
      if (names.empty()) continue;
      html += "<li class=\"" + std::string(ChangeWord(change)) + "\">" +
              HtmlEscape(catalogue.ClassName(classId)) + " " + ChangeWord(change) + ": " +
              names + "</li>\n";
    }
  }
  return html + "</ul>\n";
}

std::string Changes(const ComputerDetails& computer, const Catalogue& catalogue) {
  std::string html = "<h2>Changes from difference scans</h2>\n";
  bool any = false;
  for (const UploadRecord& upload : computer.uploads) {
    if (upload.kind != "difference") continue;
    any = true;
    html += "<section class=\"difference\" id=\"upload-" + std::to_string(upload.id) +
            "\">\n<h3>Upload " + std::to_string(upload.id) + ", received " +
            Time(upload.received) + "</h3>\n<table>\n<tr><th>Class</th><th>Added</th>"
            "<th>Deleted</th><th>Modified</th><th>Not matching</th><th>Instances now</th></tr>\n";
    for (const auto& [classId, entry] : upload.classes) {
      html += "<tr>" + Cell(catalogue.ClassName(classId)) + NumberCell(entry.changes.added) +
              NumberCell(entry.changes.deleted) + NumberCell(entry.changes.modified) +
              NumberCell(entry.changes.unmatched) + NumberCell(entry.instances) + "</tr>\n";
    }
    html += "</table>\n" + ChangeLists(upload, catalogue) + "</section>\n";
  }
  if (!any) html += "<p class=\"note\">No difference upload yet.</p>\n";
  return html;
}

std::string History(const ComputerDetails& computer) {
  std::string html =
      "<h2>Upload history</h2>\n<table id=\"history\">\n<tr><th>Upload</th><th>Received</th>"
      "<th>Kind</th><th>Audit id</th><th>Resource id</th><th>Scan time</th>"
      "<th>Previous scan time</th><th>On demand</th><th>Body bytes</th><th>Classes</th></tr>\n";
  for (const UploadRecord& upload : computer.uploads) {
    html += "<tr>" + NumberCell(upload.id) + Cell(Time(upload.received)) + Cell(upload.kind) +
            Cell(upload.auditId) + Cell(upload.resourceId) + Cell(upload.scanTime) +
            Cell(upload.previousScanTime) + Cell(upload.onDemand ? "yes" : "no") +
            NumberCell(upload.bodySize) +
            NumberCell(static_cast<std::int64_t>(upload.classes.size())) + "</tr>\n";
  }
  return html + "</table>\n";
}

std::string ClassTable(int classId, const ClassInstances& instances, const Catalogue& catalogue) {
  // Columns: the properties any instance has, in catalogue (ascending id) order.
  std::set<int> columns;
  for (const auto& [number, instance] : instances) {
    for (const auto& [propertyId, value] : instance) columns.insert(propertyId);
  }
  std::string html = "<section class=\"class\" id=\"class-" + std::to_string(classId) +
                     "\">\n<h3>" + HtmlEscape(catalogue.ClassName(classId)) + " (class " +
                     std::to_string(classId) + "): " + std::to_string(instances.size()) +
                     (instances.size() == 1 ? " instance" : " instances") +
                     "</h3>\n<table>\n<tr><th>#</th>";
  for (const int propertyId : columns) {
    html += "<th title=\"" + std::to_string(propertyId) + "\">" +
            HtmlEscape(catalogue.PropertyName(classId, propertyId)) + "</th>";
  }
  html += "</tr>\n";
  for (const auto& [number, instance] : instances) {
    html += "<tr>" + NumberCell(number);
    for (const int propertyId : columns) {
      const auto value = instance.find(propertyId);
      html += value != instance.end() ? Cell(value->second) : "<td></td>";
    }
    html += "</tr>\n";
  }
  return html + "</table>\n</section>\n";
}

void AppendMember(std::string& out, std::string_view key) {
  AppendJsonString(out, key);
  out += ':';
}

void AppendStringMember(std::string& out, std::string_view key, std::string_view value) {
  AppendMember(out, key);
  AppendJsonString(out, value);
}

void AppendNumberMember(std::string& out, std::string_view key, std::int64_t value) {
  AppendMember(out, key);
  out += std::to_string(value);
}

void AppendSummary(std::string& out, const ComputerSummary& summary) {
  AppendNumberMember(out, "id", summary.id);
  out += ',';
  AppendStringMember(out, "name", summary.name);
  out += ',';
  AppendStringMember(out, "domain", summary.domain);
  out += ',';
  AppendStringMember(out, "customerId", summary.customerId);
  out += ',';
  AppendNumberMember(out, "firstSeen", summary.firstSeen);
  out += ',';
  AppendNumberMember(out, "uploadCount", summary.uploads);
  out += ',';
  AppendNumberMember(out, "lastUpload", summary.lastUpload);
  out += ',';
  AppendStringMember(out, "lastKind", summary.lastKind);
  out += ',';
  AppendNumberMember(out, "classCount", summary.classes);
  out += ',';
  AppendNumberMember(out, "instanceCount", summary.instances);
}

void AppendInventoryJson(std::string& out, const Inventory& inventory, const Catalogue& catalogue) {
  out += '[';
  bool firstClass = true;
  for (const auto& [classId, instances] : inventory) {
    out += firstClass ? "{" : ",{";
    firstClass = false;
    AppendNumberMember(out, "id", classId);
    out += ',';
    AppendStringMember(out, "name", catalogue.ClassName(classId));
    out += ',';
    AppendNumberMember(out, "instanceCount", static_cast<std::int64_t>(instances.size()));
    out += ",\"instances\":[";
    bool firstInstance = true;
    for (const auto& [number, instance] : instances) {
      out += firstInstance ? "{" : ",{";
      firstInstance = false;
      AppendNumberMember(out, "number", number);
      out += ",\"values\":{";
      bool firstValue = true;
      for (const auto& [propertyId, value] : instance) {
        if (!firstValue) out += ',';
        firstValue = false;
        AppendStringMember(out, std::to_string(propertyId), value);
      }
      out += "}}";
    }
    out += "]}";
  }
  out += ']';
}

void AppendUploadJson(std::string& out, const UploadRecord& upload, const Catalogue& catalogue) {
  out += '{';
  AppendNumberMember(out, "id", upload.id);
  out += ',';
  AppendNumberMember(out, "received", upload.received);
  out += ',';
  AppendStringMember(out, "kind", upload.kind);
  out += ',';
  AppendStringMember(out, "auditId", upload.auditId);
  out += ',';
  AppendStringMember(out, "resourceId", upload.resourceId);
  out += ',';
  AppendStringMember(out, "scanTime", upload.scanTime);
  out += ',';
  AppendStringMember(out, "previousScanTime", upload.previousScanTime);
  out += ",\"onDemand\":";
  out += upload.onDemand ? "true" : "false";
  out += ',';
  AppendNumberMember(out, "bodySize", upload.bodySize);
  out += ",\"classes\":[";
  bool first = true;
  for (const auto& [classId, entry] : upload.classes) {
    out += first ? "{" : ",{";
    first = false;
    AppendNumberMember(out, "id", classId);
    out += ',';
    AppendStringMember(out, "name", catalogue.ClassName(classId));
    out += ',';
    AppendNumberMember(out, "instances", entry.instances);
    out += ',';
    AppendNumberMember(out, "added", entry.changes.added);
    out += ',';
    AppendNumberMember(out, "deleted", entry.changes.deleted);
    out += ',';
    AppendNumberMember(out, "modified", entry.changes.modified);
    out += ',';
    AppendNumberMember(out, "unmatched", entry.changes.unmatched);
    out += '}';
  }
  out += "],\"changes\":[";
  first = true;
  for (const ChangedItem& item : upload.items) {
    out += first ? "{" : ",{";
    first = false;
    AppendNumberMember(out, "classId", item.classId);
    out += ',';
    AppendStringMember(out, "change", ChangeWord(item.change));
    out += ',';
    AppendStringMember(out, "label", item.label);
    out += '}';
  }
  out += "]}";
}

}  // namespace

std::string HtmlEscape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string ComputerListPage(const std::vector<ComputerSummary>& computers) {
  std::string html = Head("Computers - Tarn reference server") +
                     "<h1>Computers</h1>\n<table id=\"computers\">\n<tr><th>Resource id</th>"
                     "<th>Computer</th><th>Domain</th><th>Customer</th><th>Classes</th>"
                     "<th>Instances</th><th>Uploads</th><th>Last upload</th></tr>\n";
  for (const ComputerSummary& computer : computers) {
    html += "<tr>" + NumberCell(computer.id) + "<td><a href=\"/computers/" +
            std::to_string(computer.id) + "\">" + HtmlEscape(computer.name) + "</a></td>" +
            Cell(computer.domain) + Cell(computer.customerId) + NumberCell(computer.classes) +
            NumberCell(computer.instances) + NumberCell(computer.uploads) +
            Cell(computer.lastKind.empty() ? "none"
                                           : computer.lastKind + ", " + Time(computer.lastUpload)) +
            "</tr>\n";
  }
  if (computers.empty()) html += "<tr><td colspan=\"8\">No computer yet.</td></tr>\n";
  return html + "</table>\n<p class=\"note\">JSON: <a href=\"/api/computers\">/api/computers</a></p>\n"
                "</body>\n</html>\n";
}

std::string ComputerPage(const ComputerDetails& computer, const Catalogue& catalogue) {
  const ComputerSummary& summary = computer.summary;
  std::string html = Head(summary.name + " - Tarn reference server");
  html += "<p><a href=\"/\">All computers</a> | <a href=\"/computers/" +
          std::to_string(summary.id) + ".json\">JSON</a></p>\n<h1 id=\"computer\">" +
          HtmlEscape(summary.name) + "</h1>\n<p>Resource id " + std::to_string(summary.id) +
          ", domain " + HtmlEscape(summary.domain) + ", customer " +
          HtmlEscape(summary.customerId) + "; first seen " + Time(summary.firstSeen) + "; " +
          std::to_string(summary.uploads) + " uploads; " + std::to_string(summary.classes) +
          " classes, " + std::to_string(summary.instances) + " instances.</p>\n";
  html += ClassCounts(computer, catalogue);
  html += Changes(computer, catalogue);
  html += History(computer);
  html += "<h2>Instances</h2>\n";
  for (const auto& [classId, instances] : computer.inventory) {
    html += ClassTable(classId, instances, catalogue);
  }
  html += "<h2>Agent parameters of the last upload</h2>\n<table id=\"agent-params\">\n";
  for (const auto& [name, value] : computer.agentParams) {
    html += "<tr>" + Cell(name) + Cell(value) + "</tr>\n";
  }
  return html + "</table>\n</body>\n</html>\n";
}

std::string ComputerJson(const ComputerDetails& computer, const Catalogue& catalogue) {
  std::string out = "{";
  AppendSummary(out, computer.summary);
  out += ",\"classes\":";
  AppendInventoryJson(out, computer.inventory, catalogue);
  // Parameters as a list of pairs: an upload may repeat a name.
  out += ",\"agentParams\":[";
  bool first = true;
  for (const auto& [name, value] : computer.agentParams) {
    out += first ? "{" : ",{";
    first = false;
    AppendStringMember(out, "name", name);
    out += ',';
    AppendStringMember(out, "value", value);
    out += '}';
  }
  out += "],\"uploads\":[";
  first = true;
  for (const UploadRecord& upload : computer.uploads) {
    if (!first) out += ',';
    first = false;
    AppendUploadJson(out, upload, catalogue);
  }
  return out + "]}\n";
}

std::string ComputerListJson(const std::vector<ComputerSummary>& computers) {
  std::string out = "[";
  for (std::size_t i = 0; i < computers.size(); ++i) {
    out += i == 0 ? "{" : ",{";
    AppendSummary(out, computers[i]);
    out += '}';
  }
  return out + "]\n";
}

std::string ComputerReport(const ComputerDetails& computer, const Catalogue& catalogue) {
  const ComputerSummary& summary = computer.summary;
  std::string text = "Computer " + summary.name + " (resource id " + std::to_string(summary.id) +
                     ", domain " + summary.domain + ", customer " + summary.customerId + ")\n";
  text += "  " + std::to_string(summary.uploads) + " uploads" +
          (summary.lastKind.empty() ? "" : ", last: " + summary.lastKind + " at " +
                                               Time(summary.lastUpload)) + "\n";
  text += "  Inventory: " + std::to_string(summary.classes) + " classes, " +
          std::to_string(summary.instances) + " instances\n";
  for (const auto& [classId, instances] : computer.inventory) {
    char line[160];
    std::snprintf(line, sizeof line, "    %4d  %-22s %6zu\n", classId,
                  catalogue.ClassName(classId).c_str(), instances.size());
    text += line;
  }
  for (const UploadRecord& upload : computer.uploads) {
    if (upload.kind != "difference") continue;
    text += "  Difference upload " + std::to_string(upload.id) + ", received " +
            Time(upload.received) + ":\n";
    for (const auto& [classId, entry] : upload.classes) {
      text += "    " + catalogue.ClassName(classId) + ": " + std::to_string(entry.changes.added) +
              " added, " + std::to_string(entry.changes.deleted) + " deleted, " +
              std::to_string(entry.changes.modified) + " modified" +
              (entry.changes.unmatched > 0
                   ? ", " + std::to_string(entry.changes.unmatched) + " not matching"
                   : "") +
              "\n";
      for (const ChangedItem& item : upload.items) {
        if (item.classId != classId) continue;
        char line[32];
        std::snprintf(line, sizeof line, "      %-9s ", ChangeWord(item.change));
        text += line + item.label + "\n";
      }
    }
  }
  return text;
}

std::string MessagePage(const std::string& title, const std::string& message) {
  return Head(title) + "<h1>" + HtmlEscape(title) + "</h1>\n<p>" + HtmlEscape(message) +
         "</p>\n<p><a href=\"/\">All computers</a></p>\n</body>\n</html>\n";
}

}  // namespace tarn::refserver
