// What a person and a program read from the server: dates instead of epoch numbers,
// JSON with names and one type per field, searching and sorting the computers,
// filtering, paging and CSV export of a class, the inline SVG pictures, and escaping
// of everything that came from an upload.
#include "tools/refserver/pages.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "tools/refserver/testutil.h"

namespace tarn::refserver::testing {
namespace {

constexpr const char* kXml = "application/xml";

std::string Get(httplib::Client& client, const std::string& path, int status = 200) {
  const auto answer = client.Get(path.c_str());
  if (!answer) throw std::runtime_error("no answer for " + path);
  EXPECT_EQ(answer->status, status) << path << "\n" << answer->body.substr(0, 500);
  return answer->body;
}

void Upload(httplib::Client& client, const std::string& path, const std::string& body) {
  const auto answer = client.Post(path.c_str(), body, kXml);
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->status, 200) << answer->body;
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// The text of the element that starts with opening up to its closing tag.
std::string Section(const std::string& html, const std::string& opening,
                    const std::string& closing = "</section>") {
  const auto start = html.find(opening);
  if (start == std::string::npos) return "";
  return html.substr(start, html.find(closing, start) - start);
}

bool IsNumber(const JsonValue* value) {
  return value != nullptr && value->is_number();
}

TEST(Pages, TimesAreIsoDatesOnThePageAndNumbersWithAnIsoTwinInJson) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  Upload(*client, UploadPath("mac", true), FullDocument({{20, 1, 2002, "iMac"}}));
  Upload(*client, UploadPath("mac", false), DifferenceDocument(R"("20": {"2": [{"2002": "x"}]})"));
  // A computer that asked for its id but never uploaded.
  Get(*client, "/client-data/1/domains/macosgroup/resources/idle.xml");

  // 1700000000 and 1700000100 seconds are these instants in UTC.
  const std::string page = Get(*client, "/computers/1");
  const std::string history = Section(page, "<table id=\"history\">", "</table>");
  EXPECT_NE(history.find("2023-11-14T22:13:20Z"), std::string::npos) << history;
  EXPECT_NE(history.find("2023-11-14T22:15:00Z"), std::string::npos) << history;
  EXPECT_EQ(history.find("1700000"), std::string::npos) << history;
  const std::regex iso("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ");
  EXPECT_EQ(std::distance(std::sregex_iterator(history.begin(), history.end(), iso),
                          std::sregex_iterator()),
            5);  // two received, two scan times, one previous scan time

  const JsonValue computer = ParseJson(Get(*client, "/computers/1.json"));
  EXPECT_TRUE(IsNumber(FindMember(computer, "firstSeen")));
  EXPECT_TRUE(std::regex_match(StringAt(computer, "firstSeenUtc"), iso));
  EXPECT_TRUE(IsNumber(FindMember(computer, "lastUpload")));
  const JsonValue& uploads = computer.at("uploads");
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(NumberAt(uploads[0], "scanTime"), 1700000100);
  EXPECT_EQ(StringAt(uploads[0], "scanTimeUtc"), "2023-11-14T22:15:00Z");
  EXPECT_EQ(NumberAt(uploads[0], "previousScanTime"), 1700000000);
  EXPECT_EQ(StringAt(uploads[0], "previousScanTimeUtc"), "2023-11-14T22:13:20Z");
  EXPECT_EQ(NumberAt(uploads[1], "scanTime"), 1700000000);
  // A full upload has no previous scan time: absent, not "" or "0".
  EXPECT_FALSE(uploads[1].contains("previousScanTime"));
  EXPECT_FALSE(uploads[1].contains("previousScanTimeUtc"));
  for (const JsonValue& upload : uploads) {
    EXPECT_TRUE(IsNumber(FindMember(upload, "received")));
    EXPECT_TRUE(std::regex_match(StringAt(upload, "receivedUtc"), iso));
  }

  // A previous scan time of 0 (none known) is no time either.
  std::string unknownPrevious = UploadPath("mac", false);
  unknownPrevious.replace(unknownPrevious.find("prevScanTime=1700000000"), 23, "prevScanTime=0");
  Upload(*client, unknownPrevious, DifferenceDocument(""));
  const JsonValue again = ParseJson(Get(*client, "/computers/1.json"));
  EXPECT_FALSE(again.at("uploads")[0].contains("previousScanTime"));
  const std::string newest =
      Section(Get(*client, "/computers/1"), "<tr><td class=\"number\">3</td>", "</tr>");
  EXPECT_NE(newest.find("2023-11-14T22:15:00Z</td><td class=\"time\">-</td>"), std::string::npos)
      << newest;

