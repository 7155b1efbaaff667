// Every recorded machine scanned by the built scanner and uploaded to a loopback server. The
// expected rows are worked out by hand from each machine's recorded outputs (see the README
// of each machine folder).
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/agent_folder.h"
#include "tests/inventory_server.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

// Expected rows of one class: whole, or (prefix = true) the beginning of them.
struct ClassRows {
  int classId;
  std::string rows;
  bool prefix = false;
};

struct Machine {
  const char* name;
  int softwareInstances;  // applications recorded plus the OS row
  std::vector<ClassRows> classes;
};

std::string Repeat(const std::string& pattern, int instance) {
  std::string text = pattern;
  for (auto at = text.find('%'); at != std::string::npos; at = text.find('%', at)) {
    text.replace(at, 1, std::to_string(instance));
  }
  return text;
}

const std::string kNetworkFillers =
    "2206|%|-;2207|%|-;2211|%|-;2213|%|-;2214|%|-;2215|%|-;2216|%|-;2217|%|-;2218|%|-;";
const std::string kPrinterFillers =
    "2502|%|-;2503|%|-;2504|%|-;2505|%|-;2506|%|-;2507|%|-;"
    "2508|%|-;2509|%|-;2512|%|-;2513|%|-;2514|%|-;2515|%|-;2516|%|-;";
const std::string kVideoFillers = "702|1|-;706|1|-;707|1|-;708|1|-;709|1|-;710|1|-;";
const std::string kDiskFillers = "1307|%|-;1308|%|-;1309|%|-;";

std::string MemorySlot(int instance, const std::string& bytes, const std::string& speed,
                       const std::string& bank, int slotIndex) {
  return Repeat("2701|%|Physical Memory;2702|%|" + bytes + ";2703|%|0;2705|%|" + speed +
                    ";2704|%|" + bank + ";2708|%|Physical Memory " + std::to_string(slotIndex) +
                    ";2706|%|-;2707|%|-;2709|%|-;2710|%|-;",
                instance);
}

std::string MemoryArray(int instance, const std::string& memsize) {
  return Repeat("2801|%|Physical Memory Array;2802|%|3;2803|%|" + memsize + ";2804|%|" +
                    std::to_string(instance) + ";2805|%|-;2806|%|-;2807|%|-;2808|%|3;",
                instance);
}

std::string FixedVolume(int instance, const std::string& mount, const std::string& name,
                        const std::string& fs, const std::string& size, const std::string& free,
                        const std::string& uuid, const std::string& device,
                        const std::string& disk) {
  return Repeat("401|%|" + mount + ";402|%|Local Fixed Disk : " + name +
                    ";403|%|3;404|%|12;405|%|" + fs + ";406|%|" + size + ";407|%|" + free +
                    ";408|%|" + uuid + ";409|%|-;410|%|" + device + ";411|%|" + disk + ";",
                instance);
}

