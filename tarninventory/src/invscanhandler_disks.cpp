// The disk and volume collector: internal disks from the Serial-ATA report
// (the SAS report as fallback), removable media from the USB report, and the
// mounted volumes that diskutil lists, recorded as classes 13 and 4.
//
// With REPORT_MODERN_DISKS on (agent-conf.plist), for the Macs that have neither report:
// the NVMe report when Serial-ATA and SAS give no disk, and, when the USB report lists no
// medium, the whole disks of the volumes diskutil calls external or removable. Off, none of
// this runs.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "framework/logging/logger.h"
#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/platform.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/invscanhandler.h"
#include "tarninventory/src/tarninventoryutil.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnSystemutil_mac.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

constexpr std::int32_t kDiskDriveClassId = 13;
constexpr std::int32_t kVolumeClassId = 4;

constexpr const char* kHddDetailsSignature = "-[ProplistXMLParser FetchHDDDetails]";
constexpr const char* kDiskDrivesSignature = "-[ProplistXMLParser FetchDiskDrives:]";
constexpr const char* kDiskTypeSignature = "void getDiskType(NSArray *, int, BOOL *, BOOL *)";
constexpr const char* kRemovableSignature = "-[ProplistXMLParser FetchRemovableDiskDrives]";
constexpr const char* kNvmeSignature = "-[ProplistXMLParser FetchNvmeDiskDrives]";
constexpr const char* kVolumesSignature =
    "-[ProplistXMLParser FetchMountedVolumes:removableDisks:]";

constexpr const char* kNoArraysFound = "FetchDiskDrives: no arrays found \n";

void LogCaught(const char* signature, int line, const char* operation,
               const PlatformException& exception) {
  ConsoleWhere(signature, line, "%s : Caught exception: %s, %s", operation,
               exception.reason().c_str(), exception.description().c_str());
}

// Compares a report text with a literal ignoring case. An absent text compares
// as equal, as a message to nil answers "same": a device without a medium type
// therefore matches every medium type.
bool SameIgnoringCase(const PlistPtr& value, const char* literal) {
  const std::optional<std::string> text = TextOf(value);
  return !text || EqualsIgnoringCase(*text, literal);
}

PlistPtr Text(const std::string& text) { return PlistValue::MakeString(text); }

PlistPtr TextOrFiller(const PlistPtr& value) { return value ? value : Text(kFiller); }

std::string ItemText(const PlistPtr& value) { return Describe(TextOf(value)); }

// ---- Internal disks.

// The state of one walk over the controllers.
struct DiskWalk {
  DiskKinds kinds;
  std::int64_t pendingSolidStateSize = 0;  // 0: none pending
  bool fusion = false;
};

bool HasVolumes(const PlistPtr& device) { return ValueForKey(device, "volumes") != nullptr; }

// The solid-state half of a fusion drive: the machine has both kinds of disk
// and this one is not rotational (a device without medium type counts as
// rotational here).
bool IsFusionSolidStateHalf(const PlistPtr& device, const DiskKinds& kinds) {
  return kinds.solidState && kinds.rotational &&
         !SameIgnoringCase(ValueForKey(device, "spsata_medium_type"), "Rotational");
}

// The device's size, with the pending solid-state size of a fusion drive added.
PlistPtr DiskSize(const PlistPtr& device, DiskWalk& walk) {
  PlistPtr size = ValueForKey(device, "size_in_bytes");
  if (walk.pendingSolidStateSize != 0) {
    // Unsigned addition: absurd sizes wrap instead of overflowing.
    const auto total =
        static_cast<std::int64_t>(static_cast<std::uint64_t>(IntegerValueOf(size)) +
                                  static_cast<std::uint64_t>(walk.pendingSolidStateSize));
    walk.pendingSolidStateSize = 0;
    ConsoleLog("FetchDiskDrives : size in bytes: %ld\n", static_cast<long>(total));
    size = PlistValue::MakeInteger(total);
  }
  return size;
}

// "Fusion Drive" for the rotational half of a fusion drive; "SSD" for the
// first disk recorded on a machine with a solid-state disk; "Disk drive".
const char* DiskDescription(DiskWalk& walk) {
  if (walk.fusion) return "Fusion Drive";
  if (walk.kinds.solidState) {
    walk.kinds.solidState = false;
    return "SSD";
  }
  return "Disk drive";
}