  // The computer without uploads has no last upload at all.
  const JsonValue list = ParseJson(Get(*client, "/api/computers"));
  ASSERT_EQ(list.size(), 2u);
  const JsonValue& idle = list[1];
  EXPECT_EQ(StringAt(idle, "name"), "idle");
  EXPECT_EQ(FindMember(idle, "lastUpload"), nullptr);
  EXPECT_EQ(FindMember(idle, "lastUploadUtc"), nullptr);
  EXPECT_EQ(FindMember(idle, "lastKind"), nullptr);
  EXPECT_TRUE(IsNumber(FindMember(list[0], "lastUpload")));
  EXPECT_EQ(StringAt(list[0], "lastKind"), "difference");
}

TEST(Pages, JsonNamesPropertiesAndClassesNextToTheirIds) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  Upload(*client, UploadPath("mac", true),
         FullDocument({{18, 1, 1801, "Safari"}, {18, 1, 1812, "/Applications/Safari.app"},
                       {18, 2, 1801, "Mail"}, {18, 2, 1802, "9.3"}, {20, 1, 2002, "iMac"}}));
  Upload(*client, UploadPath("mac", false), DifferenceDocument(R"(
  "18": {"1": {"S-1-1-0": [{"1801": "Mail", "1802": "9.3"}]}})"));

  const JsonValue computer = ParseJson(Get(*client, "/computers/1.json"));
  const JsonValue& software = computer.at("classes")[0];
  EXPECT_EQ(StringAt(software, "name"), "Software");
  std::vector<std::pair<long long, std::string>> properties;
  ASSERT_NE(FindMember(software, "properties"), nullptr);
  for (const JsonValue& property : software.at("properties")) {
    properties.emplace_back(NumberAt(property, "id"), StringAt(property, "name"));
  }
  // The properties the class's instances have, in id order.
  EXPECT_EQ(properties, (std::vector<std::pair<long long, std::string>>{
                            {1801, "Name"}, {1812, "Location"}}));
  const JsonValue& change = computer.at("uploads")[0].at("changes")[0];
  EXPECT_EQ(NumberAt(change, "classId"), 18);
  EXPECT_EQ(StringAt(change, "className"), "Software");
  EXPECT_EQ(StringAt(change, "label"), "Mail 9.3");
}

// The rows of the computer list, as the names in their order.
std::vector<std::string> ListedNames(const std::string& page) {
  std::vector<std::string> names;
  const std::regex link("<a href=\"/computers/\\d+\">([^<]*)</a>");
  for (auto it = std::sregex_iterator(page.begin(), page.end(), link);
       it != std::sregex_iterator(); ++it) {
    names.push_back((*it)[1]);
  }
  return names;
}

TEST(Pages, TheComputerListIsSearchedByNameDomainOrCustomerAndSortedByAnyColumn) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  Get(*client, "/client-data/acme-7/domains/sales/resources/Bravo.xml");
  Get(*client, "/client-data/1/domains/lab/resources/alpha-mac.xml");
  Upload(*client, UploadPath("charlie", true, "sales"),
         FullDocument({{18, 1, 1801, "A"}, {18, 2, 1801, "B"}}, "charlie"));

  EXPECT_EQ(ListedNames(Get(*client, "/")),
            (std::vector<std::string>{"Bravo", "alpha-mac", "charlie"}));
  EXPECT_EQ(ListedNames(Get(*client, "/?q=ALPHA")), (std::vector<std::string>{"alpha-mac"}));
  EXPECT_EQ(ListedNames(Get(*client, "/?q=sale")),
            (std::vector<std::string>{"Bravo", "charlie"}));
  EXPECT_EQ(ListedNames(Get(*client, "/?q=acme")), (std::vector<std::string>{"Bravo"}));
  const std::string none = Get(*client, "/?q=%3Cnobody%3E");
  EXPECT_TRUE(ListedNames(none).empty());
  EXPECT_NE(none.find("value=\"&lt;nobody&gt;\""), std::string::npos);
  EXPECT_EQ(none.find("<nobody>"), std::string::npos);

  // Names sort without letter case; numbers as numbers; ties by id.
  EXPECT_EQ(ListedNames(Get(*client, "/?sort=name")),
            (std::vector<std::string>{"alpha-mac", "Bravo", "charlie"}));
  EXPECT_EQ(ListedNames(Get(*client, "/?sort=name&order=desc")),
            (std::vector<std::string>{"charlie", "Bravo", "alpha-mac"}));
  EXPECT_EQ(ListedNames(Get(*client, "/?sort=instances&order=desc")),
            (std::vector<std::string>{"charlie", "Bravo", "alpha-mac"}));
  EXPECT_EQ(ListedNames(Get(*client, "/?sort=domain&q=a")),
            (std::vector<std::string>{"alpha-mac", "Bravo", "charlie"}));
  // An unknown column falls back to the id order; the search stays in the links.
  EXPECT_EQ(ListedNames(Get(*client, "/?sort=%22nope")),
            (std::vector<std::string>{"Bravo", "alpha-mac", "charlie"}));
  const std::string sorted = Get(*client, "/?q=a%26b&sort=name");
  EXPECT_NE(sorted.find("href=\"/?q=a%26b&amp;sort=name&amp;order=desc\""), std::string::npos)
      << Section(sorted, "<table", "</table>");
}

