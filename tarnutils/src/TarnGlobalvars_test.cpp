#include "tarnutils/src/TarnGlobalvars.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "framework/imds/store_testutil.h"
#include "framework/logging/logger.h"
#include "platform/plist/plist_io.h"
#include "tarnutils/src/proplisthandler.h"
#include "tarnutils/src/tarnutils_mac.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using testing::FakePlatform;
using testing::TempDir;

// Runs a test inside BASE/bin of a temporary agent folder with fresh settings.
class AgentFolderTest : public ::testing::Test {
 protected:
  AgentFolderTest() : base_("agent"), previous_(fs::current_path()) {}
  void SetUp() override {
    fs::create_directories(base_.path() / "bin");
    fs::create_directories(base_.path() / "data");
    fs::create_directories(base_.path() / "logs");
    fs::current_path(base_.path() / "bin");
    InitTarnGlobalvars();
  }
  void TearDown() override {
    DeinitTarnGlobalvars();
    fs::current_path(previous_);
  }

  std::string Data(const std::string& name) const {
    return (base_.path() / "data" / name).string();
  }

  // Writes an XML property list of text values.
  void WritePlist(const std::string& name,
                  const std::vector<std::pair<std::string, std::string>>& entries) {
    auto dict = PlistValue::MakeDictionary();
    for (const auto& [key, value] : entries)
      dict->SetValueForKey(key, PlistValue::MakeString(value));
    std::ofstream(Data(name)) << ToXmlPlist(*dict);
  }

  PlistPtr ReadData(const std::string& name) { return ReadPlistFile(Data(name)); }

  TempDir base_;
  fs::path previous_;
  FakePlatform fake_;
};

TEST_F(AgentFolderTest, InstallPathsFromTheWorkingDirectory) {
  ASSERT_EQ(GetAgentInstallPath(), 0u);
  TarnGlobvars& vars = gv_globvars();
  const std::string base = fs::current_path().parent_path().string();
  EXPECT_EQ(*vars.tarnagentBasePath(), base);
  EXPECT_EQ(*vars.tarnagentLogPath(), base + "/logs");
  EXPECT_EQ(*vars.tarnagentDataDictPath(), base + "/data");
  EXPECT_EQ(*vars.tarnagentStorageFilePath(), base + "/data//resource.plist");

  fs::create_directories(base_.path() / "other");
  fs::current_path(base_.path() / "other");
  EXPECT_EQ(GetAgentInstallPath(), 0u);  // idempotent: nothing changes
  EXPECT_EQ(*vars.tarnagentBasePath(), base);

  InitTarnGlobalvars();
  fs::create_directories(base_.path() / "a/bin/b/bin");
  fs::current_path(base_.path() / "a/bin/b/bin");
  GetAgentInstallPath();
  EXPECT_EQ(*gv_globvars().tarnagentBasePath(), base_.str() + "/a");

  InitTarnGlobalvars();
  fs::current_path(base_.path() / "other");
  GetAgentInstallPath();
  EXPECT_EQ(*gv_globvars().tarnagentBasePath(), base_.str() + "/other");
}

TEST_F(AgentFolderTest, ServerDetailsFromTheWorkingCopy) {
  WritePlist("serverinfo.plist", {{"SERVERNAME", "srv.example.com"},
                                  {"SERVERIPADDRESS", "10.0.0.1"},
                                  {"SERVERPROTOCOL", "https"},
                                  {"SERVERSECUREPORT", "8443"},
                                  {"CUSTOMERID", "42"},
                                  {"ENABLEREMOTEOFFICEMGMT", "No"},
                                  {"ENABLEDISTRIBUTIONSERVER", "true"},
                                  {"MAC_AD_DOMAIN", "corp"}});
  GetAgentInstallPath();
  InitializeServerDetails();
  const TarnGlobvars& vars = gv_globvars();
  EXPECT_EQ(*vars.tarnServerName(), "srv.example.com");
  EXPECT_EQ(vars.tarnServerPort(), 0u);  // missing port reads 0, not the default
  EXPECT_EQ(vars.tarnServerSecurePort(), 8443u);
  EXPECT_EQ(*vars.tarnCustomerID(), "42");
  EXPECT_FALSE(vars.isRemoteOffAgent());
  EXPECT_FALSE(vars.isDSEnabled());  // ignored for a non-remote-office agent
  EXPECT_EQ(*vars.localNameSpace(), "macosgroup");
  EXPECT_EQ(*vars.adDomain(), "corp");
  // The last-access address was missing: filled from the IP and written back
  // to the working copy only.
  EXPECT_EQ(*vars.tarnlastaccessName(), "10.0.0.1");
  EXPECT_EQ(ValueForKey(ReadData("dupserverinfo.plist"), "tarnlastaccessname")->String(),
            "10.0.0.1");
  EXPECT_FALSE(ValueForKey(ReadData("serverinfo.plist"), "tarnlastaccessname"));
}

