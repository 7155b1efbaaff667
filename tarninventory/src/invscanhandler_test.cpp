#include "tarninventory/src/invscanhandler.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/exception/platform_exception.h"
#include "tarninventory/src/collector_testutil.h"

namespace tarn::testing {
namespace {

const std::vector<std::string> kHardware = {"-xml", "SPHardwareDataType"};
const std::vector<std::string> kMemory = {"-xml", "SPMemoryDataType"};
const std::vector<std::string> kNetwork = {"-xml", "SPNetworkDataType"};
const std::vector<std::string> kPrinters = {"-xml", "SPPrintersDataType"};
const std::vector<std::string> kDisc = {"-xml", "SPDiscBurningDataType"};
const std::vector<std::string> kDisplays = {"-xml", "SPDisplaysDataType"};
const std::vector<std::string> kApplications = {"SPApplicationsDataType", "-xml"};

std::string Dict(const std::string& body) { return "<dict>" + body + "</dict>"; }
std::string Key(const std::string& key, const std::string& text) {
  return "<key>" + key + "</key><string>" + text + "</string>";
}

TEST(AdjustBytes, SinglePrecisionDecimalToBinaryUnits) {
  const struct {
    PlistPtr number;
    const char* expected;
  } cases[] = {
      {PlistValue::MakeInteger(1000000000), "1073741824"},
      {PlistValue::MakeInteger(500107862016), "536986746880"},  // rounded to 24 bits first
      {PlistValue::MakeInteger(121332826112), "130280128512"},
      {PlistValue::MakeUnsigned(1000204886016), "1073961762816"},
      {nullptr, "0"},
      {PlistValue::MakeInteger(0), "0"},
      {PlistValue::MakeReal(0.4), "0"},  // its 64-bit integer value is 0
  };
  for (const auto& c : cases) {
    EXPECT_EQ(adjustBytes(c.number), c.expected) << (c.number ? c.number->Description() : "none");
  }
}

TEST(ToolText, PieceAfterTheFirstColonOrARaise) {
  EXPECT_EQ(TextAfterColon("hw.memsize: 17179869184\n"), "17179869184\n");
  EXPECT_EQ(TextAfterColon("a: b: c"), "b");
  EXPECT_THROW(TextAfterColon("hw.memsize=1\n"), PlatformException);
}

class SystemCollectorTest : public CollectorTest {
 protected:
  void SetUp() override {
    CollectorTest::SetUp();
    platform_.host().statistics = VmStatistics{4096, 1000, 2000, 3000, 4000};
    Answer(kSysctl, {"hw.memsize"}, "hw.memsize: 17179869184\n");
    Answer(kSwVers, {"-productName"}, "Mac OS X\n");
    Answer(kSwVers, {"-productVersion"}, "10.11.6\n");
    Answer(kSwVers, {"-buildVersion"}, "15G31\n");
    Answer(kSystemProfiler, kHardware,
           Report("SPHardwareDataType", Dict(Key("serial_number", "C02X1234ABCD") +
                                             Key("cpu_type", "Quad-Core Intel Core i7") +
                                             Key("current_processor_speed", "4.2 GHz") +
                                             "<key>number_processors</key><integer>1</integer>" +
                                             Key("machine_name", "iMac"))));
  }
  void Answer(const char* tool, const std::vector<std::string>& arguments,
              std::optional<std::string> output) {
    platform_.tools().Answer(tool, arguments, std::move(output));
  }
};

TEST_F(SystemCollectorTest, OperatingSystemProcessorAndTheOsSoftwareRow) {
  CurrentScanRun().osIndex = 121;
  parser_.FetchOSandProcessorInfo();
  EXPECT_EQ(RowsOfClass(1),
            "105|1|40000;106|1|4000;107|1|-;108|1|17179869184;102|1|10.11.6;113|1|15G31;"
            "101|1|Mac OS X - El Capitan;103|1|Mac OS X - El Capitan 10.11.6;104|1|Apple Inc.;"
            "110|1|-;111|1|-;112|1|-;114|1|0;115|1|0;116|1|Mac OS X;117|122|121;118|1|-;109|1|C02X1234ABCD;");
  EXPECT_EQ(RowsOfClass(3),
            "301|1|Quad-Core Intel Core i7;306|1|198;302|1|3;303|1|4200;313|1|1;304|1|-;305|1|-;"
            "307|1|-;308|1|-;309|1|-;310|1|-;311|1|-;312|1|-;");
  EXPECT_EQ(RowsOfClass(18),
            "1801|121|Mac OS X - El Capitan;1802|121|10.11.6;1803|121|Apple Inc.;1804|121|-;"
            "1805|121|-;1806|121|-;1807|121|Not available;1808|121|-;1809|121|-;"
            "1810|121|C02X1234ABCD;1811|121|-;1812|121|-;1813|121|-;1814|121|OS_EXT;1815|121|-;");
  // What later collectors read, with the tools' line ends.
  EXPECT_EQ(*parser_.bufferDict->ValueForKey("hw.memsize")->AsString(), "17179869184\n");
  EXPECT_EQ(*parser_.bufferDict->ValueForKey("Model")->AsString(), "iMac");
}

TEST_F(SystemCollectorTest, MissingToolsGiveFillersAndTheVersionRowTwice) {
  platform_.host().statistics.reset();
  Answer(kSysctl, {"hw.memsize"}, std::nullopt);
  Answer(kSwVers, {"-productVersion"}, std::nullopt);
  Answer(kSwVers, {"-buildVersion"}, std::nullopt);
  Answer(kSystemProfiler, kHardware, std::nullopt);
  parser_.FetchOSandProcessorInfo();
  const std::string os = RowsOfClass(1);
  EXPECT_EQ(os.substr(0, os.find("101|")), "105|1|0;106|1|0;107|1|-;108|1|-;102|1|0;102|1|0;");
  EXPECT_EQ(os.find("109|"), std::string::npos);
  EXPECT_EQ(RowsOfClass(3), "304|1|-;305|1|-;307|1|-;308|1|-;309|1|-;310|1|-;311|1|-;312|1|-;");
  parser_.FetchSystemEnclosure();
  parser_.FetchComputerInfo();
  EXPECT_EQ(RowsOfClass(24), "2401|1|2;2402|1|-;");
  EXPECT_NE(RowsOfClass(20).find("2008|1|-;"), std::string::npos);
}

TEST_F(SystemCollectorTest, ProcessorFamilySpeedAndCountFromTheHardwareReport) {
  const struct {
    const char* cpuType;
    const char* speed;
    const char* processors;
    const char* expected;
  } cases[] = {
      {"Intel Core i5", "2.3 GHz", "<integer>2</integer>",
       "301|1|Intel Core i5;306|1|205;302|1|3;303|1|2300;313|1|2;"},
      {"Quad-Core Intel Xeon", "800 MHz", "<integer>1</integer>",
       "301|1|Quad-Core Intel Xeon;306|1|179;302|1|3;303|1|-;313|1|1;"},
      {"Intel Core 2 Duo", "0.1234 GHz", "<string>proc 8:6:2</string>",
       "301|1|Intel Core 2 Duo;306|1|2;302|1|3;303|1|123.39999999999999;313|1|proc 8:6:2;"},
  };
  for (const auto& c : cases) {
    UnLoadTable("WMIFetchedValue");
    CreateTable("WMIFetchedValue");
    parser_.RecordHardwareReport(
        ParsePlist(Dict(Key("cpu_type", c.cpuType) + Key("current_processor_speed", c.speed) +
                        "<key>number_processors</key>" + c.processors)));
    EXPECT_EQ(RowsOfClass(3), c.expected);
  }
  // Apple silicon reports neither a cpu type nor a speed.
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
  parser_.RecordHardwareReport(ParsePlist(Dict(Key("chip_type", "Apple M1 Pro"))));
  EXPECT_EQ(RowsOfClass(3), "301|1|-;306|1|2;302|1|3;303|1|-;313|1|-;");
}

TEST_F(SystemCollectorTest, InputsThatEndTheRunsCollectionRaise) {
  Answer(kSysctl, {"hw.memsize"}, "hw.memsize=17179869184\n");
  EXPECT_THROW(parser_.FetchOSandProcessorInfo(), PlatformException);
  Answer(kSysctl, {"hw.memsize"}, "hw.memsize: 1\n");
  Answer(kSystemProfiler, kHardware,
         Report("SPHardwareDataType", Dict(Key("current_processor_speed", "2.3GHz"))));
  EXPECT_THROW(parser_.FetchOSandProcessorInfo(), PlatformException);
  // An empty root array has no element 0.
  Answer(kSystemProfiler, kHardware, "<plist version=\"1.0\"><array/></plist>");
  EXPECT_THROW(parser_.FetchOSandProcessorInfo(), PlatformException);
}

TEST_F(SystemCollectorTest, ComputerSystemAndEnclosure) {
  TarnGlobvars& vars = gv_globvars();
  vars.Set_localComputerName("studio-imac");
  vars.Set_localNameSpace("corp.example");
  Answer(kSysctl, {"hw.ncpu"}, "hw.ncpu: 8\n");
  Answer("/usr/bin/users", {" "}, "alice bob\n");
  parser_.bufferDict->SetValueForKey("Model", PlistValue::MakeString("MacBook Pro"));
  parser_.bufferDict->SetValueForKey("hw.memsize", PlistValue::MakeString("17179869184\n"));
  parser_.FetchComputerInfo();
  parser_.FetchSystemEnclosure();
  EXPECT_EQ(RowsOfClass(20),
            "2002|1|studio-imac;2004|1|corp.example;2007|1|Apple Inc.;2008|1|MacBook Pro;"
            "2009|1|studio-imac;2010|1|8;2012|1|17179869184;2014|1|alice,bob;2001|1|-;2003|1|-;"
            "2005|1|-;2006|1|-;2011|1|-;2013|1|-;2015|1|-;2016|1|-;2017|1|-;");
  EXPECT_EQ(RowsOfClass(24), "2401|1|1004;2402|1|-;");

  // A damaged hw.ncpu line ends the named rows; the fillers still follow.
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
  Answer(kSysctl, {"hw.ncpu"}, "8\n");
  parser_.FetchComputerInfo();
  EXPECT_EQ(RowsOfClass(20),
            "2002|1|studio-imac;2004|1|corp.example;2007|1|Apple Inc.;2008|1|MacBook Pro;"
            "2009|1|studio-imac;2001|1|-;2003|1|-;2005|1|-;2006|1|-;2011|1|-;2013|1|-;2015|1|-;"
            "2016|1|-;2017|1|-;");

  const std::pair<const char*, const char*> chassis[] = {
      {"iMac", "1001"},     {"Mac Pro", "1002"}, {"MacBook Air", "1003"},
      {"Mac Mini", "1005"}, {"Mac mini", "2"},   {"imac", "2"}};
  for (const auto& [model, type] : chassis) {
    UnLoadTable("WMIFetchedValue");
    CreateTable("WMIFetchedValue");
    parser_.bufferDict->SetValueForKey("Model", PlistValue::MakeString(model));
    parser_.FetchSystemEnclosure();
    EXPECT_EQ(RowsOfClass(24), std::string("2401|1|") + type + ";2402|1|-;") << model;
  }
}

TEST(VirtualMemory, UsedBytesCountOnlyInTheirLow32Bits) {
  FakePlatform fake;
  std::uint64_t total = 0;
  std::uint64_t free = 0;
  fake.host().statistics = VmStatistics{4096, 1000, 2000, 3000, 4000};
  GetVirtualMemInfo(total, free);
  EXPECT_EQ(free, 4000u);
  EXPECT_EQ(total, 40000u);
  // 6 GiB of busy pages: only 2 GiB of it survive the 32-bit truncation.
  fake.host().statistics = VmStatistics{16384, 65536, 393216, 0, 0};
  GetVirtualMemInfo(total, free);
  EXPECT_EQ(free, 1048576u);
  EXPECT_EQ(total, 1048576u + 2097152u);
}

std::string Slot(const char* name, const char* size, const char* status) {
  return Dict(Key("_name", name) + Key("dimm_size", size) + Key("dimm_speed", "1867 MHz") +
              Key("dimm_status", status));
}

TEST_F(SystemCollectorTest, MemorySlotsAndTheArray) {
  parser_.bufferDict->SetValueForKey("hw.memsize", PlistValue::MakeString("8589934592"));
  Answer(kSystemProfiler, kMemory,
         Report("SPMemoryDataType",
                Dict("<key>_items</key><array>" + Slot("BANK 0", "empty", "empty") +
                     Slot("BANK 1", "4 GB", "ok") + Slot("BANK 2", "empty", "empty") +
                     Slot("BANK 3", "512 MB", "ok") + Slot("BANK 4", "8GB", "ok") +
                     Slot("BANK 5", "1 TB", "ok") + "</array>")));
  parser_.FetchPhysicalMemoryInfo();
  const std::string fillers = "2706|%|-;2707|%|-;2709|%|-;2710|%|-;";
  auto slot = [&](int n, const std::string& size, const char* bank, int index) {
    std::string rows = "2701|" + std::to_string(n) + "|Physical Memory;" + size + "2703|" +
                       std::to_string(n) + "|0;2705|" + std::to_string(n) + "|1867;2704|" +
                       std::to_string(n) + "|" + bank + ";2708|" + std::to_string(n) +
                       "|Physical Memory " + std::to_string(index) + ";" + fillers;
    for (auto at = rows.find('%'); at != std::string::npos; at = rows.find('%')) {
      rows.replace(at, 1, std::to_string(n));
    }
    return rows;
  };
  EXPECT_EQ(RowsOfClass(27), slot(1, "2702|1|4294967296;", "BANK 1", 1) +
                                 slot(2, "2702|2|536870912;", "BANK 3", 3) +
                                 slot(3, "", "BANK 4", 4) + slot(4, "2702|4|-;", "BANK 5", 5));
  EXPECT_EQ(RowsOfClass(28),
            "2801|4|Physical Memory Array;2802|4|3;2803|4|8589934592;2804|4|4;2805|4|-;"
            "2806|4|-;2807|4|-;2808|4|3;");

  // No memory report: an array without devices. An empty report: the collector ends.
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
  Answer(kSystemProfiler, kMemory, std::nullopt);
  parser_.FetchPhysicalMemoryInfo();
  EXPECT_EQ(RowsOfClass(28).substr(0, 35), "2801|0|Physical Memory Array;2802|0");
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
  Answer(kSystemProfiler, kMemory, "<plist version=\"1.0\"><array/></plist>");
  parser_.FetchPhysicalMemoryInfo();
  EXPECT_EQ(RowCount(), 0u);
}

std::string Service(const std::string& name, const std::string& ipv4, const std::string& extra) {
  return Dict(Key("_name", name) + "<key>IPv4</key>" + Dict(ipv4) + "<key>Ethernet</key>" +
              Dict(Key("MAC Address", "a4:83:e7:00:00:01")) + extra);
}

TEST_F(SystemCollectorTest, NetworkServicesWithAddresses) {
  Answer(kSysctl, {"kern.hostname"}, "kern.hostname: studio-imac.local\n");
  const std::string dhcp =
      "<key>Addresses</key><array><string>10.0.0.5</string><string>10.0.0.6</string></array>" +
      Key("ConfigMethod", "DHCP") + Key("Router", "10.0.0.1") +
      "<key>SubnetMasks</key><array><string>255.255.255.0</string></array>";
  const std::string manual =
      "<key>Addresses</key><array><string>a</string>"
      "<string>192.168.7.2</string></array>" +
      Key("ConfigMethod", "Manual") + "<key>SubnetMasks</key><array/>";
  const std::string items =
      Service("Ethernet", dhcp,
              "<key>DNS</key>" + Dict(Key("DomainName", "corp.example")) + "<key>dhcp</key>" +
                  Dict(Key("dhcp_server_identifier", "10.0.0.1"))) +
      Service("Wi-Fi", "", "") +  // inactive: no addresses, no instance
      Service("Thunderbolt Bridge", manual, "<key>dhcp</key>" + Dict(Key("x", "y")));
  Answer(kSystemProfiler, kNetwork, Report("SPNetworkDataType", items));
  parser_.FetchNetworkAdapterinfo();
  const std::string fillers =
      "2206|%|-;2207|%|-;2211|%|-;2213|%|-;2214|%|-;2215|%|-;2216|%|-;2217|%|-;2218|%|-;";
  auto with = [&](const std::string& rows, char n) {
    std::string text = rows + fillers;
    for (auto& c : text) c = c == '%' ? n : c;
    return text;
  };
  EXPECT_EQ(RowsOfClass(22),
            with("2201|1|Ethernet;2202|1|a4:83:e7:00:00:01;2203|1|corp.example;"
                 "2204|1|studio-imac.local;2209|1|10.0.0.5,10.0.0.6;2205|1|TRUE;2210|1|10.0.0.1;"
                 "2212|1|255.255.255.0;2208|1|10.0.0.1;",
                 '1') +
                with("2201|2|Thunderbolt Bridge;2202|2|a4:83:e7:00:00:01;2203|2|-;"
                     "2204|2|studio-imac.local;2209|2|a192.168.7.2;2205|2|FALSE;2210|2|-;"
                     "2212|2|-;2208|2|-;",
                     '2'));

  // A host-name line without ": " ends the collector in the first adapter.
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
  Answer(kSysctl, {"kern.hostname"}, "studio-imac\n");
  parser_.FetchNetworkAdapterinfo();
  EXPECT_EQ(RowsOfClass(22), "2201|1|Ethernet;2202|1|a4:83:e7:00:00:01;2203|1|corp.example;");
}

TEST_F(SystemCollectorTest, PrintersWithThreeKeysOrMore) {
  const std::string items =
      Dict(Key("_name", "Office Printer") + Key("status", "idle") +
           Key("uri", "dnssd://Office%20Printer%C3%A9._ipp._tcp.local./")) +
      Dict(Key("_name", "no_info_found") + Key("status", "x")) +
      Dict(Key("_name", "Label") + Key("status", "stopped") + Key("ppd", "Generic")) +
      Dict(Key("_name", "Broken") + Key("status", "idle") + Key("uri", "ipp://a%zz/"));
  Answer(kSystemProfiler, kPrinters, Report("SPPrintersDataType", items));
  parser_.FetchPrinterInfo();
  const std::string fillers =
      "2502|%|-;2503|%|-;2504|%|-;2505|%|-;2506|%|-;2507|%|-;2508|%|-;"
      "2509|%|-;2512|%|-;2513|%|-;2514|%|-;2515|%|-;2516|%|-;";
  auto with = [&](const std::string& rows, char n) {
    std::string text = rows + fillers;
    for (auto& c : text) c = c == '%' ? n : c;
    return text;
  };
  EXPECT_EQ(RowsOfClass(25), with("2501|1|Office Printer;2511|1|idle;"
                                  "2510|1|dnssd://Office Printer\xC3\xA9._ipp._tcp.local./;",
                                  '1') +
                                 with("2501|2|Label;2511|2|stopped;2510|2|-;", '2') +
                                 with("2501|3|Broken;2511|3|idle;2510|3|-;", '3'));
}

TEST_F(SystemCollectorTest, OpticalDriveFirstItemOnly) {
  Answer(kSystemProfiler, kDisc,
         Report("SPDiscBurningDataType",
                Dict(Key("_name", "HL-DT-ST DVDRW  GX40N")) + Dict(Key("_name", "Second"))));
  parser_.FetchCDDriveInfo();
  EXPECT_EQ(RowsOfClass(12),
            "1201|1|HL-DT-ST DVDRW  GX40N;1202|1|-;1203|1|-;1204|1|-;1205|1|-;1206|1|-;");
  for (const std::optional<std::string>& report :
       {std::optional<std::string>(),
        std::optional<std::string>(Report("SPDiscBurningDataType", "")),
        std::optional<std::string>("<plist version=\"1.0\"><array/></plist>"),
        std::optional<std::string>("not a property list")}) {
    UnLoadTable("WMIFetchedValue");
    CreateTable("WMIFetchedValue");
    Answer(kSystemProfiler, kDisc, report);
    parser_.FetchCDDriveInfo();
    EXPECT_EQ(RowCount(), 0u);
  }
}

std::string Card(const std::string& model, const std::string& vram, const std::string& displays) {
  return Dict(Key("sppci_model", model) + (vram.empty() ? "" : Key("spdisplays_vram", vram)) +
              displays);
}

std::string Displays(const std::string& resolution) {
  return "<key>spdisplays_ndrvs</key><array>" +
         Dict(Key("_name", "iMac") + Key("spdisplays_resolution", resolution)) + "</array>";
}

TEST_F(SystemCollectorTest, VideoControllerMemoryAndResolution) {
  const std::string fillers = "702|1|-;706|1|-;707|1|-;708|1|-;709|1|-;710|1|-;";
  const struct {
    std::string items;
    std::string expected;  // rows before the fillers
  } cases[] = {
      {Card("AMD Radeon Pro 580", "1024 MB", Displays("1440 x 900")),
       "701|1|AMD Radeon Pro 580;703|1|1073741824;704|1|1440;705|1|900;"},
      {Card("GPU", "4096 MB", Displays("5120 x 2880 Retina")),  // wraps in 32 bits
       "701|1|GPU;703|1|0;704|1|5120;705|1|2880;"},
      {Card("GPU", "2 GB", Displays("1920x1080")), "701|1|GPU;703|1|-;704|1|0;705|1|0;"},
      {Card("GPU", "", ""), "701|1|GPU;703|1|-;704|1|0;705|1|0;"},
      // The second card drives the screen.
      {Card("Intel HD", "1536 MB", "") + Card("NVIDIA", "2048 MB", Displays("2560 x 1600")),
       "701|1|Intel HD;703|1|1610612736;704|1|2560;705|1|1600;"},
  };
  for (const auto& c : cases) {
    UnLoadTable("WMIFetchedValue");
    CreateTable("WMIFetchedValue");
    Answer(kSystemProfiler, kDisplays, Report("SPDisplaysDataType", c.items));
    parser_.FetchVideoControllerInfo();
    EXPECT_EQ(RowsOfClass(7), c.expected + fillers) << c.items;
  }
  // A vram text without a blank, or an empty display list of the only card, ends the collector.
  const std::pair<std::string, std::string> ending[] = {
      {Card("GPU", "1024MB", Displays("1 x 2")), "701|1|GPU;"},
      {Card("GPU", "8 MB", "<key>spdisplays_ndrvs</key><array/>"), "701|1|GPU;703|1|8388608;"}};
  for (const auto& [items, expected] : ending) {
    UnLoadTable("WMIFetchedValue");
    CreateTable("WMIFetchedValue");
    Answer(kSystemProfiler, kDisplays, Report("SPDisplaysDataType", items));
    parser_.FetchVideoControllerInfo();
    EXPECT_EQ(RowsOfClass(7), expected);
  }
}

std::string App(const std::string& name, const std::string& version, const std::string& path) {
  return Dict(Key("_name", name) + (version.empty() ? "" : Key("version", version)) +
              Key("path", path) + Key("info", "Copyright " + name));
}

TEST_F(SystemCollectorTest, ApplicationsDeduplicatedWithTheAgentsOwnCopyOnly) {
  gv_globvars().Set_tarnagentBasePath("/Library/Orvane/TarnwellAgent");
  const std::string items =
      App("Safari", "17.4", "/Applications/Safari.app") +
      App("Safari", "17.4", "/Users/alice/Applications/Safari.app") +  // duplicate
      App("Safari", "16.0", "/Volumes/Old/Safari.app") +               // other version
      App("Notes", "", "/Applications/Notes.app") + App("Notes", "", "/Other/Notes.app") +
      App("TarnwellAgent", "1.0", "/Library/Orvane/TarnwellAgent/TarnwellAgent.app") +
      App("Orvane Tarnwell - Agent", "3.1", "/Users/alice/Downloads/Orvane Tarnwell - Agent.app") +
      App("Orvane Tarnwell - Agent", "3.1",
          "/Library/Orvane/TarnwellAgent/Orvane Tarnwell - Agent.app") +
      App("Orvane Tarnwell - Agent", "3.0",
          "/Library/Orvane/TarnwellAgent//Orvane Tarnwell - Agent.app");
  Answer(kSystemProfiler, kApplications, Report("SPApplicationsDataType", items));
  parser_.FetchInstalledSoftwareInfo();
  std::string names;
  const TableData* table = GetTableDataByName("WMIFetchedValue");
  for (const auto& row : table->rows) {
    if (row->values[1]->Read<std::int32_t>() == 1801 ||
        row->values[1]->Read<std::int32_t>() == 1802) {
      names += std::to_string(row->values[3]->Read<std::int32_t>()) + ":" +
               row->values[4]->c_str() + ";";
    }
  }
  EXPECT_EQ(names, "1:Safari;1:17.4;2:Safari;2:16.0;3:Notes;3:-;4:Orvane Tarnwell - Agent;4:3.1;");
  EXPECT_EQ(CurrentScanRun().osIndex, 5u);
  const std::string first = RowsOfClass(18).substr(0, RowsOfClass(18).find("1801|2|"));
  EXPECT_EQ(first,
            "1801|1|Safari;1802|1|17.4;1803|1|Copyright Safari;1812|1|/Applications/Safari.app;"
            "1804|1|-;1805|1|-;1806|1|-;1807|1|Not available;1808|1|-;1809|1|-;"
            "1810|1|Not available;1811|1|-;1813|1|-;1814|1|-;1815|1|-;");
  // The report went to a private folder that is gone again.
  const auto& call = platform_.tools().calls().front();
  ASSERT_TRUE(call.outputPath);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(*call.outputPath).parent_path()));
}

