// The collectors: one ProplistXMLParser per run turns the output of the
// platform's reporting tools into rows of the inventory classes.
//
// Every collector is split in two: a gather step that runs the tools through
// the platform's tool runner (and nothing else), and parse steps: functions
// of the parsed report (or the tool's text) and the facts they need, which
// append the rows they find to a Rows vector in recording order. The Fetch*
// members do gather -> parse -> record; the parse steps need no value table,
// no catalogue and no file, and are what the unit tests and the fuzz target
// call.
//
// Reading a tree follows the platform's message-to-nil rules (plist_value.h):
// a missing key reads as absent, element 0 of an empty array and a container
// operation on a value of the wrong kind raise PlatformException. A parse
// step that raises keeps the rows it appended before the raise; the Fetch*
// members record those and then end as the run says (their own guard, or
// the raise goes on to the driver).
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/plist/plist_document.h"
#include "platform/plist/plist_value.h"
#include "platform/process/side_by_side_runner.h"

namespace tarn {

// Filler and constant texts shared by the collectors.
inline constexpr const char* kFiller = "-";
inline constexpr const char* kZero = "0";
inline constexpr const char* kNotAvailable = "Not available";
inline constexpr const char* kAppleInc = "Apple Inc.";

inline constexpr const char* kSystemProfiler = "/usr/sbin/system_profiler";
inline constexpr const char* kSysctl = "/usr/sbin/sysctl";
inline constexpr const char* kSwVers = "/usr/bin/sw_vers";
inline constexpr const char* kDiskutil = "/usr/sbin/diskutil";
inline constexpr const char* kUsers = "/usr/bin/users";

// Every tool run the collectors (and the agent's details read before them) ask for, each
// once, in the order to start them, with the wait each is asked with first; the volume
// infos and the SAS report follow from the outputs they depend on. A new collector adds its
// commands here: the driver starts them all side by side as the run begins.
std::vector<PlannedCommand> CollectorCommands();

using OptText = std::optional<std::string>;

// One value a parse step found: a row of the value table (flag 0).
struct CollectedRow {
  std::int32_t propertyId = 0;
  std::int32_t classId = 0;
  std::int32_t instance = 0;
  OptText value;
  bool operator==(const CollectedRow&) const = default;
};
// The rows of a parse step, in the order they are recorded.
using Rows = std::vector<CollectedRow>;

// Appends one row; the filler "-" for each property id, in the order given.
void AddRow(Rows& rows, std::int32_t propertyId, std::int32_t classId, std::int32_t instance,
            OptText value);
void AddFillers(Rows& rows, std::int32_t classId, std::int32_t instance,
                std::initializer_list<std::int32_t> propertyIds);

// Hands the rows to the recorder (AddRowWMIFetchValueTable), in order.
void RecordRows(const Rows& rows);

// Runs step(rows) and records the rows it appended, also when it raises: the raise then
// goes on, after the rows found before it are recorded.
template <typename Step>
void RecordRowsOf(Step&& step) {
  Rows rows;
  try {
    step(rows);
  } catch (...) {
    RecordRows(rows);
    throw;
  }
  RecordRows(rows);
}

// Facts one collector learns and a later one reads. Texts as the tools gave them (the
// memory size keeps the tool's line end).
struct CollectorFacts {
  OptText hw_memsize;      // "hw.memsize"
  OptText productName;     // "productName"
  OptText productVersion;  // "productVersion"
  OptText serial_number;   // "serial_number"
  OptText Model;           // "Model": the machine name of the hardware report
  // Instance number of the operating system's row in the software class: one past the
  // applications recorded; 0 when the software collector did not finish.
  std::uint32_t osIndex = 0;
};

// Applications seen so far, as (name, version or "-").
using SoftwareSet = std::set<std::pair<std::string, std::string>>;

// A byte count as the tools report it (decimal units) converted to binary
// units in single precision, as decimal text; "0" for absent or zero.
std::string adjustBytes(const PlistPtr& number);

// The platform's integer reading of a report value: Booleans as 0 or 1,
// numbers truncated, a text by its leading digits, anything else (or absent) 0.
std::int64_t IntegerValueOf(const PlistPtr& value);

// The process's current directory, the parent of the collectors' private
// folders; empty when it cannot be had.
std::string CurrentDirectory();

// The text of a report dictionary's value for the key (either tree form); absent when
// missing.
template <typename Node>
OptText TextAt(const Node& dictionary, std::string_view key) {
  return TextOf(ValueForKey(dictionary, key));
}

// Piece index of the text split at separator, as the platform reads it: an
// absent text gives an absent piece, a present one raises PlatformException
// (NSRangeException) past its last piece.
OptText PieceOf(const OptText& text, const std::string& separator, std::size_t index);

// The piece after the first ": " of a tool's output line. Raises
// PlatformException (index past the end) when there is none.
std::string TextAfterColon(const std::string& output);

// Virtual memory in KiB: total (used truncated to 32 bits, plus free) and free.
void GetVirtualMemInfo(std::uint64_t& total, std::uint64_t& free);

// ---- Parse steps. Each appends what it finds to rows and logs as the collector always
// has; the ones that read a tool's text or a report raise on the odd input that ends the
// collector, keeping the rows appended before.

// Operating system, in the order the tools are run: the memory sizes (KiB) and sysctl
// hw.memsize (raises without ": "); sw_vers -productName, -productVersion, -buildVersion;
// the OS names; the hardware report's "_items" (absent: no report; raises when empty).
void ParseMemorySize(std::uint64_t totalKiB, std::uint64_t freeKiB, const OptText& sysctlOutput,
                     CollectorFacts& facts, Rows& rows);
void ParseProductName(const OptText& output, CollectorFacts& facts);
void ParseProductVersion(const OptText& output, CollectorFacts& facts, Rows& rows);
void ParseBuildVersion(const OptText& output, Rows& rows);
void ParseOsNames(const std::string& osName, const std::string& servicePackName,
                  std::uint32_t osIndex, Rows& rows);
void ParseHardwareReport(const PlistPtr& items, CollectorFacts& facts, Rows& rows);
// The software row of the operating system (instance osIndex); logs its end.
void ParseOsSoftwareRow(const std::string& osName, const CollectorFacts& facts, Rows& rows);

// Computer system: the names from the settings, sysctl hw.ncpu (raises without ": "), the
// logged-on users.
void ParseComputerNames(const OptText& computerName, const OptText& nameSpace,
                        const CollectorFacts& facts, Rows& rows);
void ParseProcessorCount(const OptText& sysctlOutput, const CollectorFacts& facts, Rows& rows);
void ParseLoggedOnUsers(const OptText& users, Rows& rows);
void ParseSystemEnclosure(const CollectorFacts& facts, Rows& rows);
// Memory slots and the memory array from the memory report's "_items".
void ParsePhysicalMemory(const PlistPtr& items, const CollectorFacts& facts, Rows& rows);

// Network services with IPv4 addresses. hostNameOutput is the output of sysctl
// kern.hostname, asked once per adapter where its host name is read (as the tool has
// always been run); a line without ": " raises.
void ParseNetworkAdapters(const PlistPtr& items, const std::function<OptText()>& hostNameOutput,
                          Rows& rows);
void ParsePrinters(const PlistPtr& items, Rows& rows);
// The optical drive from the whole parsed disc-burning report.
void ParseCDDrive(const PlistPtr& report, Rows& rows);
void ParseVideoController(const PlistPtr& items, Rows& rows);

// The applications report's "_items", read in place. Applications already in swSet, the
// agent's helper and copies of the agent outside agentBasePath are passed; an application
// without "_name" raises. On success logs the count and sets facts.osIndex.
void ParseInstalledSoftware(const PlistNode& items, const OptText& agentBasePath,
                            SoftwareSet& swSet, CollectorFacts& facts, Rows& rows);

// Internal disks from the controllers of a Serial-ATA or SAS report, keyed by BSD name.
// Raises on odd input, e.g. a recorded disk without "device_model", "device_serial" or
// "bsd_name" (FetchDiskDrives' guard ends on it).
PlistPtr DiskDrivesFromControllers(const PlistPtr& controllers);
// Removable media from the parsed USB report (root array); empty for an
// absent or empty report. Raises on odd input.
PlistPtr RemovableDisksFromReport(const PlistPtr& report);
// One volume's instance from its diskutil info dictionary; absent when
// the volume is left out (removable with an unknown parent). Raises for a
// volume without "MountPoint".
PlistPtr VolumeInstance(const std::string& identifier, const PlistPtr& info,
                        const PlistPtr& internalDisks, const PlistPtr& removableDisks);
// The rows of the disks (class 13: internal, then removable disks not already among them)
// and the volumes (class 4), instances numbered from 1 in dictionary order. Merges the
// removable disks into internalDisks. Raises at a value that is not a text.
void ParseDisksAndVolumes(const PlistPtr& internalDisks, const PlistPtr& removableDisks,
                          const PlistPtr& volumes, Rows& rows);

class ProplistXMLParser {
 public:
  // The tool's standard output (bounded wait), or nothing when it could not
  // be launched ("Caught exception in GetOutputForExecution: %@\n" on the
  // console) or its output is not UTF-8.
  std::optional<std::string> GetOutputForExecution(const std::string& launchPath,
                                                   const std::vector<std::string>& arguments);
  // system_profiler with the arguments: "_items" of element 0 of its parsed
  // output; absent without output. Raises when the root has no element 0.
  PlistPtr GetItemsArrayfromPropertylist(const std::vector<std::string>& arguments);
  // The same from a property-list file; absent (after "Error: %@\n" on the
  // console) when the file does not parse.
  PlistPtr GetArrayObjectFromPlist(const std::string& path);
  // The property-list file parsed and kept as parsed, for reading it in place; absent (after
  // the same console message) when it does not parse.
  std::unique_ptr<PlistDocument> ReadPlistDocument(const std::string& path);