// A full inventory with count applications named app-1 ... app-<count>.
std::string ManyApplications(int count) {
  std::vector<Row> rows = {{20, 1, 2002, "iMac"}};
  for (int i = 1; i <= count; ++i) {
    rows.push_back({18, i, 1801, "app-" + std::to_string(i)});
    rows.push_back({18, i, 1812, "/Applications/app-" + std::to_string(i) + ".app"});
  }
  return FullDocument(rows);
}

std::size_t ClassRows(const std::string& page, int classId) {
  return Count(Section(page, "<section class=\"class\" id=\"class-" + std::to_string(classId)),
               "<tr><td class=\"number\">");
}

TEST(Pages, LongClassesArePagedAndFilteredOnTheComputerPage) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  Upload(*client, UploadPath("mac", true), ManyApplications(250));

  const std::string first = Get(*client, "/computers/1");
  EXPECT_EQ(ClassRows(first, 18), 100u);
  const std::string software = Section(first, "<section class=\"class\" id=\"class-18\"");
  EXPECT_NE(software.find(">app-100<"), std::string::npos);
  EXPECT_EQ(software.find(">app-101<"), std::string::npos);
  EXPECT_NE(software.find("rows 1 to 100 of 250"), std::string::npos) << software;
  EXPECT_NE(software.find("href=\"/computers/1?page-18=2#class-18\""), std::string::npos);
  EXPECT_EQ(ClassRows(first, 20), 1u);

  const std::string last = Get(*client, "/computers/1?page-18=3");
  EXPECT_EQ(ClassRows(last, 18), 50u);
  EXPECT_NE(last.find(">app-250<"), std::string::npos);
  // Past the end or not a number: the nearest page.
  EXPECT_EQ(ClassRows(Get(*client, "/computers/1?page-18=99"), 18), 50u);
  EXPECT_EQ(ClassRows(Get(*client, "/computers/1?page-18=x"), 18), 100u);

  // The filter matches any value, without letter case, and pages what matches.
  const std::string filtered = Get(*client, "/computers/1?filter-18=APP-12");
  EXPECT_EQ(ClassRows(filtered, 18), 11u);  // app-12, app-120 ... app-129
  const std::string box = Section(filtered, "<form class=\"filter\"", "</form>");
  EXPECT_NE(box.find("name=\"filter-18\" value=\"APP-12\""), std::string::npos) << box;
  EXPECT_NE(Section(filtered, "<section class=\"class\" id=\"class-18\"")
                .find("11 of 250 instances match"),
            std::string::npos);
  EXPECT_EQ(ClassRows(Get(*client, "/computers/1?filter-18=.app&page-18=3"), 18), 50u);
  // Another class's filter is kept by this class's form.
  const std::string both = Get(*client, "/computers/1?filter-20=imac&filter-18=app-2");
  EXPECT_EQ(ClassRows(both, 20), 1u);
  EXPECT_NE(Section(both, "<section class=\"class\" id=\"class-18\"")
                .find("<input type=\"hidden\" name=\"filter-20\" value=\"imac\">"),
            std::string::npos);
  EXPECT_EQ(ClassRows(Get(*client, "/computers/1?filter-20=nothing"), 20), 0u);
}

TEST(Pages, ClassesAreExportedAsCsvWithNamedColumnsQuotingAndNoFormulas) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  Upload(*client, UploadPath("mac", true),
         FullDocument({{18, 1, 1801, "Tom, &quot;Jerry&quot;"},
                       {18, 1, 1802, "line&#10;break"},
                       {18, 2, 1801, "=HYPERLINK(&quot;http://x&quot;)"},
                       {18, 2, 1812, "@SUM(A1)"},
                       {18, 3, 1801, "+1"},
                       {18, 3, 1802, "-2"},
                       {18, 4, 1801, "a=b"},
                       {18, 4, 1812, "&#9;tab"}}));

  const auto answer = client->Get("/computers/1/classes/18.csv");
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->status, 200);
  EXPECT_EQ(answer->get_header_value("Content-Type"), "text/csv; charset=utf-8");
  EXPECT_EQ(answer->get_header_value("Content-Disposition"),
            "attachment; filename=\"mac-Software.csv\"");
  EXPECT_EQ(answer->body,
            "Name,Version,Location\r\n"
            "\"Tom, \"\"Jerry\"\"\",\"line\nbreak\",\r\n"
            "\"'=HYPERLINK(\"\"http://x\"\")\",,'@SUM(A1)\r\n"
            "'+1,'-2,\r\n"
            "a=b,,'\ttab\r\n");

  const std::string page = Get(*client, "/computers/1");
  EXPECT_NE(Section(page, "<section class=\"class\" id=\"class-18\"")
                .find("href=\"/computers/1/classes/18.csv\""),
            std::string::npos);
  Get(*client, "/computers/1/classes/4.csv", 404);
  Get(*client, "/computers/9/classes/18.csv", 404);
}

