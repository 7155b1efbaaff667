// The built scanner against a loopback management server: resource id, full and difference
// uploads, and what a failed upload leaves behind.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "tests/agent_folder.h"
#include "tests/inventory_server.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

// The files a failed upload must leave as they were.
struct RunState {
  std::string store;
  std::string snapshot;
  bool operator==(const RunState&) const = default;
};

RunState StateOf(const AgentFolder& agent) {
  return {ReadFileText(agent.data() / "tarninventory_data.plist"),
          ReadFileText(agent.data() / "invFullData")};
}

class UploadTest : public ::testing::Test {
 protected:
  // A first full scan the server accepted, so the next scheduled run is a difference scan.
  void AcceptedFullScan(AgentFolder& agent, InventoryServer& server) {
    agent.ServeAt(server.port());
    ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
    ASSERT_TRUE(LastLineIs(agent, "Manual", {"FullData", "Success"})) << agent.AccessLog();
  }
};

TEST_F(UploadTest, AFailedUploadLeavesStoreAndSnapshotForTheNextRun) {
  AgentFolder agent("faults");
  agent.UseMachine("macbook-sample");
  agent.WriteResourceId("42");
  InventoryServer server;
  AcceptedFullScan(agent, server);
  const RunState accepted = StateOf(agent);
  ASSERT_NE(accepted.snapshot, "");

  struct Fault {
    const char* name;
    Answer answer;
    bool serverDown;
  };
  const Fault faults[] = {{"server down", Answer::kAccept, true},
                          {"500 answer", Answer::kServerError, false},
                          {"closed mid-answer", Answer::kCloseMidAnswer, false}};
  std::string sentAfterFault;
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    server.SetUploadAnswer(fault.answer);
    agent.ServeAt(fault.serverDown ? 1 : server.port());
    const std::size_t before = server.Uploads().size();
    EXPECT_EQ(agent.Run({"scheduled"}).exitCode, 0);
    EXPECT_TRUE(LastLineIs(agent, "Scheduled", {"DiffData", "Failure"})) << agent.AccessLog();
    EXPECT_TRUE(StateOf(agent) == accepted);
    if (!fault.serverDown) {
      ASSERT_EQ(server.Uploads().size(), before + 1);
      sentAfterFault = server.Uploads().back().body;
    }
  }
  // The next accepted run sends the same changes again.
  server.SetUploadAnswer(Answer::kAccept);
  agent.ServeAt(server.port());
  EXPECT_EQ(agent.Run({"scheduled"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(agent, "Scheduled", {"DiffData", "Success"})) << agent.AccessLog();
  EXPECT_EQ(WithoutScanTimes(server.Uploads().back().body), WithoutScanTimes(sentAfterFault));
  EXPECT_NE(StateOf(agent).store, accepted.store);
}

TEST_F(UploadTest, AServerSlowerThanTheTimeoutIsAFailure) {
  AgentFolder agent("slow");
  agent.UseMachine("macbook-sample");
  agent.WriteResourceId("42");
  InventoryServer server;
  server.SetUploadAnswer(Answer::kSlow);
  agent.ServeAt(server.port());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(agent.Run({"assetscan"}, std::chrono::seconds(90)).exitCode, 0);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(LastLineIs(agent, "Manual", {"FullData", "Failure"})) << agent.AccessLog();
  EXPECT_FALSE(std::filesystem::exists(agent.data() / "invFullData"));
  // The client gives up after its 30 seconds, on the only address it has.
  EXPECT_GE(took, std::chrono::seconds(29));
}

TEST_F(UploadTest, WithoutAResourceIdTheServerIsAskedAndARefusalStopsTheRun) {
  {
    AgentFolder agent("resid");
    agent.UseMachine("macbook-sample");
    InventoryServer server;
    server.SetResourceId("8812");
    agent.ServeAt(server.port());
    EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
    const auto requests = server.Requests();
    ASSERT_GE(requests.size(), 2u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/client-data/1/domains/macosgroup/resources/office-mac.xml");
    EXPECT_EQ(server.Uploads().size(), 1u);
    EXPECT_NE(server.Uploads()[0].target.find("&resourceid=8812&"), std::string::npos);
    EXPECT_NE(ReadFileText(agent.data() / "resource.plist").find("<string>8812</string>"),
              std::string::npos);
  }
  const Answer refusals[] = {Answer::kWithoutHeader, Answer::kServerError};
  for (const Answer refusal : refusals) {
    AgentFolder agent("noresid");
    agent.UseMachine("macbook-sample");
    InventoryServer server;
    server.SetResourceAnswer(refusal);
    agent.ServeAt(server.port());
    EXPECT_EQ(agent.Run({"scheduled"}).exitCode, 0);
    EXPECT_TRUE(LastLineIs(agent, "Scheduled", {"ResIDNotfound", "---"})) << agent.AccessLog();
    EXPECT_TRUE(server.Uploads().empty());
    // No collector ran.
    EXPECT_EQ(agent.ScanLog().find("Calling FetchInstalledSoftwareInfo method"), std::string::npos);
  }
}

TEST_F(UploadTest, HttpsWithACertificateMadeNowIsAccepted) {
  AgentFolder agent("https");
  agent.UseMachine("macbook-sample");
  agent.WriteResourceId("42");
  SelfSignedCertificate certificate(agent.base());
  ASSERT_TRUE(certificate.made());
  InventoryServer server(certificate);
  agent.ServeAt(server.port(), "https");
  EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(agent, "Manual", {"FullData", "Success"})) << agent.AccessLog();
  ASSERT_EQ(server.Uploads().size(), 1u);
  EXPECT_TRUE(server.Uploads()[0].secure);
  EXPECT_EQ(server.Uploads()[0].target.rfind("//inventory?computer=office-mac&domain=macosgroup"
                                             "&customerId=1&auditid=12345&resourceid=42"
                                             "&remoffId=301&isOnDemand=false&scanType=1"
                                             "&jsonFormat=0&currScanTime=",
                                             0),
            0u)
      << server.Uploads()[0].target;
}

}  // namespace
}  // namespace tarn::testing

