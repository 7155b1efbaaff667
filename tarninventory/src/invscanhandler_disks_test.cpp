#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "platform/plist/plist_io.h"
#include "tarninventory/src/collector_testutil.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;

std::string S(const std::string& key, const std::string& value) {
  return "<key>" + key + "</key><string>" + value + "</string>";
}
std::string I(const std::string& key, long long value) {
  return "<key>" + key + "</key><integer>" + std::to_string(value) + "</integer>";
}
std::string Dict(const std::string& body) { return "<dict>" + body + "</dict>"; }
std::string Items(const std::string& items) {
  return "<key>_items</key><array>" + items + "</array>";
}
const std::string kVolumes = "<key>volumes</key><array><dict/></array>";
const std::string kEmptyRoot = "<plist version=\"1.0\"><array/></plist>";

// A Serial-ATA device; an empty medium leaves "spsata_medium_type" out.
std::string Sata(const std::string& bsd, const std::string& medium, long long size,
                 bool volumes = true) {
  return Dict(S("_name", "Name-" + bsd) + S("bsd_name", bsd) + S("device_model", "Model-" + bsd) +
              S("device_serial", "S-" + bsd) + I("size_in_bytes", size) +
              (medium.empty() ? "" : S("spsata_medium_type", medium)) + (volumes ? kVolumes : ""));
}

std::string DictPlist(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\">" + Dict(body) +
         "</plist>";
}

// One instance's values joined by "|" in its own key order.
std::string Values(const PlistPtr& instance) {
  if (!instance) return "left out";
  std::string text;
  for (const auto& [property, value] : instance->Entries()) {
    text += (text.empty() ? "" : "|") + value->String();
  }
  return text;
}

// Each instance as "key:values;".
std::string Render(const PlistPtr& instances) {
  if (!instances) return "nothing";
  std::string text;
  for (const auto& [key, instance] : instances->Entries())
    text += key + ":" + Values(instance) + ";";
  return text;
}

// Each disk as "key=description/capacity;".
std::string Summary(const PlistPtr& disks) {
  if (!disks) return "nothing";
  std::string text;
  for (const auto& [key, disk] : disks->Entries()) {
    text += key + "=" + disk->ValueForKey("1303")->String() + "/" +
            disk->ValueForKey("1306")->String() + ";";
  }
  return text;
}