TEST(Pages, VolumesMemorySlotsAndChangesAreDrawnAndUploadTextIsEscapedInTheSvg) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  Upload(*client, UploadPath("mac", true),
         FullDocument({{4, 1, 401, "/"}, {4, 1, 406, "1000"}, {4, 1, 407, "250"},
                       {4, 2, 401, "&lt;svg onload=alert(1)&gt;"}, {4, 2, 406, "-"},
                       {4, 2, 407, "-"},
                       {27, 1, 2702, "8589934592"}, {27, 1, 2704, "BANK 0/DIMM0"},
                       {27, 1, 2708, "Physical Memory 0"},
                       {27, 2, 2702, "8589934592"}, {27, 2, 2704, "&lt;b&gt;BANK&quot;1"},
                       {27, 2, 2708, "Physical Memory 2"},
                       {18, 1, 1801, "A"}, {18, 1, 1812, "/a"}}));
  Upload(*client, UploadPath("mac", false), DifferenceDocument(R"(
  "18": {"0": {"S-1-1-0": [{"1801": "B", "1812": "/b"}, {"1801": "C", "1812": "/c"}]},
         "1": {"S-1-1-0": [{"1801": "A", "1812": "/a"}]}})"));
  Upload(*client, UploadPath("mac", false), DifferenceDocument(R"(
  "18": {"2": {"S-1-1-0": [{"1801": "B", "1802": "2", "1812": "/b"}]}})"));

  const std::string page = Get(*client, "/computers/1");
  const std::string volumes = Section(page, "<section id=\"volumes\">");
  // 750 of 1000 bytes used.
  EXPECT_NE(volumes.find("<rect class=\"used\" width=\"75%\""), std::string::npos) << volumes;
  EXPECT_EQ(Count(volumes, "<svg"), 1u);  // the volume without sizes gets no bar
  EXPECT_NE(volumes.find("&lt;svg onload=alert(1)&gt;"), std::string::npos);
  EXPECT_EQ(page.find("<svg onload"), std::string::npos);

  const std::string memory = Section(page, "<section id=\"memory\">");
  EXPECT_EQ(Count(memory, "class=\"slot filled\""), 2u) << memory;
  EXPECT_EQ(Count(memory, "class=\"slot empty\""), 1u);
  EXPECT_NE(memory.find("<title>&lt;b&gt;BANK&quot;1: 8 GiB</title>"), std::string::npos);
  EXPECT_EQ(page.find("<b>BANK"), std::string::npos);

  // One group of three bars per difference upload, oldest first, with the counts.
  const std::string chart = Section(page, "<svg id=\"change-chart\"", "</svg>");
  EXPECT_EQ(Count(chart, "<g class=\"upload\""), 2u) << chart;
  const auto second = chart.find("<title>Upload 2");
  const auto third = chart.find("<title>Upload 3");
  ASSERT_NE(second, std::string::npos) << chart;
  ASSERT_NE(third, std::string::npos);
  EXPECT_LT(second, third);
  EXPECT_NE(chart.find("2 added, 1 deleted, 0 modified"), std::string::npos);
  EXPECT_NE(chart.find("0 added, 0 deleted, 1 modified"), std::string::npos);
}

TEST(Pages, PagesDeclareAViewportAndKeepWideTablesInTheirOwnScrollBox) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  Upload(*client, UploadPath("mac", true), FullDocument({{20, 1, 2002, "iMac"}}));
  for (const std::string path : {"/", "/computers/1"}) {
    const std::string page = Get(*client, path);
    EXPECT_NE(page.find("<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"),
              std::string::npos);
    // Every table sits in a box that scrolls sideways by itself.
    EXPECT_EQ(Count(page, "<table"), Count(page, "<div class=\"scroll\"><table")) << path;
  }
}

}  // namespace
}  // namespace tarn::refserver::testing
