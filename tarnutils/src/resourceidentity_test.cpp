#include "tarnutils/src/resourceidentity.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "framework/imds/store_testutil.h"
#include "platform/plist/plist_io.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

using testing::ScriptedHttp;

const std::string kPath = "client-data/C1/domains/macosgroup/resources/office-mac.xml";

std::string Document(const std::string& rows) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TarnWMIData>" + rows + "</TarnWMIData>\n";
}

HttpResult Served(std::string body) {
  return ScriptedHttp::Answer(200, {{"X-Tarn-Header", "1"}}, std::move(body));
}

class ResourceIdentityTest : public ::testing::Test {
 protected:
  ResourceIdentityTest() : folder_("resource-id"), storage_(folder_.str() + "//resource.plist") {}

  void SetUp() override {
    testing::ResetStore();
    ASSERT_TRUE(LoadDataDictFromXMLFile(TARN_SOURCE_DIR "/data/data-dictionary-framework.xml"));
    InitSettings();
    TarnGlobvars& vars = gv_globvars();
    vars.Set_tarnCustomerID("C1");
    vars.Set_localNameSpace("macosgroup");
    vars.Set_localComputerName("office-mac");
    vars.Set_tarnProtocol("http");
    vars.Set_tarnServerPort(8020);
    vars.Set_tarnlastaccessName("10.0.0.1");
    vars.Set_tarnServerName("srv");
  }
  void TearDown() override {
    DeinitTarnGlobalvars();
    testing::ResetStore();
  }

  // Fresh settings on the temporary resource store, opened as at start-up.
  void InitSettings() {
    InitTarnGlobalvars().Set_tarnagentStorageFilePath(storage_);
    InitializeResourceID();
  }
  std::optional<std::string> StoredId() const {
    return TextOf(ValueForKey(ReadPlistFile(storage_), "RESOURCEID"));
  }
  ScriptedHttp& http() { return fake_.http(); }

  testing::TempDir folder_;
  std::string storage_;
  testing::ScriptedHttpPlatform fake_;
};

TEST_F(ResourceIdentityTest, FetchedWithValidationStoredAndReadBack) {
  testing::LogCapture log;
  const std::string rows =
      R"(<Agentparams PARAM_TYPE="1" PARAM_NAME="OTHER" PARAM_VALUE="x"/>)"
      R"(<Agentparams PARAM_TYPE="1" PARAM_NAME="RESOURCE_ID" PARAM_VALUE="4711"/>)";
  http().Script(
      {ScriptedHttp::Answer(200, {{"Server", "x"}}, Document(rows)),  // not the server's answer
       Served(Document(rows) + std::string("\0<trailing", 10))});
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(GetResourceIDFromServer(), 0u);
  EXPECT_NE(
      ::testing::internal::GetCapturedStderr().find(
          "DWORD GetResourceIDFromServer(NSString**) [Line 735] resource xml url: " + kPath + "\n"),
      std::string::npos);
  ASSERT_EQ(http().requests.size(), 2u);
  EXPECT_EQ(http().requests[0].url, "http://10.0.0.1:8020/" + kPath);
  EXPECT_EQ(http().requests[1].url, "http://srv:8020/" + kPath);
  EXPECT_EQ(gv_globvars().tarnAgentResourceID(), "4711");
  EXPECT_EQ(StoredId(), "4711");
  EXPECT_TRUE(log.Contains(
      "[INFO] GetResourceIDFromServer : The Resource ID from the server is given  by 4711 \n"))
      << log.Text();

  EXPECT_EQ(UpdateResourceID(std::nullopt), 1u);  // nothing changes
  InitSettings();
  EXPECT_EQ(gv_globvars().tarnAgentResourceID(), "4711");
  EXPECT_EQ(UpdateResourceID("R-9"), 0u);
  EXPECT_EQ(gv_globvars().tarnAgentResourceID(), "R-9");
  EXPECT_EQ(StoredId(), "R-9");
}

