// The collectors: one ProplistXMLParser per run turns the output of the
// platform's reporting tools into rows of the inventory classes.
//
// Every collector is split in two: a gather step that runs the tools through
// the platform's tool runner (and nothing else), and parse steps: functions
// of the parsed report (or the tool's text) and the facts they need, which
// hand the rows they find to a Rows sink in recording order. The Fetch*
// members do gather -> parse into a sink that records each row as it is
// found; the parse steps need no value table, no catalogue and no file, and
// the unit tests and the fuzz target call them with a sink that collects.
//
// Reading a tree follows the platform's message-to-nil rules (plist_value.h):
// a missing key reads as absent, element 0 of an empty array and a container
// operation on a value of the wrong kind raise PlatformException. A parse
// step that raises has recorded the rows it found before the raise; the
// Fetch* members then end as the run says (their own guard, or the raise
// goes on to the driver).
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
// commands here: the driver starts them all side by side as the run begins. With
// modernDisks (REPORT_MODERN_DISKS), the NVMe report and the whole disk of each external
// volume as well.
std::vector<PlannedCommand> CollectorCommands(bool modernDisks);

using OptText = std::optional<std::string>;
// A text viewed where it is held (a tool report, a row), or none.
using OptView = std::optional<std::string_view>;

// One value a parse step found: a row of the value table (flag 0).
struct CollectedRow {
  std::int32_t propertyId = 0;
  std::int32_t classId = 0;
  std::int32_t instance = 0;
  OptText value;
  bool operator==(const CollectedRow&) const = default;
};
// Where a parse step puts the rows it finds, in recording order: collected for the caller to
// read, or, made with a recorder, handed to it as each is found. Recording at once keeps each
// row between the log lines the step writes before and after finding it, as the scan log has
// always shown them (matching logs each instance as it ends).
class Rows {
 public:
  // Takes each row as it is found; the value's text is only valid during the call.
  using Recorder = std::function<void(std::int32_t propertyId, std::int32_t classId,
                                      std::int32_t instance, OptView value)>;
  Rows() = default;
  explicit Rows(Recorder recorder) : recorder_(std::move(recorder)) {}

  void Add(std::int32_t propertyId, std::int32_t classId, std::int32_t instance, OptView value) {
    if (recorder_) {
      recorder_(propertyId, classId, instance, value);
    } else {
      collected_.push_back({propertyId, classId, instance, value ? OptText(*value) : OptText()});
    }
  }
  // The rows collected (none when a recorder takes them).
  std::vector<CollectedRow>::const_iterator begin() const { return collected_.begin(); }
  std::vector<CollectedRow>::const_iterator end() const { return collected_.end(); }
  std::size_t size() const { return collected_.size(); }
  bool empty() const { return collected_.empty(); }
  const CollectedRow& operator[](std::size_t i) const { return collected_[i]; }
  void clear() { collected_.clear(); }

 private:
  std::vector<CollectedRow> collected_;
  Recorder recorder_;
};

// Appends one row; the filler "-" for each property id, in the order given.
void AddRow(Rows& rows, std::int32_t propertyId, std::int32_t classId, std::int32_t instance,
            OptView value);
void AddFillers(Rows& rows, std::int32_t classId, std::int32_t instance,
                std::initializer_list<std::int32_t> propertyIds);

// Hands one row to the recorder (AddRowWMIFetchValueTable).
void RecordRow(std::int32_t propertyId, std::int32_t classId, std::int32_t instance, OptView value);

// Runs step(rows) with a sink that records each row as the step finds it; a raise goes on
// with the rows found before it recorded.
template <typename Step>
void RecordRowsOf(Step&& step) {
  Rows rows(RecordRow);
  step(rows);
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

// What the software collector reads of one item of the applications report.
struct ApplicationFields {
  OptText name;     // "_name"
  OptText version;  // "version"
  OptText path;     // "path"
  OptText info;     // "info"
  // Set for an item that could not be read (no dictionary): what reading it raised.
  std::exception_ptr unreadable;
};
// The fields of each of the applications report's "_items", in order, up to and including an
// item that cannot be read: all the rows are made from, so that the report can be released
// before they are recorded.
std::vector<ApplicationFields> ApplicationsIn(const PlistPtr& items);
// The rows of the applications. Applications already in swSet, the agent's helper and copies
// of the agent outside agentBasePath are passed; an application without "_name" raises. On
// success logs the count and sets facts.osIndex.
void AddApplicationRows(std::span<const ApplicationFields> applications,
                        const OptText& agentBasePath, SoftwareSet& swSet, CollectorFacts& facts,
                        Rows& rows);
// Both steps on the applications report's "_items".
void ParseInstalledSoftware(const PlistPtr& items, const OptText& agentBasePath, SoftwareSet& swSet,
                            CollectorFacts& facts, Rows& rows);

// Internal disks from the controllers of a Serial-ATA or SAS report, keyed by BSD name.
// Raises on odd input, e.g. a recorded disk without "device_model", "device_serial" or
// "bsd_name" (FetchDiskDrives' guard ends on it).
PlistPtr DiskDrivesFromControllers(const PlistPtr& controllers);
// Removable media from the parsed USB report (root array); empty for an
// absent or empty report. Raises on odd input.
PlistPtr RemovableDisksFromReport(const PlistPtr& report);
// Internal disks from the controllers of an NVMe report ("_items" of its element 0), by the
// Serial-ATA walk with every disk solid state. Raises on odd input as that walk does.
PlistPtr DiskDrivesFromNvmeControllers(const PlistPtr& controllers);
// Whether a diskutil info dictionary says the volume or disk is not internal: "Internal"
// false or "RemovableMediaOrExternalDevice" true (Booleans only), and not a disk image.
// Raises when info is present and no dictionary.
bool IsExternalVolume(const PlistPtr& info);
// A removable medium's instance (the USB report's columns) from "diskutil info -plist" of its
// whole disk: "MediaName" as the name, "RemovableMedia" true as removable media, "Size";
// no manufacturer, vendor or serial. Values of another kind count as missing.
PlistPtr RemovableDiskFromDiskInfo(const std::string& wholeDisk, const PlistPtr& info);
// One volume's instance from its diskutil info dictionary; absent when
// the volume is left out (removable with an unknown parent). A volume is removable when
// "Ejectable", or (externalIsRemovable) when IsExternalVolume. Raises for a
// volume without "MountPoint".
PlistPtr VolumeInstance(const std::string& identifier, const PlistPtr& info,
                        const PlistPtr& internalDisks, const PlistPtr& removableDisks,
                        bool externalIsRemovable = false);
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
  // Internal disks from the NVMe report, key BSD name; absent without controllers or on a
  // failure. Run only with REPORT_MODERN_DISKS on.
  PlistPtr FetchNvmeDiskDrives();
  // Media on USB, key BSD name; empty when there are none, absent on a failure.
  PlistPtr FetchRemovableDiskDrives();
  // Volumes by device identifier; absent on a failure. With externalVolumes, each volume
  // diskutil calls external or removable first adds its whole disk to removableDisks (a
  // dictionary) and is recorded as removable.
  PlistPtr FetchMountedVolumes(const PlistPtr& internalDisks, const PlistPtr& removableDisks,
                               bool externalVolumes = false);

  // Facts one collector learns and a later one reads.
  CollectorFacts bufferDict;
  // REPORT_MODERN_DISKS, from the run's settings: the disk collector may add the NVMe report
  // and the whole disks of external volumes.
  bool reportModernDisks = false;
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
