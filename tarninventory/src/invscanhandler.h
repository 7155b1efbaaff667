// The collectors: one ProplistXMLParser per run turns the output of the
// platform's reporting tools into rows of the inventory classes.
//
// Every collector is split in two: a thin gather step that runs the tool
// through the platform's tool runner, and a parse step over the parsed
// property-list tree (or the tool's text) that records the rows through
// AddRowWMIFetchValueTable / addtoTable. The parse steps are what the unit
// tests feed with recorded output.
//
// Reading a tree follows the platform's message-to-nil rules (plist_value.h):
// a missing key reads as absent, element 0 of an empty array and a container
// operation on a value of the wrong kind raise PlatformException. The
// collectors' own guards catch it where the run says a collector ends.
#pragma once

#include <cstdint>
#include <exception>
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

// A byte count as the tools report it (decimal units) converted to binary
// units in single precision, as decimal text; "0" for absent or zero.
std::string adjustBytes(const PlistPtr& number);

// The platform's integer reading of a report value: Booleans as 0 or 1,
// numbers truncated, a text by its leading digits, anything else (or absent) 0.
std::int64_t IntegerValueOf(const PlistPtr& value);

// The process's current directory, the parent of the collectors' private
// folders; empty when it cannot be had.
std::string CurrentDirectory();

// Records one value of an instance (flag 0, as every collector records).
void RecordValue(std::int32_t propertyId, std::int32_t classId, std::int32_t instance,
                 const std::optional<std::string>& value);
// Records the filler "-" for each property id, in the order given.
void RecordFillers(std::int32_t classId, std::int32_t instance,
                   std::initializer_list<std::int32_t> propertyIds);
// The text of a report dictionary's value for the key; absent when missing.
std::optional<std::string> TextAt(const PlistPtr& dictionary, std::string_view key);
std::optional<std::string> TextAt(const PlistNode& dictionary, std::string_view key);

// Piece index of the text split at separator, as the platform reads it: an
// absent text gives an absent piece, a present one raises PlatformException
// (NSRangeException) past its last piece.
std::optional<std::string> PieceOf(const std::optional<std::string>& text,
                                   const std::string& separator, std::size_t index);

// The piece after the first ": " of a tool's output line. Raises
// PlatformException (index past the end) when there is none.
std::string TextAfterColon(const std::string& output);

// Virtual memory in KiB: total (used truncated to 32 bits, plus free) and free.
void GetVirtualMemInfo(std::uint64_t& total, std::uint64_t& free);

struct ApplicationFields;

class ProplistXMLParser {
 public:
  // `init`: empty bufferDict and swSet.
  ProplistXMLParser();

  // ---- Running tools and extracting report items.

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

  // ---- Collectors, in the run's order (gather + parse).
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

  // ---- Disk and volume builders.
  // Internal disks (true: Serial-ATA report; false: SAS report), key BSD name.
  PlistPtr FetchDiskDrives(bool serialAta);
  // Media on USB, key BSD name; empty when there are none, absent on a failure.
  PlistPtr FetchRemovableDiskDrives();
  // Volumes by device identifier; absent on a failure.
  PlistPtr FetchMountedVolumes(const PlistPtr& internalDisks, const PlistPtr& removableDisks);

  // ---- Parse steps (the gather steps above hand them the tools' output).
  // Software: the applications report's items.
  void RecordInstalledSoftware(const PlistPtr& items);
  // The applications report file (as GetArrayObjectFromPlist reads one) and its items.
  void RecordInstalledSoftwareReport(const std::string& path);
  // Hardware report, item 0 of "_items" (may be absent: no report).
  void RecordHardwareReport(const PlistPtr& hardware);
  void RecordVideoController(const PlistPtr& items);
  void RecordCDDrive(const PlistPtr& report);
  void RecordNetworkAdapters(const PlistPtr& items);
  void RecordPrinters(const PlistPtr& items);
  void RecordPhysicalMemory(const PlistPtr& items);
  // Internal disks from the controllers of a Serial-ATA or SAS report.
  // Raises on odd input, e.g. a recorded disk without "device_model",
  // "device_serial" or "bsd_name" (FetchDiskDrives' guard ends on it).
  PlistPtr DiskDrivesFromControllers(const PlistPtr& controllers);
  // Removable media from the parsed USB report (root array); empty for an
  // absent or empty report. Raises on odd input.
  PlistPtr RemovableDisksFromReport(const PlistPtr& report);
  // One volume's instance from its diskutil info dictionary; absent when
  // the volume is left out (removable with an unknown parent). Raises for a
  // volume without "MountPoint".
  PlistPtr VolumeInstance(const std::string& identifier, const PlistPtr& info,
                          const PlistPtr& internalDisks, const PlistPtr& removableDisks);

  // Facts one collector learns and a later one reads ("hw.memsize",
  // "productName", "productVersion", "serial_number", "Model"); text values.
  PlistPtr bufferDict;
  // Applications seen so far, as (name, version or "-").
  std::set<std::pair<std::string, std::string>> swSet;

 private:
  // Records the applications read from the report, then raises what stopped the reading.
  void RecordApplications(const std::vector<ApplicationFields>& applications,
                          const std::exception_ptr& failure);
  std::optional<std::string> BufferText(const char* key) const;
  void SetBufferText(const char* key, const std::optional<std::string>& value);
};

// Two flags of the whole machine from the controllers of a disk report:
// some disk with volumes is solid-state; some is rotational.
struct DiskKinds {
  bool solidState = false;
  bool rotational = false;
};
DiskKinds getDiskType(const PlistPtr& controllers);

}  // namespace tarn
