// The data files the scanner ships with, loaded through the real loaders.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "framework/imds/dataset.h"
#include "framework/imds/store_testutil.h"
#include "framework/imds/xmltodo.h"
#include "framework/persistent/datadict.h"
#include "framework/persistent/xmldatadictparser.h"
#include "tarninventory/src/InvClassHandler.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

std::string DataFile(const std::string& name) {
  return std::string(TARN_SOURCE_DIR) + "/data/" + name;
}

std::string ReadAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

const std::vector<std::string> kDictionaries = {"data-dictionary.xml", "data-dictionary-inv.xml",
                                                "data-dictionary-framework.xml",
                                                "data-dictionary-onpremise.xml"};

// The property ids each collector records, class by class: first and last number.
struct RecordedClass {
  std::uint32_t classId;
  int firstProperty;
  int lastProperty;
};
const std::vector<RecordedClass> kRecorded = {
    {1, 101, 118},     // operating system
    {3, 301, 313},     // processor
    {4, 401, 411},     // volumes
    {7, 701, 710},     // video controller
    {12, 1201, 1206},  // optical drive
    {13, 1301, 1311},  // disk drives
    {18, 1801, 1815},  // software and the OS row
    {20, 2001, 2017},  // computer system
    {22, 2201, 2218},  // network adapters
    {24, 2401, 2402},  // enclosure
    {25, 2501, 2516},  // printers
    {27, 2701, 2710},  // memory slots
    {28, 2801, 2808},  // memory array
};

class DataFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::ResetStore();
    for (const std::string& name : kDictionaries) {
      ASSERT_TRUE(LoadDataDictFromXMLFile(DataFile(name).c_str()));
    }
  }
  void TearDown() override { testing::ResetStore(); }

  testing::LogCapture log_{2};
};

std::vector<int> ColumnTypes(const char* table) {
  std::vector<int> types;
  if (const TableDefn* definition = GetTableDefnEntry(table)) {
    for (const ColumnDefn& column : definition->columns()) types.push_back(column.type);
  }
  return types;
}

constexpr int kInt = 5;
constexpr int kText = 22;

bool IsText(int type) { return type == 14 || type == 15 || type == 22; }

TEST_F(DataFilesTest, EveryTableOfTheRunIsDefinedOnceWithItsColumnsInOrder) {
  EXPECT_FALSE(log_.Contains("ERROR")) << log_.Text();
  std::map<std::string, int> definitions;
  for (const auto& definition : GetTableDefnVector().definitions()) {
    ++definitions[FoldCase(definition->name())];
  }
  for (const auto& [name, count] : definitions) EXPECT_EQ(count, 1) << name;

  EXPECT_EQ(ColumnTypes("WMIFetchedValue"),
            (std::vector<int>{kInt, kInt, kInt, kInt, kText, kInt}));
  EXPECT_EQ(ColumnTypes("AgentParams"), (std::vector<int>{kInt, 15, kText}));
  // The server's resource-id document names the same table in another letter case.
  EXPECT_EQ(GetTableDefnEntry("Agentparams"), GetTableDefnEntry("AgentParams"));
  EXPECT_NE(GetColumnDefnEntry("Agentparams", "PARAM_NAME"), nullptr);

  // Text columns by position; CHAR columns (14, 15) are short texts.
  const auto textPositions = [](const char* table) {
    std::vector<int> positions;
    const std::vector<int> types = ColumnTypes(table);
    for (std::size_t i = 0; i < types.size(); ++i) {
      if (IsText(types[i])) {
        positions.push_back(static_cast<int>(i));
      } else {
        EXPECT_EQ(types[i], kInt) << table << " column " << i;
      }
    }
    return positions;
  };
  EXPECT_EQ(textPositions("WMIData"), (std::vector<int>{0, 3, 4}));
  EXPECT_EQ(ColumnTypes("WMIData").size(), 6u);
  EXPECT_EQ(textPositions("Resource"), (std::vector<int>{1, 2, 4}));
  EXPECT_EQ(ColumnTypes("Resource").size(), 8u);
  EXPECT_EQ(textPositions("InvAuditEntry"), (std::vector<int>{5}));
  EXPECT_EQ(ColumnTypes("InvAuditEntry").size(), 6u);

  EXPECT_EQ(GetColumnType("InvParams", "param_name"), 15);
  EXPECT_EQ(GetColumnType("InvParams", "param_value"), kText);
  EXPECT_EQ(GetColumnType("WMIClass", "class_id"), kInt);
  EXPECT_TRUE(IsText(GetColumnType("WMIClass", "CLASS_NAME")));
  EXPECT_EQ(GetColumnType("WMIClassProps", "class_id"), kInt);
  EXPECT_EQ(GetColumnType("WMIClassProps", "PROPERTY_ID"), kInt);
  EXPECT_TRUE(IsText(GetColumnType("WMIClassProps", "PROPERTY_NAME")));
  EXPECT_EQ(GetColumnType("WMIClassProps", "primary_key"), kInt);
  EXPECT_EQ(GetColumnType("MacProperties", "LAST_PROPERTY_ID"), kInt);
}

