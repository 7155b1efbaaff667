#include "tarninventory/src/FullScanHandler.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

PlistPtr Text(const std::string& text) { return PlistValue::MakeString(text); }

// An instance dictionary from property id / value pairs.
PlistPtr Instance(std::initializer_list<std::pair<const char*, const char*>> entries) {
  PlistPtr instance = PlistValue::MakeDictionary();
  for (const auto& [key, value] : entries) instance->SetObjectForKey(key, Text(value));
  return instance;
}

bool IsText(const PlistPtr& value, const char* text) {
  return value && value->IsString() && value->String() == text;
}

PlistPtr Array(std::vector<PlistPtr> elements) {
  return PlistValue::MakeArray(std::move(elements));
}

std::vector<std::string> KeysOf(const PlistPtr& array) {
  std::vector<std::string> keys;
  for (const PlistPtr& element : array->Elements()) {
    keys.push_back(element->ValueForKey("KEY")->String());
  }
  return keys;
}

class FullScanHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetScanRun(); }
  void TearDown() override { ResetScanRun(); }
};

TEST_F(FullScanHandlerTest, SnapshotRoundTripsThroughTheFileKeepingOtherKeys) {
  testing::TempDir folder("fullscan");
  const std::string path = folder.str() + "/invFullData";
  {
    std::ofstream file(path);
    file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
            "<key>OTHER</key><string>kept</string>"
            "<key>INVDatadict</key><dict><key>9</key><array/></dict></dict></plist>\n";
  }
  PlistPtr scanData = PlistValue::MakeDictionary();
  scanData->SetObjectForKey(
      "13", Array({Instance({{"1305", "disk0"}, {"KEY", "disk0"}}),
                   Instance({{"1305", "disk1"}, {"1311", "S&N<1>"}, {"KEY", "disk1S&N<1>"}})}));
  scanData->SetObjectForKey("20", Array({Instance({{"2001", "Mac"}, {"KEY", ""}})}));
  FullScanHandler::SaveCurrentScanData(scanData, path);

  const PlistPtr root = ReadPlistFile(path);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->Keys(), (std::vector<std::string>{"OTHER", "INVDatadict"}));
  EXPECT_TRUE(IsText(root->ValueForKey("OTHER"), "kept"));

  CurrentScanRun().scanType = kDiffScanType;
  const auto snapshot = FullScanHandler::InitWithScanDataFile(path);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(CurrentScanRun().scanType, kDiffScanType);
  EXPECT_EQ(*snapshot->GetClassData(13), *scanData->ValueForKey("13"));
  EXPECT_EQ(*snapshot->GetClassData(20), *scanData->ValueForKey("20"));
  EXPECT_EQ(snapshot->GetClassData(9), nullptr);  // replaced, not merged
}

TEST_F(FullScanHandlerTest, FileWithoutSnapshotTurnsTheRunIntoAFullScan) {
  testing::TempDir folder("fullscan-missing");
  const std::string withoutKey = folder.str() + "/other";
  {
    std::ofstream file(withoutKey);
    file << "<plist version=\"1.0\"><dict><key>X</key><string>1</string></dict></plist>";
  }
  for (const std::string& path : {withoutKey, folder.str() + "/absent"}) {
    CurrentScanRun().scanType = kDiffScanType;
    EXPECT_EQ(FullScanHandler::InitWithScanDataFile(path), nullptr) << path;
    EXPECT_EQ(CurrentScanRun().scanType, kFullScanType) << path;
  }
  // An unwritable target is logged and leaves nothing behind.
  FullScanHandler::SaveCurrentScanData(PlistValue::MakeDictionary(),
                                       folder.str() + "/no/such/dir/invFullData");
  EXPECT_FALSE(std::ifstream(folder.str() + "/no/such/dir/invFullData").good());
}

// The matching contract, stated as the plain walk it replaces: the first
// remaining instance with an equal "KEY" matches; every instance equal to the
// match is then removed, and a class with nothing left is dropped.
struct NaiveSnapshot {
  std::vector<PlistPtr> instances;
  PlistPtr Find(const std::string& key) const {
    for (const PlistPtr& instance : instances) {
      if (instance->ValueForKey("KEY")->String() == key) return instance;
    }
    return nullptr;
  }
  void Remove(const PlistValue& match) {
    std::erase_if(instances, [&](const PlistPtr& instance) { return *instance == match; });
  }
};

