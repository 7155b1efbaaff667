#include "bench/machine_generator.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tarn::bench {
namespace {

// A fixed-seed generator, so that a shape always gives the same machine.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t Next() {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  int Below(int bound) { return static_cast<int>(Next() % static_cast<std::uint64_t>(bound)); }
  template <typename T, std::size_t N>
  const T& Pick(const std::array<T, N>& items) {
    return items[static_cast<std::size_t>(Below(static_cast<int>(N)))];
  }

 private:
  std::uint64_t state_;
};

std::string Escaped(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// An XML property list written the way the macOS tools print it: tab indentation, one element
// per line, "<array/>" for an empty array.
class PlistText {
 public:
  PlistText() {
    out_ =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n";
  }
  std::string Finish() { return out_ + "</plist>\n"; }

  void OpenDict() {
    Line("<dict>");
    ++depth_;
  }
  void CloseDict() {
    --depth_;
    Line("</dict>");
  }
  void OpenArray() {
    Line("<array>");
    ++depth_;
  }
  void CloseArray() {
    --depth_;
    Line("</array>");
  }
  void EmptyArray() { Line("<array/>"); }
  void Key(const std::string& key) { Line("<key>" + Escaped(key) + "</key>"); }
  void String(const std::string& text) { Line("<string>" + Escaped(text) + "</string>"); }
  void Integer(std::int64_t value) { Line("<integer>" + std::to_string(value) + "</integer>"); }
  void Real(const std::string& text) { Line("<real>" + text + "</real>"); }
  void Date(const std::string& text) { Line("<date>" + text + "</date>"); }
  void Boolean(bool value) { Line(value ? "<true/>" : "<false/>"); }

  void KeyString(const std::string& key, const std::string& text) {
    Key(key);
    String(text);
  }
  void KeyInteger(const std::string& key, std::int64_t value) {
    Key(key);
    Integer(value);
  }
  void KeyBoolean(const std::string& key, bool value) {
    Key(key);
    Boolean(value);
  }
  void KeyStrings(const std::string& key, const std::vector<std::string>& texts) {
    Key(key);
    if (texts.empty()) {
      EmptyArray();
      return;
    }
    OpenArray();
    for (const auto& text : texts) String(text);
    CloseArray();
  }

 private:
  void Line(const std::string& text) {
    out_.append(static_cast<std::size_t>(depth_), '\t');
    out_ += text;
    out_ += '\n';
  }
  std::string out_;
  int depth_ = 0;
};

// The frame system_profiler puts around the items of one data type.
std::string SystemProfilerReport(const std::string& dataType, const std::string& parentType,
                                 const std::function<void(PlistText&)>& items) {
  PlistText plist;
  plist.OpenArray();
  plist.OpenDict();
  plist.KeyStrings("_SPCommandLineArguments", {"/usr/sbin/system_profiler", "-nospawn", "-xml",
                                               dataType, "-detailLevel", "full"});
  plist.Key("_SPCompletionInterval");
  plist.Real("0.41791362951444411");
  plist.Key("_SPResponseTime");
  plist.Real("0.50991114595841325");
  plist.KeyString("_dataType", dataType);
  plist.KeyInteger("_detailLevel", -1);
  plist.Key("_items");
  plist.OpenArray();
  items(plist);
  plist.CloseArray();
  plist.KeyString("_parentDataType", parentType);
  plist.Key("_properties");
  plist.OpenDict();
  plist.Key("_name");
  plist.OpenDict();
  plist.KeyString("_isColumn", "YES");
  plist.KeyString("_isOutlineColumn", "YES");
  plist.KeyString("_order", "0");
  plist.CloseDict();
  plist.CloseDict();
  plist.Key("_timeStamp");
  plist.Date("2017-03-14T09:26:53Z");
  plist.Key("_versionInfo");
  plist.OpenDict();
  plist.KeyString("com.apple.SystemProfiler." + dataType, "1.0");
  plist.CloseDict();
  plist.CloseDict();
  plist.CloseArray();
  return plist.Finish();
}

// ---- Applications.

constexpr std::array<const char*, 24> kVendors = {
    "Adobe",   "Microsoft", "Apple",   "Google",  "Mozilla",   "JetBrains", "Autodesk", "Omni",
    "Panic",   "Bare Bones", "Affinity", "Zoom",   "Slack",     "Docker",    "VMware",   "Parallels",
    "Corel",   "Avid",      "Steinberg", "Native", "Blackmagic", "Epson",   "Canon",    "Brother"};
constexpr std::array<const char*, 24> kProducts = {
    "Photo",   "Studio",    "Editor",  "Sync",     "Helper",   "Notes",    "Viewer",  "Agent",
    "Updater", "Converter", "Capture", "Designer", "Player",   "Recorder", "Scanner", "Manager",
    "Console", "Assistant", "Browser", "Reader",   "Launcher", "Monitor",  "Utility", "Mixer"};
constexpr std::array<const char*, 6> kLocations = {
    "/Applications/",
    "/Applications/Utilities/",
    "/Library/Application Support/",
    "/System/Library/CoreServices/",
    "/Library/Image Capture/Devices/",
    "/System/Library/Frameworks/Kit.framework/Versions/A/Resources/"};
constexpr std::array<const char*, 4> kObtainedFrom = {"apple", "identified_developer",
                                                       "mac_app_store", "unknown"};
constexpr std::array<const char*, 4> kSigners = {
    "Developer ID Application: Example Software Inc. (2GYX2KDJ5X)",
    "Developer ID Certification Authority", "Apple Root CA", "Software Signing"};

struct Application {
  std::string name;
  std::string version;
  std::string path;
  std::string info;  // empty: no "info" key
  std::string obtainedFrom;
  std::string modified;
  int signers = 0;
};

// Application number n of the machine; the same n always gives the same application.
Application MakeApplication(int n) {
  Random random(0xA55ULL * 1000003ULL + static_cast<std::uint64_t>(n));
  Application app;
  app.name = std::string(random.Pick(kVendors)) + " " + random.Pick(kProducts) + " " +
             std::to_string(n);
  app.version = std::to_string(1 + random.Below(20)) + "." + std::to_string(random.Below(10)) +
                "." + std::to_string(random.Below(100));
  if (random.Below(3) == 0) app.version += " (" + std::to_string(1000 + random.Below(9000)) + ")";
  std::string location = random.Pick(kLocations);
  if (random.Below(4) == 0) location += app.name + ".app/Contents/Helpers/";
  app.path = location + app.name + ".app";
  if (random.Below(3) == 0) {
    app.info = app.name + " " + app.version + ", Copyright \xC2\xA9 2003-2017 " +
               random.Pick(kVendors) + " Inc. All rights reserved.";
  }
  app.obtainedFrom = random.Pick(kObtainedFrom);
  char date[32];
  std::snprintf(date, sizeof date, "20%02d-%02d-%02dT%02d:%02d:%02dZ", 10 + random.Below(8),
                1 + random.Below(12), 1 + random.Below(28), random.Below(24), random.Below(60),
                random.Below(60));
  app.modified = date;
  app.signers = random.Below(4);
  return app;
}

// The applications of the shape: the changed variant updates the first few, drops the next
// few and adds some past the end.
std::vector<Application> Applications(const MachineShape& shape) {
  std::vector<Application> apps;
  apps.reserve(static_cast<std::size_t>(shape.applications + kAddedApplications));
  for (int n = 0; n < shape.applications; ++n) {
    if (shape.changed && n >= kUpdatedApplications &&
        n < kUpdatedApplications + kRemovedApplications) {
      continue;
    }
    Application app = MakeApplication(n);
    if (shape.changed && n < kUpdatedApplications) app.version += ".1";
    apps.push_back(std::move(app));
  }
  if (shape.changed) {
    for (int n = 0; n < kAddedApplications; ++n) {
      apps.push_back(MakeApplication(shape.applications + n));
    }
  }
  return apps;
}

std::string ApplicationsReport(const MachineShape& shape) {
  const std::vector<Application> apps = Applications(shape);
  return SystemProfilerReport("SPApplicationsDataType", "SPSoftwareDataType", [&](PlistText& p) {
    for (const Application& app : apps) {
      p.OpenDict();
      p.KeyString("_name", app.name);
      p.KeyString("has64BitIntelCode", "yes");
      if (!app.info.empty()) p.KeyString("info", app.info);
      p.Key("lastModified");
      p.Date(app.modified);
      p.KeyString("obtained_from", app.obtainedFrom);
      p.KeyString("path", app.path);
      p.KeyString("runtime_environment", "arch_x86");
      if (app.signers > 0) {
        p.KeyStrings("signed_by", std::vector<std::string>(kSigners.begin(),
                                                           kSigners.begin() + app.signers));
      }
      p.KeyString("version", app.version);
      p.CloseDict();
    }
  });
}

// ---- Hardware and devices.

std::string HardwareReport() {
  return SystemProfilerReport("SPHardwareDataType", "SPRootDataType", [](PlistText& p) {
    p.OpenDict();
    p.KeyString("SMC_version_system", "2.41f1");
    p.KeyString("_name", "hardware_overview");
    p.KeyString("boot_rom_version", "IM183.0151.B00");
    p.KeyString("cpu_type", "Quad-Core Intel Core i7");
    p.KeyString("current_processor_speed", "4.2 GHz");
    p.KeyString("l2_cache_core", "256 KB");
    p.KeyString("l3_cache", "8 MB");
    p.KeyString("machine_model", "iMac18,3");
    p.KeyString("machine_name", "iMac");
    p.KeyInteger("number_processors", 4);
    p.KeyInteger("packages", 1);
    p.KeyString("physical_memory", "64 GB");
    p.KeyString("platform_UUID", "9B9E05A3-B2F2-44AD-A7BD-CABA786EEEA6");
    p.KeyString("serial_number", "C02VK4FXJ1GJ");
    p.CloseDict();
  });
}

std::string DisplaysReport() {
  return SystemProfilerReport("SPDisplaysDataType", "SPHardwareDataType", [](PlistText& p) {
    p.OpenDict();
    p.KeyString("_name", "kHW_AMDRadeonPro580Item");
    p.KeyString("spdisplays_device-id", "0x67df");
    p.Key("spdisplays_ndrvs");
    p.OpenArray();
    p.OpenDict();
    p.KeyString("_name", "iMac");
    p.KeyString("_spdisplays_pixels", "5120 x 2880");
    p.KeyString("_spdisplays_resolution", "2560 x 1440 @ 60 Hz");
    p.KeyString("spdisplays_main", "spdisplays_yes");
    p.CloseDict();
    p.CloseArray();
    p.KeyString("spdisplays_vendor", "sppci_vendor_amd");
    p.KeyString("spdisplays_vram", "8192 MB");
    p.KeyString("sppci_bus", "spdisplays_pcie_device");
    p.KeyString("sppci_device_type", "spdisplays_gpu");
    p.KeyString("sppci_model", "Radeon Pro 580");
    p.CloseDict();
  });
}

std::string DiscBurningReport() {
  return SystemProfilerReport("SPDiscBurningDataType", "SPHardwareDataType", [](PlistText& p) {
    p.OpenDict();
    p.KeyString("_name", "HL-DT-ST DVDRW  GA32N");
    p.KeyString("burn_support", "DRDeviceSupportLevelAppleShipping");
    p.KeyString("device_cache", "1024 KB");
    p.KeyString("device_media", "media_none");
    p.KeyString("firmware", "RP03");
    p.KeyString("interconnect", "SATA");
    p.CloseDict();
  });
}

std::string SerialAtaReport() {
  return SystemProfilerReport("SPSerialATADataType", "SPHardwareDataType", [](PlistText& p) {
    p.OpenDict();
    p.Key("_items");
    p.OpenArray();
    p.OpenDict();
    p.KeyString("_name", "APPLE SSD SM1024G");
    p.KeyString("bsd_name", "disk0");
    p.KeyString("device_model", "APPLE SSD SM1024G                       ");
    p.KeyString("device_revision", "BXW1SA0Q");
    p.KeyString("device_serial", "S1K4NYAG402917");
    p.KeyString("removable_media", "no");
    p.KeyInteger("size_in_bytes", 1000555581440);
    p.KeyString("spsata_medium_type", "Solid State");
    p.Key("volumes");
    p.OpenArray();
    p.OpenDict();
    p.KeyString("_name", "Macintosh HD");
    p.KeyString("bsd_name", "disk0s2");
    p.KeyInteger("size_in_bytes", 999345127424);
    p.CloseDict();
    p.CloseArray();
    p.CloseDict();
    p.CloseArray();
    p.KeyString("_name", "SATA/SATA Express");
    p.KeyString("spsata_vendor", "Intel 200 Series Chipset");
    p.CloseDict();
  });
}

std::string EmptyReport(const std::string& dataType) {
  return SystemProfilerReport(dataType, "SPHardwareDataType", [](PlistText&) {});
}

std::string UsbReport() {
  return SystemProfilerReport("SPUSBDataType", "SPHardwareDataType", [](PlistText& p) {
    p.OpenDict();
    p.Key("_items");
    p.OpenArray();
    p.OpenDict();
    p.KeyString("_name", "Apple Keyboard");
    p.KeyString("manufacturer", "Apple, Inc");
    p.KeyString("product_id", "0x0250");
    p.CloseDict();
    p.CloseArray();
    p.KeyString("_name", "USB30Bus");
    p.KeyString("host_controller", "AppleUSBXHCISPTLP");
    p.CloseDict();
  });
}

std::string NetworkReport(int services) {
  return SystemProfilerReport("SPNetworkDataType", "SPHardwareDataType", [services](PlistText& p) {
    for (int i = 0; i < services; ++i) {
      char mac[32];
      std::snprintf(mac, sizeof mac, "38:c9:86:%02x:%02x:%02x", i, (i * 7) & 0xff, (i * 13) & 0xff);
      const bool configured = i % 3 == 0;
      p.OpenDict();
      if (configured) {
        p.Key("DNS");
        p.OpenDict();
        p.KeyString("DomainName", "corp.example");
        p.KeyStrings("ServerAddresses", {"10.40.0.10", "10.40.0.11"});
        p.CloseDict();
      }
      p.Key("Ethernet");
      p.OpenDict();
      p.KeyString("MAC Address", mac);
      p.KeyStrings("MediaOptions", {"Full Duplex"});
      p.KeyString("MediaSubType", "1000baseT");
      p.CloseDict();
      p.Key("IPv4");
      p.OpenDict();
      const std::string address = "10.40." + std::to_string(i) + ".57";
      if (configured) p.KeyStrings("Addresses", {address});
      p.KeyString("ConfigMethod", "DHCP");
      if (configured) {
        p.KeyString("Router", "10.40." + std::to_string(i) + ".1");
        p.KeyStrings("SubnetMasks", {"255.255.255.0"});
      }
      p.CloseDict();
      p.KeyString("_name", "Ethernet " + std::to_string(i + 1));
      if (configured) {
        p.Key("dhcp");
        p.OpenDict();
        p.KeyString("dhcp_server_identifier", "10.40.0.5");
        p.CloseDict();
      }
      p.KeyString("hardware", "Ethernet");
      p.KeyString("interface", "en" + std::to_string(i));
      p.KeyInteger("spnetwork_service_order", i);
      p.KeyString("type", "Ethernet");
      p.CloseDict();
    }
  });
}

std::string PrintersReport(int printers) {
  return SystemProfilerReport("SPPrintersDataType", "SPHardwareDataType", [printers](PlistText& p) {
    for (int i = 0; i < printers; ++i) {
      const std::string name = "Imprimante \xC3\xA9tage " + std::to_string(i + 1);
      p.OpenDict();
      p.KeyString("_name", name);
      p.KeyString("cupsversion", "2.1.4 (cups-424.50)");
      p.KeyString("default", i == 0 ? "yes" : "no");
      p.KeyString("ppd", "Brother HL-L2350DW series");
      p.KeyString("status", i % 4 == 0 ? "stopped" : "idle");
      p.KeyString("uri", "dnssd://Imprimante%20%C3%A9tage%20" + std::to_string(i + 1) +
                             "._ipp._tcp.local./?uuid=6b1e0a3c-2f4d-4c8e-9a7b-" +
                             std::to_string(100000000000 + i));
      p.CloseDict();
    }
  });
}

std::string MemoryReport(int slots) {
  return SystemProfilerReport("SPMemoryDataType", "SPHardwareDataType", [slots](PlistText& p) {
    p.OpenDict();
    p.Key("_items");
    p.OpenArray();
    for (int i = 0; i < slots; ++i) {
      const bool empty = i % 4 == 3;
      char serial[16];
      std::snprintf(serial, sizeof serial, "0x2B1C%04X", i);
      p.OpenDict();
      p.KeyString("_name", "BANK " + std::to_string(i % 2) + "/DIMM" + std::to_string(i / 2));
      p.KeyString("dimm_manufacturer", empty ? "empty" : "0x80CE");
      p.KeyString("dimm_part_number", empty ? "empty" : "0x545738473138363753314433534C20");
      p.KeyString("dimm_serial_number", empty ? "empty" : serial);
      p.KeyString("dimm_size", empty ? "empty" : "4 GB");
      p.KeyString("dimm_speed", empty ? "empty" : "2400 MHz");
      p.KeyString("dimm_status", empty ? "empty" : "ok");
      p.KeyString("dimm_type", empty ? "empty" : "DDR4");
      p.CloseDict();
    }
    p.CloseArray();
    p.KeyString("_name", "memory_slots");
    p.KeyString("global_ecc_state", "ecc_disabled");
    p.CloseDict();
  });
}

// ---- Volumes.

std::string VolumeName(int i) { return i == 0 ? "Macintosh HD" : "Data " + std::to_string(i); }

std::string DiskutilList(int volumes) {
  PlistText p;
  p.OpenDict();
  std::vector<std::string> all = {"disk0", "disk0s1"};
  for (int i = 0; i < volumes; ++i) all.push_back("disk0s" + std::to_string(i + 2));
  p.KeyStrings("AllDisks", all);
  p.Key("AllDisksAndPartitions");
  p.OpenArray();
  p.OpenDict();
  p.KeyString("Content", "GUID_partition_scheme");
  p.KeyString("DeviceIdentifier", "disk0");
  p.Key("Partitions");
  p.OpenArray();
  for (int i = 0; i < volumes; ++i) {
    p.OpenDict();
    p.KeyString("Content", "Apple_HFS");
    p.KeyString("DeviceIdentifier", "disk0s" + std::to_string(i + 2));
    p.KeyString("MountPoint", i == 0 ? "/" : "/Volumes/" + VolumeName(i));
    p.KeyInteger("Size", 15000000000LL + i);
    p.KeyString("VolumeName", VolumeName(i));
    p.CloseDict();
  }
  p.CloseArray();
  p.KeyInteger("Size", 1000555581440);
  p.CloseDict();
  p.CloseArray();
  std::vector<std::string> names;
  for (int i = 0; i < volumes; ++i) names.push_back(VolumeName(i));
  p.KeyStrings("VolumesFromDisks", names);
  p.KeyStrings("WholeDisks", {"disk0"});
  p.CloseDict();
  return p.Finish();
}

std::string DiskutilInfo(int i) {
  char uuid[48];
  std::snprintf(uuid, sizeof uuid, "35FB34CF-13D4-350B-9274-%012X", i);
  PlistText p;
  p.OpenDict();
  p.KeyBoolean("Bootable", i == 0);
  p.KeyString("BusProtocol", "SATA");
  p.KeyString("Content", "Apple_HFS");
  p.KeyInteger("DeviceBlockSize", 4096);
  p.KeyString("DeviceIdentifier", "disk0s" + std::to_string(i + 2));
  p.KeyString("DeviceNode", "/dev/disk0s" + std::to_string(i + 2));
  p.KeyBoolean("Ejectable", false);
  p.KeyString("FilesystemName", "Journaled HFS+");
  p.KeyString("FilesystemType", "hfs");
  p.KeyInteger("FreeSpace", 6128879534LL + 4096LL * i);
  p.KeyBoolean("Internal", true);
  p.KeyString("MediaType", "Generic");
  p.KeyString("MountPoint", i == 0 ? "/" : "/Volumes/" + VolumeName(i));
  p.KeyString("ParentWholeDisk", "disk0");
  p.KeyBoolean("RemovableMedia", false);
  p.KeyBoolean("SolidState", true);
  p.KeyInteger("TotalSize", 15000000000LL + i);
  p.KeyString("VolumeName", VolumeName(i));
  p.KeyString("VolumeUUID", uuid);
  p.KeyBoolean("Writable", true);
  p.CloseDict();
  return p.Finish();
}

// ---- The manifest.

struct Command {
  std::string launchPath;
  std::vector<std::string> arguments;
  std::string output;
  std::string content;
};

std::string Manifest(const std::vector<Command>& commands) {
  PlistText p;
  p.OpenDict();
  p.Key("commands");
  p.OpenArray();
  for (const Command& command : commands) {
    p.OpenDict();
    p.KeyString("launchPath", command.launchPath);
    p.KeyStrings("arguments", command.arguments);
    p.KeyString("output", command.output);
    p.CloseDict();
  }
  p.CloseArray();
  p.Key("host");
  p.OpenDict();
  p.KeyString("hostName", "Bench-iMac.local");
  p.KeyString("localizedName", "Bench iMac");
  p.Key("interfaces");
  p.OpenArray();
  p.OpenDict();
  p.KeyString("name", "en0");
  p.KeyInteger("family", 2);
  p.KeyString("address", "10.40.0.57");
  p.CloseDict();
  p.CloseArray();
  p.Key("vmStatistics");
  p.OpenDict();
  p.KeyInteger("pageSize", 4096);
  p.KeyInteger("free", 812345);
  p.KeyInteger("active", 1523456);
  p.KeyInteger("inactive", 987654);
  p.KeyInteger("wired", 698765);
  p.CloseDict();
  p.CloseDict();
  p.CloseDict();
  return p.Finish();
}

std::vector<Command> Commands(const MachineShape& shape) {
  const std::string profiler = "/usr/sbin/system_profiler";
  const auto report = [&](const std::string& type, std::string content) {
    return Command{profiler, {"-xml", type}, "system_profiler-" + type + ".xml",
                   std::move(content)};
  };
  std::vector<Command> commands = {
      {profiler, {"SPApplicationsDataType", "-xml"}, "system_profiler-SPApplicationsDataType.xml",
       ApplicationsReport(shape)},
      {"/usr/sbin/sysctl", {"hw.memsize"}, "sysctl-hw.memsize.txt", "hw.memsize: 68719476736\n"},
      {"/usr/sbin/sysctl", {"hw.ncpu"}, "sysctl-hw.ncpu.txt", "hw.ncpu: 8\n"},
      {"/usr/sbin/sysctl", {"kern.hostname"}, "sysctl-kern.hostname.txt",
       "kern.hostname: Bench-iMac.local\n"},
      {"/usr/bin/sw_vers", {}, "sw_vers.txt",
       "ProductName:\tMac OS X\nProductVersion:\t" + shape.osVersion + "\nBuildVersion:\t15G31\n"},
      {"/usr/bin/sw_vers", {"-productName"}, "sw_vers-productName.txt", "Mac OS X\n"},
      {"/usr/bin/sw_vers", {"-productVersion"}, "sw_vers-productVersion.txt",
       shape.osVersion + "\n"},
      {"/usr/bin/sw_vers", {"-buildVersion"}, "sw_vers-buildVersion.txt", "15G31\n"},
      report("SPHardwareDataType", HardwareReport()),
      report("SPDisplaysDataType", DisplaysReport()),
      report("SPDiscBurningDataType", DiscBurningReport()),
      report("SPSerialATADataType", SerialAtaReport()),
      report("SPSASDataType", EmptyReport("SPSASDataType")),
      report("SPUSBDataType", UsbReport()),
      report("SPNetworkDataType", NetworkReport(shape.networkServices)),
      report("SPPrintersDataType", PrintersReport(shape.printers)),
      report("SPMemoryDataType", MemoryReport(shape.memorySlots)),
      {"/usr/bin/users", {" "}, "users.txt", "alice\n"},
      {"/usr/sbin/diskutil", {"list", "-plist"}, "diskutil-list.plist",
       DiskutilList(shape.volumes)},
  };
  for (int i = 0; i < shape.volumes; ++i) {
    commands.push_back({"/usr/sbin/diskutil",
                        {"info", "-plist", VolumeName(i)},
                        "diskutil-info-" + std::to_string(i + 1) + ".plist",
                        DiskutilInfo(i)});
  }
  return commands;
}

bool WriteFile(const std::filesystem::path& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  return static_cast<bool>(file.flush());
}

}  // namespace

bool GenerateMachine(const std::filesystem::path& folder, const MachineShape& shape) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) return false;
  const std::vector<Command> commands = Commands(shape);
  for (const Command& command : commands) {
    if (!WriteFile(folder / command.output, command.content)) return false;
  }
  return WriteFile(folder / "manifest.plist", Manifest(commands));
}

}  // namespace tarn::bench