// Records the device into disks under its BSD name. Raises when the device
// lacks "device_model", "device_serial" or "bsd_name".
void RecordDisk(const PlistPtr& device, DiskWalk& walk, const PlistPtr& disks) {
  const PlistPtr model = ValueForKey(device, "device_model");
  const PlistPtr bsdName = ValueForKey(device, "bsd_name");
  const PlistPtr serial = ValueForKey(device, "device_serial");
  const PlistPtr name = ValueForKey(device, "_name");
  const std::string capacity = adjustBytes(DiskSize(device, walk));
  const char* description = DiskDescription(walk);

  const PlistPtr disk = PlistValue::MakeDictionary();
  disk->SetObjectForKey("1301", model);
  disk->SetObjectForKey("1302", Text(kFiller));
  disk->SetObjectForKey("1303", Text(description));
  disk->SetObjectForKey("1304", Text(kFiller));
  disk->SetObjectForKey("1305", bsdName);
  disk->SetObjectForKey("1306", Text(capacity));
  disk->SetObjectForKey("1307", Text(kFiller));
  disk->SetObjectForKey("1308", Text(kFiller));
  disk->SetObjectForKey("1309", Text(kFiller));
  disk->SetObjectForKey("1310", TextOrFiller(name));
  disk->SetObjectForKey("1311", serial);
  ConsoleLog("FetchDiskDrives: Disk drive device model: %s\n", ItemText(model).c_str());
  ConsoleLog("FetchDiskDrives : Disk drive capacity in bytes: %s\n", capacity.c_str());
  ConsoleLog("FetchDiskDrives : Disk drive device name: %s\n", ItemText(name).c_str());
  ConsoleLog("FetchDiskDrives : Disk drive device serial: %s\n", ItemText(serial).c_str());
  ConsoleLog("FetchDiskDrives : Disk drive description : %s\n", description);
  disks->SetObjectForKey(*TextOf(bsdName), disk);
  walk.fusion = false;
}

// Walks one controller's devices; records at most one disk.
void WalkController(const PlistPtr& controller, DiskWalk& walk, const PlistPtr& disks) {
  const PlistPtr devices = ValueForKey(controller, "_items");
  if (Count(devices) == 0) {
    ErrorLogMessage(kNoArraysFound);
    return;
  }
  for (std::size_t i = 0; i < Count(devices); ++i) {
    const PlistPtr device = ObjectAtIndex(devices, i);
    if (!HasVolumes(device)) {
      if (const PlistPtr name = ValueForKey(device, "_name")) {
        ErrorLogMessage("FetchDiskDrives: this device %s is not hdd \n", ItemText(name).c_str());
      }
      continue;
    }
    if (IsFusionSolidStateHalf(device, walk.kinds)) {
      walk.pendingSolidStateSize = IntegerValueOf(ValueForKey(device, "size_in_bytes"));
      ConsoleLog("solidStateSize: %ld\n", static_cast<long>(walk.pendingSolidStateSize));
      walk.fusion = true;
      continue;
    }
    RecordDisk(device, walk, disks);
    return;
  }
}

// ---- Removable media.

PlistPtr RemovableMedium(const PlistPtr& medium) {
  const PlistPtr name = TextOrFiller(ValueForKey(medium, "_name"));
  const PlistPtr vendor = TextOrFiller(ValueForKey(medium, "b_vendor_id"));
  const bool removableMedia = TextOf(ValueForKey(medium, "removable_media")) == "yes";
  const std::string description =
      (removableMedia ? "removable - " : "") + ItemText(name) + " " + ItemText(vendor);

  PlistPtr manufacturer = ValueForKey(medium, "manufacturer");
  if (!manufacturer) manufacturer = ValueForKey(medium, "f_manufacturer");

  const PlistPtr disk = PlistValue::MakeDictionary();
  disk->SetObjectForKey("1301", name);
  disk->SetObjectForKey("1302", TextOrFiller(manufacturer));
  disk->SetObjectForKey("1303", Text(description));
  disk->SetObjectForKey("1304", Text(kFiller));
  disk->SetObjectForKey("1305", ValueForKey(medium, "bsd_name"));
  disk->SetObjectForKey("1306", Text(adjustBytes(ValueForKey(medium, "size_in_bytes"))));
  disk->SetObjectForKey("1307", Text(kFiller));
  disk->SetObjectForKey("1308", Text(kFiller));
  disk->SetObjectForKey("1309", Text(kFiller));
  disk->SetObjectForKey("1310", name);
  disk->SetObjectForKey("1311", TextOrFiller(ValueForKey(medium, "d_serial_num")));
  return disk;
}