bool Contains(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

class DiskCollectorTest : public CollectorTest {
 protected:
  void AnswerProfiler(const char* dataType, const std::string& output) {
    platform_.tools().Answer(kSystemProfiler, {"-xml", dataType}, output);
  }
  void AnswerDiskutil(const std::vector<std::string>& arguments, const std::string& body) {
    platform_.tools().Answer(kDiskutil, arguments, DictPlist(body));
  }
  void AnswerVolumeList(const std::string& names) {
    AnswerDiskutil({"list", "-plist"}, "<key>VolumesFromDisks</key><array>" + names + "</array>");
  }
  // An empty value table again, for the next run of a collector.
  static void ResetRows() {
    UnLoadTable("WMIFetchedValue");
    ASSERT_EQ(CreateTable("WMIFetchedValue"), 1);
  }
  // The recorded rows of the class for the given properties, "property|instance|value;".
  static std::string Picked(std::int32_t classId, std::initializer_list<std::string> properties) {
    const std::string rows = RowsOfClass(classId);
    std::string picked;
    for (std::size_t at = 0, end; (end = rows.find(';', at)) != std::string::npos; at = end + 1) {
      const std::string row = rows.substr(at, end - at + 1);
      for (const std::string& property : properties) {
        if (row.rfind(property + "|", 0) == 0) picked += row;
      }
    }
    return picked;
  }
};

TEST_F(DiskCollectorTest, DiskDrivesClassifyTheMachineAndRecordOneDiskPerController) {
  const auto sata = [](const std::string& controllers) {
    return Report("SPSerialATADataType", controllers);
  };
  const auto sas = [](const std::string& controllers) {
    return Report("SPSASDataType", Dict(Items(controllers)));
  };
  const std::string gaveUp =
      "Could n't get HDD info even from SPSASDataType, hence return from function";
  const struct {
    bool serialAta;
    std::string report;
    std::string expected;
    std::string logged;
  } cases[] = {
      // Fusion: the solid-state size is added before the conversion, also across controllers.
      {true,
       sata(Dict(Items(Sata("disk0", "Solid State", 121332826112) +
                       Sata("disk1", "rotational", 500107862016)))),
       "disk1=Fusion Drive/667266842624;", "solidStateSize: 121332826112\n"},
      {true,
       sata(Dict(Items(Sata("disk0", "Solid State", 121332826112))) +
            Dict(Items(Sata("disk1", "Rotational", 500107862016)))),
       "disk1=Fusion Drive/667266842624;", "FetchDiskDrives : size in bytes: 621440688128\n"},
      // Only the first recorded disk is an SSD; one disk per controller.
      {true,
       sata(Dict(Items(Sata("disk0", "Solid State", 121332826112))) +
            Dict(Items(Sata("disk1", "SOLID STATE", 500107862016)))),
       "disk0=SSD/130280128512;disk1=Disk drive/536986746880;", ""},
      {true,
       sata(Dict(Items(Sata("disk0", "Rotational", 1000000000) + Sata("disk1", "Rotational", 5)))),
       "disk0=Disk drive/1073741824;", ""},
      // No medium type sets both flags, and such a disk is no fusion half.
      {true, sata(Dict(Items(Sata("disk0", "", 121332826112)))), "disk0=SSD/130280128512;", ""},
      // Devices without volumes and controllers without devices are passed.
      {true,
       sata(Dict(S("_name", "empty")) +
            Dict(Items(Sata("disk0", "Solid State", 7, false) + Sata("disk1", "Rotational", 0)))),
       "disk1=Disk drive/0;", ""},
      // A recorded disk without bsd_name empties the builder.
      {true,
       sata(Dict(Items(Sata("disk0", "Rotational", 1))) +
            Dict(Items(Dict(S("device_model", "M") + S("device_serial", "S") + kVolumes)))),
       "nothing", "-[ProplistXMLParser FetchDiskDrives:] [Line "},
      {true, sata(""), "nothing", ""},
      // The SAS report: controllers one level deeper.
      {false, sas(Dict(Items(Sata("disk3", "Rotational", 1000000000)))),
       "disk3=Disk drive/1073741824;",
       "] Could n't get HDD info from SPSerialATADataType, trying with SPSASDataType\n"},
      {false, Report("SPSASDataType", Dict(S("_name", "no controllers"))), "nothing",
       gaveUp + "\n"},
      {false, Report("SPSASDataType", ""), "nothing", gaveUp + "----\n"},
      {false, kEmptyRoot, "nothing", "] FetchDiskDrives : Caught exception: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.report);
    AnswerProfiler(c.serialAta ? "SPSerialATADataType" : "SPSASDataType", c.report);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(Summary(parser_.FetchDiskDrives(c.serialAta)), c.expected);
    EXPECT_TRUE(Contains(::testing::internal::GetCapturedStderr(), c.logged));
  }

  // The whole instance, and what the walk logs.
  LogCapture log(3);
  const PlistPtr report = ParsePlist(
      sata(Dict(S("_name", "empty")) + Dict(Items(Sata("disk2", "Rotational", 9, false) +
                                                  Sata("disk0", "Solid State", 121332826112) +
                                                  Sata("disk1", "Rotational", 500107862016)))));
  EXPECT_EQ(Render(DiskDrivesFromControllers(ValueForKey(ObjectAtIndex(report, 0), "_items"))),
            "disk1:Model-disk1|-|Fusion Drive|-|disk1|667266842624|-|-|-|Name-disk1|S-disk1;");
  EXPECT_TRUE(log.Contains("[ERROR] FetchDiskDrives: no arrays found \n"));
  EXPECT_TRUE(log.Contains("[ERROR] FetchDiskDrives: this device Name-disk2 is not hdd \n"));
  EXPECT_TRUE(log.Contains("[INFO] getDiskType:devicename : Name-disk0 is ssd\n"));
  EXPECT_TRUE(
      log.Contains("[INFO] getDiskType:devicename : Name-disk1 is rotational disk drive\n"));
  EXPECT_FALSE(log.Contains("Name-disk2 is rotational"));
}

TEST_F(DiskCollectorTest, RemovableMediaSitUnderUsbDevices) {
  LogCapture log(3);
  const PlistPtr report = ParsePlist(Report(
      "SPUSBDataType",
      Dict(Items(
          Dict(Items(Dict(S("_name", "Stick") + S("bsd_name", "disk4") + S("manufacturer", "Acme") +
                          S("f_manufacturer", "Other") + S("b_vendor_id", "0x1") +
                          S("removable_media", "yes") + I("size_in_bytes", 4000000000) +
                          S("d_serial_num", "SN") + kVolumes) +
                     Dict(S("bsd_name", "disk5") + S("f_manufacturer", "Fallback") + kVolumes) +
                     Dict(S("bsd_name", "disk6") + S("removable_media", "Yes") + kVolumes) +
                     Dict(S("bsd_name", "disk7")) + Dict(S("_name", "no bsd") + kVolumes))))) +
          Dict(S("_name", "bus without devices"))));
  EXPECT_EQ(Render(RemovableDisksFromReport(report)),
            "disk4:Stick|Acme|removable - Stick 0x1|-|disk4|4294967296|-|-|-|Stick|SN;"
            "disk5:-|Fallback|- -|-|disk5|0|-|-|-|-|-;"
            "disk6:-|-|- -|-|disk6|0|-|-|-|-|-;");
  EXPECT_TRUE(log.Contains("[ERROR] FetchDiskDriveInfo: this is not hdd \n"));
  EXPECT_TRUE(log.Contains("[ERROR] FetchDiskDriveInfo: no arrays found \n"));

  // No output, or an empty list: empty. A root that is no list: nothing.
  EXPECT_EQ(Render(parser_.FetchRemovableDiskDrives()), "");
  AnswerProfiler("SPUSBDataType", kEmptyRoot);
  EXPECT_EQ(Render(parser_.FetchRemovableDiskDrives()), "");
  AnswerProfiler("SPUSBDataType", DictPlist(S("a", "b")));
  EXPECT_EQ(Render(parser_.FetchRemovableDiskDrives()), "nothing");
}

TEST(DiskParse, VolumesAreFixedOrRemovable) {
  const PlistPtr internal = PlistValue::MakeDictionary();
  internal->SetValueForKey("disk1", PlistValue::MakeDictionary());
  internal->SetValueForKey("disk0", PlistValue::MakeDictionary());
  const PlistPtr removable = PlistValue::MakeDictionary();
  removable->SetValueForKey("disk4", PlistValue::MakeDictionary());
  const std::string mounted = S("MountPoint", "/");
  const std::string ejectable = "<key>Ejectable</key><true/>";
  const struct {
    std::string info;
    PlistPtr internal;
    std::string expected;
  } cases[] = {
      {mounted + S("VolumeName", "HD") + S("FilesystemName", "APFS") + I("TotalSize", 1000000000) +
           I("FreeSpace", 4000000000) + S("VolumeUUID", "U") + S("DeviceIdentifier", "disk1s1"),
       internal, "/|Local Fixed Disk : HD|3|12|APFS|1073741824|4294967296|U|-|disk1s1|disk1"},
      {mounted + I("TotalSize", 0) + "<key>Ejectable</key><false/>", nullptr,
       "/|Local Fixed Disk|3|12|-|0|-|-|-|-|-"},
      {mounted + ejectable + S("ParentWholeDisk", "disk4") + S("VolumeName", "Stick"), internal,
       "/|Removable Disk : Stick|2|11|-|-|-|-|-|-|disk4"},
      {mounted + I("Ejectable", 1) + S("ParentWholeDisk", "disk0"), internal, "left out"},
      {mounted + ejectable, internal, "left out"},
  };
  LogCapture log(3);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.info);
    EXPECT_EQ(Values(VolumeInstance("v", ParsePlist(DictPlist(c.info)), c.internal, removable)),
              c.expected);
  }
  EXPECT_TRUE(log.Contains("[ERROR] This volume v is not a hdd\n"));
  EXPECT_THROW(VolumeInstance("v", ParsePlist(DictPlist("")), internal, removable),
               PlatformException);
}

