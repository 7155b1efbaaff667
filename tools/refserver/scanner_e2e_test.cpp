// The built scanner uploading to the reference server: what a full scan followed by a
// difference scan leaves on the server must be what one full scan of the final machine
// gives.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "tools/refserver/e2e_util.h"

namespace tarn::refserver::testing {
namespace {

using tarn::testing::AgentFolder;

std::set<std::string> ChangesOf(const JsonValue& upload) {
  std::set<std::string> changes;
  for (const JsonValue& item : upload.at("changes")) {
    changes.insert(std::to_string(NumberAt(item, "classId")) + " " +
                   StringAt(item, "change") + " " + StringAt(item, "label"));
  }
  return changes;
}

// A full scan of the machine then a difference scan of the changed one, on one server;
// then a full scan of the changed one on a fresh server. Both must hold the same
// inventory, value for value. The first server's computer is returned.
JsonValue ExpectIncrementalEqualsFresh(const TempDir& dir, const std::string& machine,
                                       const std::string& changed) {
  JsonValue incremental;
  {
    RunningServer server(dir.path() / (machine + "-incremental.sqlite"));
    AgentFolder agent("refserver-incremental");
    agent.ServeAt(server.port());
    Scan(agent, "assetscan", machine, "FullData");
    Scan(agent, "scheduled", changed, "DiffData");
    incremental = OnlyComputer(server);
    // No resource id was stored: the scanner asked the server for one and sent it back.
    EXPECT_NE(tarn::testing::ReadFileText(agent.data() / "resource.plist")
                  .find("<string>" + std::to_string(NumberAt(incremental, "id")) + "</string>"),
              std::string::npos);
  }
  JsonValue fresh;
  {
    RunningServer server(dir.path() / (machine + "-fresh.sqlite"));
    AgentFolder agent("refserver-fresh");
    agent.ServeAt(server.port());
    Scan(agent, "assetscan", changed, "FullData");
    fresh = OnlyComputer(server);
  }
  const InventorySets expected = InventoryOf(fresh);
  const InventorySets actual = InventoryOf(incremental);
  EXPECT_GT(expected.size(), 5u);
  for (const auto& [classId, instances] : expected) {
    SCOPED_TRACE("class " + std::to_string(classId));
    if (actual.count(classId) != 1) {
      ADD_FAILURE() << "class missing after the difference";
      continue;
    }
    EXPECT_EQ(actual.at(classId).size(), instances.size());
    for (const auto& instance : instances) {
      EXPECT_EQ(actual.at(classId).count(instance), instances.count(instance))
          << ::testing::PrintToString(instance);
    }
  }
  EXPECT_EQ(actual.size(), expected.size());
  return incremental;
}

TEST(ScannerWithRefServer, FullThenDifferenceEqualsAFreshFullScanOfTheFinalMachine) {
  TempDir dir;
  const JsonValue incremental = ExpectIncrementalEqualsFresh(dir, kMachine, kChangedMachine);
  EXPECT_GT(InventoryOf(incremental).at(kSoftwareClass).size(), 100u);
  const JsonValue& uploads = incremental.at("uploads");
  ASSERT_EQ(uploads.size(), 2u);
  ASSERT_EQ(StringAt(uploads[0], "kind"), "difference");
  EXPECT_EQ(StringAt(uploads[0], "resourceId"), std::to_string(NumberAt(incremental, "id")));
  // The changes the second recording describes, by name, and nothing it does not.
  const std::set<std::string> changes = ChangesOf(uploads[0]);
  for (const char* expected : {"18 added zoom.us 4.0.20340.1024", "18 deleted Skype 7.38",
                               "18 modified Google Chrome 54.0.2840.71"}) {
    EXPECT_EQ(changes.count(expected), 1u) << expected;
  }
  EXPECT_TRUE(std::any_of(changes.begin(), changes.end(), [](const std::string& change) {
    return change.rfind("4 deleted /Volumes/BOOTCAMP", 0) == 0;
  })) << ::testing::PrintToString(changes);
  for (const JsonValue& entry : uploads[0].at("classes")) {
    EXPECT_EQ(NumberAt(entry, "unmatched"), 0) << StringAt(entry, "name");
  }
}

// On macOS 14 a difference that changes the application count also sends the operating
// system instance as modified, with values read raw from the tools.
TEST(ScannerWithRefServer, ADifferenceChangingTheApplicationCountEqualsAFreshFullScan) {
  TempDir dir;
  const JsonValue incremental =
      ExpectIncrementalEqualsFresh(dir, "macbook-m1", "macbook-m1-changed");
  const JsonValue& uploads = incremental.at("uploads");
  ASSERT_EQ(uploads.size(), 2u);
  const std::set<std::string> changes = ChangesOf(uploads[0]);
  EXPECT_EQ(changes.count("18 deleted Rectangle 0.77"), 1u) << ::testing::PrintToString(changes);
  EXPECT_EQ(changes.count("25 added Office Laser"), 1u) << ::testing::PrintToString(changes);
  EXPECT_EQ(InventoryOf(incremental).at(kOsClass).begin()->at("102"), "14.4.1");
}

TEST(ScannerWithRefServer, ScansLandOverHttpsWithACertificateMadeNow) {
  TempDir dir;
  const auto certificate = dir.path() / "server.crt";
  const auto key = dir.path() / "server.key";
  ASSERT_EQ(RunProgram({"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
                        "-days", "2", "-subj", "/CN=127.0.0.1", "-keyout", key.string(), "-out",
                        certificate.string()},
                       dir.path() / "openssl.txt"),
            0);
  RunningServer server(dir.path() / "db.sqlite", certificate, key);
  AgentFolder agent("refserver-https");
  agent.ServeAt(server.port(), "https");
  Scan(agent, "assetscan", kMachine, "FullData");
  Scan(agent, "scheduled", kChangedMachine, "DiffData");
  const JsonValue computer = OnlyComputer(server);
  const JsonValue& uploads = computer.at("uploads");
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(StringAt(uploads[0], "kind"), "difference");
  EXPECT_EQ(ChangesOf(uploads[0]).count("18 added zoom.us 4.0.20340.1024"), 1u);
  EXPECT_GT(InventoryOf(computer).at(kSoftwareClass).size(), 100u);
}

}  // namespace
}  // namespace tarn::refserver::testing
