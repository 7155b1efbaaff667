// The difference document (invDiffData) a difference upload sends as JSON: class id to status
// marker to instances (software: to group, then instances), plus "USER" and "AgentParams".
//
// Status markers: "0" newly added, "1" deleted, "2" modified, "3" not modified (computed,
// never filed).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/plist/plist_value.h"
#include "tarninventory/src/scandata.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

inline constexpr const char* kStatusNew = "0";
inline constexpr const char* kStatusDeleted = "1";
inline constexpr const char* kStatusModified = "2";
inline constexpr const char* kStatusNotModified = "3";

// Files the instance without "KEY" under invDiffData[class][status] (software goes through
// AddtoSWDiffData). 0, or 1 after a caught failure.
DWORD AddtoDiffData(const std::string& status, std::int32_t classId,
                    const ScanData::Instance& instance);
// Files a software entry under invDiffData[class][status][group], group
// "OS_EXT" (its "1814" then becomes "-") or "S-1-1-0". 0, or 1 after a failure.
DWORD AddtoSWDiffData(const std::string& status, std::int32_t classId, const PlistPtr& instance);
// Sets "USER" of the difference document.
void AddUserinDict(const PlistPtr& diffData);
// Sets "AgentParams" of the difference document.
void AddAgentParamsinDict(const PlistPtr& diffData, const std::optional<std::string>& auditId,
                          const std::string& currentScanTime,
                          const std::optional<std::string>& previousScanTime);

}  // namespace tarn