// The disks of a walk over the controllers of a disk report, the machine classified as kinds.
PlistPtr DiskDrivesOf(const PlistPtr& controllers, const DiskKinds& kinds) {
  DiskWalk walk;
  walk.kinds = kinds;
  const PlistPtr disks = PlistValue::MakeDictionary();
  for (std::size_t i = 0; i < Count(controllers); ++i) {
    WalkController(ObjectAtIndex(controllers, i), walk, disks);
  }
  return disks;
}

// Records the media of one USB device (its own "_items").
void RecordMedia(const PlistPtr& device, const PlistPtr& disks) {
  const PlistPtr media = ValueForKey(device, "_items");
  for (std::size_t i = 0; i < Count(media); ++i) {
    const PlistPtr medium = ObjectAtIndex(media, i);
    const PlistPtr bsdName = ValueForKey(medium, "bsd_name");
    if (!bsdName) continue;
    if (!HasVolumes(medium)) {
      ErrorLogMessage("FetchDiskDriveInfo: this is not hdd \n");
      continue;
    }
    disks->SetObjectForKey(*TextOf(bsdName), RemovableMedium(medium));
  }
}

// A Boolean of a diskutil info dictionary; absent for a missing key or another kind.
std::optional<bool> Flag(const PlistPtr& info, std::string_view key) {
  const PlistPtr value = ValueForKey(info, key);
  return value && value->IsBoolean() ? value->AsBoolean() : std::nullopt;
}

// A value of a diskutil info dictionary when it is a text that is not empty (diskutil gives
// "" for a name it does not know); absent otherwise.
PlistPtr TextValue(const PlistPtr& info, std::string_view key) {
  const PlistPtr value = ValueForKey(info, key);
  return value && value->IsString() && !value->String().empty() ? value : nullptr;
}

// ---- Volumes.

// Runs diskutil with its output going to path, opens the file with the
// property-list store and deletes it at once.
std::unique_ptr<Proplisthandler> DiskutilStore(const std::vector<std::string>& arguments,
                                               const std::string& path) {
  CurrentPlatform().Tools().RunToFile(kDiskutil, arguments, path);
  std::unique_ptr<Proplisthandler> store = Proplisthandler::InitwithFile(path);
  RemoveFile(path);
  return store;
}

// For a volume diskutil calls external or removable: its whole disk ("ParentWholeDisk") as a
// removable medium, from "diskutil info -plist" of that disk, asked once per whole disk.
void AddWholeDiskOf(const PlistPtr& volumeInfo, const PlistPtr& removableDisks,
                    const ScratchDirectory& scratch) {
  if (!IsExternalVolume(volumeInfo)) return;
  const PlistPtr parent = TextValue(volumeInfo, "ParentWholeDisk");
  if (!parent || ValueForKey(removableDisks, parent->String())) return;
  const PlistPtr info =
      DiskutilStore({"info", "-plist", parent->String()},
                    scratch.FilePath("disk-" + std::to_string(Count(removableDisks)) + ".plist"))
          ->GetPropertyDict();
  removableDisks->SetObjectForKey(parent->String(),
                                  RemovableDiskFromDiskInfo(parent->String(), info));
  ConsoleLog("FetchMountedVolumes : external disk %s: %s\n", parent->String().c_str(),
             ItemText(TextValue(info, "MediaName")).c_str());
}

// "406"/"407": the converted size, or "-" when the size is absent.
PlistPtr VolumeSize(const PlistPtr& info, const char* key) {
  const PlistPtr size = ValueForKey(info, key);
  return Text(size ? adjustBytes(size) : kFiller);
}

