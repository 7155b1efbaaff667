// The server over loopback HTTP: resource ids, uploads stored and applied, refusals
// that change nothing, several computers uploading at once, differences sent twice,
// bounded bodies, slow clients, a port in use and what reaches the access log.
#include "tools/refserver/server.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <chrono>
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
  ASSERT_EQ(list.size(), 2u);
  const long long id = NumberAt(list[0], "id");
  EXPECT_EQ(NumberAt(list[0], "instanceCount"), 6);
  const JsonValue computer = GetJson(*client, "/computers/" + std::to_string(id) + ".json");
  EXPECT_EQ(StringAt(computer, "name"), "mac");
  std::map<long long, long long> counts;
  for (const JsonValue& entry : computer.at("classes")) {
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

  const JsonValue& uploads = computer.at("uploads");
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(StringAt(uploads[0], "kind"), "difference");  // newest first
  EXPECT_EQ(StringAt(uploads[1], "kind"), "full");
  std::map<long long, std::vector<long long>> counts;
  for (const JsonValue& entry : uploads[0].at("classes")) {
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
    EXPECT_EQ(StringAt(computer, "name"), name);
    EXPECT_EQ(computer.at("uploads").size(), std::size_t{1 + kDifferences});
    const InventorySets inventory = InventoryOf(computer);
    EXPECT_EQ(inventory.at(20).begin()->at("2003"), name);
    ASSERT_EQ(inventory.at(18).size(), std::size_t{3 + kDifferences});
    for (const auto& app : inventory.at(18)) {
      const std::string appName = app.at("1801");
      EXPECT_TRUE(appName.rfind("mac", 0) != 0 || appName.rfind(name + "-app", 0) == 0) << appName;
    }
  }
}


// A loopback TCP connection made by hand, for requests no HTTP client would send.
class RawConnection {
 public:
  explicit RawConnection(int port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = fd_ >= 0 &&
                 ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawConnection() {
    if (fd_ >= 0) ::close(fd_);
  }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return connected_; }
  // False once the server no longer takes bytes.
  bool Send(const std::string& text) {
    return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }
  // True while the server has neither answered nor closed the connection.
  bool Waiting() {
    char byte = 0;
    return ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
           (errno == EAGAIN || errno == EWOULDBLOCK);
  }
  // Everything the server sends until it closes the connection.
  std::string ReadAll() {
    std::string text;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::recv(fd_, buffer, sizeof buffer, 0)) > 0) text.append(buffer, got);
    return text;
  }

 private:
  int fd_;
  bool connected_ = false;
};

// size bytes of spaces, gzip-compressed.
std::string GzipOfSpaces(std::size_t size) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 9, Z_RLE),
            Z_OK);
  std::string input(1 << 20, ' ');
  std::string output;
  char buffer[1 << 16];
  for (std::size_t done = 0; done < size; done += input.size()) {
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    const int flush = done + input.size() >= size ? Z_FINISH : Z_NO_FLUSH;
    do {
      stream.next_out = reinterpret_cast<Bytef*>(buffer);
      stream.avail_out = sizeof buffer;
      deflate(&stream, flush);
      output.append(buffer, sizeof buffer - stream.avail_out);
    } while (stream.avail_out == 0);
  }
  deflateEnd(&stream);
  return output;
}

TEST(RefServer, ADifferenceSentAgainIsAcceptedButNotAppliedTwice) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  ASSERT_EQ(client->Post(UploadPath("mac", true).c_str(), FullDocument(SmallMachine()), kXml)->status,
            200);
  const std::string printer = R"("25": {"0": [{"2501": "Office Laser", "2502": "PCL 6"}]})";
  const auto first = client->Post(UploadPath("mac", false).c_str(), DifferenceDocument(printer), kXml);
  ASSERT_TRUE(first);
  ASSERT_EQ(first->status, 200) << first->body;
  // The answer was lost: the scanner sends the same difference again, later.
  const std::string later =
      std::regex_replace(UploadPath("mac", false), std::regex("currScanTime=\\d+"),
                         "currScanTime=1700000200");
  for (const std::string& path : {UploadPath("mac", false), later}) {
    const auto again = client->Post(path.c_str(), DifferenceDocument(printer), kXml);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status, 200);
    EXPECT_EQ(again->body, "difference for mac already applied as upload 2, not applied again "
                           "(computer 1, upload 2)\n");
  }
  JsonValue computer = GetJson(*client, "/computers/1.json");
  EXPECT_EQ(InventoryOf(computer).at(25),
            (InstanceSet{{{"2501", "Office Laser"}, {"2502", "PCL 6"}}}));
  EXPECT_EQ(computer.at("uploads").size(), 2u);

  // Another difference from the same scan (the machine changed meanwhile) is applied,
  // and its addition of the held printer replaces it.
  const auto changed = client->Post(
      UploadPath("mac", false).c_str(),
      DifferenceDocument(R"("25": {"0": [{"2501": "Office Laser", "2502": "PCL 6e"}]},
                            "4": {"1": [{"401": "/", "410": "disk1s1"}]})"),
      kXml);
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->status, 200);
  computer = GetJson(*client, "/computers/1.json");
  EXPECT_EQ(InventoryOf(computer).at(25),
            (InstanceSet{{{"2501", "Office Laser"}, {"2502", "PCL 6e"}}}));
  EXPECT_EQ(InventoryOf(computer).count(4), 0u);
  EXPECT_EQ(computer.at("uploads").size(), 3u);

  // After a new full inventory, the old difference is one to apply again.
  ASSERT_EQ(client->Post(UploadPath("mac", true).c_str(), FullDocument(SmallMachine()), kXml)->status,
            200);
  const auto afterFull =
      client->Post(UploadPath("mac", false).c_str(), DifferenceDocument(printer), kXml);
  ASSERT_TRUE(afterFull);
  EXPECT_NE(afterFull->body.find("applied: 1 added"), std::string::npos) << afterFull->body;
}

