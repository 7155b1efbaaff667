// Reading upload queries and documents, and applying differences to an inventory.
#include "tools/refserver/upload.h"

#include <gtest/gtest.h>

#include <regex>

#include "tools/refserver/apply.h"
#include "tools/refserver/testutil.h"

namespace tarn::refserver {
namespace {

using testing::DifferenceDocument;
using testing::FullDocument;
using testing::ShippedCatalogue;

std::multimap<std::string, std::string> Parameters(bool full) {
  std::multimap<std::string, std::string> parameters = {
      {"computer", "mac"},     {"domain", "macosgroup"}, {"customerId", "1"},
      {"auditid", "12345"},    {"remoffId", "301"},      {"isOnDemand", "false"},
      {"currScanTime", "1700000100"}};
  if (full) {
    parameters.insert({{"scanType", "1"}, {"jsonFormat", "0"}});
  } else {
    parameters.insert({{"scanType", "0"}, {"jsonFormat", "1"}, {"prevScanTime", "0"}});
  }
  return parameters;
}

// The reason of the UploadError the call raises, or "accepted".
template <typename Call>
std::string Refusal(Call call, int expectedStatus = 400) {
  try {
    call();
  } catch (const UploadError& error) {
    EXPECT_EQ(error.status(), expectedStatus) << error.what();
    EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos) << error.what();
    return error.what();
  }
  return "accepted";
}

TEST(UploadQuery, EveryParameterTheScannerSendsIsRequiredAndChecked) {
  const UploadQuery full = ReadUploadQuery(Parameters(true));
  EXPECT_TRUE(full.full);
  EXPECT_EQ(full.computer, "mac");
  EXPECT_FALSE(full.resourceId.has_value());
  const UploadQuery difference = ReadUploadQuery(Parameters(false));
  EXPECT_FALSE(difference.full);
  EXPECT_EQ(difference.previousScanTime, "0");

  for (const char* name : {"computer", "domain", "customerId", "auditid", "remoffId",
                           "isOnDemand", "scanType", "jsonFormat", "currScanTime"}) {
    auto parameters = Parameters(true);
    parameters.erase(name);
    EXPECT_EQ(Refusal([&] { ReadUploadQuery(parameters); }),
              std::string("missing query parameter ") + name);
  }
  auto noPrevious = Parameters(false);
  noPrevious.erase("prevScanTime");
  EXPECT_EQ(Refusal([&] { ReadUploadQuery(noPrevious); }), "missing query parameter prevScanTime");

  struct Bad {
    const char* name;
    const char* value;
    const char* reason;
  };
  const Bad bad[] = {{"scanType", "2", "scanType is neither 1 (full) nor 0 (difference): 2"},
                     {"jsonFormat", "1", "jsonFormat=1 does not fit scanType=1"},
                     {"isOnDemand", "yes", "isOnDemand is neither true nor false: yes"},
                     {"currScanTime", "12:00", "currScanTime is not a time: 12:00"},
                     {"computer", "", "empty query parameter computer"}};
  for (const Bad& b : bad) {
    auto parameters = Parameters(true);
    parameters.erase(b.name);
    parameters.insert({b.name, b.value});
    EXPECT_NE(Refusal([&] { ReadUploadQuery(parameters); }).find(b.reason), std::string::npos)
        << b.name;
  }
}

TEST(FullUpload, RowsBecomeInstancesPerClassWithTheirValuesDecoded) {
  const FullUpload upload = ParseFullUpload(
      FullDocument({{1, 1, 101, "macOS"},
                    {1, 1, 102, "10.11.6"},
                    {1, 1, 102, "10.11.7"},  // written twice: the last value counts
                    {1, 4, 117, "3"},        // the OS software row's index, not an instance
                    {18, 1, 1801, "Tom &amp; Jerry &lt;3&gt; &quot;HD&quot;"},
                    {18, 1, 1812, "/Applications/TJ.app"},
                    {18, 2, 1801, "Safari"},
                    {18, 3, 1801, "macOS"},
                    {18, 3, 1814, "OS_EXT"},
                    {4, 1, 401, "/"},
                    {4, 1, 403, ""}}),
      ShippedCatalogue());
  EXPECT_EQ(upload.valueCount, 11u);
  ASSERT_EQ(upload.inventory.size(), 3u);
  EXPECT_EQ(upload.inventory.at(1).size(), 1u);
  EXPECT_EQ(upload.inventory.at(1).at(1),
            (Instance{{101, "macOS"}, {102, "10.11.7"}, {117, "3"}}));
  EXPECT_EQ(upload.inventory.at(18).size(), 3u);
  EXPECT_EQ(upload.inventory.at(18).at(1).at(1801), "Tom & Jerry <3> \"HD\"");
  EXPECT_EQ(upload.inventory.at(4).at(1).at(403), "");
  EXPECT_EQ(upload.agentParams.front(), (std::pair<std::string, std::string>("COMPUTER_NAME", "mac")));
}

TEST(FullUpload, DocumentsOutsideTheFormatAreRefusedWithTheirReason) {
  const std::string good = FullDocument({{1, 1, 101, "macOS"}});
  auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    text.replace(text.find(from), from.size(), to);
    return text;
  };
  struct Case {
    std::string body;
    const char* reason;
  };
  const Case cases[] = {
      {"", "malformed XML"},
      {good.substr(0, good.size() / 2), "malformed XML at line"},
      {replaced("VALUE=\"macOS\"", "VALUE=\"a & b\""), "malformed XML"},
      {replaced("CLASS_ID=\"1\"", "CLASS_ID=\"99\""), "class 99 is not in the catalogue"},
      {replaced("PROPERTY_ID=\"101\"", "PROPERTY_ID=\"1801\""),
       "property 1801 is not in class 1 (OperatingSystem)"},
      {replaced("INSTANCE_ID=\"1\"", "INSTANCE_ID=\"one\""), "bad INSTANCE_ID: \"one\""},
      {replaced(" CLASS_ID=\"1\"", ""), "lacks CLASS_ID"},
      {std::regex_replace(good, std::regex("TarnWMIData"), "Inventory"),
       "root element is <Inventory>"},
      {replaced("<Resource ", "<Computer "), "unexpected element <Computer> on line"},
      {replaced("<InvAuditEntry ", "<Bogus "), "unexpected element <Bogus> on line"},
      {replaced("<WMIData ", "<WMIDataX "), "unexpected element <WMIDataX>"},
      {replaced("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n",
                "<?xml version=\"1.0\"?>\n<!DOCTYPE t [<!ENTITY e \"boom\">]>\n"),
       "document type declaration"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body.substr(0, 120));
    EXPECT_NE(Refusal([&] { ParseFullUpload(c.body, ShippedCatalogue()); }).find(c.reason),
              std::string::npos)
        << Refusal([&] { ParseFullUpload(c.body, ShippedCatalogue()); });
  }
  std::string withoutResource = good;
  withoutResource.erase(withoutResource.find("<Resource "),
                        withoutResource.find("<InvAuditEntry") - withoutResource.find("<Resource "));
  EXPECT_EQ(Refusal([&] { ParseFullUpload(withoutResource, ShippedCatalogue()); }),
            "full inventory: no <Resource> row");
}

