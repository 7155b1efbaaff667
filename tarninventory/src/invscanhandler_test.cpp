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

// The whole collector through the tools and the recorder, once.
TEST_F(SystemCollectorTest, OperatingSystemProcessorAndTheOsSoftwareRow) {
  parser_.bufferDict.osIndex = 121;
  parser_.FetchOSandProcessorInfo();
  // Classes 1 and 3 as the recorded imac-fusion machine pins them; here the OS software row.
  EXPECT_EQ(RowsOfClass(18),
            "1801|121|Mac OS X - El Capitan;1802|121|10.11.6;1803|121|Apple Inc.;1804|121|-;"
            "1805|121|-;1806|121|-;1807|121|Not available;1808|121|-;1809|121|-;"
            "1810|121|C02X1234ABCD;1811|121|-;1812|121|-;1813|121|-;1814|121|OS_EXT;1815|121|-;");
  // What later collectors read, with the tools' line ends (the recorder ends a value there).
  EXPECT_EQ(parser_.bufferDict.hw_memsize, "17179869184\n");
  EXPECT_EQ(parser_.bufferDict.Model, "iMac");
  EXPECT_EQ(parser_.bufferDict.productName, "Mac OS X\n");

  // A damaged memory line ends the run's collection, after the rows found before it.
  ResetScanRun();
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
  Answer(kSysctl, {"hw.memsize"}, "hw.memsize=17179869184\n");
  EXPECT_THROW(parser_.FetchOSandProcessorInfo(), PlatformException);
  EXPECT_EQ(RowsOfClass(1), "105|1|40000;106|1|4000;107|1|-;");
}