TEST_F(ResourceIdentityTest, NoValueOrNoRowSucceedsWithoutAnId) {
  testing::LogCapture log;
  http().Script({Served(Document(R"(<Agentparams PARAM_NAME="RESOURCE_ID"/>)"))});
  EXPECT_EQ(GetResourceIDFromServer(), 0u);
  EXPECT_TRUE(log.Contains(
      "[ERROR] GetResourceIDFromServer : Error while allocating the value of resourceid \n"));

  UnLoadTable("Agentparams");
  http().Script({Served(Document(R"(<Agentparams PARAM_NAME="OTHER" PARAM_VALUE="x"/>)"))});
  EXPECT_EQ(GetResourceIDFromServer(), 0u);
  EXPECT_FALSE(gv_globvars().tarnAgentResourceID());
  EXPECT_FALSE(std::filesystem::exists(storage_));
}

TEST_F(ResourceIdentityTest, FailuresGiveOneWithTheirMessages) {
  const std::string unable =
      "[ERROR] GetResourceIDFromServer : Unable to get the reource id xml from " + kPath + "\n";
  const struct {
    std::vector<HttpResult> script;
    std::string message;
  } cases[] = {
      {{}, unable},  // nothing answers
      {{Served("")}, unable},
      {{ScriptedHttp::Answer(404)}, unable},
      {{Served("<TarnWMIData><Agentparams")},
       "[ERROR] GetResourceIDFromServer : Error occured  while loading resource id buffer to the "
       "memory : \n " +
           kPath + " \n"},
      {{Served(Document(""))},
       "[ERROR] GetResourceIDFromServer :No rows found corresponding to the resource id in the "
       "resource id xml .\n"},
  };
  for (const auto& c : cases) {
    testing::LogCapture log;
    UnLoadTable("Agentparams");
    http().Script(c.script);
    EXPECT_EQ(GetResourceIDFromServer(), 1u);
    EXPECT_TRUE(log.Contains(c.message)) << log.Text();
    EXPECT_FALSE(gv_globvars().tarnAgentResourceID());
  }
}

TEST_F(ResourceIdentityTest, EachSettingIsOnePathSegment) {
  struct Case {
    const char* customer;
    const char* computer;
    std::string path;
  };
  const Case cases[] = {
      {"C1", "office-mac", kPath},
      {"..", "../../../../admin/reset",
       "client-data/%2E%2E/domains/macosgroup/resources/..%2F..%2F..%2F..%2Fadmin%2Freset.xml"},
      {".", "pc#1?x=2", "client-data/%2E/domains/macosgroup/resources/pc%231%3Fx%3D2.xml"},
  };
  for (const Case& c : cases) {
    gv_globvars().Set_tarnCustomerID(c.customer);
    gv_globvars().Set_localComputerName(c.computer);
    http().Script({ScriptedHttp::Answer(404)});
    EXPECT_EQ(GetResourceIDFromServer(), 1u);
    ASSERT_EQ(http().requests.size(), 1u);
    EXPECT_EQ(http().requests[0].url, "http://10.0.0.1:8020/" + c.path);
  }
}

// The document's limits themselves are tested with the reader; here, that they apply.
TEST_F(ResourceIdentityTest, HostileDocumentsFailWithoutAnotherRequest) {
  ASSERT_TRUE(LoadDataDictFromXMLFile(TARN_SOURCE_DIR "/data/data-dictionary.xml"));
  std::string manyAttributes = "<Agentparams";
  for (int i = 0; i < 257; ++i) manyAttributes += " a" + std::to_string(i) + "=\"\"";
  testing::LogCapture log;
  http().Script({Served(Document(manyAttributes + " PARAM_NAME=\"RESOURCE_ID\" PARAM_VALUE=\"666\"/>")),
                 Served(Document(R"(<Agentparams PARAM_NAME="RESOURCE_ID" PARAM_VALUE="666"/>)"))});
  EXPECT_EQ(GetResourceIDFromServer(), 1u);
  EXPECT_EQ(http().requests.size(), 1u);
  EXPECT_TRUE(log.Contains("GetResourceIDFromServer : Error occured  while loading resource id "
                           "buffer to the memory : \n " +
                           kPath + " \n"))
      << log.Text();
  EXPECT_FALSE(gv_globvars().tarnAgentResourceID());
}