TEST_F(AgentFolderTest, WorkingCopyRefreshedOnlyWhenItHoldsTwoEntriesOrFewer) {
  WritePlist("serverinfo.plist", {{"SERVERNAME", "fresh"},
                                  {"SERVERIPADDRESS", "10.0.0.9"},
                                  {"tarnlastaccessname", "10.0.0.9"},
                                  {"MAC_DOMAIN", "wg"}});
  WritePlist("dupserverinfo.plist", {{"SERVERNAME", "stale"}, {"tarnlastaccessname", "x"}});
  GetAgentInstallPath();
  InitializeServerDetails();
  EXPECT_EQ(*gv_globvars().tarnServerName(), "fresh");
  EXPECT_EQ(*gv_globvars().localNameSpace(), "wg");

  WritePlist("dupserverinfo.plist",
             {{"SERVERNAME", "kept"}, {"tarnlastaccessname", "x"}, {"MAC_DOMAIN", "wg"}});
  InitializeServerDetails();
  EXPECT_EQ(*gv_globvars().tarnServerName(), "kept");
  EXPECT_EQ(*gv_globvars().tarnlastaccessName(), "x");
}

TEST_F(AgentFolderTest, RemoteOfficeAndDistributionServer) {
  WritePlist("dupserverinfo.plist", {{"SERVERIPADDRESS", "10.0.0.1"},
                                     {"tarnlastaccessname", "srv"},
                                     {"ENABLEREMOTEOFFICEMGMT", "yes"},
                                     {"ENABLEDISTRIBUTIONSERVER", "true"},
                                     {"DSSERVERIPADDRESS", "10.0.0.7"},
                                     {"DSSERVERPORT", "9020"},
                                     {"SERVERPROTOCOL", "http"}});
  const auto before = fs::last_write_time(Data("dupserverinfo.plist"));
  GetAgentInstallPath();
  InitializeServerDetails();
  const TarnGlobvars& vars = gv_globvars();
  EXPECT_TRUE(vars.isRemoteOffAgent());
  EXPECT_TRUE(vars.isDSEnabled());
  EXPECT_EQ(*vars.tarnDSIP(), "10.0.0.7");
  EXPECT_EQ(vars.tarnDSPort(), 9020u);
  EXPECT_EQ(*vars.tarnDSProtocol(), "http");
  // The server's key was present, so the missing DS key stays absent and
  // nothing is written back.
  EXPECT_FALSE(vars.tarnDSlastaccessName());
  EXPECT_EQ(fs::last_write_time(Data("dupserverinfo.plist")), before);
}

TEST_F(AgentFolderTest, MissingServerInfoLeavesEmptySettings) {
  GetAgentInstallPath();
  InitializeServerDetails();
  const TarnGlobvars& vars = gv_globvars();
  EXPECT_FALSE(vars.tarnServerName());
  EXPECT_EQ(vars.tarnServerPort(), 0u);
  EXPECT_EQ(vars.tarnServerSecurePort(), 0u);
  EXPECT_EQ(*vars.localNameSpace(), "macosgroup");
  const PlistPtr written = ReadData("dupserverinfo.plist");
  ASSERT_TRUE(written);
  EXPECT_EQ(written->Count(), 0u);
}

TEST_F(AgentFolderTest, LocalComputerDetails) {
  fake_.host().hostName = "Office-Mac.local";
  fake_.host().interfaces = {{"en0", 2, "192.168.1.20"}};
  GetAgentInstallPath();
  InitializeLocalComputerDetails();
  const TarnGlobvars& vars = gv_globvars();
  EXPECT_EQ(*vars.localComputerName(), "office-mac");
  EXPECT_EQ(*vars.fqdnName(), "office-mac");  // no DNS domain
  EXPECT_EQ(*vars.localIPAddress(), "192.168.1.20");
  EXPECT_TRUE(fs::is_directory(base_.path() / "SystemData"));
  EXPECT_EQ(*vars.tarnondemandPlistPath(), Data("tarnondemand_data.plist"));
}

TEST_F(AgentFolderTest, LogLevelFromAgentConfiguration) {
  EXPECT_EQ(GetLogLevel(), 3);
  auto conf = PlistValue::MakeDictionary();
  conf->SetValueForKey("Loglevel", PlistValue::MakeInteger(1));
  std::ofstream(Data("agent-conf.plist")) << ToXmlPlist(*conf);
  EXPECT_EQ(GetLogLevel(), 1);
}