const Machine kMachines[] = {
    {"imac-fusion",
     327,  // 326 applications: the installed agent copy is outside this test's base path
     {
         {1,
          "105|1|3505968;106|1|3249380;107|1|-;108|1|17179869184;102|1|10.11.6;113|1|15G31;"
          "101|1|Mac OS X - El Capitan;103|1|Mac OS X - El Capitan 10.11.6;104|1|Apple Inc.;"
          "110|1|-;111|1|-;112|1|-;114|1|0;115|1|0;116|1|Mac OS X;117|328|327;118|1|-;109|1|C02VK4FXJ1GJ;"},
         {3, "301|1|Quad-Core Intel Core i7;306|1|198;302|1|3;303|1|4200;313|1|4;", true},
         {13, "1301|1|APPLE HDD ST1000DM003" + std::string(19, ' ') +
                  ";1302|1|-;1303|1|Fusion Drive;1304|1|-;1305|1|disk1;1306|1|1204241956864;" +
                  Repeat(kDiskFillers, 1) + "1310|1|APPLE HDD ST1000DM003;1311|1|Z1D9K3QW;"},
         {4,
          FixedVolume(1, "/Volumes/BOOTCAMP", "BOOTCAMP", "NTFS", "129448861696", "76260810752",
                      "56CFED81-2124-4EE6-A759-76E4A8560D8E", "disk1s4", "disk1") +
              FixedVolume(2, "/", "Macintosh HD", "Journaled HFS+", "1073038622720", "658083414016",
                          "35FB34CF-13D4-350B-9274-3E25DAEB7B7F", "disk2", "disk1")},
         {7, "701|1|AMD Radeon Pro 580;703|1|0;704|1|5120;705|1|2880;" + kVideoFillers},
         {12, "1201|1|HL-DT-ST DVDRW  GA32N;1202|1|-;1203|1|-;1204|1|-;1205|1|-;1206|1|-;"},
         {20,
          "2002|1|studio-imac;2004|1|macosgroup;2007|1|Apple Inc.;2008|1|iMac;"
          "2009|1|studio-imac;2010|1|8;2012|1|17179869184;2014|1|alice,alice;",
          true},
         {22,
          "2201|1|Ethernet;2202|1|38:c9:86:1f:4c:e2;2203|1|corp.example;"
          "2204|1|Studio-iMac.local;2209|1|10.40.12.57;2205|1|TRUE;2210|1|10.40.12.1;"
          "2212|1|255.255.255.0;2208|1|10.40.0.5;" +
              Repeat(kNetworkFillers, 1)},
         {24, "2401|1|1001;2402|1|-;"},
         {25,
          "2501|1|Imprimante \xC3\xA9tage 2;2511|1|idle;2510|1|dnssd://Imprimante "
          "\xC3\xA9tage 2._ipp._tcp.local./?uuid=6b1e0a3c-2f4d-4c8e-9a7b-1d2e3f405162;" +
              Repeat(kPrinterFillers, 1)},
         {27, MemorySlot(1, "8589934592", "1867", "BANK 0/DIMM0", 0) +
                  MemorySlot(2, "8589934592", "1867", "BANK 0/DIMM1", 2)},
         {28, MemoryArray(2, "17179869184")},
     }},
    {"macbook-m1",
     41,
     {
         {1,
          "105|1|3867184;106|1|979744;107|1|-;108|1|17179869184;102|1|14.4.1;113|1|23E224;"
          "101|1|macOS - Unknown;103|1|14.4.1 - Unknown;",
          true},
         {3, "301|1|-;306|1|2;302|1|3;303|1|-;313|1|proc 10:8:2;", true},
         {13, ""},  // no Serial-ATA report and an empty SAS report: no internal disk
         {4,
          FixedVolume(1, "/System/Volumes/iSCPreboot", "iSCPreboot", "APFS", "562949952",
                      "541012480", "82EE92A2-5277-4E53-AB72-5CB921B49AA8", "disk1s1", "-"),
          true},
         {7, "701|1|Apple M1 Pro;703|1|-;704|1|1512;705|1|982;" + kVideoFillers},
         {12, ""},
         {22,
          "2201|1|Wi-Fi;2202|1|3c:a6:f6:52:0e:9b;2203|1|-;2204|1|Alices-MacBook-Pro.local;"
          "2209|1|192.168.178.34;2205|1|TRUE;2210|1|192.168.178.1;2212|1|255.255.255.0;"
          "2208|1|192.168.178.1;" +
              Repeat(kNetworkFillers, 1)},
         {24, "2401|1|1004;2402|1|-;"},
         {25, ""},
         {27, ""},
         {28, MemoryArray(0, "17179869184")},
     }},
    {"macbook-air-m3",
     4,
     {
         // Without REPORT_MODERN_DISKS: no Serial-ATA, SAS or USB medium, so no disk; the stick's
         // ejectable volumes have no known parent and are left out.
         {13, ""},
         {4,
          FixedVolume(1, "/", "Macintosh HD", "APFS", "530841632768", "323459710976",
                      "6C2B8E4A-31F7-4D09-9A5E-0F83B7D21C64", "disk3s1s1", "-") +
              FixedVolume(2, "/System/Volumes/Data", "Macintosh HD - Data", "APFS", "530841632768",
                          "323459710976", "B19D0F53-7E2A-4C86-8D41-5A6E3F92C07B", "disk3s5", "-")},
     }},
    {"macpro-sas",
     80,
     {
         {3, "301|1|Quad-Core Intel Xeon E5;306|1|179;302|1|3;303|1|3700;313|1|4;", true},
         {13,
          "1301|1|ST2000NM0023;1302|1|-;1303|1|Disk drive;1304|1|-;1305|1|disk0;"
          "1306|1|2147911991296;" +
              Repeat(kDiskFillers, 1) +
              "1310|1|SEAGATE ST2000NM0023;1311|1|Z1X4K7PQ;"
              "1301|2|HUS724040ALS640;1302|2|-;1303|2|Disk drive;1304|2|-;1305|2|disk1;"
              "1306|2|4295812186112;" +
              Repeat(kDiskFillers, 2) +
              "1310|2|HGST HUS724040ALS640;1311|2|PCJ9R2LX;"
              "1301|3|DataTraveler 3.0;1302|3|Kingston;1303|3|removable - DataTraveler 3.0 "
              "0x0951  (Kingston Technology Company);1304|3|-;1305|3|disk2;1306|3|0;" +
              Repeat(kDiskFillers, 3) + "1310|3|DataTraveler 3.0;1311|3|08606E6B6446BFA1C7E4AA12;"},
         {4, FixedVolume(1, "/", "Macintosh HD", "Journaled HFS+", "2146957393920", "1383422361600",
                         "BD6099A1-BEF5-33C5-BA3D-C8BBBB3CCAC5", "disk0s2", "disk0") +
                 FixedVolume(2, "/Volumes/Projects", "Projects", "Journaled HFS+", "4295424999424",
                             "985947897856", "4E96C517-6C6C-32A9-818A-34BC13CD02B0", "disk1s2",
                             "disk0") +
                 "401|3|/Volumes/TRANSFER;402|3|Removable Disk : TRANSFER;403|3|2;404|3|11;"
                 "405|3|MS-DOS FAT32;406|3|16631169024;407|3|10600664064;"
                 "408|3|7D8AEA0D-0F6F-327C-9E3F-716CEFD9E1A9;409|3|-;410|3|disk2s1;411|3|disk2;"},
         {7, "701|1|AMD FirePro D300;703|1|2147483648;704|1|1920;705|1|1200;" + kVideoFillers},
         {20, "2002|1|lab-macpro;2004|1|macosgroup;2007|1|Apple Inc.;2008|1|Mac Pro;", true},
         {22,
          "2201|1|Ethernet 1;2202|1|68:5b:35:a1:0c:4e;2203|1|lab.example;"
          "2204|1|lab-macpro.lab.example;2209|1|172.16.20.31;2205|1|TRUE;2210|1|172.16.20.1;"
          "2212|1|255.255.255.0;2208|1|172.16.20.2;" +
              Repeat(kNetworkFillers, 1) +
              "2201|2|Ethernet 2;2202|2|68:5b:35:a1:0c:4f;2203|2|-;"
              "2204|2|lab-macpro.lab.example;2209|2|10.20.30.40,10.20.30.41;2205|2|FALSE;"
              "2210|2|10.20.30.1;2212|2|255.255.255.0;2208|2|-;" +
              Repeat(kNetworkFillers, 2) +
              "2201|3|Lab VPN (L2TP);2202|3|-;2203|3|-;2204|3|lab-macpro.lab.example;"
              "2209|3|10.8.0.12;2205|3|FALSE;2210|3|10.8.0.1;2212|3|-;2208|3|-;" +
              Repeat(kNetworkFillers, 3)},
         {24, "2401|1|1002;2402|1|-;"},
         {25,
          "2501|1|HP LaserJet Pro M402dn;2511|1|idle;2510|1|ipp://printer.lab.example/ipp/"
          "print;" +
              Repeat(kPrinterFillers, 1) +
              "2501|2|Plotter 3rd Floor;2511|2|stopped;2510|2|smb://filesrv.lab.example/"
              "Plotter 3rd Floor;" +
              Repeat(kPrinterFillers, 2)},
         {27, MemorySlot(1, "17179869184", "1866", "DIMM 1", 0) +
                  MemorySlot(2, "8589934592", "1866", "DIMM 3", 2) +
                  MemorySlot(3, "8589934592", "1866", "DIMM 5", 4) +
                  MemorySlot(4, "8589934592", "1866", "DIMM 8", 7)},
         {28, MemoryArray(4, "42949672960")},
     }},
    {"sparse",
     1,
     {
         {1,
          "105|1|0;106|1|0;107|1|-;108|1|8589934592;102|1|0;102|1|0;"
          "101|1|(null) - Unknown;103|1|(null) - Unknown;104|1|Apple Inc.;110|1|-;111|1|-;"
          "112|1|-;114|1|0;115|1|0;116|1|Mac OS X;117|2|1;118|1|-;"},
         {3, "304|1|-;305|1|-;307|1|-;308|1|-;309|1|-;310|1|-;311|1|-;312|1|-;"},
         {4, ""},
         {7, ""},
         {13, ""},
         {20,
          "2002|1|build-vm-07;2004|1|macosgroup;2007|1|Apple Inc.;2008|1|-;"
          "2009|1|build-vm-07;2010|1|2;2012|1|8589934592;2014|1|-;",
          true},
         {22, ""},
         {24, "2401|1|2;2402|1|-;"},
         {28, MemoryArray(0, "8589934592")},
     }},
};

