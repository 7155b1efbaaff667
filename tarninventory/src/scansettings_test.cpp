#include "tarninventory/src/scansettings.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "framework/imds/store_testutil.h"
#include "framework/persistent/xmldatadictparser.h"
#include "tarninventory/src/FullScanHandler.h"
#include "tarninventory/src/fileattributes.h"
#include "tarninventory/src/runcontext.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/proplisthandler.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

using Text = std::optional<std::string>;

// One agent data folder. Run() starts a new scanner process: the state store is read back from
// disk and the data store holds only the settings table's definition.
class ScanSettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InitTarnGlobalvars().Set_tarnagentDataDictPath(dir_.str());
    OSVersion("10.11.6");
    Run();
  }
  void TearDown() override {
    testing::ResetStore();
    ResetScanRun();
    DeinitTarnGlobalvars();
  }

  void Run() {
    ResetScanRun();
    CurrentScanRun().tarninventory_datalist =
        Proplisthandler::InitwithFile(Path(kScanStateStoreFileName));
    testing::ResetStore();
    ASSERT_TRUE(LoadDataDictFromXMLFile(
        (std::string(TARN_SOURCE_DIR) + "/data/data-dictionary-onpremise.xml").c_str()));
  }
  std::string Path(const std::string& name) const { return dir_.str() + "/" + name; }
  void OSVersion(const std::string& version) {
    fake_.tools().Answer("/usr/bin/sw_vers", {"-productVersion"}, version + "\n");
  }

  // Changes the store in memory and on disk, as the agent component that distributes settings.
  static void Store(const char* key, const std::string& value) {
    CurrentScanRun().tarninventory_datalist->SetValueForKey(key, PlistValue::MakeString(value));
    CurrentScanRun().tarninventory_datalist->WriteToProplist();
  }
  // The driver's decision for a scheduled (difference) run.
  static std::int32_t Decide() {
    const SystemClock clock;
    return DecideRunType(ContextOfThisRun(clock), kDiffScanType);
  }
  static Text InMemory(const char* key) {
    return TextOf(CurrentScanRun().tarninventory_datalist->GetValueForKey(key));
  }
  Text OnDisk(const char* key) const {
    return TextOf(
        Proplisthandler::InitwithFile(Path(kScanStateStoreFileName))->GetValueForKey(key));
  }

  // Writes the settings file and announces it under a new stamp.
  void Publish(const std::string& stamp, const std::string& enableDiffScan, Text fullScanTime) {
    std::ofstream file(Path("invsettings.xml"));
    file << "<InvSettings><InvParams param_name=\"ENABLE_DIFF_SCAN\" param_value=\""
         << enableDiffScan << "\"/>";
    if (fullScanTime) {
      file << "<InvParams param_name=\"FULL_SCAN_UPDATED_TIME\" param_value=\"" << *fullScanTime
           << "\"/>";
    }
    file << "</InvSettings>";
    file.close();
    Store(kDiffSettingsXmlName, "invsettings.xml");
    Store(kDiffSettingsModifiedTimeMeta, stamp);
  }

  void WriteSnapshot(const char* topKey) {
    const PlistPtr instance = PlistValue::MakeDictionary();
    instance->SetObjectForKey("KEY", PlistValue::MakeString("macOS"));
    const PlistPtr classes = PlistValue::MakeDictionary();
    classes->SetObjectForKey("18", PlistValue::MakeArray({instance}));
    std::filesystem::remove(Path(kSnapshotFileName));
    Proplisthandler snapshot(Path(kSnapshotFileName));
    snapshot.SetValueForKey(topKey, classes);
    ASSERT_EQ(snapshot.WriteToProplist(), 1);
  }
  // Records the snapshot's time as the upload does after saving it.
  void TrustSnapshot() {
    Store(kInvFullDataLastModified, FileLastModifiedTime(Path(kSnapshotFileName)).value());
  }

  bool Logged(const std::string& line) const { return log_.Contains(line); }

  testing::TempDir dir_{"scansettings"};
  testing::FakePlatform fake_;
  testing::LogCapture log_;
};