TEST_F(DataFilesTest, CatalogueCoversEveryRecordedPropertyWithItsKeys) {
  const std::string document = ReadAll(DataFile("Mac_InvClasses.xml"));
  ASSERT_EQ(CreateDOFromXMLBuffer(document.data(), document.size()), 1);
  InvClassHandler& catalogue = invClassObj();
  catalogue.Initialize();
  ASSERT_EQ(catalogue.CreateInvTable(), 0u) << log_.Text();

  std::vector<std::string> expectedClassIds;
  std::set<std::string> seenProperties;
  for (const RecordedClass& recorded : kRecorded) {
    expectedClassIds.push_back(std::to_string(recorded.classId));
    std::vector<std::string> expected;
    for (int id = recorded.firstProperty; id <= recorded.lastProperty; ++id) {
      expected.push_back(std::to_string(id));
    }
    const PropertyIdList ids = catalogue.GetpropertyIDArr(recorded.classId);
    ASSERT_NE(ids, nullptr) << recorded.classId;
    EXPECT_EQ(*ids, expected) << recorded.classId;
    for (const std::string& id : *ids) {
      EXPECT_TRUE(seenProperties.insert(id).second) << id << " is in two classes";
      EXPECT_NE(catalogue.GetpropertyName(recorded.classId, id).value_or(""), "") << id;
    }
    EXPECT_NE(catalogue.GetclassName(recorded.classId).value_or(""), "");
  }
  EXPECT_EQ(catalogue.GetclassIdArr(), expectedClassIds);
  EXPECT_EQ(catalogue.GetLastPropertyID(), 2808);

  using Keys = std::vector<std::string>;
  const std::map<std::uint32_t, Keys> keyed = {
      {18, {"1801", "1812"}},  // software: name and path
      {13, {"1305", "1311"}},  // disks: BSD name and serial
      {4, {"401", "410"}},     // volumes: mount point and device identifier
      {22, {"2201", "2202"}},  // network: service name and MAC address
      {25, {"2501"}},          // printers: name
      {27, {"2704"}},          // memory slots: bank label
  };
  for (const RecordedClass& recorded : kRecorded) {
    const auto found = keyed.find(recorded.classId);
    const Keys expected = found == keyed.end() ? Keys{} : found->second;
    EXPECT_EQ(*catalogue.GetPrimaryKeysArr(recorded.classId), expected) << recorded.classId;
  }
  catalogue.dealloc();
}

TEST(ShippedPropertyLists, AgentConfigurationAndServerInfoRead) {
  const auto conf = Proplisthandler::InitwithFile(DataFile("agent-conf.plist"));
  ASSERT_NE(conf, nullptr);
  const PlistPtr level = conf->GetValueForKey("Loglevel");
  ASSERT_NE(level, nullptr);
  EXPECT_EQ(level->AsInteger(), 3);

  const auto server = Proplisthandler::InitwithFile(DataFile("serverinfo.plist"));
  ASSERT_NE(server, nullptr);
  // The settings start-up replaces a working copy of two entries or fewer.
  EXPECT_GT(server->GetDataCount(), 2);
  for (const char* key : {"SERVERNAME", "SERVERIPADDRESS", "SERVERPROTOCOL", "SERVERPORT",
                          "CUSTOMERID", "CUSTOMERNAME", "MSPNAME", "MAC_DOMAIN"}) {
    EXPECT_NE(server->GetValueForKey(key), nullptr) << key;
  }
}

}  // namespace
}  // namespace tarn