TEST_F(FullScanHandlerTest, IndexedMatchingGivesTheResultsOfTheWalkInOrder) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 30; ++round) {
    // Few keys and few values, so keys repeat and whole instances repeat.
    const auto randomInstance = [&] {
      const std::string key = "k" + std::to_string(random() % 6);
      return Instance({{"1801", key.c_str()},
                       {"1802", std::to_string(random() % 2).c_str()},
                       {"KEY", key.c_str()}});
    };
    NaiveSnapshot naive;
    PlistPtr scanDict = PlistValue::MakeDictionary();
    PlistPtr array = PlistValue::MakeArray();
    const int count = 1 + static_cast<int>(random() % 12);
    for (int i = 0; i < count; ++i) {
      naive.instances.push_back(randomInstance());
      array->Append(naive.instances.back());
    }
    scanDict->SetObjectForKey("18", array);
    FullScanHandler snapshot(scanDict);

    for (int step = 0; step < 15; ++step) {
      const std::string key = "k" + std::to_string(random() % 7);
      const PlistPtr expected = naive.Find(key);
      const PlistPtr found = snapshot.FindFirstByKey(18, key);
      ASSERT_EQ(found, expected) << "round " << round << " step " << step << " key " << key;
      if (found) {
        naive.Remove(*found);
        snapshot.RemoveMatched(18, found);
      }
      if (step % 5 == 4) {  // reads in between must see exactly what is left
        const PlistPtr left = snapshot.GetClassData(18);
        if (naive.instances.empty()) {
          ASSERT_EQ(left, nullptr);
        } else {
          ASSERT_NE(left, nullptr);
          ASSERT_EQ(left->Elements(), naive.instances);
        }
      }
    }
    const PlistPtr left = snapshot.GetClassData(18);
    ASSERT_EQ(left == nullptr, naive.instances.empty());
    if (left) {
      EXPECT_EQ(left, array);  // still the live array, compacted in place
      EXPECT_EQ(left->Elements(), naive.instances);
    }
  }
}

TEST_F(FullScanHandlerTest, ArraysHandedBackReplaceTheIndexedState) {
  PlistPtr scanDict = PlistValue::MakeDictionary();
  scanDict->SetObjectForKey(
      "22", Array({Instance({{"KEY", "a"}}), Instance({{"KEY", "b"}}), Instance({{"KEY", "c"}})}));
  FullScanHandler snapshot(scanDict);
  ASSERT_NE(snapshot.FindFirstByKey(22, "b"), nullptr);

  // The caller changes the live array and hands it back: "b" is gone.
  PlistPtr live = snapshot.GetClassData(22);
  live->RemoveAtIndex(1);
  snapshot.AddArrayObjectToClass(22, live);
  EXPECT_EQ(snapshot.FindFirstByKey(22, "b"), nullptr);
  EXPECT_NE(snapshot.FindFirstByKey(22, "c"), nullptr);

  // Another array replaces the class; an empty one drops it.
  snapshot.AddArrayObjectToClass(22, Array({Instance({{"KEY", "z"}})}));
  EXPECT_EQ(snapshot.FindFirstByKey(22, "a"), nullptr);
  EXPECT_NE(snapshot.FindFirstByKey(22, "z"), nullptr);
  snapshot.AddArrayObjectToClass(22, PlistValue::MakeArray());
  EXPECT_EQ(snapshot.GetClassData(22), nullptr);
  snapshot.AddArrayObjectToClass(22, nullptr);
  EXPECT_EQ(snapshot.GetClassData(22), nullptr);

  // A scalar is no array: the guarded form logs, the plain form raises.
  snapshot.AddArrayObjectToClass(22, Text("x"));
  EXPECT_THROW(snapshot.addObjectToClass(22, Text("x")), PlatformException);
  EXPECT_EQ(snapshot.GetClassData(22), nullptr);
}