// The largest software instance number in the document.
int SoftwareInstances(const std::string& body) {
  int largest = 0;
  const std::string rows = RowsOfClass(body, 18);
  for (auto at = rows.find("1801|"); at != std::string::npos; at = rows.find("1801|", at + 1)) {
    largest = std::max(largest, std::stoi(rows.substr(at + 5)));
  }
  return largest;
}

TEST(MachineScan, EveryRecordedMachineRecordsWhatItsToolsPrinted) {
  InventoryServer server;
  for (const Machine& machine : kMachines) {
    SCOPED_TRACE(machine.name);
    AgentFolder agent(std::string("machine-") + machine.name);
    agent.UseMachine(machine.name);
    agent.WriteResourceId("42");
    agent.ServeAt(server.port());
    const std::size_t before = server.Uploads().size();
    ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
    EXPECT_TRUE(LastLineIs(agent, "Manual", {"FullData", "Success"})) << agent.AccessLog();
    ASSERT_EQ(server.Uploads().size(), before + 1);
    const std::string body = server.Uploads().back().body;
    for (const ClassRows& expected : machine.classes) {
      const std::string rows = RowsOfClass(body, expected.classId);
      if (expected.prefix) {
        EXPECT_EQ(rows.substr(0, expected.rows.size()), expected.rows) << expected.classId;
      } else {
        EXPECT_EQ(rows, expected.rows) << expected.classId;
      }
    }
    EXPECT_EQ(SoftwareInstances(body), machine.softwareInstances);
    // The run's temporary folders are gone.
    for (const auto& entry : std::filesystem::directory_iterator(agent.base() / "bin")) {
      EXPECT_TRUE(entry.is_symlink()) << entry.path();
    }
  }
}

