#include "tarninventory/src/FullScanHandler.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/scandata.h"
#include "tarninventory/src/scanrun.h"
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

class FullScanHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetScanRun(); }
  void TearDown() override { ResetScanRun(); }
};

TEST_F(FullScanHandlerTest, SnapshotFileRoundTripKeepsOtherKeysAndRejectsFilesWithoutIt) {
  testing::TempDir folder("fullscan");
  const std::string path = folder.str() + "/invFullData";
  std::ofstream(path) << "<plist version=\"1.0\"><dict><key>OTHER</key><string>kept</string>"
                         "<key>INVDatadict</key><dict><key>9</key><array/></dict></dict></plist>";
  const PlistPtr scanData = ScanDict("13", {Instance("disk0"), Instance("S&N<1>", "\"q\"")});
  FullScanHandler::SaveCurrentScanData(*ScanData::FromPlist(*scanData), path);

  const PlistPtr root = ReadPlistFile(path);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->Keys(), (std::vector<std::string>{"OTHER", "INVDatadict"}));
  CurrentScanRun().scanType = kDiffScanType;
  const auto snapshot = FullScanHandler::InitWithScanDataFile(path);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(CurrentScanRun().scanType, kDiffScanType);
  EXPECT_EQ(*snapshot->GetClassData(13), *scanData->ValueForKey("13"));
  EXPECT_EQ(snapshot->GetClassData(9), nullptr);  // the old snapshot is replaced, not merged

  std::ofstream(path)
      << "<plist version=\"1.0\"><dict><key>X</key><string>1</string></dict></plist>";
  for (const std::string& file : {path, folder.str() + "/absent"}) {
    CurrentScanRun().scanType = kDiffScanType;
    EXPECT_EQ(FullScanHandler::InitWithScanDataFile(file), nullptr) << file;
    EXPECT_EQ(CurrentScanRun().scanType, kFullScanType) << file;
  }
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
  const ScanData scanData = *ScanData::FromPlist(*ScanDict("13", {Instance("disk0")}));

  write("LOADED");
  ASSERT_NE(FullScanHandler::InitWithScanDataFile(path), nullptr);
  FullScanHandler::SaveCurrentScanData(scanData, path);
  EXPECT_EQ(ReadPlistFile(path)->Keys(), (std::vector<std::string>{"LOADED", "INVDatadict"}));

  ASSERT_NE(FullScanHandler::InitWithScanDataFile(path), nullptr);
  write("REPLACED");
  FullScanHandler::SaveCurrentScanData(scanData, path);
  EXPECT_EQ(ReadPlistFile(path)->Keys(), (std::vector<std::string>{"REPLACED", "INVDatadict"}));

  // A root that is not a dictionary is left as it is.
  std::ofstream(path, std::ios::trunc) << "<plist version=\"1.0\"><array/></plist>";
  FullScanHandler::SaveCurrentScanData(scanData, path);
  EXPECT_TRUE(ReadPlistFile(path)->IsArray());
}

// The indexed matching must answer exactly as the plain walk it replaces: the
// first remaining instance with an equal "KEY" matches; every instance equal
// to the match is then removed; a class with nothing left is dropped.
TEST_F(FullScanHandlerTest, IndexedMatchingGivesTheResultsOfTheWalkInOrder) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 30; ++round) {
    // Few keys and values, so keys repeat and whole instances repeat.
    std::vector<PlistPtr> naive;
    for (int i = 0, count = 1 + static_cast<int>(random() % 12); i < count; ++i) {
      naive.push_back(Instance("k" + std::to_string(random() % 6), std::to_string(random() % 2)));
    }
    const PlistPtr scanDict = ScanDict("18", naive);
    const PlistPtr array = scanDict->ValueForKey("18");
    FullScanHandler snapshot(scanDict);

    for (int step = 0; step < 15; ++step) {
      const std::string key = "k" + std::to_string(random() % 7);
      PlistPtr expected;
      for (const PlistPtr& instance : naive) {
        if (instance->ValueForKey("KEY")->String() == key) {
          expected = instance;
          break;
        }
      }
      const PlistPtr found = snapshot.FindFirstByKey(18, key);
      ASSERT_EQ(found, expected) << "round " << round << " step " << step;
      if (!found) continue;
      std::erase_if(naive, [&](const PlistPtr& instance) { return *instance == *found; });
      snapshot.RemoveMatched(18, found);
      if (step % 5 == 4 || naive.empty()) {  // reads in between see exactly what is left
        const PlistPtr left = snapshot.GetClassData(18);
        ASSERT_EQ(left == nullptr, naive.empty());
        if (left) {
          EXPECT_EQ(left, array);  // the live array, compacted in place
          ASSERT_EQ(left->Elements(), naive);
        }
      }
    }
  }
}