PlistPtr FirstKeyOrFiller(const PlistPtr& dictionary) {
  return Text(Count(dictionary) > 0 ? dictionary->Entries().front().first : kFiller);
}

// The rows of instances keyed by property id, numbered from 1 in dictionary order; a value
// that is not a text raises after the rows before it.
void AppendInstanceRows(const PlistPtr& instances, std::int32_t classId, Rows& rows) {
  if (!instances) return;
  std::int32_t instanceNumber = 0;
  for (const auto& [key, instance] : instances->Entries()) {
    ++instanceNumber;
    if (!instance) continue;
    for (const auto& [propertyId, value] : instance->Entries()) {
      AddRow(rows, static_cast<std::int32_t>(std::strtol(propertyId.c_str(), nullptr, 10)), classId,
             instanceNumber, value ? OptText(value->String()) : std::nullopt);
    }
  }
}

}  // namespace

void ProplistXMLParser::FetchHDDDetails() {
  try {
    const bool modern = reportModernDisks;
    PlistPtr internal = FetchDiskDrives(true);
    if (!internal) internal = FetchDiskDrives(false);
    if (modern && Count(internal) == 0) {
      // An NVMe report without disks keeps what the other reports gave, unless they gave
      // nothing at all.
      const PlistPtr nvme = FetchNvmeDiskDrives();
      if (nvme && (Count(nvme) > 0 || !internal)) internal = nvme;
    }
    PlistPtr removable = FetchRemovableDiskDrives();
    const bool externalVolumes = modern && Count(removable) == 0;
    if (externalVolumes) removable = PlistValue::MakeDictionary();
    const PlistPtr volumes = FetchMountedVolumes(internal, removable, externalVolumes);
    RecordRowsOf([&](Rows& rows) { ParseDisksAndVolumes(internal, removable, volumes, rows); });
  } catch (const PlatformException& exception) {
    LogCaught(kHddDetailsSignature, __LINE__, "FetchHDDDetails", exception);
  }
}

PlistPtr ProplistXMLParser::FetchDiskDrives(bool serialAta) {
  try {
    PlistPtr controllers;
    if (serialAta) {
      controllers = GetItemsArrayfromPropertylist({"-xml", "SPSerialATADataType"});
      if (Count(controllers) == 0) return nullptr;
    } else {
      ConsoleWhere(kDiskDrivesSignature, __LINE__,
                   "Could n't get HDD info from SPSerialATADataType, trying with SPSASDataType");
      const PlistPtr items = GetItemsArrayfromPropertylist({"-xml", "SPSASDataType"});
      if (Count(items) == 0) {
        ConsoleWhere(kDiskDrivesSignature, __LINE__,
                     "Could n't get HDD info even from SPSASDataType, hence return from "
                     "function----");
        return nullptr;
      }
      controllers = ValueForKey(ObjectAtIndex(items, 0), "_items");
      if (Count(controllers) == 0) {
        ConsoleWhere(kDiskDrivesSignature, __LINE__,
                     "Could n't get HDD info even from SPSASDataType, hence return from function");
        return nullptr;
      }
    }
    return DiskDrivesFromControllers(controllers);
  } catch (const PlatformException& exception) {
    LogCaught(kDiskDrivesSignature, __LINE__, "FetchDiskDrives", exception);
    return nullptr;
  }
}

PlistPtr ProplistXMLParser::FetchNvmeDiskDrives() {
  try {
    ConsoleWhere(kNvmeSignature, __LINE__,
                 "No disk from SPSerialATADataType or SPSASDataType, trying with SPNVMeDataType");
    const PlistPtr controllers = GetItemsArrayfromPropertylist({"-xml", "SPNVMeDataType"});
    if (Count(controllers) == 0) {
      ConsoleWhere(kNvmeSignature, __LINE__, "No NVMe controller in SPNVMeDataType");
      return nullptr;
    }
    return DiskDrivesFromNvmeControllers(controllers);
  } catch (const PlatformException& exception) {
    LogCaught(kNvmeSignature, __LINE__, "FetchNvmeDiskDrives", exception);
    return nullptr;
  }
}

PlistPtr DiskDrivesFromControllers(const PlistPtr& controllers) {
  return DiskDrivesOf(controllers, getDiskType(controllers));
}

