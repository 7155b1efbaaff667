// The scanner's own words (--version, --help, --local) and the line each run ends with on
// the standard error it was started with.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tarn_version.h"
#include "tests/agent_folder.h"
#include "tests/inventory_server.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;

// The last line of a text, without its line end.
std::string LastLine(const std::string& text) {
  std::string trimmed = text;
  if (!trimmed.empty() && trimmed.back() == '\n') trimmed.pop_back();
  const std::size_t end = trimmed.rfind('\n');
  return end == std::string::npos ? trimmed : trimmed.substr(end + 1);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The files of the agent folder a local run must leave as they were.
struct Bookkeeping {
  std::string store;
  std::string snapshot;
  std::string accessLog;
  bool operator==(const Bookkeeping&) const = default;
};

Bookkeeping BookkeepingOf(const AgentFolder& agent) {
  return {ReadFileText(agent.data() / "tarninventory_data.plist"),
          ReadFileText(agent.data() / "invFullData"), agent.AccessLog()};
}

// Both kinds of document with the scan times made equal: the JSON difference's
// "currScanTime"/"prevScanTime" and the XML AgentParams' values of the same names.
std::string WithoutTimes(const std::string& document) {
  return std::regex_replace(
      WithoutScanTimes(document),
      std::regex("(PARAM_NAME=\"(currScanTime|prevScanTime)\" PARAM_VALUE=\")\\d+\""),
      "$1T\"");
}

TEST(CommandLineTest, VersionAndHelpAnswerAndTouchNothing) {
  AgentFolder agent("version");
  const ScannerResult version = agent.Run({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.standardOutput,
            std::string("tarninventory ") + TARN_EXPECTED_VERSION + " (commit " + TARN_COMMIT +
                ")\n");
  EXPECT_EQ(TARN_VERSION, std::string(TARN_EXPECTED_VERSION));
  EXPECT_NE(std::string(TARN_COMMIT), "");

  const ScannerResult help = agent.Run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const char* text : {"usage: tarninventory assetscan|ondemand|scheduled|postinstall "
                           "[flag] [auditid]",
                           "--local DIR", "--version", "ondemand [flag]", "default 12345",
                           "BASE/data/serverinfo.plist", "BASE/data/agent-conf.plist",
                           "BASE/logs/tarndevicescan.log", "BASE/data/invFullData",
                           "REPORT_MODERN_DISKS", "TOOL_GATHER_SERIAL"}) {
    EXPECT_NE(help.standardOutput.find(text), std::string::npos) << text;
  }
  EXPECT_FALSE(fs::exists(agent.logs()));
  EXPECT_FALSE(fs::exists(agent.data() / "tarninventory_data.plist"));

  // Only the first word is taken: anything else is the scan's, an invalid argument.
  const ScannerResult verbose = agent.Run({"--verbose"});
  EXPECT_EQ(verbose.exitCode, 1);
  EXPECT_EQ(verbose.standardOutput.rfind("Invalid argument ", 0), 0u) << verbose.standardOutput;
  EXPECT_TRUE(LastLineIs(agent, "InvalidArgs", {})) << agent.AccessLog();
  const ScannerResult late = agent.Run({"assetscan", "--version"});
  EXPECT_NE(late.standardOutput.find("log filename: "), std::string::npos);
  EXPECT_EQ(late.standardOutput.find("tarninventory 1"), std::string::npos);

  const ScannerResult noFolder = agent.Run({"--local"});
  EXPECT_EQ(noFolder.exitCode, 1);
  EXPECT_EQ(noFolder.standardError.rfind("tarninventory: --local needs the folder", 0), 0u)
      << noFolder.standardError;
}

TEST(EndOfRunTest, TheLastLineOnStandardErrorSaysWhatHappened) {
  AgentFolder agent("summary");
  agent.UseMachine("macbook-sample");
  const std::string scanLog = (agent.logs() / "tarndevicescan.log").string();
  const std::string see = "; see " + scanLog;

  // No resource id and no server.
  ScannerResult result = agent.Run({"assetscan"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(LastLine(result.standardError),
            "tarninventory: FullData ResIDNotfound (no resource id: the server did not give "
            "one)" + see);

  // A resource id, and still no server: libcurl cannot connect (7).
  agent.WriteResourceId("42");
  result = agent.Run({"assetscan"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(LastLine(result.standardError),
            "tarninventory: FullData Failure (server not reachable at 1 address: transport error "
            "7)" + see);

  InventoryServer server;
  agent.ServeAt(server.port());
  result = agent.Run({"assetscan"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(LastLine(result.standardError), "tarninventory: FullData Success" + see);
  // The line is the run's answer to whoever started it, not a line of the scan log.
  EXPECT_EQ(agent.ScanLog().find("tarninventory: FullData"), std::string::npos);

  server.SetUploadAnswer(Answer::kServerError);
  result = agent.Run({"scheduled"});
  EXPECT_EQ(LastLine(result.standardError),
            "tarninventory: DiffData Failure (the server did not accept the upload)" + see);

  result = agent.Run({"--verbose"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(LastLine(result.standardError),
            "tarninventory: InvalidArgs (give a scan word: assetscan, ondemand, scheduled or "
            "postinstall)" + see);

  fs::remove(agent.data() / "data-dictionary.xml");
  result = agent.Run({"ondemand", "1"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(LastLine(result.standardError),
            "tarninventory: FullData DatadictFail (a data dictionary in " +
                agent.data().string() + " is missing or unreadable)" + see);
}

// A local run of the machine, then the same run for real: the documents written are those
// the upload carries, and the local run changed nothing the next run reads.
void LocalRunMatchesUpload(AgentFolder& agent, InventoryServer& server, const std::string& word,
                           const std::string& kind, const std::string& computer) {
  SCOPED_TRACE(word);
  const Bookkeeping before = BookkeepingOf(agent);
  const std::size_t requests = server.Requests().size();
  const fs::path folder = agent.base() / ("local-" + word);

  const ScannerResult local = agent.Run({"--local", folder.string(), word});
  EXPECT_EQ(local.exitCode, 0);
  EXPECT_EQ(LastLine(local.standardError),
            "tarninventory: " + kind + " Success (written to " + folder.string() + "); see " +
                (agent.logs() / "tarndevicescan.log").string());
  EXPECT_TRUE(BookkeepingOf(agent) == before);
  EXPECT_EQ(server.Requests().size(), requests);

  std::vector<std::string> written;
  for (const std::string& line : Lines(local.standardOutput)) {
    if (line.rfind(folder.string() + "/", 0) == 0) written.push_back(line);
  }
  const bool diff = kind == "DiffData";
  ASSERT_EQ(written.size(), diff ? 2u : 1u) << local.standardOutput;
  const std::regex name(computer + "-\\d{8}-\\d{6}-(full\\.xml|diff\\.json)");
  for (const std::string& path : written) {
    EXPECT_TRUE(std::regex_match(fs::path(path).filename().string(), name)) << path;
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
  }

  // Beside a difference, the whole inventory.
  const std::string full = ReadFileText(written.front());
  EXPECT_EQ(full.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TarnWMIData>", 0), 0u);
  EXPECT_NE(full.find("<WMIFetchedValue "), std::string::npos);

  ASSERT_EQ(agent.Run({word}).exitCode, 0);
  ASSERT_TRUE(LastLineIs(agent, word == "assetscan" ? "Manual" : "Scheduled", {kind, "Success"}))
      << agent.AccessLog();
  const std::string uploaded = server.Uploads().back().body;
  EXPECT_EQ(WithoutTimes(ReadFileText(written.back())), WithoutTimes(uploaded));
}

TEST(LocalInventoryTest, DocumentsAreWhatTheUploadCarriesAndNothingElseChanges) {
  struct Machine {
    const char* first;
    const char* later;  // the same computer at the difference scan
    const char* computer;
  };
  const Machine machines[] = {{"macbook-sample", "macbook-sample", "office-mac"},
                              {"imac-fusion", "imac-fusion-changed", "studio-imac"}};
  for (const Machine& machine : machines) {
    SCOPED_TRACE(machine.first);
    AgentFolder agent(std::string("local-") + machine.first);
    agent.UseMachine(machine.first);
    agent.WriteResourceId("42");
    InventoryServer server;
    agent.ServeAt(server.port());
    LocalRunMatchesUpload(agent, server, "assetscan", "FullData", machine.computer);
    agent.UseMachine(machine.later);
    LocalRunMatchesUpload(agent, server, "scheduled", "DiffData", machine.computer);
  }
}

TEST(LocalInventoryTest, NeedsNeitherServerNorResourceId) {
  AgentFolder agent("local-alone");
  agent.UseMachine("macbook-sample");
  const fs::path folder = agent.base() / "out";
  // A difference asked for without a snapshot: a real run would store "0" as the snapshot's
  // time on its way to a full scan; a local one stores nothing.
  const ScannerResult local = agent.Run({"--local", folder.string(), "scheduled"});
  EXPECT_EQ(local.exitCode, 0);
  EXPECT_NE(LastLine(local.standardError).find("FullData Success (written to"), std::string::npos)
      << local.standardError;
  EXPECT_FALSE(fs::exists(agent.data() / "tarninventory_data.plist"));
  EXPECT_FALSE(fs::exists(agent.data() / "invFullData"));
  EXPECT_FALSE(fs::exists(agent.logs() / "tarndevicescanaccess.log"));
  EXPECT_FALSE(fs::exists(agent.data() / "resource.plist"));
  ASSERT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace tarn::testing