TEST_F(AgentFolderTest, TlsSettingsFromAgentConfiguration) {
  const std::string pin = "sha256//47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=";
  const auto text = [](const char* value) { return PlistValue::MakeString(value); };
  const std::string unusable = "TLS_VERIFY in agent-conf.plist is not 1, true, yes, 0, false or no";
  struct Case {
    std::vector<std::pair<std::string, PlistPtr>> keys;
    bool verify;
    std::optional<std::string> caFile;
    std::optional<std::string> pins;
    bool refused;  // every HTTPS request fails
  };
  // TLS_VERIFY alone: verify, and whether every HTTPS request fails.
  const auto verifyOnly = [](PlistPtr value, bool verify, bool refused) {
    return Case{{{"TLS_VERIFY", std::move(value)}}, verify, std::nullopt, std::nullopt, refused};
  };
  using V = PlistValue;
  const std::vector<Case> cases = {
      {{{"Loglevel", text("3")}}, false, std::nullopt, std::nullopt, false},
      verifyOnly(text("1"), true, false), verifyOnly(text("TRUE"), true, false),
      verifyOnly(text("Yes"), true, false), verifyOnly(V::MakeBoolean(true), true, false),
      verifyOnly(V::MakeInteger(1), true, false), verifyOnly(text("0"), false, false),
      verifyOnly(text("False"), false, false), verifyOnly(text("NO"), false, false),
      verifyOnly(V::MakeBoolean(false), false, false), verifyOnly(V::MakeInteger(0), false, false),
      // Anything else checks the chain and fails every request.
      verifyOnly(text(""), true, true), verifyOnly(text(" "), true, true),
      verifyOnly(text(" true"), true, true), verifyOnly(text("on"), true, true),
      verifyOnly(V::MakeInteger(2), true, true), verifyOnly(V::MakeReal(1.0), true, true),
      {{{"TLS_VERIFY", text("maybe")}, {"TLS_CA_FILE", text("ca.pem")}},
       true,
       Data("ca.pem"),
       std::nullopt,
       true},
      {{{"TLS_CA_FILE", text("ca.pem")}}, true, Data("ca.pem"), std::nullopt, false},
      {{{"TLS_CA_FILE", text("/etc/tarn/ca.pem")}, {"TLS_VERIFY", text("0")}},
       true,
       "/etc/tarn/ca.pem",
       std::nullopt,
       false},
      {{{"TLS_PINNED_PUBKEY", text(pin.c_str())}}, false, std::nullopt, pin, false},
      // A pin that is set is kept as it is, so that the transport refuses it: a certificate
      // file is no pin, and an empty text pins nothing.
      {{{"TLS_PINNED_PUBKEY", text("/etc/tarn/server.pem")}, {"TLS_VERIFY", text("1")}},
       true,
       std::nullopt,
       "/etc/tarn/server.pem",
       false},
      {{{"TLS_PINNED_PUBKEY", text("")}}, false, std::nullopt, "", false},
  };
  for (const Case& c : cases) {
    const std::string& first = c.keys.front().first;
    SCOPED_TRACE(first + " = " + c.keys.front().second->Description());
    InitTarnGlobalvars();
    auto conf = PlistValue::MakeDictionary();
    for (const auto& [key, value] : c.keys) conf->SetValueForKey(key, value);
    std::ofstream(Data("agent-conf.plist")) << ToXmlPlist(*conf);
    ReadTlsSettings();
    const TarnGlobvars& vars = gv_globvars();
    EXPECT_EQ(vars.tlsVerify(), c.verify);
    EXPECT_EQ(vars.tlsCaFile(), c.caFile);
    EXPECT_EQ(vars.tlsPinnedPublicKeys(), c.pins);
    EXPECT_EQ(vars.tlsSettingsError(), c.refused ? std::optional(unusable) : std::nullopt);
  }
}

