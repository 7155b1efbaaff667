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
  for (const JsonValue& item : upload.Find("changes")->AsArray()) {
    changes.insert(std::to_string(NumberAt(item, "classId")) + " " +
                   item.Find("change")->AsString() + " " + item.Find("label")->AsString());
  }
  return changes;
}

TEST(ScannerWithRefServer, FullThenDifferenceEqualsAFreshFullScanOfTheFinalMachine) {
  TempDir dir;
  JsonValue incremental;
  {
    RunningServer server(dir.path() / "incremental.sqlite");
    AgentFolder agent("refserver-incremental");
    agent.ServeAt(server.port());
    Scan(agent, "assetscan", kMachine, "FullData");
    Scan(agent, "scheduled", kChangedMachine, "DiffData");
    incremental = OnlyComputer(server);
    // No resource id was stored: the scanner asked the server for one and sent it back.
    EXPECT_NE(tarn::testing::ReadFileText(agent.data() / "resource.plist")
                  .find("<string>" + std::to_string(NumberAt(incremental, "id")) + "</string>"),
              std::string::npos);
  }
  const JsonValue::Array& uploads = incremental.Find("uploads")->AsArray();
  ASSERT_EQ(uploads.size(), 2u);
  ASSERT_EQ(uploads[0].Find("kind")->AsString(), "difference");
  EXPECT_EQ(uploads[0].Find("resourceId")->AsString(), std::to_string(NumberAt(incremental, "id")));
  // The changes the second recording describes, by name, and nothing it does not.
  const std::set<std::string> changes = ChangesOf(uploads[0]);
  for (const char* expected : {"18 added zoom.us 4.0.20340.1024", "18 deleted Skype 7.38",
                               "18 modified Google Chrome 54.0.2840.71"}) {
    EXPECT_EQ(changes.count(expected), 1u) << expected;
  }
  EXPECT_TRUE(std::any_of(changes.begin(), changes.end(), [](const std::string& change) {
    return change.rfind("4 deleted /Volumes/BOOTCAMP", 0) == 0;
  })) << ::testing::PrintToString(changes);
  for (const JsonValue& entry : uploads[0].Find("classes")->AsArray()) {
    EXPECT_EQ(NumberAt(entry, "unmatched"), 0) << entry.Find("name")->AsString();
  }

  JsonValue fresh;
  {
    RunningServer server(dir.path() / "fresh.sqlite");
    AgentFolder agent("refserver-fresh");
    agent.ServeAt(server.port());
    Scan(agent, "assetscan", kChangedMachine, "FullData");
    fresh = OnlyComputer(server);
  }
  const InventorySets expected = InventoryOf(fresh);
  const InventorySets actual = InventoryOf(incremental);
  ASSERT_GT(expected.size(), 5u);
  EXPECT_GT(expected.at(kSoftwareClass).size(), 100u);
  for (const auto& [classId, instances] : expected) {
    SCOPED_TRACE("class " + std::to_string(classId));
    ASSERT_EQ(actual.count(classId), 1u);
    EXPECT_EQ(actual.at(classId).size(), instances.size());
    for (const auto& instance : instances) {
      EXPECT_EQ(actual.at(classId).count(instance), instances.count(instance))
          << ::testing::PrintToString(instance);
    }
  }
  EXPECT_EQ(actual.size(), expected.size());
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
  const JsonValue::Array& uploads = computer.Find("uploads")->AsArray();
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(uploads[0].Find("kind")->AsString(), "difference");
  EXPECT_EQ(ChangesOf(uploads[0]).count("18 added zoom.us 4.0.20340.1024"), 1u);
  EXPECT_GT(InventoryOf(computer).at(kSoftwareClass).size(), 100u);
}

}  // namespace
}  // namespace tarn::refserver::testing
