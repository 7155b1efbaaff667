#include "tarninventory/src/FullScanHandler.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/scandata.h"
#include "tarninventory/src/scanrun.h"
#include "framework/imds/store_testutil.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

PlistPtr Instance(const std::string& key, const std::string& value = "v") {
  PlistPtr instance = PlistValue::MakeDictionary();
  instance->SetObjectForKey("1801", PlistValue::MakeString(value));
  instance->SetObjectForKey("KEY", PlistValue::MakeString(key));
  return instance;
}

PlistPtr ScanDict(const char* classKey, std::vector<PlistPtr> instances) {
  PlistPtr scanDict = PlistValue::MakeDictionary();
  scanDict->SetObjectForKey(classKey, PlistValue::MakeArray(std::move(instances)));
  return scanDict;
}

ScanData Compact(const PlistPtr& scanDict) { return *ScanData::FromPlist(*scanDict); }

class FullScanHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetScanRun(); }
  void TearDown() override { ResetScanRun(); }
};

TEST_F(FullScanHandlerTest, SnapshotFileRoundTripKeepsOtherKeysAndRejectsUnusableFiles) {
  testing::TempDir folder("fullscan");
  const std::string path = folder.str() + "/invFullData";
  std::ofstream(path) << "<plist version=\"1.0\"><dict><key>OTHER</key><string>kept</string>"
                         "<key>INVDatadict</key><dict><key>9</key><array/></dict></dict></plist>";
  const PlistPtr scanData = ScanDict("13", {Instance("disk0"), Instance("S&N<1>", "\"q\"")});
  FullScanHandler::SaveCurrentScanData(Compact(scanData), path);

  const PlistPtr root = ReadPlistFile(path);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->Keys(), (std::vector<std::string>{"OTHER", "INVDatadict"}));
  EXPECT_EQ(*root->ValueForKey("INVDatadict"), *scanData);  // replaced, not merged
  CurrentScanRun().scanType = kDiffScanType;
  const auto snapshot = FullScanHandler::InitWithScanDataFile(path);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(CurrentScanRun().scanType, kDiffScanType);
  EXPECT_EQ(snapshot->RemainingCount(13), 2u);
  const auto match = snapshot->FindFirstByKey(13, "S&N<1>");
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(match->instance.Find("1801"), "\"q\"");

  // No scan data, no file, or scan data of another shape (converted once, here): no
  // snapshot, and the reader leaves the run type to its caller.
  testing::LogCapture log(3);
  const std::string noScanData =
      "<plist version=\"1.0\"><dict><key>X</key><string>1</string></dict></plist>";
  const std::string numericValue =
      "<plist version=\"1.0\"><dict><key>INVDatadict</key><dict><key>4</key><array><dict>"
      "<key>KEY</key><integer>5</integer></dict></array></dict></dict></plist>";
  for (const std::string& content : {noScanData, numericValue, std::string()}) {
    if (content.empty()) {
      std::filesystem::remove(path);
    } else {
      std::ofstream(path, std::ios::trunc) << content;
    }
    EXPECT_EQ(FullScanHandler::InitWithScanDataFile(path), nullptr) << content;
    EXPECT_EQ(CurrentScanRun().scanType, kDiffScanType);
  }
  EXPECT_TRUE(log.Contains("InitWithScanDataFile : File doesnt have valid scan data \n"));
}

// The other top-level keys are those of the file as it is when saving: remembered from the
// load while the file is the one loaded, read again when another writer replaced it.
TEST_F(FullScanHandlerTest, SavingKeepsTheOtherKeysOfTheFileAsItIsNow) {
  testing::TempDir folder("fullscan");
  const std::string path = folder.str() + "/invFullData";
  const auto write = [&](const std::string& otherKey) {
    std::ofstream(path, std::ios::trunc)
        << "<plist version=\"1.0\"><dict><key>" << otherKey
        << "</key><string>x</string><key>INVDatadict</key><dict/></dict></plist>";
  };
  const ScanData scanData = Compact(ScanDict("13", {Instance("disk0")}));

  write("LOADED");
  auto loaded = FullScanHandler::InitWithScanDataFile(path);
  ASSERT_NE(loaded, nullptr);
  FullScanHandler::SaveCurrentScanData(scanData, path, loaded.get());
  EXPECT_EQ(ReadPlistFile(path)->Keys(), (std::vector<std::string>{"LOADED", "INVDatadict"}));

  write("FIRST");
  loaded = FullScanHandler::InitWithScanDataFile(path);
  ASSERT_NE(loaded, nullptr);
  write("REPLACED");
  FullScanHandler::SaveCurrentScanData(scanData, path, loaded.get());
  EXPECT_EQ(ReadPlistFile(path)->Keys(), (std::vector<std::string>{"REPLACED", "INVDatadict"}));

  // A root that is not a dictionary is left as it is.
  std::ofstream(path, std::ios::trunc) << "<plist version=\"1.0\"><array/></plist>";
  FullScanHandler::SaveCurrentScanData(scanData, path);
  EXPECT_TRUE(ReadPlistFile(path)->IsArray());
}

// The indexed matching answers exactly as a walk in order would: the first remaining
// instance with an equal "KEY" matches; every instance equal to the match is then removed;
// a class with nothing left is dropped and reported as nothing.
TEST_F(FullScanHandlerTest, IndexedMatchingGivesTheResultsOfTheWalkInOrder) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 30; ++round) {
    // Few keys and values, so keys repeat and whole instances repeat.
    std::vector<PlistPtr> naive;
    for (int i = 0, count = 1 + static_cast<int>(random() % 12); i < count; ++i) {
      naive.push_back(Instance("k" + std::to_string(random() % 6), std::to_string(random() % 2)));
    }
    FullScanHandler snapshot(Compact(ScanDict("18", naive)));

    for (int step = 0; step < 15; ++step) {
      const std::string key = "k" + std::to_string(random() % 7);
      PlistPtr expected;
      for (const PlistPtr& instance : naive) {
        if (instance->ValueForKey("KEY")->String() == key) {
          expected = instance;
          break;
        }
      }
      const auto found = snapshot.FindFirstByKey(18, key);
      ASSERT_EQ(found.has_value(), expected != nullptr) << "round " << round << " step " << step;
      if (!found) continue;
      ASSERT_EQ(*found->instance.ToPlist(), *expected);
      std::erase_if(naive, [&](const PlistPtr& instance) { return *instance == *expected; });
      snapshot.RemoveMatched(18, *found);
      ASSERT_EQ(snapshot.RemainingCount(18), naive.size());
    }
    // What is left is reported as deleted, in order.
    ResetScanRun();
    snapshot.WritetoDiffData();
    const PlistPtr software = CurrentScanRun().invDiffData->ValueForKey("18");
    ASSERT_EQ(software == nullptr, naive.empty());
    if (naive.empty()) continue;
    const std::vector<PlistPtr> deleted =
        software->ValueForKey("1")->ValueForKey("S-1-1-0")->Elements();
    ASSERT_EQ(deleted.size(), naive.size());
    for (std::size_t i = 0; i < naive.size(); ++i) {
      EXPECT_EQ(deleted[i]->ValueForKey("1801")->String(), naive[i]->ValueForKey("1801")->String());
      EXPECT_EQ(deleted[i]->ValueForKey("KEY"), nullptr);
    }
  }
}

}  // namespace
}  // namespace tarn
