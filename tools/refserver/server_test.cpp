// The server over loopback HTTP: resource ids, uploads stored and applied, refusals
// that change nothing, and several computers uploading at once.
#include "tools/refserver/server.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tools/refserver/testutil.h"

namespace tarn::refserver::testing {
namespace {

constexpr const char* kXml = "application/xml";  // the scanner's content type, JSON too

std::string ResourcePath(const std::string& computer, const std::string& domain = "macosgroup",
                         const std::string& customer = "1") {
  return "/client-data/" + customer + "/domains/" + domain + "/resources/" + computer + ".xml";
}

// The id in a resource document of the exact form the scanner reads.
long long ResourceIdOf(httplib::Client& client, const std::string& path) {
  const auto answer = client.Get(path.c_str());
  if (!answer || answer->status != 200) return -1;
  EXPECT_TRUE(answer->has_header(kServerHeader));
  std::smatch match;
  const std::regex form(
      "<\\?xml version=\"1\\.0\" encoding=\"UTF-8\"\\?>\n<Tarn>\n"
      "<Agentparams PARAM_NAME=\"RESOURCE_ID\" param_Value=\"(\\d+)\" />\n</Tarn>\n");
  if (!std::regex_match(answer->body, match, form)) {
    ADD_FAILURE() << answer->body;
    return -1;
  }
  return std::stoll(match[1]);
}

JsonValue GetJson(httplib::Client& client, const std::string& path) {
  const auto answer = client.Get(path.c_str());
  if (!answer) throw std::runtime_error("no answer for " + path);
  if (answer->status != 200) {
    throw std::runtime_error(path + " answered " + std::to_string(answer->status));
  }
  return ParseJson(answer->body);
}

// A full inventory with two applications, the OS row, one volume and the computer.
std::vector<Row> SmallMachine() {
  return {{1, 1, 101, "Mac OS X"},
          {1, 1, 102, "10.11.6"},
          {1, 4, 117, "3"},
          {18, 1, 1801, "Safari"},
          {18, 1, 1802, "11.1"},
          {18, 1, 1812, "/Applications/Safari.app"},
          {18, 2, 1801, "Tom &amp; Jerry &lt;HD&gt;"},
          {18, 2, 1812, "/Applications/TJ.app"},
          {18, 3, 1801, "Mac OS X"},
          {18, 3, 1802, "10.11.6"},
          {18, 3, 1814, "OS_EXT"},
          {4, 1, 401, "/"},
          {4, 1, 410, "disk1s1"},
          {20, 1, 2002, "iMac"}};
}

TEST(RefServer, ResourceIdsAreStablePerTripleDistinctAcrossComputersAndKeptOnDisk) {
  TempDir dir;
  long long first = 0;
  {
    RunningServer server(dir.path() / "db.sqlite");
    auto client = server.Client();
    first = ResourceIdOf(*client, ResourcePath("office-mac"));
    ASSERT_GT(first, 0);
    EXPECT_EQ(ResourceIdOf(*client, ResourcePath("office-mac")), first);
    const long long others[] = {ResourceIdOf(*client, ResourcePath("other-mac")),
                                ResourceIdOf(*client, ResourcePath("office-mac", "otherdomain")),
                                ResourceIdOf(*client, ResourcePath("office-mac", "macosgroup", "2"))};
    for (const long long other : others) EXPECT_NE(other, first);
    EXPECT_EQ(std::set<long long>(std::begin(others), std::end(others)).size(), 3u);

    // The scanner's own spelling of the address, and unknown pages, carry the header too.
    EXPECT_EQ(ResourceIdOf(*client, "/" + ResourcePath("office-mac")), first);
    const auto missing = client->Get("/no/such/page");
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->status, 404);
    EXPECT_TRUE(missing->has_header(kServerHeader));
  }
  RunningServer restarted(dir.path() / "db.sqlite");
  EXPECT_EQ(ResourceIdOf(*restarted.Client(), ResourcePath("office-mac")), first);
}

TEST(RefServer, AFullUploadIsStoredWithExactCountsPerClass) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  const auto answer = client->Post(UploadPath("mac", true).c_str(), FullDocument(SmallMachine()), kXml);
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->status, 200) << answer->body;
  EXPECT_TRUE(answer->has_header(kServerHeader));
  EXPECT_NE(answer->body.find("stored: 4 classes, 6 instances, 14 values"), std::string::npos)
      << answer->body;
  // A single slash is accepted as well.
  const auto single = client->Post(UploadPath("mac2", true).substr(1).c_str(),
                                   FullDocument({{20, 1, 2002, "x"}}, "mac2"), kXml);
  ASSERT_TRUE(single);
  EXPECT_EQ(single->status, 200) << single->body;

  const JsonValue list = GetJson(*client, "/api/computers");
  ASSERT_EQ(list.AsArray().size(), 2u);
  const long long id = NumberAt(list.AsArray()[0], "id");
  EXPECT_EQ(NumberAt(list.AsArray()[0], "instanceCount"), 6);
  const JsonValue computer = GetJson(*client, "/computers/" + std::to_string(id) + ".json");
  EXPECT_EQ(computer.Find("name")->AsString(), "mac");
  std::map<long long, long long> counts;
  for (const JsonValue& entry : computer.Find("classes")->AsArray()) {
    counts[NumberAt(entry, "id")] = NumberAt(entry, "instanceCount");
  }
  EXPECT_EQ(counts, (std::map<long long, long long>{{1, 1}, {4, 1}, {18, 3}, {20, 1}}));
  const InventorySets inventory = InventoryOf(computer);
  EXPECT_EQ(inventory.at(1).begin()->at("117"), "3");
  EXPECT_EQ(inventory.at(18).count({{"1801", "Tom & Jerry <HD>"}, {"1812", "/Applications/TJ.app"}}),
            1u);

  // The page names classes and properties from the catalogue and escapes values.
  const auto page = client->Get(("/computers/" + std::to_string(id)).c_str());
  ASSERT_TRUE(page);
  EXPECT_NE(page->body.find("Software</a></td><td class=\"number\">3</td>"), std::string::npos);
  EXPECT_NE(page->body.find("<th title=\"1812\">Location</th>"), std::string::npos);
  EXPECT_NE(page->body.find("Tom &amp; Jerry &lt;HD&gt;"), std::string::npos);
  EXPECT_EQ(page->body.find("<HD>"), std::string::npos);
}