PlistPtr DiskDrivesFromNvmeControllers(const PlistPtr& controllers) {
  // Every NVMe disk is solid state and none rotational: no fusion halves, the first disk
  // recorded is the "SSD".
  return DiskDrivesOf(controllers, DiskKinds{true, false});
}

DiskKinds getDiskType(const PlistPtr& controllers) {
  DiskKinds kinds;
  try {
    for (std::size_t i = 0; i < Count(controllers); ++i) {
      const PlistPtr devices = ValueForKey(ObjectAtIndex(controllers, i), "_items");
      if (Count(devices) == 0) {
        ErrorLogMessage(kNoArraysFound);
        continue;
      }
      for (std::size_t j = 0; j < Count(devices); ++j) {
        const PlistPtr device = ObjectAtIndex(devices, j);
        if (!HasVolumes(device)) continue;
        const PlistPtr medium = ValueForKey(device, "spsata_medium_type");
        const std::string name = ItemText(ValueForKey(device, "_name"));
        if (SameIgnoringCase(medium, "Rotational")) {
          kinds.rotational = true;
          UserLogMessage("getDiskType:devicename : %s is rotational disk drive\n", name.c_str());
        }
        if (SameIgnoringCase(medium, "Solid State")) {
          kinds.solidState = true;
          UserLogMessage("getDiskType:devicename : %s is ssd\n", name.c_str());
        }
      }
    }
  } catch (const PlatformException& exception) {
    LogCaught(kDiskTypeSignature, __LINE__, "getDiskType", exception);
  }
  return kinds;
}

PlistPtr ProplistXMLParser::FetchRemovableDiskDrives() {
  try {
    const std::optional<std::string> output =
        GetOutputForExecution(kSystemProfiler, {"-xml", "SPUSBDataType"});
    return RemovableDisksFromReport(output ? ParsePlist(*output) : nullptr);
  } catch (const PlatformException& exception) {
    LogCaught(kRemovableSignature, __LINE__, "FetchRemovableDiskDrives", exception);
    return nullptr;
  }
}

PlistPtr RemovableDisksFromReport(const PlistPtr& report) {
  const PlistPtr disks = PlistValue::MakeDictionary();
  if (Count(report) == 0) return disks;
  const PlistPtr buses = ValueForKey(ObjectAtIndex(report, 0), "_items");
  for (std::size_t i = 0; i < Count(buses); ++i) {
    const PlistPtr devices = ValueForKey(ObjectAtIndex(buses, i), "_items");
    if (Count(devices) == 0) {
      ErrorLogMessage("FetchDiskDriveInfo: no arrays found \n");
      continue;
    }
    for (std::size_t j = 0; j < Count(devices); ++j) RecordMedia(ObjectAtIndex(devices, j), disks);
  }
  return disks;
}

PlistPtr ProplistXMLParser::FetchMountedVolumes(const PlistPtr& internalDisks,
                                                const PlistPtr& removableDisks,
                                                bool externalVolumes) {
  try {
    // The tool outputs go to a private folder and are named by position: volume names are
    // chosen by users and may hold "/" or "..". The folder goes with everything left in it.
    const ScratchDirectory scratch(CurrentDirectory());
    if (!scratch.valid()) {
      ConsoleWhere(kVolumesSignature, __LINE__,
                   "FetchMountedVolumes : no folder for the temporary files\n");
      return nullptr;
    }
    const PlistPtr identifiers =
        DiskutilStore({"list", "-plist"}, scratch.FilePath("volumes.plist"))
            ->GetValueForKey("VolumesFromDisks");
    ConsoleWhere(kVolumesSignature, __LINE__, "FetchMountedVolumes : volumesList : %s ",
                 ItemText(identifiers).c_str());
    const PlistPtr volumes = PlistValue::MakeDictionary();
    for (std::size_t i = 0; i < Count(identifiers); ++i) {
      const std::string identifier = *TextOf(ObjectAtIndex(identifiers, i));
      const PlistPtr info =
          DiskutilStore({"info", "-plist", identifier},
                        scratch.FilePath("volume-" + std::to_string(i) + ".plist"))
              ->GetPropertyDict();
      if (externalVolumes) AddWholeDiskOf(info, removableDisks, scratch);
      if (PlistPtr volume =
              VolumeInstance(identifier, info, internalDisks, removableDisks, externalVolumes)) {
        volumes->SetObjectForKey(identifier, volume);
      }
    }
    return volumes;
  } catch (const PlatformException& exception) {
    LogCaught(kVolumesSignature, __LINE__, "FetchMountedVolumes", exception);
    return nullptr;
  }
}