TEST_F(AgentFolderTest, ModernDisksOnlyWhenTheKeySaysOn) {
  const auto text = [](const char* value) { return PlistValue::MakeString(value); };
  const struct {
    PlistPtr value;  // null: no key
    bool on;
    std::string logged;  // "" : nothing at all
  } cases[] = {
      {nullptr, false, ""},
      {text("1"), true,
       "[INFO] ReadCollectorSettings : REPORT_MODERN_DISKS is on: NVMe disks "
       "and external volumes are reported\n"},
      {text("Yes"), true, "is on"},
      {PlistValue::MakeBoolean(true), true, "is on"},
      {PlistValue::MakeInteger(1), true, "is on"},
      {text("0"), false, ""},
      {PlistValue::MakeBoolean(false), false, ""},
      {text("on"), false,
       "[ERROR] ReadCollectorSettings : REPORT_MODERN_DISKS is not 1, true, yes, 0, false or "
       "no; left off\n"},
      {PlistValue::MakeInteger(2), false, "left off"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value ? c.value->Description() : "no key");
    InitTarnGlobalvars();
    auto conf = PlistValue::MakeDictionary();
    conf->SetValueForKey("Loglevel", text("3"));
    if (c.value) conf->SetValueForKey("REPORT_MODERN_DISKS", c.value);
    std::ofstream(Data("agent-conf.plist")) << ToXmlPlist(*conf);
    testing::LogCapture log(4);
    ReadCollectorSettings();
    EXPECT_EQ(gv_globvars().reportModernDisks(), c.on);
    if (c.logged.empty()) {
      EXPECT_EQ(log.Text().find("ReadCollectorSettings"), std::string::npos) << log.Text();
    } else {
      EXPECT_TRUE(log.Contains(c.logged)) << log.Text();
    }
  }
}

TEST_F(AgentFolderTest, LoggingEngineTakesOverStandardError) {
  // Standard error is re-opened onto the log, so the check runs in a child process.
  EXPECT_EXIT(
      {
        StartLoggingEngine("scan.log", 1);
        std::fprintf(stderr, "from stderr\n");
        UserLogMessage("info line\n");
        ErrorLogMessage("error line\n");
        StopLoggingEngine();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  std::ifstream in(base_.path() / "logs/scan.log");
  const std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(log.find("Log open time: "), std::string::npos);
  EXPECT_NE(log.find("from stderr\n"), std::string::npos);
  EXPECT_NE(log.find("] [INFO] info line\n"), std::string::npos);
  EXPECT_EQ(log.find("error line"), std::string::npos);  // level 1 writes no errors
  EXPECT_NE(log.find("Log close time: "), std::string::npos);
}

class RotateLogTest : public AgentFolderTest {
 protected:
  std::string Log(const std::string& name) const { return (base_.path() / "logs" / name).string(); }
  void Write(const std::string& name, std::size_t size, char fill = 'x') {
    std::ofstream(Log(name)) << std::string(size, fill);
  }
  std::string FirstByte(const std::string& name) {
    std::ifstream in(Log(name));
    return std::string(1, static_cast<char>(in.get()));
  }
};

TEST_F(RotateLogTest, ThresholdIsTwoMebibytes) {
  Write("scan.log", kRotateLogThreshold - 1);
  EXPECT_EQ(RotateLog("scan"), 0u);
  EXPECT_FALSE(fs::exists(Log("scan1.log")));
  Write("scan.log", kRotateLogThreshold);
  EXPECT_EQ(RotateLog("scan"), 0u);
  EXPECT_TRUE(fs::exists(Log("scan1.log")));
  EXPECT_FALSE(fs::exists(Log("scan.log")));
  EXPECT_EQ(fs::file_size(Log("scan1.log")), kRotateLogThreshold);
}

TEST_F(RotateLogTest, FullSetShiftsAndDropsTheOldest) {
  Write("scan.log", kRotateLogThreshold, 'c');
  for (int i = 1; i <= 9; ++i) Write("scan" + std::to_string(i) + ".log", 10, char('0' + i));
  EXPECT_EQ(RotateLog("scan"), 0u);
  EXPECT_EQ(FirstByte("scan1.log"), "c");
  for (int i = 2; i <= 9; ++i) {
    EXPECT_EQ(FirstByte("scan" + std::to_string(i) + ".log"), std::string(1, char('0' + i - 1)));
  }
  EXPECT_FALSE(fs::exists(Log("scan.log")));
  EXPECT_FALSE(fs::exists(Log("scan10.log")));
}

TEST_F(RotateLogTest, OtherFilesAndMissingLogs) {
  Write("other.txt", 5);
  EXPECT_EQ(RotateLog("scan"), 0u);  // nothing named like the log: no change
  EXPECT_TRUE(fs::exists(Log("other.txt")));

  Write("scan1.log", 5);  // the current log is missing: the pass still runs
  EXPECT_EQ(RotateLog("scan"), 0u);
  EXPECT_FALSE(fs::exists(Log("scan1.log")));

  fs::remove_all(base_.path() / "logs");
  EXPECT_EQ(RotateLog("scan"), 1u);
}

}  // namespace
}  // namespace tarn