TEST(RefServer, BodiesAreCappedOnceDecodedWhateverTheirEncoding) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  ASSERT_EQ(client->Post(UploadPath("mac", true).c_str(), FullDocument(SmallMachine()), kXml)->status,
            200);
  const std::string before = client->Get("/computers/1.json")->body;
  constexpr std::size_t kSent = 200u << 20;

  // Chunked: the server stops reading at the cap, so the client cannot send it all.
  std::size_t provided = 0;
  const std::string block(1 << 20, ' ');
  const auto chunked = client->Post(
      UploadPath("mac", true).c_str(),
      [&](std::size_t, httplib::DataSink& sink) {
        if (provided >= kSent) {
          sink.done();
          return true;
        }
        provided += block.size();
        return sink.write(block.data(), block.size());
      },
      kXml);
  if (chunked) {
    EXPECT_EQ(chunked->status, 413) << chunked->body;
  }
  EXPECT_LT(provided, kSent / 2);

  // Compressed: 200 MiB of spaces in a fraction of a megabyte.
  const std::string gzip = GzipOfSpaces(kSent);
  ASSERT_LT(gzip.size(), std::size_t{1} << 20);
  auto fresh = server.Client();
  const auto compressed = fresh->Post(UploadPath("mac", true).c_str(),
                                      {{"Content-Encoding", "gzip"}}, gzip, kXml);
  ASSERT_TRUE(compressed);
  EXPECT_EQ(compressed->status, 413);
  EXPECT_EQ(compressed->body, "request body larger than " + std::to_string(kMaxBodyBytes) +
                                  " bytes\n");

  // Pages take no body: a chunked one is refused before it is read.
  RawConnection raw(server.port());
  ASSERT_TRUE(raw.connected());
  ASSERT_TRUE(raw.Send("GET /api/computers HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"));
  std::size_t sent = 0;
  const std::string chunk = "100000\r\n" + block + "\r\n";
  while (sent < kSent && raw.Send(chunk)) sent += block.size();
  EXPECT_LT(sent, kSent / 2);
  EXPECT_EQ(server.Client()->Get("/computers/1.json")->body, before);
}

TEST(RefServer, SlowClientsDoNotHoldUpANormalRequest) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 64; ++i) {
    slow.push_back(std::make_unique<RawConnection>(server.port()));
    ASSERT_TRUE(slow.back()->connected());
    slow.back()->Send("GET / HTTP/1.1\r\nHost: x\r\n");
  }
  // Each sends a header line now and then, well within any read timeout.
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    for (int round = 0; !done; ++round) {
      for (auto& connection : slow) connection->Send("X-Slow-" + std::to_string(round) + ": 1\r\n");
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  // The answer comes while every slow client is still being served: no worker had to be
  // freed by dropping one (the client's own timeout only keeps a broken server from hanging
  // the test).
  auto client = server.Client();
  client->set_connection_timeout(10, 0);
  client->set_read_timeout(10, 0);
  const auto answer = client->Get("/api/computers");
  std::size_t stillWaiting = 0;
  for (auto& connection : slow) stillWaiting += connection->Waiting() ? 1 : 0;
  done = true;
  trickle.join();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(stillWaiting, slow.size());
}

TEST(RefServer, APortInUseIsRefused) {
  TempDir dir;
  RunningServer first(dir.path() / "first.sqlite");
  Store store((dir.path() / "second.sqlite").string());
  RefServer second(store, ShippedCatalogue(), nullptr);
  try {
    second.Bind("127.0.0.1", first.port());
    ADD_FAILURE() << "a second server bound port " << first.port();
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              "cannot listen on 127.0.0.1:" + std::to_string(first.port()) + ": the port is in use");
  }
}

TEST(RefServer, ControlCharactersFromClientsReachTheLogEscaped) {
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  auto client = server.Client();
  // A computer name that would retitle and clear the terminal the log is shown in.
  const auto answer = client->Post(UploadPath("evil%1B%5D0%3Bowned%07%1B%5B2J", false).c_str(),
                                   DifferenceDocument(""), kXml);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 409);
  // The line is written once the answer is sent.
  std::vector<std::string> log;
  for (int wait = 0; wait < 500 && log.empty(); ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    log = server.Log();
  }
  ASSERT_FALSE(log.empty());
  EXPECT_NE(log.back().find("difference for evil\\x1b]0;owned\\x07\\x1b[2J (domain"),
            std::string::npos)
      << log.back();
  for (const std::string& line : log) {
    EXPECT_TRUE(std::none_of(line.begin(), line.end(),
                             [](char c) { return static_cast<unsigned char>(c) < 0x20; }))
        << line;
  }
}

}  // namespace
}  // namespace tarn::refserver::testing