TEST(DiskParse, DisksThenVolumesNumberedInOrder) {
  const auto instance = [](std::initializer_list<std::pair<const char*, PlistPtr>> values) {
    const PlistPtr dictionary = PlistValue::MakeDictionary();
    for (const auto& [key, value] : values) dictionary->SetObjectForKey(key, value);
    return dictionary;
  };
  const auto text = [](const char* value) { return PlistValue::MakeString(value); };
  const PlistPtr internal = instance({{"disk1", instance({{"1305", text("disk1")}})}});
  const PlistPtr removable = instance({{"disk4", instance({{"1305", text("disk4")}})},
                                       {"disk1", instance({{"1305", text("usb1")}})}});
  const PlistPtr volumes =
      instance({{"disk1s1", instance({{"401", text("/")}, {"411", text("disk1")}})},
                {"disk4s1", instance({{"401", text("/Volumes/S")}})}});
  Rows rows;
  ParseDisksAndVolumes(internal, removable, volumes, rows);
  // A removable disk with an internal disk's name takes its place.
  EXPECT_EQ(RowsText(rows, 13), "1305|1|usb1;1305|2|disk4;");
  EXPECT_EQ(RowsText(rows, 4), "401|1|/;411|1|disk1;401|2|/Volumes/S;");
  // Without internal disks the removable ones are not recorded either.
  rows.clear();
  ParseDisksAndVolumes(nullptr, removable, nullptr, rows);
  EXPECT_TRUE(rows.empty());
  // A value that is no text ends the step after the rows before it.
  rows.clear();
  volumes->ValueForKey("disk4s1")->SetObjectForKey("405", PlistValue::MakeInteger(7));
  EXPECT_THROW(ParseDisksAndVolumes(internal, nullptr, volumes, rows), PlatformException);
  EXPECT_EQ(RowsText(rows, 13) + RowsText(rows, 4),
            "1305|1|usb1;1305|2|disk4;401|1|/;411|1|disk1;401|2|/Volumes/S;");
}

