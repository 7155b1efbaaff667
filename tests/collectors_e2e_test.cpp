// The collectors as they really run: the built scanner replaying a machine recorded in the
// test, uploading to a loopback server. Checks where an instance ends and what the snapshot
// keeps when the run's last value is never recorded.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/agent_folder.h"
#include "tests/inventory_server.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

const std::string kPlistHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";

std::string Report(const std::string& dataType, const std::string& items) {
  return kPlistHead + "<array>\n<dict>\n<key>_dataType</key><string>" + dataType +
         "</string>\n<key>_items</key><array>" + items + "</array>\n</dict>\n</array>\n</plist>\n";
}

AgentFolder::RecordedOutput Profiler(const std::string& dataType, const std::string& output) {
  return {"/usr/sbin/system_profiler", {"-xml", dataType}, output};
}

// A small machine: two applications, the OS tools, one memory slot (or the given memory
// report) and nothing else.
std::vector<AgentFolder::RecordedOutput> SmallMachine(const std::string& memoryReport,
                                                      const std::string& memsizeLine) {
  return {
      {"/usr/sbin/system_profiler",
       {"SPApplicationsDataType", "-xml"},
       Report("SPApplicationsDataType",
              "<dict><key>_name</key><string>Safari</string><key>version</key><string>17.4"
              "</string><key>path</key><string>/Applications/Safari.app</string></dict>"
              "<dict><key>_name</key><string>Notes</string><key>path</key>"
              "<string>/Applications/Notes.app</string></dict>")},
      {"/usr/sbin/sysctl", {"hw.memsize"}, memsizeLine},
      {"/usr/bin/sw_vers", {"-productName"}, "Mac OS X\n"},
      {"/usr/bin/sw_vers", {"-productVersion"}, "10.11.6\n"},
      {"/usr/bin/sw_vers", {"-buildVersion"}, "15G31\n"},
      Profiler("SPMemoryDataType", memoryReport),
  };
}

const std::string kOneSlot =
    Report("SPMemoryDataType",
           "<dict><key>_name</key><string>memory</string><key>_items</key><array><dict><key>_name"
           "</key><string>BANK 0/DIMM0</string><key>dimm_size</key><string>8 GB</string><key>"
           "dimm_speed</key><string>1867 MHz</string><key>dimm_status</key><string>ok</string>"
           "</dict></array></dict>");

class CollectorRunTest : public ::testing::Test {
 protected:
  std::string FullUpload(const std::vector<AgentFolder::RecordedOutput>& machine) {
    agent_.WriteResourceId("42");
    agent_.ReplayMachine(machine);
    agent_.ServeAt(server_.port());
    EXPECT_EQ(agent_.Run({"assetscan"}).exitCode, 0);
    EXPECT_EQ(server_.Uploads().size(), 1u);
    return server_.Uploads().empty() ? "" : server_.Uploads()[0].body;
  }

  AgentFolder agent_{"collectors"};
  InventoryServer server_;
};

TEST_F(CollectorRunTest, TheMemoryArrayIsTheLastValueAndFilesEveryInstance) {
  const std::string body = FullUpload(SmallMachine(kOneSlot, "hw.memsize: 8589934592\n"));
  EXPECT_EQ(RowsOfClass(body, 18).substr(0, 62),
            "1801|1|Safari;1802|1|17.4;1803|1|-;1812|1|/Applications/Safari");
  // The OS is software instance 3, after the two applications.
  EXPECT_NE(RowsOfClass(body, 18).find("1801|3|Mac OS X - El Capitan;1802|3|10.11.6;"),
            std::string::npos);
  EXPECT_NE(RowsOfClass(body, 1).find("117|4|3;"), std::string::npos);
  EXPECT_EQ(RowsOfClass(body, 28),
            "2801|1|Physical Memory Array;2802|1|3;2803|1|8589934592;2804|1|1;2805|1|-;"
            "2806|1|-;2807|1|-;2808|1|3;");
  EXPECT_EQ(RowsOfClass(body, 24), "2401|1|2;2402|1|-;");
  for (const int classId : {1, 3, 18, 20, 24, 27, 28}) {
    EXPECT_TRUE(SnapshotHasClass(agent_, classId)) << classId;
  }
}

TEST_F(CollectorRunTest, AMemoryCollectorThatEndsLeavesTheLastInstanceUnfiled) {
  const std::string body =
      FullUpload(SmallMachine(kPlistHead + "<array/>\n</plist>\n", "hw.memsize: 8589934592\n"));
  // Uploaded as recorded, but the enclosure, gathered last, never reached the snapshot.
  EXPECT_EQ(RowsOfClass(body, 24), "2401|1|2;2402|1|-;");
  EXPECT_EQ(RowsOfClass(body, 27) + RowsOfClass(body, 28), "");
  EXPECT_TRUE(SnapshotHasClass(agent_, 20));
  EXPECT_FALSE(SnapshotHasClass(agent_, 24));
  EXPECT_NE(agent_.ScanLog().find("Caught exception**************:NSRangeException"),
            std::string::npos)
      << agent_.ScanLog();
}

