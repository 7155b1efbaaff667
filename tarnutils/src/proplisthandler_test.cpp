#include "tarnutils/src/proplisthandler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/file/file_util.h"
#include "platform/plist/plist_io.h"

namespace tarn {
namespace {

class ProplisthandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = std::filesystem::temp_directory_path() /
                 ("proplisthandler_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string PathOf(const std::string& name) const { return (directory_ / name).string(); }
  void WriteFile(const std::string& name, const std::string& content) const {
    std::ofstream(directory_ / name, std::ios::binary) << content;
  }

  std::filesystem::path directory_;
};

TEST_F(ProplisthandlerTest, MissingOrDamagedFileGivesAnEmptyStoreThatCanBeWritten) {
  const std::string path = PathOf("tarninventory_data.plist");
  testing::internal::CaptureStderr();
  auto store = Proplisthandler::InitwithFile(path);
  EXPECT_EQ(store->GetDataCount(), 0);
  EXPECT_EQ(store->WriteToProplist(), 1);
  const std::string logged = testing::internal::GetCapturedStderr();
  EXPECT_NE(logged.find("Count:::: 0\n"), std::string::npos);
  EXPECT_EQ(ReadWholeFile(path), ToXmlPlist(*PlistValue::MakeDictionary()));

  for (const std::string& damaged : {std::string(), std::string("<plist><dict><key>A</key>"),
                                     std::string("bplist00\x01\x02", 10)}) {
    WriteFile("damaged.plist", damaged);
    testing::internal::CaptureStderr();
    auto opened = Proplisthandler::InitwithFile(PathOf("damaged.plist"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // loading is silent
    ASSERT_NE(opened->GetPropertyDict(), nullptr);
    EXPECT_TRUE(opened->GetPropertyDict()->IsDictionary());
    EXPECT_EQ(opened->GetPropertyDict()->Count(), 0u);
  }
}

TEST_F(ProplisthandlerTest, KeysAreSetRemovedAndWrittenBack) {
  const std::string path = PathOf("store.plist");
  auto store = Proplisthandler::InitwithFile(path);
  EXPECT_EQ(store->SetValueForKey("INV_SCAN_TIME", PlistValue::MakeString("1700000000")), 1);
  EXPECT_EQ(store->SetValueForKey("ENABLE_DIFF_SCAN", PlistValue::MakeString("1")), 1);
  EXPECT_EQ(store->SetValueForKey("INV_SCAN_TIME", PlistValue::MakeString("1700000100")), 1);
  // Setting re-inserts: the changed key moves to the end.
  EXPECT_EQ(store->GetPropertyDict()->Keys(),
            (std::vector<std::string>{"ENABLE_DIFF_SCAN", "INV_SCAN_TIME"}));
  EXPECT_EQ(store->SetValueForKey("ENABLE_DIFF_SCAN", nullptr), 1);  // absent removes
  EXPECT_EQ(store->GetValueForKey("ENABLE_DIFF_SCAN"), nullptr);
  EXPECT_EQ(store->RemoveFromProplist("NEVER_THERE"), 1);
  EXPECT_EQ(store->RemoveFromProplist(std::nullopt), 0);

  // The shared root: a change made through it is written by the next write.
  store->GetPropertyDict()->SetValueForKey("RESOURCEID", PlistValue::MakeString("42"));
  ASSERT_EQ(store->WriteToProplist(), 1);
  auto reopened = Proplisthandler::InitwithFile(path);
  EXPECT_EQ(reopened->GetValueForKey("INV_SCAN_TIME")->String(), "1700000100");
  EXPECT_EQ(reopened->GetValueForKey("RESOURCEID")->String(), "42");
  EXPECT_EQ(reopened->GetDataCount(), 2);

  // The path is the store's own copy.
  auto copy = store->GetFilePath();
  copy->append(".changed");
  EXPECT_EQ(store->GetFilePath(), path);
}

TEST_F(ProplisthandlerTest, NonDictionaryRootIsKeptAndKeyOperationsFailSoftly) {
  WriteFile("array.plist", "<plist><array><string>a</string><string>b</string></array></plist>");
  auto store = Proplisthandler::InitwithFile(PathOf("array.plist"));
  ASSERT_TRUE(store->GetPropertyDict()->IsArray());
  EXPECT_EQ(store->GetValueForKey("a"), nullptr);
  EXPECT_EQ(store->SetValueForKey("a", PlistValue::MakeString("x")), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(store->RemoveFromProplist("a"), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Exception occurred in RemoveFromProplist: "),
            std::string::npos);
  EXPECT_EQ(store->GetDataCount(), 2);
  // Written back as it was.
  ASSERT_EQ(store->WriteToProplist(PathOf("copy.plist")), 1);
  EXPECT_TRUE(*ReadPlistFile(PathOf("copy.plist")) == *store->GetPropertyDict());
}

TEST_F(ProplisthandlerTest, WriteFailuresAndMissingPathsAreReportedAsTheStoreAlwaysDid) {
  auto store = Proplisthandler::InitwithFile(PathOf("store.plist"));
  const std::string unreachable = PathOf("no-such-folder/store.plist");
  testing::internal::CaptureStderr();
  EXPECT_EQ(store->WriteToProplist(unreachable), 1);  // deliberately still 1
  EXPECT_NE(testing::internal::GetCapturedStderr().find("WriteToProplist:failed path , " + unreachable),
            std::string::npos);

  store->SetValueForKey("bad", PlistValue::MakeString("caf\xE9"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(store->WriteToProplist(), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Exception occurred in WriteToProplist: "),
            std::string::npos);

  auto pathless = Proplisthandler::InitwithFile(std::nullopt);
  testing::internal::CaptureStderr();
  EXPECT_EQ(pathless->GetPropertyDict(), nullptr);
  EXPECT_EQ(pathless->GetValueForKey("A"), nullptr);
  EXPECT_EQ(pathless->RemoveFromProplist("A"), 0);
  EXPECT_EQ(pathless->WriteToProplist(PathOf("x.plist")), 0);
  EXPECT_EQ(pathless->GetDataCount(), 0);
  pathless->PrintPlistData();
  const std::string logged = testing::internal::GetCapturedStderr();
  EXPECT_NE(logged.find("Proplist is nil, no data to count.\n"), std::string::npos);
  EXPECT_NE(logged.find("Proplist is nil, no data to print.\n"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(PathOf("x.plist")));
}

}  // namespace
}  // namespace tarn