// Occurrences of piece in text.
std::size_t CountOf(const std::string& text, const std::string& piece) {
  std::size_t found = 0;
  for (auto at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
    ++found;
  }
  return found;
}

TEST(MachineScan, ModernDisksOnlyWithTheKeyOn) {
  InventoryServer server;
  AgentFolder agent("modern-disks");
  agent.WriteResourceId("42");
  agent.ServeAt(server.port());

  // Off (key "0"): the same document as without the key, and nothing of it in the log.
  agent.UseMachine("macbook-air-m3", "\t<key>REPORT_MODERN_DISKS</key><string>0</string>\n");
  ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  ASSERT_EQ(server.Uploads().size(), 1u);
  EXPECT_EQ(RowsOfClass(server.Uploads()[0].body, 13), "");
  EXPECT_EQ(CountOf(RowsOfClass(server.Uploads()[0].body, 4), "401|"), 2u);
  const std::string offLog = agent.ScanLog();
  for (const char* absent : {"SPNVMeDataType", "REPORT_MODERN_DISKS", "external disk"}) {
    EXPECT_EQ(CountOf(offLog, absent), 0u) << absent;
  }
  EXPECT_EQ(CountOf(offLog, "This volume BACKUP is not a hdd"), 1u);

  // On: the NVMe disk is the internal disk, the stick's whole disk is read once and both its
  // volumes are removable.
  agent.UseMachine("macbook-air-m3", "\t<key>REPORT_MODERN_DISKS</key><string>1</string>\n");
  ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(agent, "Manual", {"FullData", "Success"})) << agent.AccessLog();
  ASSERT_EQ(server.Uploads().size(), 2u);
  const std::string body = server.Uploads()[1].body;
  EXPECT_EQ(RowsOfClass(body, 13),
            "1301|1|APPLE SSD AP0512Z;1302|1|-;1303|1|SSD;1304|1|-;1305|1|disk0;"
            "1306|1|537169199104;1307|1|-;1308|1|-;1309|1|-;1310|1|APPLE SSD AP0512Z;"
            "1311|1|0ba1c2d3e4f50617;"
            "1301|2|Flash Drive;1302|2|-;1303|2|removable - Flash Drive -;1304|2|-;1305|2|disk4;"
            "1306|2|66067808256;1307|2|-;1308|2|-;1309|2|-;1310|2|Flash Drive;1311|2|-;");
  EXPECT_EQ(RowsOfClass(body, 4),
            "401|1|/;402|1|Local Fixed Disk : Macintosh HD;403|1|3;404|1|12;405|1|APFS;"
            "406|1|530841632768;407|1|323459710976;408|1|6C2B8E4A-31F7-4D09-9A5E-0F83B7D21C64;"
            "409|1|-;410|1|disk3s1s1;411|1|disk0;"
            "401|2|/System/Volumes/Data;402|2|Local Fixed Disk : Macintosh HD - Data;403|2|3;"
            "404|2|12;405|2|APFS;406|2|530841632768;407|2|323459710976;"
            "408|2|B19D0F53-7E2A-4C86-8D41-5A6E3F92C07B;409|2|-;410|2|disk3s5;411|2|disk0;"
            "401|3|/Volumes/BACKUP;402|3|Removable Disk : BACKUP;403|3|2;404|3|11;"
            "405|3|MS-DOS FAT32;406|3|34587643904;407|3|21905508352;"
            "408|3|3F1A7C2E-8B54-3D96-A0E7-C4B2918F5D03;409|3|-;410|3|disk4s1;411|3|disk4;"
            "401|4|/Volumes/TRANSFER;402|4|Removable Disk : TRANSFER;403|4|2;404|4|11;"
            "405|4|ExFAT;406|4|31480162304;407|4|31479879680;"
            "408|4|D7E04B91-2C6F-3A58-B3D2-71F0E8A94C16;409|4|-;410|4|disk4s2;411|4|disk4;");
  const std::string onLog = agent.ScanLog().substr(offLog.size());
  EXPECT_EQ(CountOf(onLog, "REPORT_MODERN_DISKS is on"), 1u);
  EXPECT_EQ(CountOf(onLog, "trying with SPNVMeDataType"), 1u);
  EXPECT_EQ(CountOf(onLog, "FetchMountedVolumes : external disk disk4: Flash Drive\n"), 1u);
  EXPECT_EQ(CountOf(onLog, "is not a hdd"), 0u);
}

