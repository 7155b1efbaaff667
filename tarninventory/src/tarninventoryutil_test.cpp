#include "tarninventory/src/tarninventoryutil.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "framework/imds/dataset.h"
#include "framework/imds/dotoxml.h"
#include "framework/imds/store_testutil.h"
#include "framework/imds/xmltodo.h"
#include "framework/persistent/xmldatadictparser.h"
#include "tarninventory/src/FullScanHandler.h"
#include "tarninventory/src/InvClassHandler.h"
#include "tarninventory/src/inventoryupload.h"
#include "tarninventory/src/runcontext.h"
#include "tarninventory/src/scandata.h"
#include "tarninventory/src/scanrun.h"
#include "tarninventory/src/scansettings.h"
#include "tarnutils/src/JsonEncoder.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/proplisthandler.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::string DataFile(const std::string& name) {
  return std::string(TARN_SOURCE_DIR) + "/data/" + name;
}

// Compact JSON in insertion order: shows the exact shape and filing order.
std::string Json(const PlistPtr& value) { return EncodeJson(value, 0).value_or("(not JSON)"); }

PlistPtr Instance(const Pairs& entries) {
  PlistPtr instance = PlistValue::MakeDictionary();
  for (const auto& [key, value] : entries) {
    instance->SetObjectForKey(key, PlistValue::MakeString(value));
  }
  return instance;
}

// The table's rows as "a|b|c;" by column position; texts as stored, integers
// read in their recorded size, null slots as "null".
std::string TableText(const char* name) {
  const TableData* table = GetTableDataByName(name);
  std::string text;
  for (const auto& row : table->rows) {
    for (std::size_t i = 0; i < row->values.size(); ++i) {
      const ValueSlot& value = row->values[i];
      const int type = table->tableDefn->columns()[i].type;
      text += i == 0 ? "" : "|";
      if (!value) {
        text += "null";
      } else if (type == 14 || type == 15 || type == 22) {
        text += value->c_str();
      } else {
        text += row->lengths[i] == 8 ? std::to_string(value->Read<std::int64_t>())
                                     : std::to_string(value->Read<std::int32_t>());
      }
    }
    text += ";";
  }
  return text;
}

// Records an instance value by value, as the collectors do.
void Record(std::int32_t classId, std::int32_t instance, const Pairs& values) {
  for (const auto& [propertyId, value] : values) {
    AddRowWMIFetchValueTable(std::stoi(propertyId), classId, instance, 0, value);
  }
}

// The value that ends every run: the catalogue's LAST_PROPERTY_ID, 2808.
void RecordRunEnd() { Record(28, 1, {{"2808", "m"}}); }

class RecorderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::ResetStore();
    for (const char* name : {"data-dictionary.xml", "data-dictionary-inv.xml",
                             "data-dictionary-framework.xml", "data-dictionary-onpremise.xml"}) {
      ASSERT_TRUE(LoadDataDictFromXMLFile(DataFile(name).c_str()));
    }
    std::ostringstream read;
    read << std::ifstream(DataFile("Mac_InvClasses.xml"), std::ios::binary).rdbuf();
    const std::string catalogue = read.str();
    ASSERT_EQ(CreateDOFromXMLBuffer(catalogue.data(), catalogue.size()), 1);
    invClassObj().Initialize();
    ASSERT_EQ(invClassObj().CreateInvTable(), 0u);
    ASSERT_EQ(CreateTable("WMIFetchedValue"), 1);
    ResetScanRun();
    TarnGlobvars& vars = InitTarnGlobalvars();
    vars.Set_localComputerName("mac-01");
    vars.Set_localNameSpace("WORKGROUP");
    vars.Set_adDomain("corp.example");
    vars.Set_tarnMSPName("msp");
    vars.Set_tarnCustomerName("Customer & Co");
    vars.Set_tarnCustomerID("7");
    vars.Set_tarnAgentResourceID("12abc");
  }
  void TearDown() override {
    invClassObj().dealloc();
    DeinitTarnGlobalvars();
    ResetScanRun();
    testing::ResetStore();
  }

  static void StartDiffScan(ScanData previous) {
    CurrentScanRun().scanType = kDiffScanType;
    CurrentScanRun().fullScanobj = std::make_unique<FullScanHandler>(std::move(previous));
  }
};

