// Matching a filed instance against the previous snapshot (the run's FullScanHandler).
#pragma once

#include <cstdint>
#include <string>

#include "tarninventory/src/scandata.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

// CompareDicts' answer for instances that differ.
inline constexpr DWORD kDictsDiffer = 1000;

// Matches the filed instance against the previous snapshot by "KEY" and
// removes the match from it: "0" new, "2" modified, "3" not modified.
std::string GetDictStatus(const ScanData::Instance& instance, std::int32_t classId);
// kDictsDiffer when a key of current is missing from previous or has another
// value there; 0 otherwise (keys only previous has are not looked at).
DWORD CompareDicts(const ScanData::Instance& current, const ScanData::Instance& previous);

}  // namespace tarn