TEST(DifferenceUpload, StatusesAndSoftwareGroupsBecomeChanges) {
  const DifferenceUpload upload = ParseDifferenceUpload(
      DifferenceDocument(R"(  "18": {
    "0": {"S-1-1-0": [{"1801": "Slack", "1802": "4.36", "1812": "/Applications/Slack.app"}]},
    "2": {"OS_EXT": [{"1801": "macOS", "1802": "14.4.1\n", "1814": "-"}]}
  },
  "4": {"1": [{"401": "/Volumes/USB\u007f old", "410": "\tdisk2s1"}]})"),
      ShippedCatalogue());
  ASSERT_EQ(upload.changes.size(), 3u);
  EXPECT_EQ(upload.changes[0].classId, 18);
  EXPECT_EQ(upload.changes[0].change, Change::kAdded);
  EXPECT_EQ(upload.changes[0].instance.count(1814), 0u);
  EXPECT_EQ(upload.changes[1].change, Change::kModified);
  EXPECT_EQ(upload.changes[1].instance.at(1814), "OS_EXT");  // the marker is back
  // Values end at their first control character, as in a full inventory.
  EXPECT_EQ(upload.changes[1].instance.at(1802), "14.4.1");
  EXPECT_EQ(upload.changes[0].instance.at(1802), "4.36");
  EXPECT_EQ(upload.changes[2].instance.at(401), "/Volumes/USB");
  EXPECT_EQ(upload.changes[2].instance.at(410), "");
  EXPECT_EQ(upload.changes[2].classId, 4);
  EXPECT_EQ(upload.changes[2].change, Change::kDeleted);
  EXPECT_EQ(upload.agentParams.size(), 2u);
  EXPECT_EQ(upload.user.size(), 2u);
}