TEST(RefServer, DifferenceUploadsAreAppliedAndKeptInTheHistory) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  ASSERT_EQ(client->Post(UploadPath("mac", true).c_str(), FullDocument(SmallMachine()), kXml)->status,
            200);
  const auto answer = client->Post(UploadPath("mac", false).c_str(), DifferenceDocument(R"(
  "18": {
    "0": {"S-1-1-0": [{"1801": "Slack", "1802": "4.36", "1812": "/Applications/Slack.app"}]},
    "1": {"S-1-1-0": [{"1801": "Tom & Jerry <HD>", "1812": "/Applications/TJ.app"}]},
    "2": {"OS_EXT": [{"1801": "Mac OS X", "1802": "10.11.7", "1814": "-"}],
          "S-1-1-0": [{"1801": "Safari", "1802": "11.2", "1812": "/Applications/Safari.app"}]}
  },
  "4": {"0": [{"401": "/Volumes/USB", "410": "disk2s1"}]},
  "20": {"2": [{"2002": "iMac, renamed"}]})"), kXml);
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->status, 200) << answer->body;
  EXPECT_TRUE(answer->has_header(kServerHeader));
  EXPECT_NE(answer->body.find("applied: 2 added, 1 deleted, 3 modified"), std::string::npos)
      << answer->body;

  const JsonValue computer = GetJson(*client, "/computers/1.json");
  const InventorySets inventory = InventoryOf(computer);
  const InstanceSet software = {
      {{"1801", "Safari"}, {"1802", "11.2"}, {"1812", "/Applications/Safari.app"}},
      {{"1801", "Slack"}, {"1802", "4.36"}, {"1812", "/Applications/Slack.app"}},
      {{"1801", "Mac OS X"}, {"1802", "10.11.7"}, {"1814", "OS_EXT"}}};
  EXPECT_EQ(inventory.at(18), software);
  EXPECT_EQ(inventory.at(4).size(), 2u);
  EXPECT_EQ(inventory.at(20), (InstanceSet{{{"2002", "iMac, renamed"}}}));
  EXPECT_EQ(inventory.at(1).begin()->at("102"), "10.11.6");  // untouched class

  const JsonValue::Array& uploads = computer.Find("uploads")->AsArray();
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(uploads[0].Find("kind")->AsString(), "difference");  // newest first
  EXPECT_EQ(uploads[1].Find("kind")->AsString(), "full");
  std::map<long long, std::vector<long long>> counts;
  for (const JsonValue& entry : uploads[0].Find("classes")->AsArray()) {
    counts[NumberAt(entry, "id")] = {NumberAt(entry, "added"), NumberAt(entry, "deleted"),
                                     NumberAt(entry, "modified"), NumberAt(entry, "instances")};
  }
  EXPECT_EQ(counts, (std::map<long long, std::vector<long long>>{
                        {4, {1, 0, 0, 2}}, {18, {1, 1, 2, 3}}, {20, {0, 0, 1, 1}}}));

  const auto page = client->Get("/computers/1");
  ASSERT_TRUE(page);
  EXPECT_NE(page->body.find("Software added: Slack 4.36</li>"), std::string::npos);
  EXPECT_NE(page->body.find("Software deleted: Tom &amp; Jerry &lt;HD&gt;</li>"),
            std::string::npos);
  EXPECT_NE(page->body.find("Software modified: Mac OS X 10.11.7, Safari 11.2</li>"),
            std::string::npos);
}