TEST_F(RecorderTest, ValueRowsCountAcrossClassesAndEscapeTheirValues) {
  Record(1, 1, {{"101", "OS \"X\" <14> & more"}});
  AddRowWMIFetchValueTable(117, 1, 3, 0, "3");
  Record(1, 1, {{"102", "a\nb"}});
  AddRowWMIFetchValueTable(301, 3, 1, 0, std::nullopt);
  PlistPtr apps = PlistValue::MakeDictionary();
  apps->SetObjectForKey("z", Instance({{"1801", "Zed"}, {"1812", "/Z"}}));
  apps->SetObjectForKey("a", Instance({{"1801", "Alpha"}}));
  addtoTable(apps, 18);
  // Value id, property, class, instance (117 keeps its own; applications are
  // numbered in the outer key order), escaped value or "-", flag.
  EXPECT_EQ(TableText("WMIFetchedValue"),
            "1|101|1|1|OS &quot;X&quot; &lt;14&gt; &amp; more|0;2|117|1|3|3|0;3|102|1|1|a|0;"
            "4|301|3|1|-|0;5|1801|18|1|Zed|0;6|1812|18|1|/Z|0;7|1801|18|2|Alpha|0;");

  // The recorder saw 117 as instance 1 (one class-1 instance), keeps the
  // texts unescaped and an absent value as "(null)".
  RecordRunEnd();
  EXPECT_EQ(Json(CurrentScanRun().invScanData.ToPlist()),
            R"({"1":[{"101":"OS \"X\" <14> & more","117":"3","102":"a\nb","KEY":""}],)"
            R"j("3":[{"301":"(null)","KEY":""}],)j"
            R"("18":[{"1801":"Zed","1812":"/Z","KEY":"Zed/Z"},{"1801":"Alpha","KEY":"Alpha"}],)"
            R"("28":[{"2808":"m","KEY":""}]})");

  // A refused row is logged and still uses up its value id.
  testing::LogCapture log(3);
  UnLoadTable("WMIFetchedValue");
  AddRowWMIFetchValueTable(2501, 25, 1, 0, "lp");
  EXPECT_TRUE(log.Contains("[ERROR] \t Error while adding row for ADResource table !!! \n"));
  CreateTable("WMIFetchedValue");
  AddRowWMIFetchValueTable(2502, 25, 1, 0, "x");
  EXPECT_EQ(TableText("WMIFetchedValue"), "10|2502|25|1|x|0;");
}

TEST_F(RecorderTest, InstancesEndOnClassChangeNumberChangeAndLastProperty) {
  Record(5, 1, {{"501", "a"}});
  Record(5, 2, {{"501", "b"}});
  EXPECT_EQ(Json(CurrentScanRun().invScanData.ToPlist()), R"({"5":[{"501":"a","KEY":""}]})");
  // The first class-7 value files b. Then 1, 2, 1 are three instances.
  Record(7, 1, {{"701", "v"}, {"702", "v"}});
  Record(7, 2, {{"701", "w"}});
  Record(7, 1, {{"701", "x"}});
  // The last property files at once; the number change after it files
  // nothing, a class change files even an empty instance.
  Record(28, 1, {{"2801", "m"}, {"2808", "end"}});
  Record(28, 2, {{"2801", "n"}});
  Record(24, 1, {{"2401", "e"}});
  Record(28, 1, {{"2808", "end"}});
  Record(1, 1, {{"101", "os"}});
  EXPECT_EQ(Json(CurrentScanRun().invScanData.ToPlist()),
            R"({"5":[{"501":"a","KEY":""},{"501":"b","KEY":""}],)"
            R"("7":[{"701":"v","702":"v","KEY":""},{"701":"w","KEY":""},{"701":"x","KEY":""}],)"
            R"("28":[{"2801":"m","2808":"end","KEY":""},{"2801":"n","KEY":""},)"
            R"({"2808":"end","KEY":""},{"KEY":""}],"24":[{"2401":"e","KEY":""}]})");
  EXPECT_EQ(CurrentScanRun().invDiffData->Count(), 0u);  // a full scan compares nothing
}

