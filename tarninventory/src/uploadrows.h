// The rows of the five upload tables of a full scan: WMIFetchedValue (one per recorded value,
// also handed to the recorder), WMIData, Resource, InvAuditEntry and AgentParams.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/imds/dataset.h"
#include "platform/plist/plist_value.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

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
                              std::optional<std::string_view> value);

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

}  // namespace tarn