TEST(RefServer, BadUploadsAreRefusedWithAReasonAndChangeNothing) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  ASSERT_EQ(client->Post(UploadPath("mac", true).c_str(), FullDocument(SmallMachine()), kXml)->status,
            200);
  ASSERT_GT(ResourceIdOf(*client, ResourcePath("fresh-mac")), 0);  // an id, no inventory yet
  auto state = [&] {
    return client->Get("/api/computers")->body + client->Get("/computers/1.json")->body +
           client->Get("/computers/2.json")->body;
  };
  const std::string before = state();

  const std::string validClass = R"("4": {"0": [{"401": "/Volumes/New"}]})";
  struct Bad {
    const char* name;
    std::string path;
    std::string body;
    int status;
    const char* reason;
  };
  std::string fullPath = UploadPath("mac", true);
  const Bad bad[] = {
      {"malformed XML", fullPath, FullDocument(SmallMachine()).substr(0, 300), 400,
       "full inventory: malformed XML at line"},
      {"XML of the wrong machine class", fullPath, FullDocument({{18, 1, 101, "x"}}), 400,
       "property 101 is not in class 18"},
      {"malformed JSON", UploadPath("mac", false), DifferenceDocument(validClass) + "}", 400,
       "difference: invalid JSON at byte"},
      {"valid class then a bad one", UploadPath("mac", false),
       DifferenceDocument(validClass + R"(, "18": {"0": [{"1801": "x"}]})"), 400,
       "expected an object"},
      {"difference for an unknown computer", UploadPath("stranger", false),
       DifferenceDocument(validClass), 409, "refused: the server holds no full inventory of it yet"},
      {"difference before any full inventory", UploadPath("fresh-mac", false),
       DifferenceDocument(validClass), 409, "no full inventory"},
      {"difference for another domain", UploadPath("mac", false, "elsewhere"),
       DifferenceDocument(validClass), 409, "no full inventory"},
      {"missing computer", std::regex_replace(fullPath, std::regex("computer=mac&"), ""),
       FullDocument(SmallMachine()), 400, "missing query parameter computer"},
      {"missing scan type", std::regex_replace(fullPath, std::regex("&scanType=1"), ""),
       FullDocument(SmallMachine()), 400, "missing query parameter scanType"},
      {"JSON sent as a full upload", fullPath, DifferenceDocument(validClass), 400,
       "full inventory: malformed XML"},
      {"body over the limit", fullPath, std::string(kMaxBodyBytes + 1, ' '), 413,
       "request body larger than"},
  };
  for (const Bad& b : bad) {
    SCOPED_TRACE(b.name);
    const auto answer = client->Post(b.path.c_str(), b.body, kXml);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, b.status);
    EXPECT_NE(answer->body.find(b.reason), std::string::npos) << answer->body;
    EXPECT_EQ(answer->body.find('\n'), answer->body.size() - 1) << "one line: " << answer->body;
    EXPECT_TRUE(answer->has_header(kServerHeader));
    EXPECT_EQ(state(), before);
  }
  // Each refusal is in the access log with its reason.
  const std::vector<std::string> log = server.Log();
  EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& line) {
    return line.find(" 409 ") != std::string::npos && line.find("no full inventory") != std::string::npos;
  }));
}

