// Recording of one scan: the rows of the five upload tables (WMIFetchedValue,
// WMIData, Resource, InvAuditEntry, AgentParams), the gathering of recorded
// values into class instances (invScanData), and, in a difference scan, the
// comparison of each finished instance with the previous snapshot that fills
// the difference document (invDiffData).
//
// Difference status markers: "0" newly added, "1" deleted, "2" modified,
// "3" not modified (computed, never filed).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/imds/dataset.h"
#include "platform/plist/plist_value.h"
#include "tarninventory/src/scandata.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

inline constexpr const char* kStatusNew = "0";
inline constexpr const char* kStatusDeleted = "1";
inline constexpr const char* kStatusModified = "2";
inline constexpr const char* kStatusNotModified = "3";

// CompareDicts' answer for instances that differ.
inline constexpr DWORD kDictsDiffer = 1000;

// The software class, whose difference entries are grouped.
inline constexpr std::int32_t kSoftwareClassId = 18;

// ---- Rows.

// Records every entry of instance (property id text to value text) for the
// class and instance number, in the dictionary's key order. A value that is
// not text raises PlatformException (the collectors' guards end on it).
void addtoTable(const PlistPtr& instance, std::int32_t classId, std::int32_t instanceNumber);
// Records every instance dictionary held by instances; the instance number is
// the 1-based position in the outer dictionary's key order.
void addtoTable(const PlistPtr& instances, std::int32_t classId);

// Records one value: hands it to SaveScanData (property 117 always as
// instance 1) and adds a WMIFetchedValue row with the next value id and the
// value escaped by alterChars ("-" when absent).
void AddRowWMIFetchValueTable(std::int32_t propertyId, std::int32_t classId,
                              std::int32_t instanceNumber, std::int32_t flag,
                              const std::optional<std::string>& value);

// Adds the WMIData row (owner "S-1-1-0" without a security id).
void CreateWMIParentTablevalues(std::uint32_t number, const std::optional<std::string>& securityId);
// Adds the Resource row; the row, or null on failure.
RowObject* createComputerInfoRow();
// Adds the InvAuditEntry row; the row, or null on failure.
RowObject* createInvAuditEntryRow(std::int64_t auditId);
// Adds one AgentParams row. Always 0.
DWORD CreateAndAddAgentParamsRow(const std::optional<std::string>& paramName,
                                 const std::optional<std::string>& paramValue, std::int32_t number);
// Re-creates AgentParams with this run's parameters.
void AddAgentParamsforInvinXML(const std::string& currentScanTime,
                               const std::optional<std::string>& previousScanTime);

// ---- Instances and differences.

// Gathers one recorded value into the instance being built and files the
// instance when the class or instance number changes or when the
// catalogue's last property id is recorded. The flag is not used.
void SaveScanData(std::int32_t propertyId, std::int32_t classId, std::int32_t instanceNumber,
                  std::int32_t flag, const std::optional<std::string>& value);
// Files a finished instance: appends it with its "KEY" to invScanData and,
// in a difference scan, files it as new or modified in invDiffData.
void WriteToINVScanData(const PendingInstance& instance, std::int32_t classId);
// Matches the filed instance against the previous snapshot by "KEY" and
// removes the match from it: "0" new, "2" modified, "3" not modified.
std::string GetDictStatus(const ScanData::Instance& instance, std::int32_t classId);
// kDictsDiffer when a key of current is missing from previous or has another
// value there; 0 otherwise (keys only previous has are not looked at). A
// value that is not text ends the comparison as a failure, which answers 0.
DWORD CompareDicts(const ScanData::Instance& current, const PlistPtr& previous);
DWORD CompareDicts(const ScanData::Instance& current, const ScanData::Instance& previous);
DWORD CompareDicts(const PlistPtr& current, const PlistPtr& previous);
// Files a copy of the instance without "KEY" under invDiffData[class][status]
// (software goes through AddtoSWDiffData). 0, or 1 after a caught failure.
DWORD AddtoDiffData(const std::string& status, std::int32_t classId, const PlistPtr& instance);
// Files a software instance under invDiffData[class][status][group], group
// "OS_EXT" (its "1814" then becomes "-") or "S-1-1-0". 0, or 1 after a failure.
DWORD AddtoSWDiffData(const std::string& status, std::int32_t classId, const PlistPtr& instance);
// Sets "USER" of the difference document.
void AddUserinDict(const PlistPtr& diffData);
// Sets "AgentParams" of the difference document.
void AddAgentParamsinDict(const PlistPtr& diffData, const std::optional<std::string>& auditId,
                          const std::string& currentScanTime,
                          const std::optional<std::string>& previousScanTime);

}  // namespace tarn