namespace tarn::testing {
namespace {

TEST_F(UploadTest, AnUnchangedMachineSendsOnlyTheUserAndTheParameters) {
  AgentFolder agent("unchanged");
  agent.UseMachine("macbook-sample");
  agent.WriteResourceId("42");
  InventoryServer server;
  AcceptedFullScan(agent, server);
  const std::string firstStore = StateOf(agent).store;
  ASSERT_EQ(agent.Run({"scheduled", "x", "A-77"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(agent, "Scheduled", {"DiffData", "Success"})) << agent.AccessLog();
  ASSERT_EQ(server.Uploads().size(), 2u);
  const ReceivedRequest upload = server.Uploads()[1];
  EXPECT_EQ(upload.body.substr(0, 4), "{\n  ");
  // The first difference upload has no previous difference time: "0" is sent.
  EXPECT_NE(upload.target.find("&scanType=0&prevScanTime=0&jsonFormat=1&currScanTime="),
            std::string::npos)
      << upload.target;
  EXPECT_EQ(WithoutScanTimes(upload.body),
            "{\n"
            "  \"AgentParams\": {\n"
            "    \"AUDIT_ID\": \"A-77\",\n"
            "    \"COMPUTER_NAME\": \"office-mac\",\n"
            "    \"CUSTOMER_ID\": \"1\",\n"
            "    \"CUSTOMER_NAME\": \"Example Customer\",\n"
            "    \"DOMAIN_NETBIOS_NAME\": \"macosgroup\",\n"
            "    \"MSP_NAME\": \"Example MSP\",\n"
            "    \"RESOURCE_ID\": \"42\",\n"
            "    \"currScanTime\": \"T\",\n"
            "    \"prevScanTime\": \"T\",\n"
            "    \"scanType\": \"0\"\n"
            "  },\n"
            "  \"USER\": {\n"
            "    \"IS_LOCAL_ACCOUNT\": \"false\",\n"
            "    \"TYPE\": \"0\",\n"
            "    \"USER_ID\": \"0\",\n"
            "    \"USER_NAME\": \"office-mac\",\n"
            "    \"USID\": \"S-1-1-0\"\n"
            "  }\n"
            "}");
  // Only a difference upload moves the difference time.
  const std::string store = StateOf(agent).store;
  EXPECT_EQ(firstStore.find("INV_DIFF_SCAN_TIME"), std::string::npos);
  EXPECT_NE(store.find("<key>INV_DIFF_SCAN_TIME</key>"), std::string::npos) << store;
  EXPECT_EQ(upload.headers.find("Content-type")->second, "application/xml");
}

}  // namespace
}  // namespace tarn::testing