bool IsExternalVolume(const PlistPtr& info) {
  if (const PlistPtr bus = ValueForKey(info, "BusProtocol");
      bus && bus->IsString() && bus->String() == "Disk Image") {
    return false;  // a mounted disk image is a file, not a medium
  }
  return Flag(info, "Internal") == false || Flag(info, "RemovableMediaOrExternalDevice") == true;
}

PlistPtr RemovableDiskFromDiskInfo(const std::string& wholeDisk, const PlistPtr& info) {
  // The whole disk as a USB report's medium would show it, recorded by the same rules.
  const PlistPtr medium = PlistValue::MakeDictionary();
  medium->SetValueForKey("_name", TextValue(info, "MediaName"));
  medium->SetObjectForKey("bsd_name", Text(wholeDisk));
  medium->SetObjectForKey("removable_media",
                          Text(Flag(info, "RemovableMedia") == true ? "yes" : "no"));
  const PlistPtr size = ValueForKey(info, "Size");
  if (size && (size->IsInteger() || size->IsReal())) medium->SetObjectForKey("size_in_bytes", size);
  return RemovableMedium(medium);
}

PlistPtr VolumeInstance(const std::string& identifier, const PlistPtr& info,
                        const PlistPtr& internalDisks, const PlistPtr& removableDisks,
                        bool externalIsRemovable) {
  const PlistPtr mountPoint = ValueForKey(info, "MountPoint");
  const bool removable = IntegerValueOf(ValueForKey(info, "Ejectable")) != 0 ||
                         (externalIsRemovable && IsExternalVolume(info));
  const PlistPtr volumeName = ValueForKey(info, "VolumeName");

  PlistPtr parent;
  if (removable) {
    parent = ValueForKey(info, "ParentWholeDisk");
    if (!parent || !parent->IsString() || !ValueForKey(removableDisks, parent->String())) {
      ErrorLogMessage("This volume %s is not a hdd\n", identifier.c_str());
      return nullptr;
    }
  } else {
    parent = FirstKeyOrFiller(internalDisks);
  }
  const std::string label = removable ? "Removable Disk" : "Local Fixed Disk";

  const PlistPtr volume = PlistValue::MakeDictionary();
  volume->SetObjectForKey("401", mountPoint);  // raises for a volume that is not mounted
  volume->SetObjectForKey("402", Text(volumeName ? label + " : " + ItemText(volumeName) : label));
  volume->SetObjectForKey("403", Text(removable ? "2" : "3"));
  volume->SetObjectForKey("404", Text(removable ? "11" : "12"));
  volume->SetObjectForKey("405", TextOrFiller(ValueForKey(info, "FilesystemName")));
  volume->SetObjectForKey("406", VolumeSize(info, "TotalSize"));
  volume->SetObjectForKey("407", VolumeSize(info, "FreeSpace"));
  volume->SetObjectForKey("408", TextOrFiller(ValueForKey(info, "VolumeUUID")));
  volume->SetObjectForKey("409", Text(kFiller));
  volume->SetObjectForKey("410", TextOrFiller(ValueForKey(info, "DeviceIdentifier")));
  volume->SetObjectForKey("411", parent);
  return volume;
}

void ParseDisksAndVolumes(const PlistPtr& internalDisks, const PlistPtr& removableDisks,
                          const PlistPtr& volumes, Rows& rows) {
  // After the volumes were built: fixed volumes are attributed to internal disks only.
  if (internalDisks && removableDisks) {
    for (const auto& [key, disk] : removableDisks->Entries()) {
      internalDisks->SetObjectForKey(key, disk);
    }
  }
  AppendInstanceRows(internalDisks, kDiskDriveClassId, rows);
  AppendInstanceRows(volumes, kVolumeClassId, rows);
}

}  // namespace tarn