TEST_F(ScanSettingsTest, SettingsFileIsReadOncePerStampChange) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ReadScanSettingsFromXml(kDiffScanType), kDiffScanType);
  EXPECT_NE(
      ::testing::internal::GetCapturedStderr().find(
          "INT ReadScanSettingsFromXml(int) [Line 840] modifiedTimeLocal 0 XMLModifiedTime 0"),
      std::string::npos);
  EXPECT_TRUE(Logged("ReadScanSettingsFromXml : No change in settings\n"));
  EXPECT_EQ(OnDisk(kDiffSettingsModifiedTimeLocal), std::nullopt);

  Publish("stamp-1", "1", "t1");
  EXPECT_EQ(ReadScanSettingsFromXml(kDiffScanType), kDiffScanType);
  EXPECT_TRUE(Logged("ReadScanSettingsFromXml: invsettings.xml has been modified \n"));
  EXPECT_TRUE(Logged("ReadScanSettingsFromXml : ENABLE_DIFF_SCAN : 1\n"));
  EXPECT_EQ(OnDisk(kDiffSettingsModifiedTimeLocal), "stamp-1");
  EXPECT_EQ(OnDisk(kEnableDiffScan), "1");

  // Same stamp on the next run: a file changed under it is not read.
  Publish("stamp-1", "0", "t1");
  Run();
  EXPECT_EQ(ReadScanSettingsFromXml(kDiffScanType), kDiffScanType);
  EXPECT_EQ(OnDisk(kEnableDiffScan), "1");
}

TEST_F(ScanSettingsTest, DisabledDiffScanStaysDisabledThroughTheStoredCopy) {
  Publish("stamp-1", "0", "t1");
  Store(kFullScanUpdatedTime, "t1");
  EXPECT_EQ(ReadSettingsXml(kDiffScanType), kFullScanType);
  EXPECT_TRUE(Logged("ReadScanSettingsFromXml :One time full scan setting is not modified\n"));
  EXPECT_TRUE(Logged("ReadScanSettingsFromXml :DiffScan is disabled\n"));

  Run();
  EXPECT_EQ(Decide(), kFullScanType);
  EXPECT_TRUE(Logged("GetScanType :DiffScan is disabled\n"));
  EXPECT_TRUE(Logged("Proceeding to full scan \n"));
}

TEST_F(ScanSettingsTest, OneTimeFullScanLatch) {
  EXPECT_TRUE(IsOneTimeFullScanEnabled());  // no settings rows: owed, nothing remembered
  EXPECT_EQ(OnDisk(kFullScanUpdatedTime), std::nullopt);

  // Set by a new FULL_SCAN_UPDATED_TIME and kept while the request is already full.
  Publish("stamp-1", "1", "t1");
  EXPECT_EQ(ReadSettingsXml(kFullScanType), kFullScanType);
  EXPECT_TRUE(Logged("ReadScanSettingsFromXml :One time full scan is enabled\n"));
  EXPECT_EQ(OnDisk(kFullScanUpdatedTime), "t1");
  EXPECT_EQ(OnDisk(kEnableOneTimeFullscan), "1");
  EXPECT_EQ(InMemory(kEnableOneTimeFullscan), "1");

  // The next diff request becomes full and clears the latch in memory only.
  Run();
  EXPECT_EQ(ReadSettingsXml(kDiffScanType), kFullScanType);
  EXPECT_TRUE(Logged("GetScanType :MustDo FullScan is enabled\n"));
  EXPECT_EQ(InMemory(kEnableOneTimeFullscan), "0");
  EXPECT_EQ(OnDisk(kEnableOneTimeFullscan), "1");
  CurrentScanRun().tarninventory_datalist->WriteToProplist();

  // Same FULL_SCAN_UPDATED_TIME in a changed file: not owed again; without one: owed again.
  Publish("stamp-2", "1", "t1");
  Run();
  EXPECT_EQ(ReadSettingsXml(kDiffScanType), kDiffScanType);
  Publish("stamp-3", "1", std::nullopt);
  Run();
  EXPECT_EQ(ReadSettingsXml(kDiffScanType), kFullScanType);
}