TEST_F(SystemCollectorTest, ApplicationsReportFailures) {
  // No report written: nothing recorded, the OS row index stays 0.
  ::testing::internal::CaptureStderr();
  parser_.FetchInstalledSoftwareInfo();
  EXPECT_NE(
      ::testing::internal::GetCapturedStderr().find("Could n't fetch installed applications 32512\n"),
      std::string::npos);
  EXPECT_EQ(RowCount(), 0u);
  EXPECT_EQ(CurrentScanRun().osIndex, 0u);

  // An application without a name ends the collector after the rows before it; the OS row
  // index is not set and the temporary folder is still removed.
  Answer(kSystemProfiler, kApplications,
         Report("SPApplicationsDataType",
                App("Mail", "16.0", "/Applications/Mail.app") + Dict(Key("version", "1"))));
  parser_.FetchInstalledSoftwareInfo();
  EXPECT_EQ(RowCount(), 15u);
  EXPECT_EQ(CurrentScanRun().osIndex, 0u);
  const auto& call = platform_.tools().calls().back();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(*call.outputPath).parent_path()));

  // A report that does not parse reads as no applications at all.
  Answer(kSystemProfiler, kApplications, "<plist><array><dict>");
  parser_.FetchInstalledSoftwareInfo();
  EXPECT_EQ(CurrentScanRun().osIndex, 1u);
}

}  // namespace
}  // namespace tarn::testing