TEST_F(FullScanHandlerTest, UnreadableInstancesFailWhereTheWalkWouldMeetThem) {
  PlistPtr scanDict = PlistValue::MakeDictionary();
  PlistPtr numericKey = PlistValue::MakeDictionary();
  numericKey->SetObjectForKey("KEY", PlistValue::MakeInteger(5));
  scanDict->SetObjectForKey("4", Array({Instance({{"KEY", "first"}}), Instance({{"401", "/"}}),
                                        numericKey, Instance({{"KEY", "last"}})}));
  scanDict->SetObjectForKey("7", Text("not an array"));
  FullScanHandler snapshot(scanDict);

  EXPECT_NE(snapshot.FindFirstByKey(4, "first"), nullptr);  // met before the bad one
  EXPECT_THROW(snapshot.FindFirstByKey(4, "last"), PlatformException);
  EXPECT_THROW(snapshot.FindFirstByKey(4, "none"), PlatformException);
  EXPECT_THROW(snapshot.FindFirstByKey(7, "x"), PlatformException);
  EXPECT_EQ(snapshot.FindFirstByKey(5, "x"), nullptr);

  // Once the unreadable instance is removed, the walk reaches "last".
  snapshot.RemoveMatched(4, scanDict->ValueForKey("4")->ObjectAtIndex(2));
  EXPECT_NE(snapshot.FindFirstByKey(4, "last"), nullptr);
  snapshot.RemoveMatched(4, snapshot.FindFirstByKey(4, "first"));
  EXPECT_EQ(snapshot.GetClassData(4)->Count(), 2u);
}

TEST_F(FullScanHandlerTest, WritetoDiffDataReportsOnlyWhatWasNotMatched) {
  PlistPtr scanDict = PlistValue::MakeDictionary();
  scanDict->SetObjectForKey("25", Array({Instance({{"2501", "lp1"}, {"KEY", "lp1"}}),
                                         Instance({{"2501", "lp2"}, {"KEY", "lp2"}})}));
  scanDict->SetObjectForKey(
      "18", Array({Instance({{"1801", "Safari"}, {"1814", "OS_EXT"}, {"KEY", "Safari"}}),
                   Instance({{"1801", "Xcode"}, {"1814", "x"}, {"KEY", "Xcode"}})}));
  scanDict->SetObjectForKey("13", Array({Instance({{"1305", "disk0"}, {"KEY", "disk0"}})}));
  FullScanHandler snapshot(scanDict);

  snapshot.RemoveMatched(25, snapshot.FindFirstByKey(25, "lp1"));
  snapshot.RemoveMatched(13, snapshot.FindFirstByKey(13, "disk0"));
  EXPECT_EQ(snapshot.GetClassData(13), nullptr);
  snapshot.WritetoDiffData();

  PlistPtr expected = PlistValue::MakeDictionary();
  PlistPtr printers = PlistValue::MakeDictionary();
  printers->SetObjectForKey("1", Array({Instance({{"2501", "lp2"}})}));
  expected->SetObjectForKey("25", printers);
  PlistPtr groups = PlistValue::MakeDictionary();
  groups->SetObjectForKey("OS_EXT", Array({Instance({{"1801", "Safari"}, {"1814", "-"}})}));
  groups->SetObjectForKey("S-1-1-0", Array({Instance({{"1801", "Xcode"}, {"1814", "x"}})}));
  PlistPtr software = PlistValue::MakeDictionary();
  software->SetObjectForKey("1", groups);
  expected->SetObjectForKey("18", software);
  EXPECT_EQ(*CurrentScanRun().invDiffData, *expected)
      << CurrentScanRun().invDiffData->Description();
  EXPECT_EQ(CurrentScanRun().invDiffData->Keys(), (std::vector<std::string>{"25", "18"}));
  // Filing works on copies: the snapshot keeps its instances as they were.
  EXPECT_EQ(KeysOf(snapshot.GetClassData(18)), (std::vector<std::string>{"Safari", "Xcode"}));
  EXPECT_TRUE(IsText(snapshot.GetClassData(18)->ObjectAtIndex(0)->ValueForKey("1814"), "OS_EXT"));

  ::testing::internal::CaptureStderr();
  snapshot.Print();
  const std::string printed = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(printed.find("-[FullScanHandler Print] [Line "), std::string::npos) << printed;
  EXPECT_NE(printed.find("Prev fullScanDict : "), std::string::npos);
  EXPECT_NE(printed.find("lp2"), std::string::npos);
  EXPECT_EQ(printed.find("lp1"), std::string::npos);
}

}  // namespace
}  // namespace tarn