TEST_F(ScanSettingsTest, UnloadableSettingsKeepTheRequestAndAreNotRetried) {
  Store(kDiffSettingsModifiedTimeMeta, "stamp-1");  // no file name
  EXPECT_EQ(ReadSettingsXml(kDiffScanType), kDiffScanType);
  EXPECT_EQ(OnDisk(kDiffSettingsModifiedTimeLocal), "stamp-1");

  std::ofstream(Path("broken.xml")) << "<InvSettings><InvParams param_name=";
  Store(kDiffSettingsXmlName, "broken.xml");
  Store(kDiffSettingsModifiedTimeMeta, "stamp-2");
  EXPECT_EQ(ReadSettingsXml(kDiffScanType), kDiffScanType);
  EXPECT_EQ(OnDisk(kDiffSettingsModifiedTimeLocal), "stamp-2");
  EXPECT_EQ(OnDisk(kEnableOneTimeFullscan), std::nullopt);
}

TEST_F(ScanSettingsTest, ASettingsNameThatIsAPathDoesNotLoad) {
  // A settings file that would turn difference scans off, outside the data folder.
  testing::TempDir outside("scansettings-outside");
  std::ofstream(outside.str() + "/x.xml")
      << "<InvSettings><InvParams param_name=\"ENABLE_DIFF_SCAN\" "
         "param_value=\"0\"/></InvSettings>";
  const std::string relative = "../" + outside.path().filename().string() + "/x.xml";
  int stamp = 0;
  for (const std::string& name :
       {relative, outside.str() + "/x.xml", std::string(".."), std::string(".")}) {
    SCOPED_TRACE(name);
    Store(kDiffSettingsXmlName, name);
    Store(kDiffSettingsModifiedTimeMeta, "stamp-" + std::to_string(++stamp));
    EXPECT_EQ(ReadSettingsXml(kDiffScanType), kDiffScanType);
    EXPECT_EQ(OnDisk(kEnableDiffScan), std::nullopt);
    EXPECT_TRUE(Logged("ReadScanSettingsFromXml : Unable to load settings file " + Path(name)));
  }
}

TEST_F(ScanSettingsTest, SnapshotDecidesBetweenFullAndDiff) {
  const std::string path = Path(kSnapshotFileName);
  Store(kInvFullDataLastModified, "1700000000");
  EXPECT_EQ(Decide(), kFullScanType);
  EXPECT_TRUE(
      Logged("Previous Scan data notFound at path " + path + ", Proceeding to full scan \n"));
  EXPECT_EQ(OnDisk(kInvFullDataLastModified), "0");

  WriteSnapshot("INVDatadict");
  EXPECT_EQ(Decide(), kFullScanType);
  EXPECT_TRUE(Logged("Previous Scan data LastModified time : 0 \n"));
  EXPECT_TRUE(
      Logged("Previous Scan data at path " + path + " is modified, Proceeding to full scan \n"));
  EXPECT_EQ(CurrentScanRun().fullScanobj, nullptr);

  TrustSnapshot();
  EXPECT_EQ(Decide(), kDiffScanType);
  EXPECT_TRUE(Logged("Previous Scan data at path " + path +
                     " is not modified, Proceeding to DIFF scan \n"));
  EXPECT_FALSE(Logged("json encoder crashes"));
  ASSERT_NE(CurrentScanRun().fullScanobj, nullptr);
  EXPECT_TRUE(CurrentScanRun().fullScanobj->FindFirstByKey(18, "macOS").has_value());

  Run();
  OSVersion("10.12");
  EXPECT_EQ(Decide(), kFullScanType);
  EXPECT_TRUE(Logged("In macOS Sierra 10.12 json encoder crashes , so proceeding to full scan \n"));
  EXPECT_NE(CurrentScanRun().fullScanobj, nullptr);

  // Another writer replaced the snapshot after it was recorded.
  Run();
  OSVersion("10.11.6");
  const long recorded = std::stol(OnDisk(kInvFullDataLastModified).value());
  const struct timespec later[2] = {{recorded + 5, 0}, {recorded + 5, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), later, 0), 0);
  EXPECT_EQ(Decide(), kFullScanType);

  // A trusted file that holds no snapshot: no handler, so the decision is full.
  WriteSnapshot("Other");
  TrustSnapshot();
  EXPECT_EQ(Decide(), kFullScanType);
  EXPECT_EQ(CurrentScanRun().fullScanobj, nullptr);
  EXPECT_TRUE(Logged("InitWithScanDataFile : File doesnt have valid scan data \n"));
}

}  // namespace
}  // namespace tarn