namespace tarn::testing {
namespace {

// Damaged reports end the collector that reads them, never the caller (the OS collector
// excepted: its failures end the run's collection, as its own test shows).
TEST_F(SystemCollectorTest, DamagedReportsEndOnlyTheirCollector) {
  const std::string damaged[] = {
      "",
      "not a property list",
      "\xFF\xFE<plist/>",  // not UTF-8
      "<plist version=\"1.0\"><array/></plist>",
      "<plist version=\"1.0\"><dict/></plist>",
      "<plist version=\"1.0\"><array><string>x</string></array></plist>",
      "<plist version=\"1.0\"><array><dict><key>_items</key><string>x</string></dict></array>"
      "</plist>",
      Report("SPAny", "<string>not a dictionary</string>"),
      Report("SPAny",
             "<dict><key>_items</key><array><integer>7</integer></array>"
             "<key>spdisplays_ndrvs</key><string>x</string><key>IPv4</key>"
             "<string>x</string><key>volumes</key><integer>1</integer></dict>"),
  };
  const char* const dataTypes[] = {
      "SPDisplaysDataType", "SPDiscBurningDataType", "SPSerialATADataType", "SPSASDataType",
      "SPUSBDataType",      "SPNetworkDataType",     "SPPrintersDataType",  "SPMemoryDataType"};
  for (const std::string& output : damaged) {
    SCOPED_TRACE(output);
    for (const char* dataType : dataTypes) Answer(kSystemProfiler, {"-xml", dataType}, output);
    Answer(kSystemProfiler, kApplications, output);
    Answer(kDiskutil, {"list", "-plist"}, output);
    EXPECT_NO_THROW(parser_.FetchInstalledSoftwareInfo());
    EXPECT_NO_THROW(parser_.FetchVideoControllerInfo());
    EXPECT_NO_THROW(parser_.FetchCDDriveInfo());
    EXPECT_NO_THROW(parser_.FetchHDDDetails());
    EXPECT_NO_THROW(parser_.FetchComputerInfo());
    EXPECT_NO_THROW(parser_.FetchNetworkAdapterinfo());
    EXPECT_NO_THROW(parser_.FetchSystemEnclosure());
    EXPECT_NO_THROW(parser_.FetchPrinterInfo());
    EXPECT_NO_THROW(parser_.FetchPhysicalMemoryInfo());
  }
}

}  // namespace
}  // namespace tarn::testing
