// The built scanner against what a local user, a planted file or a hostile server can do: a
// second scanner, links in its folders, folders others can write, the server's certificate,
// the server's documents, values that carry URL or log syntax, volume names that are paths.
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/agent_folder.h"
#include "tests/inventory_server.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;
using Keys = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kStopLine =
    "int main(int, const char**) [Line 57] main : stopping inventory scan\n";

std::string Machine(const std::string& name) {
  return std::string(TARN_SOURCE_DIR) + "/testdata/machines/" + name;
}

// agent-conf.plist replaying a recorded machine, with more keys whose values are written as
// they stand (property-list XML).
void ConfigureValues(const AgentFolder& agent, const std::string& machine, const Keys& values) {
  std::string body =
      "\t<key>Loglevel</key><integer>3</integer>\n"
      "\t<key>TOOL_REPLAY_DIRECTORY</key><string>" +
      machine + "</string>\n";
  for (const auto& [key, value] : values) body += "\t<key>" + key + "</key>" + value + "\n";
  AgentFolder::WritePlist(agent.data() / "agent-conf.plist", body);
}

std::string Text(const std::string& value) { return "<string>" + value + "</string>"; }

// agent-conf.plist replaying a recorded machine, with more text keys.
void Configure(const AgentFolder& agent, const std::string& machine, const Keys& keys = {}) {
  Keys values;
  for (const auto& [key, value] : keys) values.emplace_back(key, Text(value));
  ConfigureValues(agent, machine, values);
}

// Server details as AgentFolder::ServeAt writes them, with a customer id and domain of the
// test's choosing (texts as they stand in the property list, XML escapes included).
void ServeAs(const AgentFolder& agent, int port, const std::string& customerId,
             const std::string& domain) {
  AgentFolder::WritePlist(agent.data() / "serverinfo.plist",
                          "\t<key>tarnlastaccessname</key><string>127.0.0.1</string>\n"
                          "\t<key>SERVERPROTOCOL</key><string>http</string>\n"
                          "\t<key>SERVERPORT</key><string>" +
                              std::to_string(port) +
                              "</string>\n"
                              "\t<key>CUSTOMERID</key><string>" +
                              customerId +
                              "</string>\n"
                              "\t<key>REMOTEOFFICEID</key><string>301</string>\n"
                              "\t<key>MAC_DOMAIN</key><string>" +
                              domain + "</string>\n");
  fs::remove(agent.data() / "dupserverinfo.plist");
}

