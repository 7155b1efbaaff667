// Operating system, processor, computer system, enclosure and memory.
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "framework/logging/logger.h"
#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/platform.h"
#include "tarninventory/src/invscanhandler.h"
#include "tarninventory/src/scandata.h"
#include "tarninventory/src/tarninventoryutil.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/TarnStringutil.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {
namespace {

constexpr std::int32_t kOsClass = 1;
constexpr std::int32_t kProcessorClass = 3;
constexpr std::int32_t kComputerClass = 20;
constexpr std::int32_t kEnclosureClass = 24;
constexpr std::int32_t kMemoryDeviceClass = 27;
constexpr std::int32_t kMemoryArrayClass = 28;

constexpr const char* kOsSignature = "-[ProplistXMLParser FetchOSandProcessorInfo]";
constexpr const char* kSendOsSignature = "-[ProplistXMLParser SendOSINFO]";
constexpr const char* kComputerSignature = "-[ProplistXMLParser FetchComputerInfo]";
constexpr const char* kMemorySignature = "-[ProplistXMLParser FetchPhysicalMemoryInfo]";
constexpr const char* kVirtualMemorySignature = "void GetVirtualMemInfo(uint64_t*, uint64_t*)";

const char* Shown(const OptText& text) { return Describe(text); }

// The family code of the processor name: the first of these found, case-sensitively.
const char* ProcessorFamily(const OptText& cpuType) {
  struct Family {
    const char* marker;
    const char* code;
  };
  static constexpr Family kFamilies[] = {
      {"i7", "198"}, {"i5", "205"}, {"i3", "206"}, {"Xeon", "179"}};
  if (cpuType) {
    for (const Family& family : kFamilies) {
      if (cpuType->find(family.marker) != std::string::npos) return family.code;
    }
  }
  return "2";
}

// The shortest decimal text that reads back as the same double ("2300", "2200.0000000000005").
std::string ShortestDecimal(double value) {
  char text[64];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

// "2.3 GHz" gives 2300; any other unit gives "-". A text without a blank raises.
std::string ProcessorSpeed(const OptText& speed) {
  if (!speed) return kFiller;
  const OptText unit = PieceOf(speed, " ", 1);
  if (*unit != "GHz") return kFiller;
  return ShortestDecimal(std::strtod(PieceOf(speed, " ", 0)->c_str(), nullptr) * 1000.0);
}

// Chassis type of the machine name.
const char* ChassisType(const OptText& model) {
  struct Chassis {
    const char* model;
    const char* type;
  };
  static constexpr Chassis kChassis[] = {{"iMac", "1001"},
                                         {"Mac Pro", "1002"},
                                         {"MacBook Air", "1003"},
                                         {"MacBook Pro", "1004"},
                                         {"Mac Mini", "1005"}};
  if (model) {
    for (const Chassis& chassis : kChassis) {
      if (*model == chassis.model) return chassis.type;
    }
  }
  return "2";
}

// "8 GB" in bytes: the count shifted in 32 bits by 10, sign-extended, then by the rest of
// the unit's shift. Fewer than two pieces gives nothing to record; an unknown unit an
// absent value.
std::optional<OptText> MemorySizeInBytes(const OptText& size) {
  if (!size) return std::nullopt;
  const std::vector<std::string> pieces = SplitText(*size, " ");
  if (pieces.size() < 2) return std::nullopt;
  int rest = 0;
  if (pieces[1] == "GB") {
    rest = 20;
  } else if (pieces[1] == "MB") {
    rest = 10;
  } else {
    return OptText();
  }
  const auto count = static_cast<std::int32_t>(std::atoi(pieces[0].c_str()));
  const auto kibi = static_cast<std::int32_t>(static_cast<std::uint32_t>(count) << 10);
  const auto bytes = static_cast<std::int64_t>(
      static_cast<std::uint64_t>(static_cast<std::int64_t>(kibi)) << rest);
  return OptText(std::to_string(bytes));
}

}  // namespace

void GetVirtualMemInfo(std::uint64_t& total, std::uint64_t& free) {
  UserLogMessage("@@@@@@@ Inside GetVirtualMemInfo method @@@@@\n");
  std::optional<VmStatistics> statistics = CurrentPlatform().Host().VirtualMemoryStatistics();
  if (!statistics) {
    ConsoleLog("Failed to fetch vm statistics");
    statistics = VmStatistics{};
  }
  const auto busyPages = static_cast<std::uint32_t>(
      statistics->activeCount + statistics->inactiveCount + statistics->wireCount);
  const std::uint64_t used = busyPages * statistics->pageSize;
  free = statistics->freeCount * statistics->pageSize;
  // Only the low 32 bits of the used bytes count towards the total, as always reported.
  total = static_cast<std::uint32_t>(used) + free;
  if (free != 0) free >>= 10;
  if (total != 0) total >>= 10;
  ConsoleWhere(kVirtualMemorySignature, __LINE__, "used: %u free: %lu total: %lu",
               static_cast<unsigned>(static_cast<std::uint32_t>(used)),
               static_cast<unsigned long>(free), static_cast<unsigned long>(total));
  UserLogMessage("@@@@@@@ End of GetVirtualMemInfo method @@@@@\n");
}

// ---- Operating system and processor.

void ParseMemorySize(std::uint64_t totalKiB, std::uint64_t freeKiB, const OptText& sysctlOutput,
                     CollectorFacts& facts, Rows& rows) {
  AddRow(rows, 105, kOsClass, 1, std::to_string(totalKiB));
  AddRow(rows, 106, kOsClass, 1, std::to_string(freeKiB));
  AddRow(rows, 107, kOsClass, 1, kFiller);
  if (sysctlOutput) {
    const std::string physical = TextAfterColon(*sysctlOutput);
    ConsoleLog("Physical mem: %s\n", physical.c_str());
    AddRow(rows, 108, kOsClass, 1, physical);
    facts.hw_memsize = physical;
  } else {
    AddRow(rows, 108, kOsClass, 1, kFiller);
  }
}

void ParseProductName(const OptText& output, CollectorFacts& facts) {
  if (output) {
    ConsoleLog("Product name: %s\n", output->c_str());
    facts.productName = output;
  }
}

void ParseProductVersion(const OptText& output, CollectorFacts& facts, Rows& rows) {
  if (output) {
    ConsoleLog("Product version: %s\n", output->c_str());
    AddRow(rows, 102, kOsClass, 1, output);
    facts.productVersion = output;
  } else {
    ConsoleLog("Can't get productVersion");
    AddRow(rows, 102, kOsClass, 1, kZero);
  }
}

void ParseBuildVersion(const OptText& output, Rows& rows) {
  if (output) {
    ConsoleLog("Build number: %s\n", output->c_str());
    AddRow(rows, 113, kOsClass, 1, output);
  } else {
    // The version property is written again here, not the build number.
    ConsoleLog("Can't get BuildNumber");
    AddRow(rows, 102, kOsClass, 1, kZero);
  }
}

void ParseOsNames(const std::string& osName, const std::string& servicePackName,
                  std::uint32_t osIndex, Rows& rows) {
  AddRow(rows, 101, kOsClass, 1, osName);
  AddRow(rows, 103, kOsClass, 1, servicePackName);
  AddRow(rows, 104, kOsClass, 1, kAppleInc);
  AddFillers(rows, kOsClass, 1, {110, 111, 112});
  AddRow(rows, 114, kOsClass, 1, kZero);
  AddRow(rows, 115, kOsClass, 1, kZero);
  AddRow(rows, 116, kOsClass, 1, "Mac OS X");
  AddRow(rows, 117, kOsClass, static_cast<std::int32_t>(osIndex + 1), std::to_string(osIndex));
  AddRow(rows, 118, kOsClass, 1, kFiller);
}

void ParseHardwareReport(const PlistPtr& items, CollectorFacts& facts, Rows& rows) {
  if (!items) {
    ConsoleLog("Command execution output: %s\n", "(null)");
  } else {
    const PlistPtr hardware = ObjectAtIndex(items, 0);
    const OptText serial = TextAt(hardware, "serial_number");
    ConsoleWhere(kOsSignature, __LINE__, "Serial number: %s\n", Shown(serial));
    facts.serial_number = serial;
    AddRow(rows, 109, kOsClass, 1, serial);

    const OptText cpuType = TextAt(hardware, "cpu_type");
    ConsoleWhere(kOsSignature, __LINE__, "Processor Name(cpu-type): %s\n", Shown(cpuType));
    AddRow(rows, 301, kProcessorClass, 1, cpuType);
    AddRow(rows, 306, kProcessorClass, 1, ProcessorFamily(cpuType));
    AddRow(rows, 302, kProcessorClass, 1, "3");

    const std::string speed = ProcessorSpeed(TextAt(hardware, "current_processor_speed"));
    if (speed == kFiller) {
      ConsoleWhere(kOsSignature, __LINE__, "Cpu speed: -\n");
    } else {
      ConsoleWhere(kOsSignature, __LINE__, "Cpu speed: %s\n", speed.c_str());
    }
    AddRow(rows, 303, kProcessorClass, 1, speed);
    AddRow(rows, 313, kProcessorClass, 1, TextAt(hardware, "number_processors"));

    const OptText model = TextAt(hardware, "machine_name");
    facts.Model = model;
    ConsoleLog("Machine model name added in buffer: %s\n", Shown(model));
  }
  AddFillers(rows, kProcessorClass, 1, {304, 305, 307, 308, 309, 310, 311, 312});
}

void ParseOsSoftwareRow(const std::string& osName, const CollectorFacts& facts, Rows& rows) {
  const auto instance = static_cast<std::int32_t>(facts.osIndex);
  ConsoleWhere(kSendOsSignature, __LINE__, "OsName : %s", osName.c_str());
  ConsoleWhere(kSendOsSignature, __LINE__, "Osversion : %s", Shown(facts.productVersion));
  ConsoleWhere(kSendOsSignature, __LINE__, "serialnum : %s", Shown(facts.serial_number));
  AddRow(rows, 1801, kSoftwareClassId, instance, osName);
  AddRow(rows, 1802, kSoftwareClassId, instance, facts.productVersion);
  AddRow(rows, 1803, kSoftwareClassId, instance, kAppleInc);
  AddFillers(rows, kSoftwareClassId, instance, {1804, 1805, 1806});
  AddRow(rows, 1807, kSoftwareClassId, instance, kNotAvailable);
  AddFillers(rows, kSoftwareClassId, instance, {1808, 1809});
  AddRow(rows, 1810, kSoftwareClassId, instance, facts.serial_number);
  AddFillers(rows, kSoftwareClassId, instance, {1811, 1812, 1813});
  // Tells the server that this software row is the operating system.
  AddRow(rows, 1814, kSoftwareClassId, instance, "OS_EXT");
  AddRow(rows, 1815, kSoftwareClassId, instance, kFiller);
  ConsoleLog("End of SendOSINFO method \n");
}

void ProplistXMLParser::FetchOSandProcessorInfo() {
  // Each tool runs just before its output is parsed: the log keeps the tools' own lines
  // where they have always been.
  RecordRowsOf([&](Rows& rows) {
    std::uint64_t total = 0;
    std::uint64_t free = 0;
    GetVirtualMemInfo(total, free);
    ParseMemorySize(total, free, GetOutputForExecution(kSysctl, {"hw.memsize"}), bufferDict, rows);
    ParseProductName(GetOutputForExecution(kSwVers, {"-productName"}), bufferDict);
    ParseProductVersion(GetOutputForExecution(kSwVers, {"-productVersion"}), bufferDict, rows);
    ParseBuildVersion(GetOutputForExecution(kSwVers, {"-buildVersion"}), rows);
    const std::string osName = GetOSNameString();
    ParseOsNames(osName, GetOS_SPName(), bufferDict.osIndex, rows);
    ParseHardwareReport(GetItemsArrayfromPropertylist({"-xml", "SPHardwareDataType"}), bufferDict,
                        rows);
  });
  SendOSINFO();
}

void ProplistXMLParser::SendOSINFO() {
  ConsoleLog("Inside SendOSINFO method \n");
  RecordRowsOf([&](Rows& rows) { ParseOsSoftwareRow(GetOSNameString(), bufferDict, rows); });
}

// ---- Computer system and enclosure.

void ParseComputerNames(const OptText& computerName, const OptText& nameSpace,
                        const CollectorFacts& facts, Rows& rows) {
  AddRow(rows, 2002, kComputerClass, 1, computerName);
  AddRow(rows, 2004, kComputerClass, 1, nameSpace);
  AddRow(rows, 2007, kComputerClass, 1, kAppleInc);
  ConsoleLog("Machine model name: %s\n", Shown(facts.Model));
  AddRow(rows, 2008, kComputerClass, 1, facts.Model);
  AddRow(rows, 2009, kComputerClass, 1, computerName);
}

void ParseProcessorCount(const OptText& sysctlOutput, const CollectorFacts& facts, Rows& rows) {
  if (sysctlOutput) {
    const std::string count = TextAfterColon(*sysctlOutput);
    ConsoleLog("Physical mem: %s\n", count.c_str());  // the label is an old mislabel, kept
    AddRow(rows, 2010, kComputerClass, 1, count);
  }
  ConsoleLog("Computer total memory size: %s\n", Shown(facts.hw_memsize));
  AddRow(rows, 2012, kComputerClass, 1, facts.hw_memsize);
}

void ParseLoggedOnUsers(const OptText& users, Rows& rows) {
  ConsoleLog("Logged on user name: %s\n", Shown(users));
  AddRow(rows, 2014, kComputerClass, 1, users ? *users : kFiller);
}

void ProplistXMLParser::FetchComputerInfo() {
  RecordRowsOf([&](Rows& rows) {
    try {
      const TarnGlobvars& vars = gv_globvars();
      ParseComputerNames(vars.localComputerName(), vars.localNameSpace(), bufferDict, rows);
      ParseProcessorCount(GetOutputForExecution(kSysctl, {"hw.ncpu"}), bufferDict, rows);
      ParseLoggedOnUsers(GetLoggedOnUsers(), rows);
    } catch (const PlatformException& failure) {
      ConsoleWhere(kComputerSignature, __LINE__, "FetchComputerInfo : Caught exception: %s",
                   failure.description().c_str());
    }
    AddFillers(rows, kComputerClass, 1, {2001, 2003, 2005, 2006, 2011, 2013, 2015, 2016, 2017});
  });
}

void ParseSystemEnclosure(const CollectorFacts& facts, Rows& rows) {
  AddRow(rows, 2401, kEnclosureClass, 1, ChassisType(facts.Model));
  AddRow(rows, 2402, kEnclosureClass, 1, kFiller);
}

void ProplistXMLParser::FetchSystemEnclosure() {
  RecordRowsOf([&](Rows& rows) { ParseSystemEnclosure(bufferDict, rows); });
}

// ---- Physical memory.

void ProplistXMLParser::FetchPhysicalMemoryInfo() {
  RecordRowsOf([&](Rows& rows) {
    try {
      ParsePhysicalMemory(GetItemsArrayfromPropertylist({"-xml", "SPMemoryDataType"}), bufferDict,
                          rows);
    } catch (const PlatformException& failure) {
      ConsoleWhere(kMemorySignature, __LINE__, "Caught exception**************:%s",
                   failure.description().c_str());
    }
  });
}

void ParsePhysicalMemory(const PlistPtr& items, const CollectorFacts& facts, Rows& rows) {
  const PlistPtr slots = ValueForKey(ObjectAtIndex(items, 0), "_items");
  std::int32_t populated = 0;
  for (std::size_t i = 0; i < Count(slots); ++i) {
    const PlistPtr slot = ObjectAtIndex(slots, i);
    if (TextAt(slot, "dimm_status") == "empty") continue;
    ++populated;
    ConsoleWhere(kMemorySignature, __LINE__, "Device Name : Physical Memory\n");
    AddRow(rows, 2701, kMemoryDeviceClass, populated, "Physical Memory");
    if (const std::optional<OptText> bytes = MemorySizeInBytes(TextAt(slot, "dimm_size"))) {
      ConsoleWhere(kMemorySignature, __LINE__, "Memory size in bytes: %s\n", Shown(*bytes));
      AddRow(rows, 2702, kMemoryDeviceClass, populated, *bytes);
    }
    ConsoleWhere(kMemorySignature, __LINE__, "Memory type: 0\n");
    AddRow(rows, 2703, kMemoryDeviceClass, populated, kZero);
    AddRow(rows, 2705, kMemoryDeviceClass, populated, PieceOf(TextAt(slot, "dimm_speed"), " ", 0));
    const OptText bank = TextAt(slot, "_name");
    ConsoleWhere(kMemorySignature, __LINE__, "Memory bank lable name: %s\n", Shown(bank));
    AddRow(rows, 2704, kMemoryDeviceClass, populated, bank);
    // Tagged by the slot's position among all slots, empty ones included.
    AddRow(rows, 2708, kMemoryDeviceClass, populated, "Physical Memory " + std::to_string(i));
    AddFillers(rows, kMemoryDeviceClass, populated, {2706, 2707, 2709, 2710});
  }
  AddRow(rows, 2801, kMemoryArrayClass, populated, "Physical Memory Array");
  AddRow(rows, 2802, kMemoryArrayClass, populated, "3");
  AddRow(rows, 2803, kMemoryArrayClass, populated, facts.hw_memsize);
  AddRow(rows, 2804, kMemoryArrayClass, populated, std::to_string(populated));
  AddFillers(rows, kMemoryArrayClass, populated, {2805, 2806, 2807});
  AddRow(rows, 2808, kMemoryArrayClass, populated, "3");
}

}  // namespace tarn