// An NVMe device as the NVMe report lists it: no medium type.
std::string Nvme(const std::string& bsd, long long size, bool volumes = true) {
  return Dict(S("_name", "APPLE SSD " + bsd) + S("bsd_name", bsd) +
              S("device_model", "APPLE SSD " + bsd) + S("device_serial", "sn-" + bsd) +
              S("removable_media", "no") + I("size_in_bytes", size) + (volumes ? kVolumes : ""));
}

std::string NvmeReport(const std::string& controllers) {
  return Report("SPNVMeDataType", controllers);
}

PlistPtr Controllers(const std::string& report) {
  return ValueForKey(ObjectAtIndex(ParsePlist(report), 0), "_items");
}

TEST(DiskParse, NvmeDisksAreSolidState) {
  const std::string controller =
      Dict(Items(Nvme("disk9", 5, false) + Nvme("disk0", 500107862016) + Nvme("disk1", 7)) +
           S("_name", "Apple SSD Controller"));
  // One disk per controller, as on Serial-ATA; the first recorded is the SSD. Without
  // medium types the Serial-ATA rules would have seen both kinds, hence the NVMe step.
  EXPECT_EQ(Render(DiskDrivesFromNvmeControllers(Controllers(NvmeReport(controller)))),
            "disk0:APPLE SSD disk0|-|SSD|-|disk0|536986746880|-|-|-|APPLE SSD disk0|sn-disk0;");
  const std::string second = Dict(Items(Nvme("disk2", 1000000000)));
  EXPECT_EQ(Summary(DiskDrivesFromNvmeControllers(Controllers(NvmeReport(controller + second)))),
            "disk0=SSD/536986746880;disk2=Disk drive/1073741824;");
  // Two NVMe disks on one controller next to each other: never a fusion drive.
  const std::string pair = Dict(Items(Nvme("disk0", 121332826112) + Nvme("disk1", 500107862016)));
  EXPECT_EQ(Summary(DiskDrivesFromNvmeControllers(Controllers(NvmeReport(pair)))),
            "disk0=SSD/130280128512;");

  // Odd reports: nothing recorded, or a raise the gather step catches; never a crash.
  EXPECT_EQ(Render(DiskDrivesFromNvmeControllers(nullptr)), "");
  EXPECT_EQ(Render(DiskDrivesFromNvmeControllers(Controllers(NvmeReport("")))), "");
  EXPECT_EQ(Render(DiskDrivesFromNvmeControllers(
                Controllers(NvmeReport(Dict(S("_name", "no devices")))))),
            "");
  for (const std::string& odd : {
           NvmeReport(Dict(Items(Dict(S("bsd_name", "disk0") + kVolumes)))),  // no model
           NvmeReport("<string>controller</string>"),
           NvmeReport(Dict("<key>_items</key><string>devices</string>")),
           NvmeReport(Dict(Items("<integer>4</integer>"))),
       }) {
    SCOPED_TRACE(odd);
    EXPECT_THROW(DiskDrivesFromNvmeControllers(Controllers(odd)), PlatformException);
  }
}