TEST(RefServer, ComputersUploadingAtOnceAreAllStoredWithoutMixing) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  constexpr int kComputers = 6;
  constexpr int kDifferences = 4;
  std::vector<std::thread> threads;
  std::vector<std::string> failures(kComputers);
  std::vector<long long> ids(kComputers);
  for (int c = 0; c < kComputers; ++c) {
    threads.emplace_back([&, c] {
      const std::string name = "mac" + std::to_string(c);
      auto client = server.Client();
      ids[c] = ResourceIdOf(*client, ResourcePath(name));
      std::vector<Row> rows = SmallMachine();
      rows.push_back({20, 1, 2003, name});
      auto post = [&](const std::string& path, const std::string& body) {
        const auto answer = client->Post(path.c_str(), body, kXml);
        if (!answer || answer->status != 200) failures[c] += path + " failed; ";
      };
      post(UploadPath(name, true), FullDocument(rows, name));
      for (int d = 0; d < kDifferences; ++d) {
        post(UploadPath(name, false),
             DifferenceDocument(R"("18": {"0": {"S-1-1-0": [{"1801": ")" + name + "-app" +
                                std::to_string(d) + R"(", "1812": "/A"}]}})"));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
  EXPECT_EQ(std::set<long long>(ids.begin(), ids.end()).size(), std::size_t{kComputers});

  auto client = server.Client();
  for (int c = 0; c < kComputers; ++c) {
    SCOPED_TRACE(c);
    const std::string name = "mac" + std::to_string(c);
    const JsonValue computer = GetJson(*client, "/computers/" + std::to_string(ids[c]) + ".json");
    EXPECT_EQ(computer.Find("name")->AsString(), name);
    EXPECT_EQ(computer.Find("uploads")->AsArray().size(), std::size_t{1 + kDifferences});
    const InventorySets inventory = InventoryOf(computer);
    EXPECT_EQ(inventory.at(20).begin()->at("2003"), name);
    ASSERT_EQ(inventory.at(18).size(), std::size_t{3 + kDifferences});
    for (const auto& app : inventory.at(18)) {
      const std::string appName = app.at("1801");
      EXPECT_TRUE(appName.rfind("mac", 0) != 0 || appName.rfind(name + "-app", 0) == 0) << appName;
    }
  }
}

}  // namespace
}  // namespace tarn::refserver::testing