TEST(MachineScan, ApplicationsKeepTheirNamesAndLeaveOutTheAgentAndDuplicates) {
  InventoryServer server;
  AgentFolder agent("apps");
  agent.UseMachine("imac-fusion");
  agent.WriteResourceId("42");
  agent.ServeAt(server.port());
  ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  ASSERT_EQ(server.Uploads().size(), 1u);
  const std::string rows = RowsOfClass(server.Uploads()[0].body, 18);
  auto count = [&](const std::string& piece) { return CountOf(rows, piece); };
  EXPECT_EQ(count("|VLC;"), 1u);
  EXPECT_EQ(count("|Microsoft Error Reporting;"), 1u);
  EXPECT_EQ(count("|Python;"), 3u);
  EXPECT_EQ(count("|Sauvegarde projets;"), 1u);
  EXPECT_EQ(count("|TarnwellAgent;"), 0u);
  EXPECT_EQ(count("|Orvane Tarnwell - Agent;"), 0u);  // neither copy is in this base path
  EXPECT_EQ(count("|Brother iPrint&amp;Scan;"), 1u);
  // Decomposed accents as the tool printed them.
  EXPECT_EQ(count("|Pre\xCC\x81"
                  "fe\xCC\x81"
                  "rences Syste\xCC\x80"
                  "me;"),
            1u);
  // An application without a version is recorded with "-".
  EXPECT_TRUE(
      std::regex_search(rows, std::regex("1801\\|(\\d+)\\|Sauvegarde projets;1802\\|\\1\\|-;")));
}