TEST(DifferenceUpload, DocumentsOutsideTheShapeAreRefusedWithTheirReason) {
  struct Case {
    std::string body;
    const char* reason;
  };
  const Case cases[] = {
      {"{\"4\": ", "difference: invalid JSON at byte"},
      {"[]", "the document is array, expected an object"},
      {"{\"USER\": {}}", "no \"AgentParams\" dictionary"},
      {DifferenceDocument(R"("99": {"0": []})"), "\"99\" is not a class of the catalogue"},
      {DifferenceDocument(R"("extra": {})"), "\"extra\" is not a class of the catalogue"},
      {DifferenceDocument(R"("4": {"3": []})"), "unknown status \"3\""},
      {DifferenceDocument(R"("4": {"0": {"x": []}})"), "class 4 status 0 is object, expected an array"},
      {DifferenceDocument(R"("4": {"0": [{"1801": "x"}]})"), "\"1801\" is not a property of LogicalDisk"},
      {DifferenceDocument(R"("4": {"0": [{"KEY": "x"}]})"), "\"KEY\" is not a property"},
      {DifferenceDocument(R"("4": {"0": [{"401": 5}]})"), "401 is number, expected a string"},
      {DifferenceDocument(R"("4": {"0": ["/"]})"), "item 0 is string, expected an object"},
      {DifferenceDocument(R"("18": {"0": [{"1801": "x"}]})"), "is array, expected an object"},
      {DifferenceDocument(R"("18": {"0": {"S-1-5-18": []}})"), "unknown software group \"S-1-5-18\""},
      {"{\"AgentParams\": {\"scanType\": 0}}", "AgentParams.scanType is number, expected a string"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const std::string reason =
        Refusal([&] { ParseDifferenceUpload(c.body, ShippedCatalogue()); });
    EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
  }
}

Instance App(const std::string& name, const std::string& version, const std::string& path) {
  return {{1801, name}, {1802, version}, {1812, path}};
}

TEST(ApplyDifference, InstancesAreMatchedByTheirCatalogueKey) {
  Inventory inventory;
  inventory[18] = {{1, App("Safari", "17.0", "/Applications/Safari.app")},
                   {2, App("Zoom", "5.0", "/Applications/zoom.us.app")},
                   {3, {{1801, "macOS"}, {1802, "10.11.5"}, {1814, "OS_EXT"}}}};
  inventory[20] = {{1, {{2001, "iMac"}, {2002, "old"}}}};  // no primary key
  inventory[4] = {{1, {{401, "/Volumes/USB"}, {410, "disk2s1"}}}};
  const std::vector<InstanceChange> changes = {
      {18, Change::kAdded, App("Slack", "4.36", "/Applications/Slack.app")},
      {18, Change::kDeleted, App("Zoom", "5.0", "/Applications/zoom.us.app")},
      {18, Change::kModified, App("Safari", "17.1", "/Applications/Safari.app")},
      {18, Change::kModified, {{1801, "macOS"}, {1802, "10.11.6"}, {1814, "OS_EXT"}}},
      {20, Change::kModified, {{2001, "iMac"}, {2002, "new"}}},
      {4, Change::kDeleted, {{401, "/Volumes/USB"}, {410, "disk2s1"}}},
      {4, Change::kDeleted, {{401, "/Volumes/Gone"}, {410, "disk9"}}},  // not held
      {18, Change::kAdded, {}},                                          // empty: skipped
  };
  const AppliedDifference applied = ApplyDifference(inventory, changes, ShippedCatalogue());

  const ClassInstances expectedSoftware = {
      {1, App("Safari", "17.1", "/Applications/Safari.app")},
      {3, {{1801, "macOS"}, {1802, "10.11.6"}, {1814, "OS_EXT"}}},
      {4, App("Slack", "4.36", "/Applications/Slack.app")}};
  EXPECT_EQ(inventory.at(18), expectedSoftware);
  EXPECT_EQ(inventory.at(20).at(1).at(2002), "new");
  EXPECT_EQ(inventory.count(4), 0u);  // its only instance went
  EXPECT_EQ(applied.classes.at(18).added, 1);
  EXPECT_EQ(applied.classes.at(18).deleted, 1);
  EXPECT_EQ(applied.classes.at(18).modified, 2);
  EXPECT_EQ(applied.classes.at(4).deleted, 1);
  EXPECT_EQ(applied.classes.at(4).unmatched, 1);

  std::vector<std::string> labels;
  for (const ChangedItem& item : applied.items) labels.push_back(item.label);
  EXPECT_EQ(labels, (std::vector<std::string>{"/Volumes/USB, disk2s1", "/Volumes/Gone, disk9",
                                              "Zoom 5.0", "Safari 17.1", "macOS 10.11.6",
                                              "Slack 4.36", "ComputerSystem"}));
}

TEST(ApplyDifference, ApplyingOneDifferenceTwiceLeavesWhatApplyingItOnceLeft) {
  Inventory inventory;
  inventory[18] = {{1, App("Safari", "17.0", "/Applications/Safari.app")}};
  inventory[20] = {{1, {{2001, "iMac"}}}};
  const std::vector<InstanceChange> changes = {
      {25, Change::kAdded, {{2501, "Office Laser"}, {2502, "PCL 6"}}},
      {18, Change::kAdded, App("Slack", "4.36", "/Applications/Slack.app")},
      {18, Change::kModified, App("Safari", "17.1", "/Applications/Safari.app")},
      {20, Change::kAdded, {{2001, "iMac"}}},  // no key: an equal instance is the same one
      {20, Change::kAdded, {{2001, "Mac mini"}}}};
  ApplyDifference(inventory, changes, ShippedCatalogue());
  const Inventory once = inventory;
  EXPECT_EQ(once.at(20).size(), 2u);
  const AppliedDifference again = ApplyDifference(inventory, changes, ShippedCatalogue());
  EXPECT_EQ(inventory, once);
  EXPECT_EQ(again.classes.at(25).added, 1);
  EXPECT_EQ(again.classes.at(25).unmatched, 0);

  // An addition whose key is held takes the new values.
  ApplyDifference(inventory, {{25, Change::kAdded, {{2501, "Office Laser"}, {2502, "PCL 6e"}}}},
                  ShippedCatalogue());
  EXPECT_EQ(inventory.at(25), (ClassInstances{{1, {{2501, "Office Laser"}, {2502, "PCL 6e"}}}}));
}

TEST(ApplyDifference, AmongEqualKeysTheDeletedValuesAndUntouchedInstancesAreChosen) {
  // Two copies of one application at one path: the scanner matched the first and
  // reported the other (with its own values) as deleted.
  Inventory inventory;
  inventory[18] = {{1, App("Tool", "1.0", "/opt/Tool.app")},
                   {2, App("Tool", "2.0", "/opt/Tool.app")}};
  ApplyDifference(inventory,
                  {{18, Change::kDeleted, App("Tool", "2.0", "/opt/Tool.app")},
                   {18, Change::kModified, App("Tool", "1.1", "/opt/Tool.app")}},
                  ShippedCatalogue());
  EXPECT_EQ(inventory.at(18), (ClassInstances{{1, App("Tool", "1.1", "/opt/Tool.app")}}));

  // Two modifications of one key replace two instances, not one twice.
  inventory[18][2] = App("Tool", "2.0", "/opt/Tool.app");
  const AppliedDifference applied = ApplyDifference(
      inventory,
      {{18, Change::kModified, App("Tool", "1.2", "/opt/Tool.app")},
       {18, Change::kModified, App("Tool", "2.2", "/opt/Tool.app")}},
      ShippedCatalogue());
  EXPECT_EQ(inventory.at(18), (ClassInstances{{1, App("Tool", "1.2", "/opt/Tool.app")},
                                              {2, App("Tool", "2.2", "/opt/Tool.app")}}));
  EXPECT_EQ(applied.classes.at(18).unmatched, 0);
}

}  // namespace
}  // namespace tarn::refserver