  // ---- Collectors, in the run's order: gather, parse, record.
  void FetchInstalledSoftwareInfo();
  void FetchOSandProcessorInfo();
  void SendOSINFO();
  void FetchVideoControllerInfo();
  void FetchCDDriveInfo();
  void FetchHDDDetails();
  void FetchComputerInfo();
  void FetchNetworkAdapterinfo();
  void FetchSystemEnclosure();
  void FetchPrinterInfo();
  void FetchPhysicalMemoryInfo();

  // ---- Disk and volume gathering (each runs its tools, then the parse step above).
  // Internal disks (true: Serial-ATA report; false: SAS report), key BSD name.
  PlistPtr FetchDiskDrives(bool serialAta);
  // Media on USB, key BSD name; empty when there are none, absent on a failure.
  PlistPtr FetchRemovableDiskDrives();
  // Volumes by device identifier; absent on a failure.
  PlistPtr FetchMountedVolumes(const PlistPtr& internalDisks, const PlistPtr& removableDisks);

  // Facts one collector learns and a later one reads.
  CollectorFacts bufferDict;
  // Applications seen so far.
  SoftwareSet swSet;
};

// Two flags of the whole machine from the controllers of a disk report:
// some disk with volumes is solid-state; some is rotational.
struct DiskKinds {
  bool solidState = false;
  bool rotational = false;
};
DiskKinds getDiskType(const PlistPtr& controllers);

}  // namespace tarn