// The snapshot as the file reader gives it (compact) answers every question exactly as the
// same snapshot held as property lists.
TEST_F(FullScanHandlerTest, CompactSnapshotAnswersAsTheDictionaryDoes) {
  std::mt19937 random(20261123);
  const auto same = [](const PlistPtr& a, const PlistPtr& b) {
    return (a == nullptr && b == nullptr) || (a && b && *a == *b);
  };
  for (int round = 0; round < 40; ++round) {
    const PlistPtr scanDict = PlistValue::MakeDictionary();
    for (const char* classKey : {"18", "5", "102"}) {
      std::vector<PlistPtr> instances;
      for (int i = 0, count = static_cast<int>(random() % 8); i < count; ++i) {
        PlistPtr instance =
            Instance("k" + std::to_string(random() % 5), std::to_string(random() % 2));
        if (random() % 6 == 0) instance->RemoveKey("KEY");
        instances.push_back(std::move(instance));
      }
      scanDict->SetObjectForKey(classKey, PlistValue::MakeArray(std::move(instances)));
    }
    const std::optional<ScanData> compact = ScanData::FromPlist(*scanDict);
    ASSERT_TRUE(compact.has_value());
    FullScanHandler viaDictionary(ScanData::FromPlist(*scanDict)->ToPlist());
    FullScanHandler viaCompact(*compact);
    FullScanHandler inPlace(*compact);  // matched without copies, as a difference scan does

    for (int step = 0; step < 20; ++step) {
      const std::int32_t classId = std::vector<std::int32_t>{18, 5, 102, 7}[random() % 4];
      const std::string key = "k" + std::to_string(random() % 6);
      const PlistPtr expected = viaDictionary.FindFirstByKey(classId, key);
      const PlistPtr found = viaCompact.FindFirstByKey(classId, key);
      ASSERT_TRUE(same(found, expected)) << "round " << round << " step " << step;
      const FullScanHandler::CompactMatch match = inPlace.FindFirstCompact(classId, key);
      const PlistPtr foundInPlace =
          match.held ? (match.instance ? match.instance->ToPlist() : nullptr)
                     : inPlace.FindFirstByKey(classId, key);
      ASSERT_TRUE(same(foundInPlace, expected)) << "round " << round << " step " << step;
      if (found) {
        viaDictionary.RemoveMatched(classId, expected);
        viaCompact.RemoveMatched(classId, found);
        if (match.held) {
          inPlace.RemoveMatchedCompact(classId, match);
        } else {
          inPlace.RemoveMatched(classId, foundInPlace);
        }
      }
      if (step % 7 == 6) {
        const PlistPtr left = viaDictionary.GetClassData(classId);
        ASSERT_TRUE(same(viaCompact.GetClassData(classId), left));
        ASSERT_TRUE(same(inPlace.GetClassData(classId), left));
      }
    }
    // What is left is reported as deleted, class by class in the same order.
    viaDictionary.WritetoDiffData();
    const std::string expectedDeleted = CurrentScanRun().invDiffData->Description();
    ResetScanRun();
    viaCompact.WritetoDiffData();
    EXPECT_EQ(CurrentScanRun().invDiffData->Description(), expectedDeleted) << round;
    ResetScanRun();
    inPlace.WritetoDiffData();
    EXPECT_EQ(CurrentScanRun().invDiffData->Description(), expectedDeleted) << round;
    ResetScanRun();
  }
}

TEST_F(FullScanHandlerTest, HandedBackArraysAndUnreadableInstances) {
  const PlistPtr scanDict = ScanDict("22", {Instance("a"), Instance("b"), Instance("c")});
  FullScanHandler snapshot(scanDict);
  ASSERT_NE(snapshot.FindFirstByKey(22, "b"), nullptr);
  // The caller changes the live array and hands it back: the index follows.
  const PlistPtr live = snapshot.GetClassData(22);
  live->RemoveAtIndex(1);
  snapshot.AddArrayObjectToClass(22, live);
  EXPECT_EQ(snapshot.FindFirstByKey(22, "b"), nullptr);
  EXPECT_NE(snapshot.FindFirstByKey(22, "c"), nullptr);
  snapshot.AddArrayObjectToClass(22, PlistValue::MakeArray());
  EXPECT_EQ(snapshot.GetClassData(22), nullptr);
  EXPECT_THROW(snapshot.addObjectToClass(22, PlistValue::MakeString("x")), PlatformException);

  // An instance the walk cannot read (here a "KEY" that is not text) fails
  // the lookups that would have met it, until it is removed itself.
  const PlistPtr numericKey = PlistValue::MakeDictionary();
  numericKey->SetObjectForKey("KEY", PlistValue::MakeInteger(5));
  snapshot.AddArrayObjectToClass(
      4, PlistValue::MakeArray({Instance("first"), numericKey, Instance("last")}));
  EXPECT_NE(snapshot.FindFirstByKey(4, "first"), nullptr);
  EXPECT_THROW(snapshot.FindFirstByKey(4, "last"), PlatformException);
  EXPECT_THROW(snapshot.FindFirstByKey(4, "none"), PlatformException);
  snapshot.RemoveMatched(4, numericKey);
  EXPECT_NE(snapshot.FindFirstByKey(4, "last"), nullptr);
}

}  // namespace
}  // namespace tarn