TEST(DiskParse, WholeDiskInfoAsARemovableMedium) {
  const auto medium = [](const std::string& body) {
    return Values(RemovableDiskFromDiskInfo("disk4", ParsePlist(DictPlist(body))));
  };
  const std::string stick = S("BusProtocol", "USB") + S("DeviceIdentifier", "disk4") +
                            S("MediaName", "Flash Drive") + "<key>Internal</key><false/>" +
                            "<key>RemovableMedia</key><true/>" + I("Size", 32000000000) +
                            S("VolumeName", "");
  EXPECT_EQ(medium(stick),
            "Flash Drive|-|removable - Flash Drive -|-|disk4|34359738368|-|-|-|Flash Drive|-");
  // A disk in an external enclosure: fixed media.
  EXPECT_EQ(medium(S("MediaName", "SSD PM830 mSATA") + "<key>RemovableMedia</key><false/>" +
                   I("Size", 1000000000)),
            "SSD PM830 mSATA|-|SSD PM830 mSATA -|-|disk4|1073741824|-|-|-|SSD PM830 mSATA|-");
  // Missing keys and keys of other kinds count as missing.
  EXPECT_EQ(medium(""), "-|-|- -|-|disk4|0|-|-|-|-|-");
  EXPECT_EQ(medium(S("MediaName", "")), "-|-|- -|-|disk4|0|-|-|-|-|-");
  EXPECT_EQ(medium(I("MediaName", 5) + S("RemovableMedia", "yes") + S("Size", "123")),
            "-|-|- -|-|disk4|0|-|-|-|-|-");
  EXPECT_EQ(medium("<key>MediaName</key><array/><key>RemovableMedia</key><dict/>"
                   "<key>Size</key><array/>"),
            "-|-|- -|-|disk4|0|-|-|-|-|-");
  EXPECT_EQ(Values(RemovableDiskFromDiskInfo("disk4", nullptr)), "-|-|- -|-|disk4|0|-|-|-|-|-");
  EXPECT_THROW(RemovableDiskFromDiskInfo("disk4", ParsePlist(kEmptyRoot)), PlatformException);
}

