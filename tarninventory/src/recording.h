// The gathering of recorded values into class instances (invScanData, ScanData) and, in a
// difference scan, the filing of each finished instance that is new or modified.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tarninventory/src/scandata.h"

namespace tarn {

// Gathers one recorded value into the instance being built and files the
// instance when the class or instance number changes or when the
// catalogue's last property id is recorded. The flag is not used.
void SaveScanData(std::int32_t propertyId, std::int32_t classId, std::int32_t instanceNumber,
                  std::int32_t flag, std::optional<std::string_view> value);
// Files a finished instance: appends it with its "KEY" to invScanData and,
// in a difference scan, files it as new or modified in invDiffData.
void WriteToINVScanData(const PendingInstance& instance, std::int32_t classId);

}  // namespace tarn