TEST_F(CollectorRunTest, AnExceptionInTheOsCollectorEndsTheCollectionButTheRunUploads) {
  const std::string body = FullUpload(SmallMachine(kOneSlot, "hw.memsize=8589934592\n"));
  EXPECT_NE(agent_.ScanLog().find("char* CollectInventoryData(const char*) [Line 386] Caught "
                                  "exception-------------:NSRangeException"),
            std::string::npos)
      << agent_.ScanLog();
  // The applications and the first OS values, nothing of the later collectors.
  EXPECT_NE(RowsOfClass(body, 18), "");
  EXPECT_EQ(RowsOfClass(body, 1), "105|1|40000;106|1|4000;107|1|-;");
  for (const int later : {3, 20, 24, 27, 28}) EXPECT_EQ(RowsOfClass(body, later), "") << later;
  EXPECT_TRUE(SnapshotHasClass(agent_, 18));
  EXPECT_FALSE(SnapshotHasClass(agent_, 1));
  EXPECT_NE(agent_.AccessLog().find("Success"), std::string::npos);
}

TEST_F(CollectorRunTest, LongAndNonAsciiNamesKeepTheFullDocumentWellFormed) {
  const std::string customer(300, 'C');
  agent_.WriteResourceId("42");
  agent_.ReplayMachine(SmallMachine(kOneSlot, "hw.memsize: 8589934592\n"));
  // "Büro-Mäc" as the host name: the computer name keeps its non-ASCII letters.
  const auto manifest = agent_.data() / "machine" / "manifest.plist";
  std::string text = ReadFileText(manifest);
  text.replace(text.find("test-mac.local"), 14,
               "B\xC3\xBCro-M\xC3\xA4"
               "c.local");
  WriteFileText(manifest, text);
  agent_.ServeAt(server_.port(), "http", customer);
  ASSERT_EQ(agent_.Run({"assetscan"}).exitCode, 0);
  ASSERT_EQ(server_.Uploads().size(), 1u);
  const std::string body = server_.Uploads()[0].body;
  EXPECT_NE(body.find("<AgentParams PARAM_TYPE=\"1\" PARAM_NAME=\"CUSTOMER_NAME\" PARAM_VALUE=\"" +
                      customer + "\" />\n"),
            std::string::npos);
  EXPECT_NE(body.find("<WMIData OWNER_SID=\"S-1-1-0\" DATA_STATUS=\"0\" CLASS_FILTER=\"0\" "
                      "COMPUTER_NAME=\"b\xC3\xBCro-m\xC3\xA4"
                      "c\" NAME_SPACE=\"macosgroup\" "
                      "IS_LOCAL=\"0\" />\n"),
            std::string::npos)
      << body.substr(0, 400);
  // Every row line is one whole element.
  const std::regex line("<[A-Za-z]+( [A-Za-z_]+=\"[^\"]*\")* />");
  std::size_t start = body.find("<TarnWMIData>\n") + 14;
  for (std::size_t end = body.find('\n', start); end != std::string::npos && end + 1 < body.size();
       start = end + 1, end = body.find('\n', start)) {
    const std::string row = body.substr(start, end - start);
    if (row == "</TarnWMIData>") break;
    EXPECT_TRUE(std::regex_match(row, line)) << row;
  }
}

TEST_F(CollectorRunTest, WithoutSwVersADifferenceRequestBecomesAFullScan) {
  std::vector<AgentFolder::RecordedOutput> machine;
  for (auto& output : SmallMachine(kOneSlot, "hw.memsize: 8589934592\n")) {
    if (output.launchPath != "/usr/bin/sw_vers") machine.push_back(output);
  }
  FullUpload(machine);
  ASSERT_NE(agent_.AccessLog().find("Success"), std::string::npos);
  ASSERT_EQ(agent_.Run({"scheduled"}).exitCode, 0);
  // No version: no running components, so the minimum-version test passes and the OS rule
  // turns the request into a full scan.
  EXPECT_NE(agent_.ScanLog().find("In macOS Sierra 10.12 json encoder crashes , so proceeding to "
                                  "full scan \n"),
            std::string::npos);
  ASSERT_EQ(server_.Uploads().size(), 2u);
  EXPECT_NE(server_.Uploads()[1].target.find("&scanType=1&jsonFormat=0&"), std::string::npos);
  // The OS values that had no source.
  EXPECT_NE(RowsOfClass(server_.Uploads()[1].body, 1)
                .find("102|1|0;102|1|0;101|1|(null) - Unknown;103|1|(null) - Unknown;"),
            std::string::npos)
      << RowsOfClass(server_.Uploads()[1].body, 1);
}

}  // namespace
}  // namespace tarn::testing