TEST_F(RecorderTest, DifferenceDocumentHasTheExactShape) {
  // The previous run, recorded as a full scan: its scan data is the snapshot.
  Record(13, 1, {{"1305", "disk0"}, {"1306", "5"}});
  Record(13, 2, {{"1305", "disk1"}, {"1306", "2"}});
  Record(13, 3, {{"1305", "disk2"}, {"1306", "1"}});
  Record(13, 4, {{"1305", "disk3"}, {"1306", "9"}, {"1307", "old"}});
  Record(13, 5, {{"1305", "disk4"}, {"1306", "4"}});
  Record(18, 1, {{"1801", "Safari"}, {"1812", "/A"}, {"1814", "OS_EXT"}});
  Record(18, 2, {{"1801", "Gone"}, {"1812", "/G"}});
  RecordRunEnd();
  ScanData previous = std::move(CurrentScanRun().invScanData);
  ResetScanRun();
  StartDiffScan(std::move(previous));

  Record(13, 1, {{"1305", "disk0"}, {"1306", "5"}});  // not modified
  Record(13, 2, {{"1305", "disk1"}, {"1306", "3"}});  // modified
  Record(13, 3, {{"1305", "disk3"}, {"1306", "9"}});  // lost a property: not modified
  Record(13, 4, {{"1305", "disk4"}, {"1306", "4"}, {"1307", "new"}});  // gained one: modified
  Record(13, 5, {{"1305", "disk4"}, {"1306", "4"}});                   // the same key again: new
  Record(18, 1, {{"1801", "Safari"}, {"1812", "/A"}, {"1813", "17"}, {"1814", "OS_EXT"}});
  Record(18, 2, {{"1801", "Mail"}, {"1812", "/M"}});
  RecordRunEnd();
  CurrentScanRun().fullScanobj->WritetoDiffData();
  const PlistPtr diff = CurrentScanRun().invDiffData;
  EXPECT_EQ(Json(diff),
            R"({"13":{"2":[{"1305":"disk1","1306":"3"},{"1305":"disk4","1306":"4","1307":"new"}],)"
            R"("0":[{"1305":"disk4","1306":"4"}],"1":[{"1305":"disk2","1306":"1"}]},)"
            R"("18":{"2":{"OS_EXT":[{"1801":"Safari","1812":"/A","1813":"17","1814":"-"}]},)"
            R"("0":{"S-1-1-0":[{"1801":"Mail","1812":"/M"}]},)"
            R"("1":{"S-1-1-0":[{"1801":"Gone","1812":"/G"}]}}})");
  // Filing works on copies: the scan data keeps "KEY" and "OS_EXT".
  EXPECT_EQ(Json(CurrentScanRun().invScanData.ToPlist()->ValueForKey("18")->ObjectAtIndex(0)),
            R"({"1801":"Safari","1812":"/A","1813":"17","1814":"OS_EXT","KEY":"Safari/A"})");

  AddUserinDict(diff);
  AddAgentParamsinDict(diff, "42", "1700000100", std::nullopt);
  EXPECT_EQ(Json(diff->ValueForKey("USER")),
            R"({"DOMAIN_NAME":"corp.example","IS_LOCAL_ACCOUNT":"false","TYPE":"0",)"
            R"("USER_ID":"0","USER_NAME":"mac-01","USID":"S-1-1-0"})");
  EXPECT_EQ(Json(diff->ValueForKey("AgentParams")),
            R"({"COMPUTER_NAME":"mac-01","DOMAIN_NETBIOS_NAME":"WORKGROUP","RESOURCE_ID":"12abc",)"
            R"("MSP_NAME":"msp","CUSTOMER_NAME":"Customer & Co","CUSTOMER_ID":"7",)"
            R"("currScanTime":"1700000100","prevScanTime":"0","scanType":"0","AUDIT_ID":"42"})");
  // A full scan has no previous time; an absent setting is left out.
  CurrentScanRun().scanType = kFullScanType;
  gv_globvars().Set_tarnAgentResourceID(std::nullopt);
  AddAgentParamsinDict(diff, "42", "1", "0");
  EXPECT_EQ(diff->ValueForKey("AgentParams")->Keys().size(), 8u);
  EXPECT_EQ(diff->ValueForKey("AgentParams")->ValueForKey("scanType")->String(), "1");
}