TEST_F(ResourceIdentityTest, RowsOfOtherKnownTablesAreSkippedAndUnknownElementsRefused) {
  ASSERT_TRUE(LoadDataDictFromXMLFile(TARN_SOURCE_DIR "/data/data-dictionary.xml"));
  const std::string idRow = R"(<Agentparams PARAM_NAME="RESOURCE_ID" PARAM_VALUE="666"/>)";
  {
    testing::LogCapture log;
    http().Script({Served(Document(R"(<Resource RESOURCE_ID="1" NAME="planted"/>)" + idRow +
                                   R"(<Resource RESOURCE_ID="2" NAME="again"/>)"))});
    EXPECT_EQ(GetResourceIDFromServer(), 0u);
    EXPECT_EQ(gv_globvars().tarnAgentResourceID(), "666");
    EXPECT_EQ(GetTableDataByName("Resource"), nullptr);
    EXPECT_EQ(log.Text().find("Rows of table Resource are ignored in this document.\n"),
              log.Text().rfind("Rows of table Resource are ignored in this document.\n"))
        << "logged once: " << log.Text();
    EXPECT_TRUE(log.Contains("Rows of table Resource are ignored in this document.\n"));
  }
  gv_globvars().Set_tarnAgentResourceID(std::nullopt);
  UnLoadTable("Agentparams");
  http().Script({Served(Document("<Planted/>" + idRow))});
  EXPECT_EQ(GetResourceIDFromServer(), 1u);
  EXPECT_FALSE(gv_globvars().tarnAgentResourceID());
}

TEST_F(ResourceIdentityTest, OnlyPlainTokensAreIds) {
  for (const char* good : {"4711", "R-9", "a.b_c", "x"}) EXPECT_TRUE(IsResourceIdToken(good)) << good;
  const std::string tooLong(65, '7');
  for (const std::string& bad : {std::string(), tooLong, std::string("12 34"), std::string("1\"/>"),
                                 std::string("id\n"), std::string("caf\xC3\xA9")}) {
    EXPECT_FALSE(IsResourceIdToken(bad)) << bad;
  }
  EXPECT_TRUE(IsResourceIdToken(std::string(64, '7')));

  // A forged id from the server is refused like no id at all and never stored.
  const std::string forged =
      R"(1&quot; /&gt;&lt;WMIFetchedValue VALUE=&quot;INJECTED-FAKE-APP&quot; /&gt;)";
  testing::LogCapture log;
  http().Script({Served(Document(R"(<Agentparams PARAM_NAME="RESOURCE_ID" PARAM_VALUE=")" +
                                 forged + R"("/>)"))});
  EXPECT_EQ(GetResourceIDFromServer(), 1u);
  EXPECT_FALSE(gv_globvars().tarnAgentResourceID());
  EXPECT_FALSE(std::filesystem::exists(storage_));
  EXPECT_TRUE(log.Contains("[ERROR] GetResourceIDFromServer : The resource id from the server is "
                           "not a valid id: "))
      << log.Text();

  // A stored id that is not a token is discarded at start-up.
  EXPECT_EQ(UpdateResourceID("bad id\""), 0u);
  InitSettings();
  EXPECT_FALSE(gv_globvars().tarnAgentResourceID());
  EXPECT_EQ(UpdateResourceID("R-10"), 0u);
  InitSettings();
  EXPECT_EQ(gv_globvars().tarnAgentResourceID(), "R-10");
}

}  // namespace
}  // namespace tarn
