// Tools run side by side from the start of the run leave exactly what a run of one tool after
// another leaves: the same upload bodies, snapshot, state store and scan log (times masked),
// on every recorded machine.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>

#include "tarnutils/src/testutil.h"
#include "tests/agent_folder.h"
#include "tests/inventory_server.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

// Times, the process id and the scanner's own name (one per agent folder) as placeholders.
std::string Masked(std::string text, const AgentFolder& agent) {
  text = std::regex_replace(text, std::regex(agent.scannerName()), "SCANNER");
  text = std::regex_replace(text, std::regex(agent.base().string()), "BASE");
  text = std::regex_replace(text, std::regex(R"(\d{4}-\d{2}-\d{2}[ T]\d{2}:\d{2}:\d{2}(\.\d+)?)"),
                            "TIME");
  text = std::regex_replace(text, std::regex(R"(\[\d+\])"), "[PID]");
  // Seconds since 1970 or 2001 (scan times, snapshot and store times), and scratch names.
  text = std::regex_replace(text, std::regex(R"(\b\d{9,10}\b)"), "SECONDS");
  text = std::regex_replace(text, std::regex(R"(tarninventory-\d+-\w{6})"), "SCRATCH");
  return text;
}

struct RunTrace {
  std::vector<std::string> bodies;
  std::string snapshot;
  std::string store;
  std::string scanLog;
};

// Scans the machine (and, when given, its later recording with a scheduled scan), with the
// tools run serially or side by side.
std::filesystem::path RecordedMachines() {
  return std::filesystem::path(TARN_SOURCE_DIR) / "testdata" / "machines";
}

RunTrace Scan(InventoryServer& server, const std::string& machine, const std::string& later,
              bool serial, const std::string& moreKeys = "",
              const std::filesystem::path& machines = RecordedMachines()) {
  AgentFolder agent(std::string("gather-") + (serial ? "serial-" : "parallel-") + machine);
  agent.WriteResourceId("42");
  agent.ServeAt(server.port());
  RunTrace trace;
  for (const std::string& recorded : {machine, later}) {
    if (recorded.empty()) continue;
    if (recorded != machine) {
      // The scan after a full one compares the snapshot's modification time with the one it
      // recorded, to the second: start it in the next second, as a real schedule does.
      const auto second = std::time(nullptr);
      while (std::time(nullptr) == second) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    AgentFolder::WritePlist(agent.data() / "agent-conf.plist",
                            "\t<key>Loglevel</key><integer>3</integer>\n"
                            "\t<key>TOOL_REPLAY_DIRECTORY</key><string>" +
                                (machines / recorded).string() +
                                "</string>\n" +
                                (serial ? "\t<key>TOOL_GATHER_SERIAL</key><string>1</string>\n"
                                        : "") +
                                moreKeys);
    const std::size_t before = server.Uploads().size();
    EXPECT_EQ(agent.Run({recorded == machine ? "assetscan" : "scheduled"}).exitCode, 0);
    EXPECT_EQ(server.Uploads().size(), before + 1);
    if (server.Uploads().size() > before) {
      trace.bodies.push_back(Masked(server.Uploads().back().body, agent));
    }
  }
  trace.snapshot = Masked(ReadFileText(agent.data() / "invFullData"), agent);
  trace.store = Masked(ReadFileText(agent.data() / "tarninventory_data.plist"), agent);
  trace.scanLog = Masked(agent.ScanLog(), agent);
  return trace;
}

TEST(SideBySideGather, LeavesWhatASerialRunLeavesOnEveryRecordedMachine) {
  InventoryServer server;
  const std::filesystem::path machines = RecordedMachines();
  int compared = 0;
  for (const auto& entry : std::filesystem::directory_iterator(machines)) {
    const std::string name = entry.path().filename().string();
    if (name.ends_with("-changed")) continue;  // scanned as the later state of its machine
    const std::string later =
        std::filesystem::exists(machines / (name + "-changed")) ? name + "-changed" : "";
    SCOPED_TRACE(name);
    const RunTrace serial = Scan(server, name, later, true);
    const RunTrace parallel = Scan(server, name, later, false);
    ASSERT_EQ(serial.bodies.size(), later.empty() ? 1u : 2u);
    EXPECT_EQ(parallel.bodies, serial.bodies);
    EXPECT_EQ(parallel.snapshot, serial.snapshot);
    EXPECT_EQ(parallel.store, serial.store);
    EXPECT_EQ(parallel.scanLog, serial.scanLog);
    EXPECT_NE(serial.scanLog.find("Replaying the recorded machine"), std::string::npos);
    ++compared;
  }
  EXPECT_GE(compared, 5);

  // The modern disks add commands that follow from volume infos: the same again.
  const std::string modern = "\t<key>REPORT_MODERN_DISKS</key><string>1</string>\n";
  const RunTrace serial = Scan(server, "macbook-air-m3", "", true, modern);
  const RunTrace parallel = Scan(server, "macbook-air-m3", "", false, modern);
  EXPECT_EQ(parallel.bodies, serial.bodies);
  EXPECT_EQ(parallel.scanLog, serial.scanLog);
  EXPECT_NE(serial.scanLog.find("SPNVMeDataType"), std::string::npos);
}

// A machine whose tools fail in different ways while the slow applications report is still
// running: one output is missing (the tool cannot be launched), one is not text. Side by
// side, each failure is logged where the serial run logs it, and everything else matches.
TEST(SideBySideGather, ToolsThatFailWhileOthersRunLeaveWhatASerialRunLeaves) {
  const TempDir temp("gather-faults");
  const std::filesystem::path machine = temp.path() / "faulty";
  std::filesystem::copy(RecordedMachines() / "macbook-m1", machine);
  std::string manifest = ReadFileText(machine / "manifest.plist");
  const std::string applications = "<string>system_profiler-SPApplicationsDataType.xml</string>";
  manifest.replace(manifest.find(applications), applications.size(),
                   applications + "<key>seconds</key><real>0.8</real>");
  WriteFileText(machine / "manifest.plist", manifest);
  std::filesystem::remove(machine / "system_profiler-SPDisplaysDataType.xml");
  WriteFileText(machine / "system_profiler-SPHardwareDataType.xml", "\xff\xfe not text");

  InventoryServer server;
  const std::string timing = "\t<key>TOOL_REPLAY_TIMING</key><string>1</string>\n";
  const RunTrace serial = Scan(server, "faulty", "", true, timing, temp.path());
  const RunTrace parallel = Scan(server, "faulty", "", false, timing, temp.path());
  ASSERT_EQ(serial.bodies.size(), 1u);
  EXPECT_EQ(parallel.bodies, serial.bodies);
  EXPECT_EQ(parallel.snapshot, serial.snapshot);
  EXPECT_EQ(parallel.scanLog, serial.scanLog);
  EXPECT_NE(serial.scanLog.find("recorded output missing"), std::string::npos);
}

}  // namespace
}  // namespace tarn::testing