// A comparison logs both instances (at debug level) and the first difference it finds.
TEST_F(RecorderTest, ComparisonsAreLogged) {
  Record(13, 1, {{"1305", "disk0"}, {"1306", "5"}});
  Record(13, 2, {{"1305", "disk \"three\""}, {"1306", "1"}, {"1307", "x"}});
  RecordRunEnd();
  ScanData previous = std::move(CurrentScanRun().invScanData);
  ResetScanRun();
  StartDiffScan(std::move(previous));
  testing::LogCapture log(3);
  Record(13, 1, {{"1306", "5"}, {"1305", "disk0"}});                          // other order
  Record(13, 2, {{"1305", "disk \"three\""}, {"1306", "4"}, {"1307", "x"}});  // modified
  RecordRunEnd();
  EXPECT_TRUE(log.Contains("CompareDicts :CurData : {\\x0A    1306 = 5;")) << log.Text();
  EXPECT_TRUE(log.Contains("GetDictStatus :Not modified \n")) << log.Text();
  EXPECT_TRUE(log.Contains("CompareDicts :modified propertyID : 1306 curValue:4 prevValue : 1"))
      << log.Text();
  EXPECT_TRUE(log.Contains("GetDictStatus :Modified \n")) << log.Text();
}

TEST_F(RecorderTest, DifferenceScanWithoutSnapshotAndFailedFiling) {
  CurrentScanRun().scanType = kDiffScanType;
  Record(22, 1, {{"2201", "en0"}});
  RecordRunEnd();
  EXPECT_EQ(Json(CurrentScanRun().invDiffData),
            R"({"22":{"0":[{"2201":"en0"}]},"28":{"0":[{"2808":"m"}]}})");

  // Without a difference document, filing fails and says so.
  CurrentScanRun().invDiffData.reset();
  EXPECT_EQ(AddtoDiffData(kStatusNew, 4, CurrentScanRun().invScanData.LastFiled()), 1u);
}

TEST_F(RecorderTest, UploadRowsOfAFullScan) {
  testing::LogCapture log(3);
  CreateWMIParentTablevalues(0, std::nullopt);
  ASSERT_NE(createComputerInfoRow(), nullptr);
  ASSERT_NE(createInvAuditEntryRow(12345), nullptr);
  AddAgentParamsforInvinXML("1700000000", std::string("1600000000"));
  AddAgentParamsforInvinXML("1700000100", std::string("1600000000"));  // replaces the first
  EXPECT_EQ(TableText("WMIData"), "S-1-1-0|0|0|mac-01|WORKGROUP|0;");
  EXPECT_EQ(TableText("Resource"), "12|mac-01|WORKGROUP|1|0|0|0|7;");  // id "12abc"
  EXPECT_EQ(TableText("InvAuditEntry"), "12345|0|0|0|0|0;");
  EXPECT_EQ(TableText("AgentParams"),
            "1|COMPUTER_NAME|mac-01;1|DOMAIN_NETBIOS_NAME|WORKGROUP;1|RESOURCE_ID|12abc;"
            "1|MSP_NAME|msp;1|CUSTOMER_NAME|Customer & Co;1|CUSTOMER_ID|7;"
            "1|currScanTime|1700000100;1|scanType|1;");
  EXPECT_TRUE(
      log.Contains("[INFO] \t Successfully added a row to Resource table : "
                   "{RESOURCE_ID=12, NAME=mac-01"))
      << log.Text();

  // A name equal to the name space (any letter case) is local; an absent
  // customer id reads as 0; a difference scan sends its previous time.
  gv_globvars().Set_localNameSpace("MAC-01");
  gv_globvars().Set_tarnCustomerID(std::nullopt);
  gv_globvars().Set_tarnAgentResourceID(std::nullopt);
  CurrentScanRun().scanType = kDiffScanType;
  UnLoadTable("WMIData");
  UnLoadTable("Resource");
  CreateWMIParentTablevalues(3, std::string("S-1-5-21"));
  createComputerInfoRow();
  AddAgentParamsforInvinXML("1700000200", std::nullopt);
  EXPECT_EQ(TableText("WMIData"), "S-1-5-21|0|3|mac-01|MAC-01|1;");
  EXPECT_EQ(TableText("Resource"), "0|mac-01|MAC-01|1|0|0|0|0;");
  EXPECT_EQ(TableText("AgentParams"),
            "1|COMPUTER_NAME|mac-01;1|DOMAIN_NETBIOS_NAME|MAC-01;1|MSP_NAME|msp;"
            "1|CUSTOMER_NAME|Customer & Co;1|currScanTime|1700000200;1|prevScanTime|0;"
            "1|scanType|0;");
}

