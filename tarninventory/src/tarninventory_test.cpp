#include "tarninventory/src/tarninventory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/imds/dataset.h"
#include "framework/imds/store_testutil.h"
#include "platform/exception/platform_exception.h"
#include "tarninventory/src/runcontext.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

using testing::TempDir;

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// A data directory with the shipped data files and a fresh store and run.
class DriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::ResetStore();
    ResetScanRun();
    InitTarnGlobalvars().Set_tarnagentDataDictPath(dir_.str());
    for (const char* file : {kResourceDataDictionary, kInventoryDataDictionary,
                             kFrameworkDataDictionary, kOnPremiseDataDictionary,
                             kClassCatalogueFileName}) {
      std::filesystem::copy_file(std::string(TARN_SOURCE_DIR) + "/data/" + file,
                                 dir_.path() / file);
    }
    accessLog_ = (dir_.path() / "access.log").string();
    WriteText(accessLog_, "");
  }
  void TearDown() override {
    DeinitTarnGlobalvars();
    testing::ResetStore();
    ResetScanRun();
  }

  std::string AccessLog() const { return ReadText(accessLog_); }

  TempDir dir_{"driver"};
  std::string accessLog_;
  testing::LogCapture log_{4};
};

TEST(DriverArguments, WordsAreReadWithoutLetterCaseAndAnythingElseIsInvalid) {
  struct Case {
    std::vector<const char*> argv;
    int code;
    const char* printed;
  };
  const std::vector<Case> cases = {
      {{"tarninventory", "assetscan"}, kArgAssetscan, ""},
      {{"tarninventory", "ASSETSCAN", "1", "77"}, kArgAssetscan, ""},
      {{"tarninventory", "OnDemand"}, kArgOndemand, ""},
      {{"tarninventory", "scheduled"}, kArgScheduled, ""},
      {{"tarninventory", "PostInstall"}, kArgPostinstall, ""},
      {{"tarninventory"}, kArgInvalid, "Give correct argument"},
      {{"tarninventory", "assetscan2"}, kArgInvalid, "Invalid argument "},
      {{"tarninventory", ""}, kArgInvalid, "Invalid argument "},
  };
  for (const Case& c : cases) {
    ::testing::internal::CaptureStdout();
    const int code = ProcessInputArgs(static_cast<int>(c.argv.size()), c.argv.data());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.printed);
    EXPECT_EQ(code, c.code) << (c.argv.size() > 1 ? c.argv[1] : "(none)");
  }
}

TEST_F(DriverTest, ScanTypeRequestsAndTheAccessLogStartPiece) {
  struct Case {
    int code;
    std::vector<const char*> argv;
    std::int32_t runType;
    bool ondemand;
    const char* modeWord;
  };
  const std::vector<Case> cases = {
      {kArgAssetscan, {"t", "assetscan"}, kFullScanType, false, "     Manual"},
      {kArgOndemand, {"t", "ondemand", "1"}, kFullScanType, true, "   Ondemand"},
      {kArgOndemand, {"t", "ondemand", "0"}, kDiffScanType, true, "   Ondemand"},
      {kArgOndemand, {"t", "ondemand", "yes", "5"}, kDiffScanType, true, "   Ondemand"},
      {kArgOndemand, {"t", "ondemand"}, kDiffScanType, true, "   Ondemand"},
      {kArgScheduled, {"t", "scheduled", "1"}, kDiffScanType, false, "  Scheduled"},
      {kArgPostinstall, {"t", "postinstall"}, kFullScanType, false, "Postinstall"},
      {kArgInvalid, {"t", "other"}, kFullScanType, false, "InvalidArgs"},
  };
  for (const Case& c : cases) {
    ResetScanRun();
    WriteText(accessLog_, "");
    EXPECT_EQ(GetScanType(c.code, static_cast<int>(c.argv.size()), c.argv.data(), accessLog_),
              c.runType)
        << c.argv[1];
    EXPECT_EQ(CurrentScanRun().isOndemandScan, c.ondemand) << c.argv[1];
    EXPECT_TRUE(std::regex_match(AccessLog(), std::regex("\n\\d\\d-\\d\\d-\\d{4}\t" +
                                                          std::string(c.modeWord) +
                                                          "\t   \\d\\d:\\d\\d:\\d\\d\t")))
        << AccessLog();
  }
  EXPECT_TRUE(log_.Contains("[INFO] scanType : PostInstall\n")) << log_.Text();
}