// Rows are recorded as the step finds them, between the log lines it writes (the matching of
// an instance logs when the next one starts), and a raise keeps the rows found before it.
TEST_F(SystemCollectorTest, EachRowIsRecordedWhenItsStepFindsIt) {
  std::vector<std::size_t> recordedBefore;
  EXPECT_THROW(RecordRowsOf([&](Rows& rows) {
                 for (const char* value : {"a", "b"}) {
                   recordedBefore.push_back(RowCount());
                   AddRow(rows, 1301, 13, 1, value);
                 }
                 throw PlatformException(kRangeException, "index 3");
               }),
               PlatformException);
  EXPECT_EQ(recordedBefore, (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(RowsOfClass(13), "1301|1|a;1301|1|b;");
}

// Missing tool outputs (the recorded sparse machine pins the rest of them): no memory size,
// and the OS row of the software class, at the index the software collector left, reads
// "(none)" without a version.
TEST(OsParse, MissingMemorySizeAndOsVersion) {
  CollectorFacts facts;
  Rows rows;
  ParseMemorySize(0, 0, std::nullopt, facts, rows);
  EXPECT_EQ(RowsText(rows, 1), "105|1|0;106|1|0;107|1|-;108|1|-;");
  EXPECT_EQ(facts.hw_memsize, std::nullopt);
  rows.clear();
  facts.osIndex = 7;
  ParseOsSoftwareRow("macOS - Sonoma", facts, rows);
  const std::string software = RowsText(rows, 18);
  EXPECT_EQ(software.substr(0, software.find("1804|")),
            "1801|7|macOS - Sonoma;1802|7|(none);1803|7|Apple Inc.;");
  EXPECT_EQ(rows.size(), 15u);
}

TEST(OsParse, ProcessorFamilySpeedAndCountFromTheHardwareReport) {
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
  const std::string fillers = "304|1|-;305|1|-;307|1|-;308|1|-;309|1|-;310|1|-;311|1|-;312|1|-;";
  for (const auto& c : cases) {
    CollectorFacts facts;
    Rows rows;
    ParseHardwareReport(
        ParsePlist("<array>" +
                   Dict(Key("cpu_type", c.cpuType) + Key("current_processor_speed", c.speed) +
                        "<key>number_processors</key>" + c.processors +
                        Key("serial_number", "C02") + Key("machine_name", "iMac")) +
                   "</array>"),
        facts, rows);
    EXPECT_EQ(RowsText(rows, 3), c.expected + fillers);
    EXPECT_EQ(RowsText(rows, 1), "109|1|C02;");
    EXPECT_EQ(facts.serial_number, "C02");
    EXPECT_EQ(facts.Model, "iMac");
  }
  // Apple silicon reports neither a cpu type nor a speed.
  CollectorFacts facts;
  Rows rows;
  ParseHardwareReport(ParsePlist("<array>" + Dict(Key("chip_type", "Apple M1 Pro")) + "</array>"),
                      facts, rows);
  EXPECT_EQ(RowsText(rows, 3), "301|1|(none);306|1|2;302|1|3;303|1|-;313|1|(none);" + fillers);
}

TEST(OsParse, InputsThatEndTheRunsCollectionRaiseAfterTheirRows) {
  CollectorFacts facts;
  Rows rows;
  EXPECT_THROW(ParseMemorySize(1, 2, "hw.memsize=17179869184\n", facts, rows), PlatformException);
  EXPECT_EQ(RowsText(rows, 1), "105|1|1;106|1|2;107|1|-;");
  rows.clear();
  EXPECT_THROW(ParseHardwareReport(ParsePlist("<array>" +
                                              Dict(Key("serial_number", "S") +
                                                   Key("current_processor_speed", "2.3GHz")) +
                                              "</array>"),
                                   facts, rows),
               PlatformException);
  EXPECT_EQ(RowsText(rows, 1) + RowsText(rows, 3), "109|1|S;301|1|(none);306|1|2;302|1|3;");
  // An empty items array has no element 0: not even the processor fillers.
  rows.clear();
  EXPECT_THROW(ParseHardwareReport(PlistValue::MakeArray(), facts, rows), PlatformException);
  EXPECT_TRUE(rows.empty());
}

TEST(ComputerParse, ComputerSystemAndEnclosure) {
  CollectorFacts facts;
  facts.Model = "MacBook Pro";
  facts.hw_memsize = "17179869184\n";
  Rows rows;
  ParseComputerNames("studio-imac", "corp.example", facts, rows);
  ParseProcessorCount("hw.ncpu: 8\n", facts, rows);
  ParseLoggedOnUsers("alice,bob", rows);
  ParseSystemEnclosure(facts, rows);
  EXPECT_EQ(RowsText(rows, 20),
            "2002|1|studio-imac;2004|1|corp.example;2007|1|Apple Inc.;2008|1|MacBook Pro;"
            "2009|1|studio-imac;2010|1|8\n;2012|1|17179869184\n;2014|1|alice,bob;");
  EXPECT_EQ(RowsText(rows, 24), "2401|1|1004;2402|1|-;");

  // No tool output: no processor count; no users: the filler.
  rows.clear();
  ParseProcessorCount(std::nullopt, CollectorFacts{}, rows);
  ParseLoggedOnUsers(std::nullopt, rows);
  EXPECT_EQ(RowsText(rows, 20), "2012|1|(none);2014|1|-;");
  // A damaged hw.ncpu line raises before its rows.
  rows.clear();
  EXPECT_THROW(ParseProcessorCount("8\n", facts, rows), PlatformException);
  EXPECT_TRUE(rows.empty());

  const std::pair<const char*, const char*> chassis[] = {
      {"iMac", "1001"},     {"Mac Pro", "1002"}, {"MacBook Air", "1003"},
      {"Mac Mini", "1005"}, {"Mac mini", "2"},   {"imac", "2"}};
  for (const auto& [model, type] : chassis) {
    facts.Model = model;
    rows.clear();
    ParseSystemEnclosure(facts, rows);
    EXPECT_EQ(RowsText(rows, 24), std::string("2401|1|") + type + ";2402|1|-;") << model;
  }
}

// The collector's guard: a damaged hw.ncpu line ends the named rows; the fillers follow.
TEST_F(SystemCollectorTest, ComputerSystemFillersFollowTheGuard) {
  TarnGlobvars& vars = gv_globvars();
  vars.Set_localComputerName("studio-imac");
  vars.Set_localNameSpace("corp.example");
  parser_.bufferDict.Model = "MacBook Pro";
  Answer(kSysctl, {"hw.ncpu"}, "8\n");
  parser_.FetchComputerInfo();
  EXPECT_EQ(RowsOfClass(20),
            "2002|1|studio-imac;2004|1|corp.example;2007|1|Apple Inc.;2008|1|MacBook Pro;"
            "2009|1|studio-imac;2001|1|-;2003|1|-;2005|1|-;2006|1|-;2011|1|-;2013|1|-;2015|1|-;"
            "2016|1|-;2017|1|-;");
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

TEST(MemoryParse, MemorySlotsAndTheArray) {
  CollectorFacts facts;
  facts.hw_memsize = "8589934592";
  Rows rows;
  ParsePhysicalMemory(
      ParsePlist("<array>" +
                 Dict("<key>_items</key><array>" + Slot("BANK 0", "empty", "empty") +
                      Slot("BANK 1", "4 GB", "ok") + Slot("BANK 2", "empty", "empty") +
                      Slot("BANK 3", "512 MB", "ok") + Slot("BANK 4", "8GB", "ok") +
                      Slot("BANK 5", "1 TB", "ok") + "</array>") +
                 "</array>"),
      facts, rows);
  const std::string fillers = "2706|%|-;2707|%|-;2709|%|-;2710|%|-;";
  auto slot = [&](int n, const std::string& size, const char* bank, int index) {
    std::string text = "2701|%|Physical Memory;" + size + "2703|%|0;2705|%|1867;2704|%|" + bank +
                       ";2708|%|Physical Memory " + std::to_string(index) + ";" + fillers;
    for (auto at = text.find('%'); at != std::string::npos; at = text.find('%')) {
      text.replace(at, 1, std::to_string(n));
    }
    return text;
  };
  EXPECT_EQ(RowsText(rows, 27),
            slot(1, "2702|1|4294967296;", "BANK 1", 1) + slot(2, "2702|2|536870912;", "BANK 3", 3) +
                slot(3, "", "BANK 4", 4) + slot(4, "2702|4|(none);", "BANK 5", 5));
  EXPECT_EQ(RowsText(rows, 28),
            "2801|4|Physical Memory Array;2802|4|3;2803|4|8589934592;2804|4|4;2805|4|-;"
            "2806|4|-;2807|4|-;2808|4|3;");

  // No memory report: an array without devices. An empty report: the collector ends.
  rows.clear();
  ParsePhysicalMemory(nullptr, facts, rows);
  EXPECT_EQ(RowsText(rows, 28).substr(0, 35), "2801|0|Physical Memory Array;2802|0");
  rows.clear();
  EXPECT_THROW(ParsePhysicalMemory(PlistValue::MakeArray(), facts, rows), PlatformException);
  EXPECT_TRUE(rows.empty());
}

std::string Service(const std::string& name, const std::string& ipv4, const std::string& extra) {
  return Dict(Key("_name", name) + "<key>IPv4</key>" + Dict(ipv4) + "<key>Ethernet</key>" +
              Dict(Key("MAC Address", "a4:83:e7:00:00:01")) + extra);
}

TEST(DeviceParse, NetworkServicesWithAddresses) {
  int hostNameAsked = 0;
  OptText hostName = "kern.hostname: studio-imac.local\n";
  const auto host = [&] {
    ++hostNameAsked;
    return hostName;
  };
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
  Rows rows;
  ParseNetworkAdapters(ParsePlist("<array>" + items + "</array>"), host, rows);
  EXPECT_EQ(hostNameAsked, 2);  // once per adapter, as the tool has always been run
  const std::string fillers =
      "2206|%|-;2207|%|-;2211|%|-;2213|%|-;2214|%|-;2215|%|-;2216|%|-;2217|%|-;2218|%|-;";
  auto with = [&](const std::string& named, char n) {
    std::string text = named + fillers;
    for (auto& c : text) c = c == '%' ? n : c;
    return text;
  };
  EXPECT_EQ(RowsText(rows, 22),
            with("2201|1|Ethernet;2202|1|a4:83:e7:00:00:01;2203|1|corp.example;"
                 "2204|1|studio-imac.local\n;2209|1|10.0.0.5,10.0.0.6;2205|1|TRUE;2210|1|10.0.0.1;"
                 "2212|1|255.255.255.0;2208|1|10.0.0.1;",
                 '1') +
                with("2201|2|Thunderbolt Bridge;2202|2|a4:83:e7:00:00:01;2203|2|-;"
                     "2204|2|studio-imac.local\n;2209|2|a192.168.7.2;2205|2|FALSE;2210|2|-;"
                     "2212|2|-;2208|2|-;",
                     '2'));

  // A host-name line without ": " ends the collector in the first adapter.
  rows.clear();
  hostName = "studio-imac\n";
  EXPECT_THROW(ParseNetworkAdapters(ParsePlist("<array>" + items + "</array>"), host, rows),
               PlatformException);
  EXPECT_EQ(RowsText(rows, 22), "2201|1|Ethernet;2202|1|a4:83:e7:00:00:01;2203|1|corp.example;");
}

TEST(DeviceParse, PrintersWithThreeKeysOrMore) {
  const std::string items =
      Dict(Key("_name", "Office Printer") + Key("status", "idle") +
           Key("uri", "dnssd://Office%20Printer%C3%A9._ipp._tcp.local./")) +
      Dict(Key("_name", "no_info_found") + Key("status", "x")) +
      Dict(Key("_name", "Label") + Key("status", "stopped") + Key("ppd", "Generic")) +
      Dict(Key("_name", "Broken") + Key("status", "idle") + Key("uri", "ipp://a%zz/"));
  Rows rows;
  ParsePrinters(ParsePlist("<array>" + items + "</array>"), rows);
  const std::string fillers =
      "2502|%|-;2503|%|-;2504|%|-;2505|%|-;2506|%|-;2507|%|-;2508|%|-;"
      "2509|%|-;2512|%|-;2513|%|-;2514|%|-;2515|%|-;2516|%|-;";
  auto with = [&](const std::string& named, char n) {
    std::string text = named + fillers;
    for (auto& c : text) c = c == '%' ? n : c;
    return text;
  };
  EXPECT_EQ(RowsText(rows, 25), with("2501|1|Office Printer;2511|1|idle;"
                                     "2510|1|dnssd://Office Printer\xC3\xA9._ipp._tcp.local./;",
                                     '1') +
                                    with("2501|2|Label;2511|2|stopped;2510|2|-;", '2') +
                                    with("2501|3|Broken;2511|3|idle;2510|3|(none);", '3'));
}

TEST(DeviceParse, OpticalDriveFirstItemOnly) {
  Rows rows;
  ParseCDDrive(
      ParsePlist(Report("SPDiscBurningDataType", Dict(Key("_name", "HL-DT-ST DVDRW  GX40N")) +
                                                     Dict(Key("_name", "Second")))),
      rows);
  EXPECT_EQ(RowsText(rows, 12),
            "1201|1|HL-DT-ST DVDRW  GX40N;1202|1|-;1203|1|-;1204|1|-;1205|1|-;1206|1|-;");
  for (const std::string& report : {Report("SPDiscBurningDataType", ""),
                                    std::string("<plist version=\"1.0\"><array/></plist>")}) {
    rows.clear();
    ParseCDDrive(ParsePlist(report), rows);
    EXPECT_TRUE(rows.empty());
  }
  ParseCDDrive(nullptr, rows);
  EXPECT_TRUE(rows.empty());
}

std::string Card(const std::string& model, const std::string& vram, const std::string& displays) {
  return Dict(Key("sppci_model", model) + (vram.empty() ? "" : Key("spdisplays_vram", vram)) +
              displays);
}

std::string Displays(const std::string& resolution) {
  return "<key>spdisplays_ndrvs</key><array>" +
         Dict(Key("_name", "iMac") + Key("spdisplays_resolution", resolution)) + "</array>";
}

TEST(DeviceParse, VideoControllerMemoryAndResolution) {
  const std::string fillers = "702|1|-;706|1|-;707|1|-;708|1|-;709|1|-;710|1|-;";
  const struct {
    std::string items;
    std::string expected;  // rows before the fillers
  } cases[] = {
      {Card("AMD Radeon Pro 580", "1024 MB", Displays("1440 x 900")),
       "701|1|AMD Radeon Pro 580;703|1|1073741824;704|1|1440;705|1|900;"},
      {Card("GPU", "2 GB", Displays("1920x1080")), "701|1|GPU;703|1|-;704|1|0;705|1|0;"},
      {Card("GPU", "", ""), "701|1|GPU;703|1|-;704|1|0;705|1|0;"},
      // The second card drives the screen.
      {Card("Intel HD", "1536 MB", "") + Card("NVIDIA", "2048 MB", Displays("2560 x 1600")),
       "701|1|Intel HD;703|1|1610612736;704|1|2560;705|1|1600;"},
  };
  for (const auto& c : cases) {
    Rows rows;
    ParseVideoController(ParsePlist("<array>" + c.items + "</array>"), rows);
    EXPECT_EQ(RowsText(rows, 7), c.expected + fillers) << c.items;
  }
  // A vram text without a blank, or an empty display list of the only card, ends the collector.
  const std::pair<std::string, std::string> ending[] = {
      {Card("GPU", "1024MB", Displays("1 x 2")), "701|1|GPU;"},
      {Card("GPU", "8 MB", "<key>spdisplays_ndrvs</key><array/>"), "701|1|GPU;703|1|8388608;"}};
  for (const auto& [items, expected] : ending) {
    Rows rows;
    EXPECT_THROW(ParseVideoController(ParsePlist("<array>" + items + "</array>"), rows),
                 PlatformException);
    EXPECT_EQ(RowsText(rows, 7), expected);
  }
}

std::string App(const std::string& name, const std::string& version, const std::string& path) {
  return Dict(Key("_name", name) + (version.empty() ? "" : Key("version", version)) +
              Key("path", path) + Key("info", "Copyright " + name));
}

// The items of an applications report, read as the collector reads its file.
struct AppsReport {
  explicit AppsReport(const std::string& items)
      : report(ParsePlist(Report("SPApplicationsDataType", items))) {}
  PlistPtr Items() const { return ValueForKey(ObjectAtIndex(report, 0), "_items"); }
  PlistPtr report;
};

TEST(SoftwareParse, ApplicationsDeduplicatedWithTheAgentsOwnCopyOnly) {
  const AppsReport report(
      App("Safari", "17.4", "/Applications/Safari.app") +
      App("Safari", "17.4", "/Users/alice/Applications/Safari.app") +  // duplicate
      App("Safari", "16.0", "/Volumes/Old/Safari.app") +               // other version
      App("Notes", "", "/Applications/Notes.app") + App("Notes", "", "/Other/Notes.app") +
      App("TarnwellAgent", "1.0", "/Library/Orvane/TarnwellAgent/TarnwellAgent.app") +
      App("Orvane Tarnwell - Agent", "3.1", "/Users/alice/Downloads/Orvane Tarnwell - Agent.app") +
      App("Orvane Tarnwell - Agent", "3.1",
          "/Library/Orvane/TarnwellAgent/Orvane Tarnwell - Agent.app") +
      App("Orvane Tarnwell - Agent", "3.0",
          "/Library/Orvane/TarnwellAgent//Orvane Tarnwell - Agent.app"));
  SoftwareSet seen;
  CollectorFacts facts;
  Rows rows;
  ParseInstalledSoftware(report.Items(), "/Library/Orvane/TarnwellAgent", seen, facts, rows);
  std::string names;
  for (const CollectedRow& row : rows) {
    if (row.propertyId == 1801 || row.propertyId == 1802) {
      names += std::to_string(row.instance) + ":" + *row.value + ";";
    }
  }
  EXPECT_EQ(names, "1:Safari;1:17.4;2:Safari;2:16.0;3:Notes;3:-;4:Orvane Tarnwell - Agent;4:3.1;");
  EXPECT_EQ(facts.osIndex, 5u);
  EXPECT_EQ(rows.size(), 4u * 15u);
  const std::string all = RowsText(rows, 18);
  EXPECT_EQ(all.substr(0, all.find("1801|2|")),
            "1801|1|Safari;1802|1|17.4;1803|1|Copyright Safari;1812|1|/Applications/Safari.app;"
            "1804|1|-;1805|1|-;1806|1|-;1807|1|Not available;1808|1|-;1809|1|-;"
            "1810|1|Not available;1811|1|-;1813|1|-;1814|1|-;1815|1|-;");

  // Without an agent folder no copy of the agent is reported.
  seen.clear();
  rows.clear();
  ParseInstalledSoftware(report.Items(), std::nullopt, seen, facts, rows);
  EXPECT_EQ(facts.osIndex, 4u);

  // An application without a name, or an item that is no dictionary, raises after the rows
  // of the applications before it; the OS row index is left as it was.
  for (const std::string& odd : {Dict(Key("version", "1")), std::string("<string>x</string>")}) {
    const AppsReport damaged(App("Mail", "16.0", "/Applications/Mail.app") + odd);
    CollectorFacts untouched;
    seen.clear();
    rows.clear();
    EXPECT_THROW(ParseInstalledSoftware(damaged.Items(), std::nullopt, seen, untouched, rows),
                 PlatformException);
    EXPECT_EQ(rows.size(), 15u);
    EXPECT_EQ(untouched.osIndex, 0u);
  }
}

// The collector through the tool and the recorder.
TEST_F(SystemCollectorTest, ApplicationsReportFailures) {
  // No report written: nothing recorded, the OS row index stays 0.
  ::testing::internal::CaptureStderr();
  parser_.FetchInstalledSoftwareInfo();
  EXPECT_NE(
      ::testing::internal::GetCapturedStderr().find("Could n't fetch installed applications 32512\n"),
      std::string::npos);
  EXPECT_EQ(RowCount(), 0u);
  EXPECT_EQ(parser_.bufferDict.osIndex, 0u);

  // An application without a name ends the collector after the rows before it; the OS row
  // index is not set and the temporary folder is still removed.
  Answer(kSystemProfiler, kApplications,
         Report("SPApplicationsDataType",
                App("Mail", "16.0", "/Applications/Mail.app") + Dict(Key("version", "1"))));
  parser_.FetchInstalledSoftwareInfo();
  EXPECT_EQ(RowCount(), 15u);
  EXPECT_EQ(parser_.bufferDict.osIndex, 0u);
  const auto& call = platform_.tools().calls().back();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(*call.outputPath).parent_path()));

  // A report that does not parse reads as no applications at all.
  Answer(kSystemProfiler, kApplications, "<plist><array><dict>");
  parser_.FetchInstalledSoftwareInfo();
  EXPECT_EQ(parser_.bufferDict.osIndex, 1u);
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