TEST(DiskParse, ExternalVolumesAreTheOnesDiskutilCallsNotInternal) {
  const std::string internalFalse = "<key>Internal</key><false/>";
  const std::string internalTrue = "<key>Internal</key><true/>";
  const std::string removableOrExternal = "<key>RemovableMediaOrExternalDevice</key><true/>";
  const struct {
    std::string info;
    bool external;
  } cases[] = {
      {internalFalse, true},
      {internalTrue + removableOrExternal, true},  // a card in the built-in reader
      {internalTrue + "<key>RemovableMediaOrExternalDevice</key><false/>", false},
      {"", false},
      {S("Internal", "No") + I("RemovableMediaOrExternalDevice", 1), false},  // Booleans only
      {internalFalse + S("BusProtocol", "Disk Image"), false},
      {internalFalse + S("BusProtocol", "USB"), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.info);
    EXPECT_EQ(IsExternalVolume(ParsePlist(DictPlist(c.info))), c.external);
  }
  EXPECT_FALSE(IsExternalVolume(nullptr));
  EXPECT_THROW(IsExternalVolume(ParsePlist(kEmptyRoot)), PlatformException);

  // An external volume that is not ejectable is removable only when asked for.
  const PlistPtr removable = PlistValue::MakeDictionary();
  removable->SetValueForKey("disk5", PlistValue::MakeDictionary());
  const PlistPtr info =
      ParsePlist(DictPlist(S("MountPoint", "/Volumes/Ext") + internalFalse +
                           "<key>Ejectable</key><false/>" + S("ParentWholeDisk", "disk5")));
  EXPECT_EQ(Values(VolumeInstance("v", info, nullptr, removable, true)),
            "/Volumes/Ext|Removable Disk|2|11|-|-|-|-|-|-|disk5");
  EXPECT_EQ(Values(VolumeInstance("v", info, nullptr, removable)),
            "/Volumes/Ext|Local Fixed Disk|3|12|-|-|-|-|-|-|-");
}

// The whole collector through the tools and the recorder.
TEST_F(DiskCollectorTest, HddDetailsRecordsDisksThenVolumes) {
  // Serial-ATA raises (no element 0): the builder ends, the SAS report takes over.
  AnswerProfiler("SPSerialATADataType", kEmptyRoot);
  AnswerProfiler("SPSASDataType",
                 Report("SPSASDataType", Dict(Items(Dict(Items(Sata("disk1", "Rotational", 1)))))));
  AnswerProfiler(
      "SPUSBDataType",
      Report(
          "SPUSBDataType",
          Dict(Items(Dict(Items(Dict(S("_name", "Stick") + S("bsd_name", "disk4") + kVolumes)))))));
  AnswerVolumeList("<string>HD</string><string>Stick</string><string>Other</string>");
  AnswerDiskutil({"info", "-plist", "HD"}, S("MountPoint", "/") + S("VolumeName", "HD"));
  AnswerDiskutil({"info", "-plist", "Stick"}, S("MountPoint", "/Volumes/Stick") +
                                                  "<key>Ejectable</key><true/>" +
                                                  S("ParentWholeDisk", "disk4"));
  AnswerDiskutil(
      {"info", "-plist", "Other"},
      S("MountPoint", "/Volumes/Other") + I("Ejectable", 1) + S("ParentWholeDisk", "disk9"));
  LogCapture log(3);
  ::testing::internal::CaptureStderr();
  parser_.FetchHDDDetails();
  const std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(Picked(13, {"1303", "1305"}),
            "1303|1|Disk drive;1305|1|disk1;1303|2|Stick -;1305|2|disk4;");
  EXPECT_EQ(Picked(4, {"401", "402", "411"}),
            "401|1|/;402|1|Local Fixed Disk : HD;411|1|disk1;"
            "401|2|/Volumes/Stick;402|2|Removable Disk;411|2|disk4;");
  EXPECT_TRUE(Contains(console, "] FetchDiskDrives : Caught exception: "));
  EXPECT_TRUE(Contains(console, "-[ProplistXMLParser FetchMountedVolumes:removableDisks:] [Line "));
  EXPECT_TRUE(log.Contains("[ERROR] This volume Other is not a hdd\n"));

  // A Serial-ATA report without a recordable disk gives an empty internal dictionary (no SAS
  // fallback): the fixed volume has no parent, though the removable disk is merged in later.
  AnswerProfiler("SPSerialATADataType",
                 Report("SPSerialATADataType", Dict(Items(Sata("disk0", "Rotational", 1, false)))));
  parser_.FetchHDDDetails();
  EXPECT_EQ(Picked(13, {"1305"}), "1305|1|disk1;1305|2|disk4;1305|1|disk4;");
  EXPECT_EQ(Picked(4, {"411"}), "411|1|disk1;411|2|disk4;411|1|-;411|2|disk4;");
}