// Names from the host with markup and bytes that are not UTF-8: the upload rows still make a
// well-formed document with exactly the rows written, the names read back as sent.
TEST_F(RecorderTest, NamesFromTheHostCannotChangeTheDocumentsShape) {
  gv_globvars().Set_localComputerName("Bob\xFF's <\"Mac\"> & Co");
  gv_globvars().Set_localNameSpace("W\xC3<G/>");
  // The agent's own settings are written as they are: this test's one has no markup.
  gv_globvars().Set_tarnCustomerName("Customer");
  CreateWMIParentTablevalues(0, std::nullopt);
  ASSERT_NE(createComputerInfoRow(), nullptr);
  ASSERT_NE(createInvAuditEntryRow(1), nullptr);
  AddAgentParamsforInvinXML("1700000000", std::nullopt);
  const char* const tables[] = {"WMIData", "AgentParams", "Resource", "InvAuditEntry"};
  const std::optional<std::string> body = ConvertDOtoXMLBuffer(tables, "TarnWMIData");
  ASSERT_TRUE(body);

  const std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> document(
      xmlReadMemory(body->data(), static_cast<int>(body->size()), nullptr, nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
      xmlFreeDoc);
  ASSERT_NE(document, nullptr) << *body;
  const std::string name = "Bob\xEF\xBF\xBD's <\"Mac\"> & Co";
  const std::string domain = "W\xEF\xBF\xBD<G/>";
  std::vector<std::string> rows;
  for (const xmlNode* node = xmlDocGetRootElement(document.get())->children; node != nullptr;
       node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    std::string row = reinterpret_cast<const char*>(node->name);
    for (const char* column :
         {"COMPUTER_NAME", "NAME_SPACE", "NAME", "DOMAIN_NETBIOS_NAME", "PARAM_VALUE"}) {
      xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(column));
      if (value != nullptr) row += std::string("|") + reinterpret_cast<const char*>(value);
      xmlFree(value);
    }
    rows.push_back(row);
  }
  const std::vector<std::string> expected = {"WMIData|" + name + "|" + domain,
                                             "AgentParams|" + name,
                                             "AgentParams|" + domain,
                                             "AgentParams|12abc",
                                             "AgentParams|msp",
                                             "AgentParams|Customer",
                                             "AgentParams|7",
                                             "AgentParams|1700000000",
                                             "AgentParams|1",
                                             "Resource|" + name + "|" + domain,
                                             "InvAuditEntry"};
  EXPECT_EQ(rows, expected) << *body;
}