bool Contains(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

std::size_t Occurrences(const std::string& text, const std::string& piece) {
  std::size_t count = 0;
  for (auto at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++count;
  return count;
}

// ---- One scanner at a time.

// A process that runs a copy of /bin/sleep under the given name (so its process name is that
// name), as the given user; killed and reaped with the object.
class NamedSleeper {
 public:
  NamedSleeper(const fs::path& folder, const std::string& name, uid_t uid) {
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
    const fs::path copy = folder / name;
    fs::copy_file("/bin/sleep", copy, fs::copy_options::overwrite_existing);
    fs::permissions(copy, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    const bool otherUser = uid != ::geteuid();
    pid_ = ::fork();
    if (pid_ == 0) {
      if (otherUser && (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0)) {
        ::_exit(126);
      }
      ::execl(copy.c_str(), name.c_str(), "30", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    // Running under its name once the exec is done.
    for (int wait = 0; wait < 200 && CommOf(pid_) != name.substr(0, 15); ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  ~NamedSleeper() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  NamedSleeper(const NamedSleeper&) = delete;
  NamedSleeper& operator=(const NamedSleeper&) = delete;

 private:
  static std::string CommOf(pid_t pid) {
    std::string comm = ReadFileText("/proc/" + std::to_string(pid) + "/comm");
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    return comm;
  }
  pid_t pid_ = -1;
};

TEST(SecuritySingleInstance, ASecondRealScanFromAnyAgentFolderExitsAtOnceAndWritesNothing) {
  for (const bool sameFolder : {true, false}) {
    SCOPED_TRACE(sameFolder ? "same agent folder" : "another agent folder");
    AgentFolder agent("sec-second");
    Configure(agent, Machine("macbook-sample"));
    InventoryServer server;
    server.SetResourceAnswer(Answer::kSlow);  // the first scan waits for its resource id
    agent.ServeAt(server.port());
    const pid_t first = agent.Start({"assetscan"});
    for (int wait = 0; wait < 500 && server.Requests().empty(); ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_FALSE(server.Requests().empty()) << "the first scan never asked for its id";
    const std::string scanLog = agent.ScanLog();
    const std::string accessLog = agent.AccessLog();

    // The scanner installed in a second agent folder runs under the same name.
    AgentFolder other("sec-second-other", agent.scannerName());
    Configure(other, Machine("macbook-sample"));
    other.WriteResourceId("42");
    other.ServeAt(server.port());
    const AgentFolder& second = sameFolder ? agent : other;
    const ScannerResult result = second.Run({"assetscan"}, std::chrono::seconds(20));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(agent.ScanLog(), scanLog);
    EXPECT_EQ(agent.AccessLog(), accessLog);
    EXPECT_FALSE(fs::exists(other.logs()));
    EXPECT_FALSE(fs::exists(other.data() / "tarninventory.lock"));
    EXPECT_EQ(server.Requests().size(), 1u);

    ::kill(first, SIGKILL);
    agent.Wait(first);
  }
}

TEST(SecuritySingleInstance, OnlyThisUsersProcessesOfTheScannersNameCount) {
  struct Case {
    const char* name;
    uid_t uid;
    int exitCode;
  };
  const Case cases[] = {{"another user", 65534, 0}, {"this user", ::geteuid(), 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.uid != ::geteuid() && ::geteuid() != 0) continue;  // needs root
    AgentFolder agent("sec-uid");
    Configure(agent, Machine("macbook-sample"));
    agent.WriteResourceId("42");
    InventoryServer server;
    agent.ServeAt(server.port());
    // Started from elsewhere; this agent folder's lock is free.
    const NamedSleeper sleeper(agent.base() / "other", agent.scannerName(), c.uid);
    const ScannerResult result = agent.Run({"assetscan"});
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_EQ(server.Uploads().size(), c.exitCode == 0 ? 1u : 0u);
    if (c.exitCode != 0) {
      EXPECT_FALSE(fs::exists(agent.logs()));
      EXPECT_FALSE(fs::exists(agent.data() / "tarninventory.lock"));
      EXPECT_FALSE(Contains(result.standardError, kStopLine));
    }
  }
}

// ---- The run's own files and folders.

TEST(SecurityFiles, FoldersOthersCanWriteStopTheRunBeforeAnythingIsWritten) {
  struct Case {
    const char* name;
    const char* folder;
    fs::perms mode;
    bool otherOwner;
  };
  const fs::perms ownerAll = fs::perms::owner_all;
  const Case cases[] = {
      {"logs writable by all", "logs", ownerAll | fs::perms::others_all, false},
      {"logs writable by the group", "logs", ownerAll | fs::perms::group_all, false},
      {"data writable by the group", "data", ownerAll | fs::perms::group_all, false},
      {"logs of another owner", "logs", ownerAll, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.otherOwner && ::geteuid() != 0) continue;
    AgentFolder agent("sec-folders");
    Configure(agent, Machine("macbook-sample"));
    agent.WriteResourceId("42");
    InventoryServer server;
    agent.ServeAt(server.port());
    const fs::path folder = agent.base() / c.folder;
    fs::create_directories(folder);
    fs::permissions(folder, c.mode);
    if (c.otherOwner) {
      ASSERT_EQ(::chown(folder.c_str(), 65534, 65534), 0);
    }

    const ScannerResult result = agent.Run({"assetscan"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(Contains(
        result.standardError,
        "main : " + folder.string() + " is writable by group or others or not owned by this user;"))
        << result.standardError;
    EXPECT_TRUE(Contains(result.standardError, kStopLine));
    EXPECT_TRUE(!fs::exists(agent.logs()) || fs::is_empty(agent.logs()));
    EXPECT_FALSE(fs::exists(agent.data() / "tarninventory_data.plist"));
    EXPECT_FALSE(fs::exists(agent.data() / "tarninventory.lock"));
    EXPECT_TRUE(server.Requests().empty());
  }
}

TEST(SecurityFiles, AFolderThatIsALinkStopsTheRunEvenWhenItLeadsNowhere) {
  struct Case {
    const char* name;
    const char* folder;
    bool dangling;
  };
  const Case cases[] = {{"logs leading nowhere", "logs", true},
                        {"logs leading to a private folder", "logs", false},
                        {"data leading to a private folder", "data", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AgentFolder agent("sec-folder-link");
    Configure(agent, Machine("macbook-sample"));
    agent.WriteResourceId("42");
    InventoryServer server;
    agent.ServeAt(server.port());
    const fs::path folder = agent.base() / c.folder;
    const fs::path target = agent.base() / "elsewhere";
    if (fs::exists(folder)) fs::rename(folder, target);
    if (!c.dangling) {
      fs::create_directories(target);
      fs::permissions(target, fs::perms::owner_all);
    }
    fs::create_directory_symlink(target, folder);
    const auto entriesBefore =
        c.dangling ? 0 : std::distance(fs::directory_iterator(target), fs::directory_iterator());

    const ScannerResult result = agent.Run({"assetscan"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(
        Contains(result.standardError,
                 "main : " + folder.string() + " is a link; refusing to log or keep data there\n"))
        << result.standardError;
    EXPECT_TRUE(Contains(result.standardError, kStopLine));
    EXPECT_EQ(fs::exists(target), !c.dangling);
    if (!c.dangling) {
      EXPECT_EQ(std::distance(fs::directory_iterator(target), fs::directory_iterator()),
                entriesBefore);
    }
    EXPECT_TRUE(server.Requests().empty());
  }
}

TEST(SecurityFiles, LinksPlantedWhereTheRunWritesAreNeverWrittenThrough) {
  AgentFolder agent("sec-links");
  Configure(agent, Machine("macbook-sample"));
  agent.WriteResourceId("42");
  InventoryServer server;
  agent.ServeAt(server.port());
  fs::create_directories(agent.logs());
  fs::permissions(agent.logs(), fs::perms::owner_all);
  const fs::path precious = agent.base() / "precious";
  WriteFileText(precious, "keep me");
  fs::create_symlink(precious, agent.logs() / "tarndevicescan.log");
  fs::create_hard_link(precious, agent.logs() / "tarndevicescanaccess.log");
  fs::create_symlink(precious, agent.data() / "tarninventory_data.plist");
  fs::create_symlink(agent.base() / "dangling", agent.data() / "invFullData");

  EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  EXPECT_EQ(ReadFileText(precious), "keep me");
  EXPECT_FALSE(fs::exists(agent.base() / "dangling"));
  EXPECT_TRUE(fs::is_symlink(agent.logs() / "tarndevicescan.log"));
  // The state store and the snapshot are written whole and replace the links.
  EXPECT_FALSE(fs::is_symlink(agent.data() / "tarninventory_data.plist"));
  EXPECT_FALSE(fs::is_symlink(agent.data() / "invFullData"));
  EXPECT_EQ(server.Uploads().size(), 1u);
}

// ---- The server's certificate.

// The base64 SHA-256 pin of a certificate's public key, as libcurl takes it.
std::string PinOf(const fs::path& certificate) {
  const fs::path out = certificate.string() + ".pin";
  const std::string command = "openssl x509 -in '" + certificate.string() +
                              "' -pubkey -noout | openssl pkey -pubin -outform der | "
                              "openssl dgst -sha256 -binary | base64 > '" +
                              out.string() + "'";
  if (std::system(command.c_str()) != 0) return "";
  std::string pin = ReadFileText(out);
  while (!pin.empty() && pin.back() == '\n') pin.pop_back();
  return "sha256//" + pin;
}

TEST(SecurityTls, TheConfiguredCertificateChecksDecideEveryRequest) {
  AgentFolder keys("sec-tls-keys");
  fs::create_directories(keys.base() / "other");
  const SelfSignedCertificate certificate(keys.base());
  const SelfSignedCertificate other(keys.base() / "other");
  ASSERT_TRUE(certificate.made() && other.made());
  const std::string pin = PinOf(certificate.certificate());
  const std::string otherPin = PinOf(other.certificate());
  ASSERT_EQ(pin.size(), 52u);
  ASSERT_NE(pin, otherPin);

  // Every value of every key, against a server with a self-signed certificate: only no key
  // (or checks turned off), the server's own certificate as CA, or its exact pin let the scan
  // through. Values are property-list XML.
  const std::string ca = Text(certificate.certificate().string());
  struct Case {
    const char* name;
    Keys values;
    bool accepted;
  };
  const Case cases[] = {
      {"no key: any certificate", {}, true},
      {"checks off as 0", {{"TLS_VERIFY", Text("0")}}, true},
      {"checks off as No", {{"TLS_VERIFY", Text("No")}}, true},
      {"checks off as false", {{"TLS_VERIFY", "<false/>"}}, true},
      {"checks off as integer 0", {{"TLS_VERIFY", "<integer>0</integer>"}}, true},
      {"the server's own certificate as CA file", {{"TLS_CA_FILE", ca}}, true},
      {"the CA file, checks on as yes", {{"TLS_CA_FILE", ca}, {"TLS_VERIFY", Text("yes")}}, true},
      {"another CA file", {{"TLS_CA_FILE", Text(other.certificate().string())}}, false},
      {"an empty CA file name", {{"TLS_CA_FILE", Text("")}}, false},
      {"a blank CA file name", {{"TLS_CA_FILE", Text(" ")}}, false},
      {"the system's authorities, 1", {{"TLS_VERIFY", Text("1")}}, false},
      {"the system's authorities, TRUE", {{"TLS_VERIFY", Text("TRUE")}}, false},
      {"the system's authorities, yes", {{"TLS_VERIFY", Text("yes")}}, false},
      {"the system's authorities, true", {{"TLS_VERIFY", "<true/>"}}, false},
      {"the system's authorities, integer 1", {{"TLS_VERIFY", "<integer>1</integer>"}}, false},
      {"checks neither on nor off: empty", {{"TLS_VERIFY", Text("")}}, false},
      {"checks neither on nor off: blank", {{"TLS_VERIFY", Text(" ")}}, false},
      {"checks neither on nor off: on", {{"TLS_VERIFY", Text("on")}}, false},
      {"checks neither on nor off: integer 2", {{"TLS_VERIFY", "<integer>2</integer>"}}, false},
      {"checks neither on nor off, with the right pin",
       {{"TLS_VERIFY", Text("maybe")}, {"TLS_PINNED_PUBKEY", Text(pin)}},
       false},
      {"the right pin, chain unchecked", {{"TLS_PINNED_PUBKEY", Text(pin)}}, true},
      {"the right pin, checks off", {{"TLS_PINNED_PUBKEY", Text(pin)}, {"TLS_VERIFY", Text("0")}},
       true},
      {"the right pin among others", {{"TLS_PINNED_PUBKEY", Text(otherPin + ";" + pin)}}, true},
      {"another key's pin", {{"TLS_PINNED_PUBKEY", Text(otherPin)}}, false},
      {"an empty pin", {{"TLS_PINNED_PUBKEY", Text("")}}, false},
      {"a blank pin", {{"TLS_PINNED_PUBKEY", Text(" ")}}, false},
      {"a pin cut short", {{"TLS_PINNED_PUBKEY", Text(pin.substr(0, 30))}}, false},
      {"the right pin and a stray ;", {{"TLS_PINNED_PUBKEY", Text(pin + ";")}}, false},
      {"a pin that is no text", {{"TLS_PINNED_PUBKEY", "<true/>"}}, false},
      {"a certificate file as pin",
       {{"TLS_PINNED_PUBKEY", Text(certificate.certificate().string())}},
       false},
      {"CA file and pin", {{"TLS_CA_FILE", ca}, {"TLS_PINNED_PUBKEY", Text(pin)}}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AgentFolder agent("sec-tls");
    ConfigureValues(agent, Machine("macbook-sample"), c.values);
    agent.WriteResourceId("42");
    InventoryServer server(certificate);
    agent.ServeAt(server.port(), "https");
    EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
    EXPECT_TRUE(LastLineIs(agent, "Manual", {"FullData", c.accepted ? "Success" : "Failure"}))
        << agent.AccessLog();
    // A refused server learns nothing of the upload.
    EXPECT_EQ(server.Requests().size(), c.accepted ? 1u : 0u);
  }

  // The resource id is asked for under the same policy.
  AgentFolder agent("sec-tls-resid");
  Configure(agent, Machine("macbook-sample"), {{"TLS_PINNED_PUBKEY", otherPin}});
  InventoryServer server(certificate);
  agent.ServeAt(server.port(), "https");
  EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(agent, "Manual", {"ResIDNotfound", "---"})) << agent.AccessLog();
  EXPECT_TRUE(server.Requests().empty());
}

// ---- The server's documents and values that carry syntax.

// The resource document is written by InventoryServer around the id it is given, so the id
// can carry markup.
TEST(SecurityServer, HostileResourceDocumentsGiveNoIdAndNoFurtherRequest) {
  const std::pair<const char*, std::string> cases[] = {
      {"an element of no table", "1\" /><Planted NAME=\"x"},
      {"an id holding markup", "1&quot; /&gt;&lt;Resource RESOURCE_ID=&quot;5&quot; /&gt;"},
      {"a document over a mebibyte", std::string(1024 * 1024, 'x')},
  };
  for (const auto& [name, id] : cases) {
    SCOPED_TRACE(name);
    AgentFolder agent("sec-resdoc");
    Configure(agent, Machine("macbook-sample"));
    InventoryServer server;
    server.SetResourceId(id);
    agent.ServeAt(server.port());
    EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
    EXPECT_TRUE(LastLineIs(agent, "Manual", {"ResIDNotfound", "---"})) << agent.AccessLog();
    // The run asks for its id twice (settings, then upload) and sends nothing else.
    EXPECT_EQ(server.Requests().size(), 2u);
    EXPECT_TRUE(server.Uploads().empty());
    EXPECT_FALSE(fs::exists(agent.data() / "resource.plist"));
  }
}

TEST(SecurityServer, ValuesStayOneUrlPieceAndOneLogLine) {
  // A resource id from the server with a line feed written as a character reference (and no
  // ":", which would make the value a reference).
  AgentFolder agent("sec-values");
  Configure(agent, Machine("macbook-sample"));
  InventoryServer server;
  server.SetResourceId("42&#10;[ 2024-01-01 ] [ERROR] forged");
  ServeAs(agent, server.port(), "..", "a/../b#c");
  EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  // Such an id is no id: asked for twice (settings, then upload), nothing uploaded.
  const auto requests = server.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].target,
            "/client-data/%2E%2E/domains/a%2F..%2Fb%23c/resources/office-mac.xml");
  EXPECT_TRUE(LastLineIs(agent, "Manual", {"ResIDNotfound", "---"})) << agent.AccessLog();
  const std::string scanLog = agent.ScanLog();
  EXPECT_TRUE(Contains(scanLog, "not a valid id: 42\\x0A[ 2024-01-01 ] [ERROR] forged\n"))
      << scanLog;
  EXPECT_FALSE(Contains(scanLog, "\n[ 2024-01-01 ] [ERROR] forged"));

  // A well-formed id goes into the query as one value.
  AgentFolder plain("sec-values-plain");
  Configure(plain, Machine("macbook-sample"));
  server.SetResourceId("42.a-b_c");
  ServeAs(plain, server.port(), "..", "a/../b#c");
  EXPECT_EQ(plain.Run({"assetscan"}).exitCode, 0);
  ASSERT_EQ(server.Uploads().size(), 1u);
  EXPECT_TRUE(Contains(server.Uploads()[0].target,
                       "?computer=office-mac&domain=a%2F..%2Fb%23c&customerId=%2E%2E&auditid=12345"
                       "&resourceid=42.a-b_c&remoffId=301&isOnDemand=false&scanType=1&jsonFormat=0"))
      << server.Uploads()[0].target;

  // A stored resource id with "&" or "#" is discarded: the run asks the server for its id.
  for (const std::string& stored : {std::string("42&amp;customerId=666"), std::string("42#x")}) {
    SCOPED_TRACE(stored);
    AgentFolder again("sec-values-stored");
    Configure(again, Machine("macbook-sample"));
    again.WriteResourceId(stored);
    InventoryServer upload;
    again.ServeAt(upload.port());
    EXPECT_EQ(again.Run({"assetscan"}).exitCode, 0);
    ASSERT_EQ(upload.Uploads().size(), 1u);
    const std::string target = upload.Uploads()[0].target;
    EXPECT_EQ(Occurrences(target, "customerId="), 1u) << target;
    EXPECT_EQ(Occurrences(target, "&resourceid=77&"), 1u) << target;
    EXPECT_TRUE(Contains(target, "&remoffId=301&isOnDemand=false&scanType=1")) << target;
  }
}

// ---- Volume names are chosen by users.

// A recorded machine in folder whose diskutil lists the given volume names, each mounted.
void RecordVolumeMachine(const fs::path& folder, const std::vector<std::string>& names) {
  fs::create_directories(folder);
  std::string commands =
      "\t<dict><key>launchPath</key><string>/usr/sbin/diskutil</string>\n"
      "\t<key>arguments</key><array><string>list</string><string>-plist</string></array>\n"
      "\t<key>output</key><string>list.plist</string></dict>\n";
  std::string list;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string escaped = std::regex_replace(names[i], std::regex("\""), "&quot;");
    const std::string output = "info-" + std::to_string(i) + ".plist";
    list += "<string>" + escaped + "</string>";
    commands +=
        "\t<dict><key>launchPath</key><string>/usr/sbin/diskutil</string>\n"
        "\t<key>arguments</key><array><string>info</string><string>-plist</string>"
        "<string>" +
        escaped +
        "</string></array>\n"
        "\t<key>output</key><string>" +
        output + "</string></dict>\n";
    AgentFolder::WritePlist(
        folder / output,
        "<key>MountPoint</key><string>/Volumes/" + escaped +
            "</string>"
            "<key>VolumeName</key><string>" +
            escaped +
            "</string>"
            "<key>Ejectable</key><false/><key>FilesystemName</key><string>APFS</string>"
            "<key>DeviceIdentifier</key><string>disk1s" +
            std::to_string(i + 1) +
            "</string>"
            "<key>TotalSize</key><integer>1000000000</integer>"
            "<key>FreeSpace</key><integer>500000000</integer>\n");
  }
  AgentFolder::WritePlist(folder / "list.plist",
                          "<key>VolumesFromDisks</key><array>" + list + "</array>\n");
  AgentFolder::WritePlist(folder / "manifest.plist",
                          "<key>commands</key><array>\n" + commands +
                              "</array>\n"
                              "<key>host</key><dict><key>hostName</key>"
                              "<string>Office-Mac.local</string></dict>\n");
}

TEST(SecurityVolumes, NamesThatArePathsOrShellTextStayInsideThePrivateFolder) {
  AgentFolder agent("sec-volumes");
  const std::string probe = "/tmp/tarn-shell-probe-" + std::to_string(::getpid());
  const std::vector<std::string> names = {"../../x", "a/b", "$(touch " + probe + ")",
                                          "it's \"quoted\""};
  RecordVolumeMachine(agent.base() / "machine", names);
  Configure(agent, (agent.base() / "machine").string());
  agent.WriteResourceId("42");
  InventoryServer server;
  agent.ServeAt(server.port());
  // Links planted where a careless collector would write its tool output.
  const fs::path bin = agent.base() / "bin";
  WriteFileText(agent.base() / "precious", "keep me");
  fs::create_symlink(agent.base() / "precious", bin / "volumes.plist");
  fs::create_symlink(agent.base() / "created", bin / "x.plist");
  const auto binBefore = std::distance(fs::directory_iterator(bin), fs::directory_iterator());
  const std::vector<fs::path> outside = {agent.base() / "x",       agent.base() / "x.plist",
                                         agent.base() / "a",       bin / "a",
                                         agent.base() / "created", fs::path(probe)};

  EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  ASSERT_EQ(server.Uploads().size(), 1u);
  const std::string volumes = RowsOfClass(server.Uploads()[0].body, 4);
  for (std::size_t i = 0; i < names.size(); ++i) {
    // Each volume was asked for by its exact name and recorded.
    EXPECT_TRUE(Contains(volumes, "|disk1s" + std::to_string(i + 1) + ";")) << volumes;
  }
  for (const fs::path& path : outside) EXPECT_FALSE(fs::exists(path)) << path;
  EXPECT_EQ(std::distance(fs::directory_iterator(bin), fs::directory_iterator()), binBefore);
  EXPECT_TRUE(fs::is_symlink(bin / "volumes.plist"));
  EXPECT_EQ(ReadFileText(agent.base() / "precious"), "keep me");
}

}  // namespace
}  // namespace tarn::testing