TEST_F(DriverTest, DataDictionariesLoadInOrderAndOnlyTheFirstTwoWriteAFailureWord) {
  EXPECT_EQ(LoadDataDicts(accessLog_), 0u);
  EXPECT_EQ(AccessLog(), "");
  EXPECT_NE(GetTableDefnEntry("InvParams"), nullptr);

  std::filesystem::remove(dir_.path() / kOnPremiseDataDictionary);
  EXPECT_EQ(LoadDataDicts(accessLog_), 1u);
  EXPECT_EQ(AccessLog(), "");
  EXPECT_TRUE(log_.Contains("LoadTarnDataDictionary :Data dictionary not found at path : " +
                            (dir_.path() / kOnPremiseDataDictionary).string()));
  EXPECT_TRUE(log_.Contains("LoadDataDicts : Unable to load data-dictionary-onpremise.xml\n"));

  std::filesystem::remove(dir_.path() / kInventoryDataDictionary);
  EXPECT_EQ(LoadDataDicts(accessLog_), 1u);
  EXPECT_EQ(AccessLog(), "\tInvDatadictFail\t            ---");
}

TEST_F(DriverTest, CatalogueLoadsIntoItsTablesOrFailsWithItsAccessLogWord) {
  ASSERT_EQ(LoadDataDicts(accessLog_), 0u);
  EXPECT_EQ(CreateDoFromInvClasses(accessLog_), 0u);
  EXPECT_GT(GetTableDataByName("WMIClassProps")->rowCount, 100);
  EXPECT_EQ(AccessLog(), "");

  WriteText((dir_.path() / kClassCatalogueFileName).string(), "not \xff a document");
  EXPECT_EQ(CreateDoFromInvClasses(accessLog_), 1u);
  std::filesystem::remove(dir_.path() / kClassCatalogueFileName);
  EXPECT_EQ(CreateDoFromInvClasses(accessLog_), 1u);
  EXPECT_EQ(AccessLog(), "\t InvClassDoFail\t            ---\t InvClassDoFail\t            ---");
  EXPECT_TRUE(log_.Contains("CreateDoFromInvClasses : NotFound at path "));
}

TEST(CollectorSequence, RunsInOrderAndAPlatformExceptionSkipsTheRest) {
  testing::LogCapture log(1);
  std::vector<int> ran;
  const auto step = [&ran](const char* line, int id) {
    return CollectorStep{line, [&ran, id] { ran.push_back(id); }};
  };
  RunCollectorSequence({step("first\n", 1), step("second\n", 2)});
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  EXPECT_TRUE(log.Contains("[INFO] first\n"));

  ran.clear();
  RunCollectorSequence({step("first\n", 1),
                        {"raising\n", [] { throw PlatformException(kRangeException, "index 3"); }},
                        step("third\n", 3)});
  EXPECT_EQ(ran, (std::vector<int>{1}));
  EXPECT_FALSE(log.Contains("third\n"));

  EXPECT_THROW(RunCollectorSequence({{"other\n", [] { throw std::runtime_error("other"); }}}),
               std::runtime_error);
}

TEST_F(DriverTest, CollectingStartsFromAnEmptyValueTable) {
  ASSERT_EQ(LoadDataDicts(accessLog_), 0u);
  ASSERT_EQ(CreateTable("WMIFetchedValue"), 1);
  std::vector<ValueSlot> values(6);
  ASSERT_EQ(AddNewRow("WMIFetchedValue", CreateNewRowObject(std::move(values), {4, 4, 4, 4, 8, 4})),
            1);
  // A computer without any of the tools: the OS collector's fillers come first.
  testing::FakePlatform fake;
  const SystemClock clock;
  EXPECT_EQ(CollectInventoryData(ContextOfThisRun(clock), "12345"), 0);
  const TableData* table = GetTableDataByName("WMIFetchedValue");
  ASSERT_NE(table, nullptr);
  ASSERT_GT(table->rowCount, 0);
  ASSERT_TRUE(table->rows.front()->values[1]);
  EXPECT_EQ(table->rows.front()->values[1]->Read<std::int32_t>(), 105);
}

}  // namespace
}  // namespace tarn
