// The built scanner, run in a temporary agent folder.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "tests/agent_folder.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

const std::string kHeader =
    "DATE\t\tSCANTYPE\tSTARTTIME\t\t\tMODE\t\t\tSTATUS\t\t\tENDTIME\n"
    "----\t\t--------\t---------\t\t\t-------\t\t\t-------\t\t\t-------";

// One access-log line: date, mode word (width 11), start time (width 11),
// then the given middle pieces and the end time (width 15, no tab).
std::regex AccessLine(const std::string& modeWord, const std::string& middle) {
  const std::string time = "\\d\\d:\\d\\d:\\d\\d";
  return std::regex("\n\\d\\d-\\d\\d-\\d{4}\t *" + modeWord + "\t   " + time + "\t" + middle +
                    "       " + time + "$");
}

constexpr const char* kStopLine =
    "int main(int, const char**) [Line 57] main : stopping inventory scan\n";

TEST(ScannerRun, WrongOrMissingArgumentsStopWithACompleteInvalidArgsLine) {
  AgentFolder agent("args");
  const ScannerResult none = agent.Run({});
  EXPECT_EQ(none.exitCode, 1);
  // The logging engine names its file on standard output right after.
  EXPECT_EQ(none.standardOutput.rfind("Give correct argumentlog filename: ", 0), 0u)
      << none.standardOutput;

  const ScannerResult unknown = agent.Run({"fullscan", "1", "77"});
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_EQ(unknown.standardOutput.rfind("Invalid argument log filename: ", 0), 0u)
      << unknown.standardOutput;

  const std::string access = agent.AccessLog();
  ASSERT_EQ(access.rfind(kHeader, 0), 0u) << access;
  const std::string lines = access.substr(kHeader.size());
  const std::string line =
      "\n\\d\\d-\\d\\d-\\d{4}\tInvalidArgs\t   \\d\\d:\\d\\d:\\d\\d\t"
      "       \\d\\d:\\d\\d:\\d\\d";
  EXPECT_TRUE(std::regex_match(lines, std::regex(line + line))) << lines;

  const std::string scanLog = agent.ScanLog();
  std::size_t stops = 0;
  for (auto at = scanLog.find(kStopLine); at != std::string::npos;
       at = scanLog.find(kStopLine, at + 1)) {
    ++stops;
  }
  EXPECT_EQ(stops, 2u) << scanLog;
}

TEST(ScannerRun, MissingDataFilesStopWithTheirAccessLogWords) {
  struct Case {
    const char* missingFile;
    std::string middle;  // what stands between the start piece and the end time
  };
  const Case cases[] = {
      {"data-dictionary.xml", "\t" + Padded("DatadictFail") + "\t" + Padded("---")},
      {"data-dictionary-inv.xml", "\t" + Padded("InvDatadictFail") + "\t" + Padded("---")},
      {"data-dictionary-framework.xml", ""},
      {"data-dictionary-onpremise.xml", ""},
      {"Mac_InvClasses.xml", "\t" + Padded("InvClassDoFail") + "\t" + Padded("---")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.missingFile);
    AgentFolder agent("missing");
    std::filesystem::remove(agent.data() / c.missingFile);
    EXPECT_EQ(agent.Run({"AssetScan"}).exitCode, 1);
    EXPECT_TRUE(std::regex_search(agent.AccessLog(), AccessLine("Manual", c.middle)))
        << agent.AccessLog();
    EXPECT_NE(agent.ScanLog().find(kStopLine), std::string::npos);
  }
}

TEST(ScannerRun, AValidRunDecidesItsRunTypeAndReachesTheUploadStep) {
  AgentFolder agent("valid");
  agent.WriteResourceId("42");
  EXPECT_EQ(agent.Run({"scheduled"}).exitCode, 0);

  const std::string scanLog = agent.ScanLog();
  EXPECT_NE(scanLog.find("scanType : Scheduled\n"), std::string::npos);
  EXPECT_NE(scanLog.find("Previous Scan data notFound at path " + agent.data().string() +
                         "/invFullData, Proceeding to full scan \n"),
            std::string::npos)
      << scanLog;
  EXPECT_EQ(scanLog.find(kStopLine), std::string::npos);
  // No snapshot: the scheduled (difference) request became a full scan.
  EXPECT_TRUE(std::regex_search(agent.AccessLog(),
                                AccessLine("Scheduled", "\t" + Padded("FullData") + "\t\\s*\\w+")))
      << agent.AccessLog();
  const std::string store = ReadFileText(agent.data() / "tarninventory_data.plist");
  EXPECT_NE(store.find("<key>INV_FULL_DATA_LAST_MODIFIED</key>\n\t<string>0</string>"),
            std::string::npos)
      << store;
}

