#include "tools/refserver/pages.h"

#include <cstdio>
#include <ctime>
#include <set>

#include "tools/refserver/json.h"
#include "tools/refserver/svg.h"

namespace tarn::refserver {

namespace {

// Laid out for a phone as for a desktop: the page is never wider than the screen;
// tables (and the chart) scroll sideways inside their own box.
constexpr const char* kStyle = R"css(
body { font-family: sans-serif; margin: 1.5em; color: #222; }
h1, h2, h3, p, li { overflow-wrap: anywhere; }
.scroll { overflow-x: auto; max-width: 100%; margin: 0.5em 0 1.2em; }
table { border-collapse: collapse; }
th, td { border: 1px solid #bbb; padding: 2px 8px; text-align: left; vertical-align: top; }
th { background: #eee; }
th a { color: inherit; }
td.number { text-align: right; }
.added { color: #1a7f37; } .deleted { color: #b3261e; } .modified { color: #8a5a00; }
.note { color: #666; font-size: 90%; }
h3 { margin-bottom: 0.2em; }
form { margin: 0.4em 0; }
input[type=search] { max-width: 100%; font-size: 100%; }
.pages a, .pages span { margin-right: 0.8em; }
td.time { white-space: nowrap; }
.volume p { margin: 0.6em 0 0.2em; }
svg.bar { display: block; max-width: 40em; border: 1px solid #aaa; }
.slots { display: flex; flex-wrap: wrap; gap: 0.6em; }
.slot-box { margin: 0; text-align: center; font-size: 85%; }
.key { display: inline-block; width: 0.9em; height: 0.9em; vertical-align: middle; }
@media (max-width: 600px) { body { margin: 0.6em; } }
)css";

// A time cell: ISO 8601 UTC, or "-" when there is none.
std::string Time(std::int64_t seconds) {
  const std::string iso = IsoTime(seconds);
  return iso.empty() ? "-" : iso;
}

// A scan time as the query gave it (digits): the date when it is one, else the text.
std::string ScanTime(const std::string& text) {
  if (text.empty()) return "-";
  const auto seconds = WholeNumber(text);
  if (!seconds) return text;
  const std::string iso = IsoTime(*seconds);
  return !iso.empty() ? iso : *seconds <= 0 ? "-" : text;
}

// A table in its own sideways-scrolling box.
std::string Table(const std::string& attributes, const std::string& rows) {
  return "<div class=\"scroll\"><table" + attributes + ">\n" + rows + "</table></div>\n";
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
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
         HtmlEscape(title) + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n";
}

std::string Cell(const std::string& text) { return "<td>" + HtmlEscape(text) + "</td>"; }
std::string TimeCell(const std::string& text) {
  return "<td class=\"time\">" + HtmlEscape(text) + "</td>";
}
std::string NumberCell(std::int64_t value) {
  return "<td class=\"number\">" + std::to_string(value) + "</td>";
}

std::string ClassCounts(const ComputerDetails& computer, const Catalogue& catalogue) {
  std::string rows = "<tr><th>Class</th><th>Name</th><th>Instances</th></tr>\n";
  for (const auto& [classId, instances] : computer.inventory) {
    rows += "<tr id=\"count-" + std::to_string(classId) + "\">" + NumberCell(classId) +
            "<td><a href=\"#class-" + std::to_string(classId) + "\">" +
            HtmlEscape(catalogue.ClassName(classId)) + "</a></td>" +
            NumberCell(static_cast<std::int64_t>(instances.size())) + "</tr>\n";
  }
  return "<h2>Inventory</h2>\n" + Table(" id=\"classes\"", rows);
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
  const std::string chart = ChangeChart(computer.uploads);
  if (!chart.empty()) {
    html += "<p class=\"note\">Instances per difference upload: <span class=\"added\">&#9632; "
            "added</span> <span class=\"deleted\">&#9632; deleted</span> "
            "<span class=\"modified\">&#9632; modified</span></p>\n<div class=\"scroll\">" +
            chart + "</div>\n";
  }
  bool any = false;
  for (const UploadRecord& upload : computer.uploads) {
    if (upload.kind != "difference") continue;
    any = true;
    html += "<section class=\"difference\" id=\"upload-" + std::to_string(upload.id) +
            "\">\n<h3>Upload " + std::to_string(upload.id) + ", received " +
            Time(upload.received) + "</h3>\n";
    std::string rows =
        "<tr><th>Class</th><th>Added</th><th>Deleted</th><th>Modified</th><th>Not matching</th>"
        "<th>Instances now</th></tr>\n";
    for (const auto& [classId, entry] : upload.classes) {
      rows += "<tr>" + Cell(catalogue.ClassName(classId)) + NumberCell(entry.changes.added) +
              NumberCell(entry.changes.deleted) + NumberCell(entry.changes.modified) +
              NumberCell(entry.changes.unmatched) + NumberCell(entry.instances) + "</tr>\n";
    }
    html += Table("", rows) + ChangeLists(upload, catalogue) + "</section>\n";
  }
  if (!any) html += "<p class=\"note\">No difference upload yet.</p>\n";
  return html;
}

std::string History(const ComputerDetails& computer) {
  std::string rows =
      "<tr><th>Upload</th><th>Received</th><th>Kind</th><th>Audit id</th><th>Resource id</th>"
      "<th>Scan time</th><th>Previous scan time</th><th>On demand</th><th>Body bytes</th>"
      "<th>Classes</th></tr>\n";
  for (const UploadRecord& upload : computer.uploads) {
    rows += "<tr>" + NumberCell(upload.id) + TimeCell(Time(upload.received)) +
            Cell(upload.kind) + Cell(upload.auditId) + Cell(upload.resourceId) +
            TimeCell(ScanTime(upload.scanTime)) + TimeCell(ScanTime(upload.previousScanTime)) +
            Cell(upload.onDemand ? "yes" : "no") +
            NumberCell(upload.bodySize) +
            NumberCell(static_cast<std::int64_t>(upload.classes.size())) + "</tr>\n";
  }
  return "<h2>Upload history</h2>\n" + Table(" id=\"history\"", rows);
}

// The filter box of a class; it keeps the other classes' filters and pages.
std::string FilterForm(int classId, const std::string& path, const ClassView& view,
                       const QueryParameters& query) {
  std::string html = "<form class=\"filter\" method=\"get\" action=\"" +
                     HtmlEscape(path + "#class-" + std::to_string(classId)) + "\">";
  for (const auto& [name, value] : OtherClassParameters(classId, query)) {
    html += "<input type=\"hidden\" name=\"" + HtmlEscape(name) + "\" value=\"" +
            HtmlEscape(value) + "\">";
  }
  return html + "<label>Filter <input type=\"search\" name=\"" + FilterParameter(classId) +
         "\" value=\"" + HtmlEscape(view.filter) + "\"></label> <button>Filter</button></form>\n";
}

// Which rows are shown, and links to the other pages of the class.
std::string PageLinks(int classId, const std::string& path, const ClassView& view,
                      std::size_t total, const QueryParameters& query) {
  std::string html = "<p class=\"pages\">";
  if (!view.filter.empty()) {
    html += "<span>" + std::to_string(view.matching) + " of " + std::to_string(total) +
            " instances match</span>";
  }
  if (view.pages > 1) {
    const std::size_t first = (view.page - 1) * kRowsPerPage + 1;
    html += "<span>rows " + std::to_string(first) + " to " +
            std::to_string(first + view.rows.size() - 1) + " of " +
            std::to_string(view.matching) + "</span>";
    auto link = [&](std::size_t page, const char* text) {
      QueryList parameters = OtherClassParameters(classId, query);
      if (!view.filter.empty()) parameters.emplace_back(FilterParameter(classId), view.filter);
      parameters.emplace_back(PageParameter(classId), std::to_string(page));
      return "<a href=\"" + HtmlEscape(Link(path, parameters)) + "#class-" +
             std::to_string(classId) + "\">" + text + "</a>";
    };
    if (view.page > 1) html += link(view.page - 1, "&larr; previous");
    html += "<span>page " + std::to_string(view.page) + " of " + std::to_string(view.pages) +
            "</span>";
    if (view.page < view.pages) html += link(view.page + 1, "next &rarr;");
  }
  return html + "</p>\n";
}

// Classes with more instances than this get a filter box.
constexpr std::size_t kFilterFrom = 10;

std::string ClassTable(std::int64_t computerId, int classId, const ClassInstances& instances,
                       const Catalogue& catalogue, const QueryParameters& query) {
  const std::string path = "/computers/" + std::to_string(computerId);
  const ClassView view = ViewClass(classId, instances, query);
  const std::vector<int> columns = PropertyColumns(instances);
  std::string html = "<section class=\"class\" id=\"class-" + std::to_string(classId) +
                     "\">\n<h3>" + HtmlEscape(catalogue.ClassName(classId)) + " (class " +
                     std::to_string(classId) + "): " + std::to_string(instances.size()) +
                     (instances.size() == 1 ? " instance" : " instances") +
                     "</h3>\n<p class=\"note\"><a href=\"" + path + "/classes/" +
                     std::to_string(classId) + ".csv\">CSV</a></p>\n";
  if (instances.size() > kFilterFrom || !view.filter.empty()) {
    html += FilterForm(classId, path, view, query);
  }
  if (!view.filter.empty() || view.pages > 1) {
    html += PageLinks(classId, path, view, instances.size(), query);
  }
  std::string rows = "<tr><th>#</th>";
  for (const int propertyId : columns) {
    rows += "<th title=\"" + std::to_string(propertyId) + "\">" +
            HtmlEscape(catalogue.PropertyName(classId, propertyId)) + "</th>";
  }
  rows += "</tr>\n";
  for (const auto* entry : view.rows) {
    const auto& [number, instance] = *entry;
    rows += "<tr>" + NumberCell(number);
    for (const int propertyId : columns) {
      const auto value = instance.find(propertyId);
      rows += value != instance.end() ? Cell(value->second) : "<td></td>";
    }
    rows += "</tr>\n";
  }
  return html + Table("", rows) + "</section>\n";
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

// ,"<key>":<seconds>,"<key>Utc":"<ISO time>" — nothing when there is no such time.
void AppendTimeMembers(std::string& out, std::string_view key, std::int64_t seconds) {
  const std::string iso = IsoTime(seconds);
  if (iso.empty()) return;
  out += ',';
  AppendNumberMember(out, key, seconds);
  out += ',';
  AppendStringMember(out, std::string(key) + "Utc", iso);
}

// The same for a scan time as the query gave it (digits).
void AppendScanTimeMembers(std::string& out, std::string_view key, const std::string& text) {
  if (const auto seconds = WholeNumber(text)) AppendTimeMembers(out, key, *seconds);
}

void AppendSummary(std::string& out, const ComputerSummary& summary) {
  AppendNumberMember(out, "id", summary.id);
  out += ',';
  AppendStringMember(out, "name", summary.name);
  out += ',';
  AppendStringMember(out, "domain", summary.domain);
  out += ',';
  AppendStringMember(out, "customerId", summary.customerId);
  AppendTimeMembers(out, "firstSeen", summary.firstSeen);
  out += ',';
  AppendNumberMember(out, "uploadCount", summary.uploads);
  AppendTimeMembers(out, "lastUpload", summary.lastUpload);
  if (!summary.lastKind.empty()) {
    out += ',';
    AppendStringMember(out, "lastKind", summary.lastKind);
  }
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
    out += ",\"properties\":[";
    bool firstProperty = true;
    for (const int propertyId : PropertyColumns(instances)) {
      out += firstProperty ? "{" : ",{";
      firstProperty = false;
      AppendNumberMember(out, "id", propertyId);
      out += ',';
      AppendStringMember(out, "name", catalogue.PropertyName(classId, propertyId));
      out += '}';
    }
    out += "],\"instances\":[";
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
  AppendTimeMembers(out, "received", upload.received);
  out += ',';
  AppendStringMember(out, "kind", upload.kind);
  out += ',';
  AppendStringMember(out, "auditId", upload.auditId);
  if (!upload.resourceId.empty()) {
    out += ',';
    AppendStringMember(out, "resourceId", upload.resourceId);
  }
  AppendScanTimeMembers(out, "scanTime", upload.scanTime);
  AppendScanTimeMembers(out, "previousScanTime", upload.previousScanTime);
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
    AppendStringMember(out, "className", catalogue.ClassName(item.classId));
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

std::string IsoTime(std::int64_t seconds) {
  if (seconds <= 0) return "";
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  if (gmtime_r(&time, &parts) == nullptr || parts.tm_year > 9999 - 1900) return "";
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

std::vector<int> PropertyColumns(const ClassInstances& instances) {
  std::set<int> columns;
  for (const auto& [number, instance] : instances) {
    for (const auto& [propertyId, value] : instance) columns.insert(propertyId);
  }
  return {columns.begin(), columns.end()};
}

std::string ComputerListPage(const std::vector<ComputerSummary>& all,
                             const QueryParameters& parameters) {
  const ListQuery query = ReadListQuery(parameters);
  const std::vector<ComputerSummary> computers = SelectComputers(all, query);
  std::string html = Head("Computers - Tarn reference server") +
                     "<h1>Computers</h1>\n<form class=\"search\" method=\"get\" action=\"/\">"
                     "<label>Search name, domain or customer <input type=\"search\" name=\"q\" "
                     "value=\"" + HtmlEscape(query.search) + "\"></label>";
  if (query.sort != "id") {
    html += "<input type=\"hidden\" name=\"sort\" value=\"" + query.sort + "\">";
  }
  if (query.descending) html += "<input type=\"hidden\" name=\"order\" value=\"desc\">";
  html += " <button>Search</button></form>\n";
  if (!query.search.empty()) {
    html += "<p class=\"note\">" + std::to_string(computers.size()) + " of " +
            std::to_string(all.size()) + " computers match.</p>\n";
  }
  // Each heading sorts by its column; the sorted one again turns the order round.
  static constexpr std::pair<const char*, const char*> kHeadings[] = {
      {"id", "Resource id"}, {"name", "Computer"},     {"domain", "Domain"},
      {"customer", "Customer"}, {"classes", "Classes"}, {"instances", "Instances"},
      {"uploads", "Uploads"},   {"last", "Last upload"}};
  std::string rows = "<tr>";
  for (const auto& [column, heading] : kHeadings) {
    QueryList link;
    if (!query.search.empty()) link.emplace_back("q", query.search);
    link.emplace_back("sort", column);
    const bool sorted = query.sort == column;
    if (sorted && !query.descending) link.emplace_back("order", "desc");
    rows += std::string("<th><a href=\"") + HtmlEscape(Link("/", link)) + "\">" + heading +
            "</a>" + (sorted ? (query.descending ? " &#9660;" : " &#9650;") : "") + "</th>";
  }
  rows += "</tr>\n";
  for (const ComputerSummary& computer : computers) {
    rows += "<tr>" + NumberCell(computer.id) + "<td><a href=\"/computers/" +
            std::to_string(computer.id) + "\">" + HtmlEscape(computer.name) + "</a></td>" +
            Cell(computer.domain) + Cell(computer.customerId) + NumberCell(computer.classes) +
            NumberCell(computer.instances) + NumberCell(computer.uploads) +
            Cell(computer.lastKind.empty() ? "none"
                                           : computer.lastKind + ", " + Time(computer.lastUpload)) +
            "</tr>\n";
  }
  if (computers.empty()) {
    rows += std::string("<tr><td colspan=\"8\">") +
            (all.empty() ? "No computer yet." : "No computer matches.") + "</td></tr>\n";
  }
  return html + Table(" id=\"computers\"", rows) +
         "<p class=\"note\">JSON: <a href=\"/api/computers\">/api/computers</a></p>\n"
         "</body>\n</html>\n";
}

std::string ComputerPage(const ComputerDetails& computer, const Catalogue& catalogue,
                         const QueryParameters& query) {
  const ComputerSummary& summary = computer.summary;
  std::string html = Head(summary.name + " - Tarn reference server");
  html += "<p><a href=\"/\">All computers</a> | <a href=\"/computers/" +
          std::to_string(summary.id) + ".json\">JSON</a></p>\n<h1 id=\"computer\">" +
          HtmlEscape(summary.name) + "</h1>\n<p>Resource id " + std::to_string(summary.id) +
          ", domain " + HtmlEscape(summary.domain) + ", customer " +
          HtmlEscape(summary.customerId) + "; first seen " + Time(summary.firstSeen) + "; " +
          std::to_string(summary.uploads) + " uploads; " + std::to_string(summary.classes) +
          " classes, " + std::to_string(summary.instances) + " instances.</p>\n";
  html += VolumeSection(computer.inventory);
  html += MemorySection(computer.inventory);
  html += ClassCounts(computer, catalogue);
  html += Changes(computer, catalogue);
  html += History(computer);
  html += "<h2>Instances</h2>\n";
  for (const auto& [classId, instances] : computer.inventory) {
    html += ClassTable(summary.id, classId, instances, catalogue, query);
  }
  std::string params;
  for (const auto& [name, value] : computer.agentParams) {
    params += "<tr>" + Cell(name) + Cell(value) + "</tr>\n";
  }
  return html + "<h2>Agent parameters of the last upload</h2>\n" +
         Table(" id=\"agent-params\"", params) + "</body>\n</html>\n";
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