// With REPORT_MODERN_DISKS: the NVMe report and the whole disks of external volumes, each
// whole disk asked once; without it, none of these tools run.
TEST_F(DiskCollectorTest, ModernDisksFromNvmeAndExternalVolumes) {
  AnswerProfiler("SPSerialATADataType", Report("SPSerialATADataType", ""));
  AnswerProfiler("SPSASDataType", Report("SPSASDataType", ""));
  AnswerProfiler("SPUSBDataType", Report("SPUSBDataType", ""));
  AnswerProfiler("SPNVMeDataType", NvmeReport(Dict(Items(Nvme("disk0", 1000000000)))));
  AnswerVolumeList("<string>HD</string><string>A</string><string>B</string><string>C</string>");
  const std::string external = "<key>Internal</key><false/>";
  AnswerDiskutil({"info", "-plist", "HD"}, S("MountPoint", "/") + "<key>Internal</key><true/>" +
                                               S("ParentWholeDisk", "disk3"));
  AnswerDiskutil({"info", "-plist", "A"}, S("MountPoint", "/Volumes/A") + external +
                                              "<key>Ejectable</key><true/>" +
                                              S("ParentWholeDisk", "disk4"));
  AnswerDiskutil({"info", "-plist", "B"},
                 S("MountPoint", "/Volumes/B") + external + S("ParentWholeDisk", "disk4"));
  AnswerDiskutil({"info", "-plist", "C"},
                 S("MountPoint", "/Volumes/C") + external + S("ParentWholeDisk", "disk6"));
  AnswerDiskutil({"info", "-plist", "disk4"},
                 S("MediaName", "Stick") + "<key>RemovableMedia</key><true/>" + I("Size", 5));
  AnswerDiskutil({"info", "-plist", "disk6"}, S("MediaName", "Enclosure"));

  const auto ran = [&](const std::string& argument) {
    std::size_t times = 0;
    for (const auto& call : platform_.tools().calls()) {
      if (!call.arguments.empty() && call.arguments.back() == argument) ++times;
    }
    return times;
  };

  // With the key off none of these tools run: the recorded macbook-air-m3 machine shows it.
  parser_.reportModernDisks = true;
  parser_.FetchHDDDetails();
  EXPECT_EQ(Picked(13, {"1301", "1303", "1305"}),
            "1301|1|APPLE SSD disk0;1303|1|SSD;1305|1|disk0;"
            "1301|2|Stick;1303|2|removable - Stick -;1305|2|disk4;"
            "1301|3|Enclosure;1303|3|Enclosure -;1305|3|disk6;");
  EXPECT_EQ(Picked(4, {"401", "403", "411"}),
            "401|1|/;403|1|3;411|1|disk0;401|2|/Volumes/A;403|2|2;411|2|disk4;"
            "401|3|/Volumes/B;403|3|2;411|3|disk4;401|4|/Volumes/C;403|4|2;411|4|disk6;");
  EXPECT_EQ(ran("SPNVMeDataType"), 1u);
  EXPECT_EQ(ran("disk4"), 1u);
  EXPECT_EQ(ran("disk6"), 1u);

  // A USB report that lists a medium keeps the walk as it was: no whole disk is asked for,
  // and the volumes it does not list are left out or fixed as before.
  ResetRows();
  AnswerProfiler(
      "SPUSBDataType",
      Report("SPUSBDataType", Dict(Items(Dict(Items(Dict(S("_name", "USB stick") +
                                                         S("bsd_name", "disk4") + kVolumes)))))));
  parser_.FetchHDDDetails();
  EXPECT_EQ(Picked(13, {"1305"}), "1305|1|disk0;1305|2|disk4;");
  EXPECT_EQ(Picked(4, {"401", "411"}),
            "401|1|/;411|1|disk0;401|2|/Volumes/A;411|2|disk4;401|3|/Volumes/B;411|3|disk0;"
            "401|4|/Volumes/C;411|4|disk0;");
  EXPECT_EQ(ran("disk4") + ran("disk6"), 2u);

  // A Serial-ATA disk wins: the NVMe report is not run.
  ResetRows();
  AnswerProfiler("SPSerialATADataType",
                 Report("SPSerialATADataType", Dict(Items(Sata("disk1", "Solid State", 1)))));
  parser_.FetchHDDDetails();
  EXPECT_EQ(Picked(13, {"1305"}), "1305|1|disk1;1305|2|disk4;");
  EXPECT_EQ(ran("SPNVMeDataType"), 2u);
}