// A snapshot whose modification time the state store recorded: a difference
// request is trusted unless the OS rule turns it into a full scan.
void WriteTrustedSnapshot(const AgentFolder& agent) {
  const auto snapshot = agent.data() / "invFullData";
  AgentFolder::WritePlist(snapshot,
                          "\t<key>INVDatadict</key>\n\t<dict><key>18</key><array><dict>"
                          "<key>1801</key><string>Safari</string><key>KEY</key>"
                          "<string>Safari</string></dict></array></dict>\n");
  struct stat info {};
  ASSERT_EQ(::stat(snapshot.c_str(), &info), 0);
  AgentFolder::WritePlist(agent.data() / "tarninventory_data.plist",
                          "\t<key>INV_FULL_DATA_LAST_MODIFIED</key><string>" +
                              std::to_string(info.st_mtime) + "</string>\n");
}

TEST(ScannerRun, ATrustedSnapshotGivesADifferenceScanExceptUnderTheOsRule) {
  const std::string notModified = " is not modified, Proceeding to DIFF scan \n";
  const std::string osRule =
      "In macOS Sierra 10.12 json encoder crashes , so proceeding to full scan \n";
  {
    AgentFolder agent("diff");
    agent.WriteResourceId("42");
    agent.ReplayMachineWithOsVersion("10.11.6");
    WriteTrustedSnapshot(agent);
    EXPECT_EQ(agent.Run({"scheduled"}).exitCode, 0);
    EXPECT_NE(agent.ScanLog().find(notModified), std::string::npos) << agent.ScanLog();
    EXPECT_EQ(agent.ScanLog().find(osRule), std::string::npos);
    EXPECT_TRUE(std::regex_search(
        agent.AccessLog(), AccessLine("Scheduled", "\t" + Padded("DiffData") + "\t\\s*\\w+")))
        << agent.AccessLog();
  }
  {
    AgentFolder agent("osrule");
    agent.WriteResourceId("42");
    agent.ReplayMachineWithOsVersion("10.13");
    WriteTrustedSnapshot(agent);
    EXPECT_EQ(agent.Run({"ondemand"}).exitCode, 0);
    const std::string scanLog = agent.ScanLog();
    ASSERT_NE(scanLog.find(osRule), std::string::npos) << scanLog;
    EXPECT_LT(scanLog.find(notModified), scanLog.find(osRule));
    EXPECT_TRUE(std::regex_search(
        agent.AccessLog(), AccessLine("Ondemand", "\t" + Padded("FullData") + "\t\\s*\\w+")));
  }
}

TEST(ScannerRun, WithoutAResourceIdNothingIsCollected) {
  AgentFolder agent("noresource");
  EXPECT_EQ(agent.Run({"ondemand", "1", "9001"}).exitCode, 0);
  EXPECT_TRUE(std::regex_search(
      agent.AccessLog(),
      AccessLine("Ondemand", "\t" + Padded("ResIDNotfound") + "\t" + Padded("---"))))
      << agent.AccessLog();
  // The collectors' own load of the inventory dictionary never happened.
  const std::string scanLog = agent.ScanLog();
  const auto refused = scanLog.find(
      "ResourceID is not present, hence inventory data will be "
      "posted in next refresh cycle\n");
  ASSERT_NE(refused, std::string::npos) << scanLog;
  EXPECT_EQ(scanLog.find("/data-dictionary-inv.xml\n", refused), std::string::npos);
}

TEST(ScannerRun, EverythingTheRunCreatesIsForItsOwnerOnly) {
  AgentFolder agent("modes");
  agent.WriteResourceId("42");
  ASSERT_EQ(agent.Run({"scheduled"}).exitCode, 0);
  for (const auto& path :
       {agent.logs(), agent.logs() / "tarndevicescan.log",
        agent.logs() / "tarndevicescanaccess.log", agent.data() / "tarninventory_data.plist"}) {
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0) << path;
    EXPECT_EQ(info.st_mode & 077, 0u) << path;
  }
}

}  // namespace
}  // namespace tarn::testing