TEST(MachineScan, TheChangedMachineSendsItsDifference) {
  InventoryServer server;
  AgentFolder agent("changed");
  agent.UseMachine("imac-fusion");
  agent.WriteResourceId("42");
  agent.ServeAt(server.port());
  ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  agent.UseMachine("imac-fusion-changed");
  ASSERT_EQ(agent.Run({"scheduled"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(agent, "Scheduled", {"DiffData", "Success"})) << agent.AccessLog();
  ASSERT_EQ(server.Uploads().size(), 2u);
  // One application as the difference document lists it: the fillers between its values.
  auto application = [](const std::string& name, const std::string& version,
                        const std::string& info, const std::string& path) {
    std::string text = "        {\n";
    const std::pair<int, std::string> values[] = {
        {1801, name}, {1802, version},         {1803, info}, {1804, "-"}, {1805, "-"},
        {1806, "-"},  {1807, "Not available"}, {1808, "-"},  {1809, "-"}, {1810, "Not available"},
        {1811, "-"},  {1812, path},            {1813, "-"},  {1814, "-"}, {1815, "-"}};
    for (const auto& [property, value] : values) {
      text += "          \"" + std::to_string(property) + "\": \"" + value + "\"" +
              (property == 1815 ? "\n" : ",\n");
    }
    return text + "        }\n";
  };
  const std::string expected =
      "{\n"
      "  \"18\": {\n"
      "    \"0\": {\n"
      "      \"S-1-1-0\": [\n" +
      application("zoom.us", "4.0.20340.1024", "-", "/Applications/zoom.us.app") +
      "      ]\n"
      "    },\n"
      "    \"1\": {\n"
      "      \"S-1-1-0\": [\n" +
      application("Skype", "7.38", "Skype 7.38 (7.38.460)", "/Applications/Skype.app") +
      "      ]\n"
      "    },\n"
      "    \"2\": {\n"
      "      \"S-1-1-0\": [\n" +
      application("Google Chrome", "54.0.2840.71", "-", "/Applications/Google Chrome.app") +
      "      ]\n"
      "    }\n"
      "  },\n"
      "  \"4\": {\n"
      "    \"1\": [\n"
      "      {\n"
      "        \"401\": \"/Volumes/BOOTCAMP\",\n"
      "        \"402\": \"Local Fixed Disk : BOOTCAMP\",\n"
      "        \"403\": \"3\",\n"
      "        \"404\": \"12\",\n"
      "        \"405\": \"NTFS\",\n"
      "        \"406\": \"129448861696\",\n"
      "        \"407\": \"76260810752\",\n"
      "        \"408\": \"56CFED81-2124-4EE6-A759-76E4A8560D8E\",\n"
      "        \"409\": \"-\",\n"
      "        \"410\": \"disk1s4\",\n"
      "        \"411\": \"disk1\"\n"
      "      }\n"
      "    ]\n"
      "  },\n";
  const std::string body = WithoutScanTimes(server.Uploads()[1].body);
  EXPECT_EQ(body.substr(0, expected.size()), expected) << body.substr(0, 3000);
  EXPECT_NE(body.find("  \"AgentParams\": {\n"), std::string::npos);
}

}  // namespace
}  // namespace tarn::testing
