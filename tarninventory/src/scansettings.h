// The choice between a full and a difference scan.
//
// A requested run type is confirmed or overridden from three sources: the
// scan settings file the server distributes (an XML document with an
// InvParams table, loaded into the store), the scan state store
// "tarninventory_data.plist" (CurrentScanRun().tarninventory_datalist) and
// the state of the previous snapshot file "invFullData".
#pragma once

#include <cstdint>

namespace tarn {

struct RunContext;

// Keys of the scan state store. Every value is text.
inline constexpr const char* kDiffSettingsModifiedTimeMeta = "DIFF_SETTINGS_MODIFIED_TIME_META";
inline constexpr const char* kDiffSettingsXmlName = "DIFF_SETTINGS_XML_NAME";
inline constexpr const char* kDiffSettingsModifiedTimeLocal = "DIFF_SETTINGS_MODIFIED_TIME_LOCAL";
inline constexpr const char* kFullScanUpdatedTime = "FULL_SCAN_UPDATED_TIME";
inline constexpr const char* kEnableOneTimeFullscan = "ENABLE_ONE_TIME_FULLSCAN";
inline constexpr const char* kEnableDiffScan = "ENABLE_DIFF_SCAN";
inline constexpr const char* kInvFullDataLastModified = "INV_FULL_DATA_LAST_MODIFIED";
inline constexpr const char* kInvScanTime = "INV_SCAN_TIME";
inline constexpr const char* kInvDiffScanTime = "INV_DIFF_SCAN_TIME";

// File names in the agent data-dictionary directory.
inline constexpr const char* kScanStateStoreFileName = "tarninventory_data.plist";
inline constexpr const char* kSnapshotFileName = "invFullData";

// Re-reads the settings file when its stamp changed and applies it: may owe
// a one-time full scan, stores ENABLE_DIFF_SCAN, and gives 5 when the file
// disables difference scans; otherwise the requested type (also when the file
// has no name or does not load, and when it allows difference scans).
std::int32_t ReadScanSettingsFromXml(std::int32_t requested);

// True when the settings file's FULL_SCAN_UPDATED_TIME differs from the one
// last seen (stored then), or when the file has no such value.
bool IsOneTimeFullScanEnabled();

// The requested type after the settings, the stored ENABLE_DIFF_SCAN and the
// one-time full-scan latch have been applied.
std::int32_t ReadSettingsXml(std::int32_t requested);

// The driver's decision: ReadSettingsXml, then the previous snapshot's state
// and the operating-system rule. Loads the snapshot into the run's
// fullScanobj when the snapshot can be trusted; a file that holds no usable
// snapshot (no handler) makes the result 5.
std::int32_t DecideRunType(const RunContext& context, std::int32_t requested);

}  // namespace tarn