TEST_F(DiskCollectorTest, VolumeFilesStayInAPrivateFolderNamedByPosition) {
  TempDir root("disks");
  const fs::path work = root.path() / "work";
  fs::create_directories(work);
  struct WorkingDirectory {
    fs::path previous = fs::current_path();
    explicit WorkingDirectory(const fs::path& path) { fs::current_path(path); }
    ~WorkingDirectory() { fs::current_path(previous); }
  } inWork(work);

  AnswerVolumeList("<string>../evil</string><string>a/b</string>");
  AnswerDiskutil({"info", "-plist", "../evil"},
                 S("MountPoint", "/Volumes/x") + S("VolumeName", "../evil"));
  AnswerDiskutil({"info", "-plist", "a/b"}, S("MountPoint", "/Volumes/a/b"));
  EXPECT_EQ(Render(parser_.FetchMountedVolumes(nullptr, nullptr)),
            "../evil:/Volumes/x|Local Fixed Disk : ../evil|3|12|-|-|-|-|-|-|-;"
            "a/b:/Volumes/a/b|Local Fixed Disk|3|12|-|-|-|-|-|-|-;");
  std::vector<std::string> names;
  for (const auto& call : platform_.tools().calls()) {
    ASSERT_TRUE(call.outputPath);
    const fs::path output(*call.outputPath);
    EXPECT_TRUE(fs::equivalent(output.parent_path().parent_path(), work)) << *call.outputPath;
    names.push_back(output.filename().string());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"volumes.plist", "volume-0.plist", "volume-1.plist"}));
  EXPECT_TRUE(fs::is_empty(work));
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path()), fs::directory_iterator()), 1);

  // A failure after the files were written leaves nothing either.
  AnswerDiskutil({"info", "-plist", "a/b"}, S("VolumeName", "b"));
  EXPECT_EQ(Render(parser_.FetchMountedVolumes(nullptr, nullptr)), "nothing");
  EXPECT_TRUE(fs::is_empty(work));
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path()), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace tarn::testing