// Applications against a snapshot of as many: the snapshot's first tenth are gone, as many
// are new, every tenth kept one has a new version. Matching costs no more than in proportion
// to the applications: four times as many visit at most about four times as many instances.
TEST_F(RecorderTest, DifferenceOfManyApplicationsGrowsInProportion) {
  const auto application = [](int i, const char* version) {
    const std::string name = "App" + std::to_string(i);
    return Pairs{{"1801", name},
                 {"1802", version},
                 {"1812", "/Applications/" + name},
                 {"1814", i % 100 == 0 ? "OS_EXT" : "x"}};
  };
  // Records applications first to last - 1 as one run; "changed" gives every tenth a new
  // version. Returns the instances the matching visited and what it filed per status.
  const auto diff = [&](int count) {
    const int gone = count / 10;
    const auto run = [&](int first, int last, bool changed) {
      for (int i = first; i < last; ++i) {
        const bool change = changed && i < count && i % 10 == 0;
        for (const auto& [propertyId, value] : application(i, change ? "2.0" : "1.0")) {
          SaveScanData(std::stoi(propertyId), 18, i + 1, 0, value);
        }
      }
      SaveScanData(2808, 28, 1, 0, "end");
    };
    ResetScanRun();
    run(0, count, false);
    ScanData previous = std::move(CurrentScanRun().invScanData);
    ResetScanRun();
    StartDiffScan(std::move(previous));
    run(gone, count + gone, true);
    const FullScanHandler& snapshot = *CurrentScanRun().fullScanobj;
    snapshot.WritetoDiffData();
    const PlistPtr software = CurrentScanRun().invDiffData->ValueForKey("18");
    std::vector<std::size_t> filed;
    for (const char* status : {"0", "1", "2"}) {
      std::size_t total = 0;
      for (const auto& group : software->ValueForKey(status)->Entries()) {
        total += group.second->Count();
      }
      filed.push_back(total);
    }
    EXPECT_EQ(snapshot.RemainingCount(18), static_cast<std::size_t>(gone));
    return std::make_pair(snapshot.InstancesVisited(), filed);
  };
  const auto [visitedSmall, filedSmall] = diff(1000);
  EXPECT_EQ(filedSmall, (std::vector<std::size_t>{100, 100, 90}));
  const auto [visitedLarge, filedLarge] = diff(4000);
  EXPECT_EQ(filedLarge, (std::vector<std::size_t>{400, 400, 360}));
  EXPECT_GT(visitedSmall, 0u);
  EXPECT_LE(visitedLarge, 4 * visitedSmall * 2);
}

class FixedClock final : public Clock {
 public:
  explicit FixedClock(std::time_t now) : now_(now) {}
  std::time_t Now() const override { return now_; }

 private:
  std::time_t now_;
};

// The scan time an upload carries in its address and body is the run context's clock, and
// the stored previous difference time goes with a difference.
TEST_F(RecorderTest, UploadCarriesTheContextClocksTime) {
  const testing::TempDir dir("upload-clock");
  const std::string accessLog = dir.str() + "/access.log";
  CurrentScanRun().tarninventory_datalist = Proplisthandler::InitwithFile(dir.str() + "/state");
  CurrentScanRun().tarninventory_datalist->SetValueForKey(kInvDiffScanTime,
                                                          PlistValue::MakeString("1690000000"));
  Record(13, 1, {{"1305", "disk0"}});
  RecordRunEnd();
  const FixedClock clock(1700000123);
  const RunContext context = ContextOfThisRun(clock);

  const PreparedUpload full = PrepareUpload(context, "42", accessLog);
  EXPECT_EQ(full.currentTime, "1700000123");
  EXPECT_TRUE(full.address.ends_with("&scanType=1&jsonFormat=0&currScanTime=1700000123"))
      << full.address;
  EXPECT_NE(full.body.find("PARAM_NAME=\"currScanTime\" PARAM_VALUE=\"1700000123\""),
            std::string::npos);

  CurrentScanRun().scanType = kDiffScanType;
  const PreparedUpload diff = PrepareUpload(context, "42", accessLog);
  EXPECT_TRUE(diff.address.ends_with(
      "&scanType=0&prevScanTime=1690000000&jsonFormat=1&currScanTime=1700000123"))
      << diff.address;
  EXPECT_NE(diff.body.find("\"currScanTime\": \"1700000123\""), std::string::npos);
}

}  // namespace
}  // namespace tarn
