// Reading inventory uploads: the query of POST /inventory, the full inventory (an
// XML document of table rows) and the difference (a JSON document of added, deleted
// and modified instances). Everything is checked against the class catalogue; what
// does not fit raises UploadError with the HTTP status and a one-line reason.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/inventory.h"

namespace tarn::refserver {

class UploadError : public std::runtime_error {
 public:
  UploadError(int status, const std::string& reason) : std::runtime_error(reason), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

using NameValues = std::vector<std::pair<std::string, std::string>>;

struct UploadQuery {
  std::string computer;
  std::string domain;
  std::string customerId;
  std::string auditId;
  std::string remoteOfficeId;
  std::optional<std::string> resourceId;
  bool onDemand = false;
  bool full = true;  // scanType=1; scanType=0 is a difference
  std::string currentScanTime;
  std::string previousScanTime;  // differences only
};

// Reads and checks the query parameters (first value of each name). Raises
// UploadError(400) naming the missing or invalid parameter.
UploadQuery ReadUploadQuery(const std::multimap<std::string, std::string>& parameters);

struct FullUpload {
  Inventory inventory;
  NameValues agentParams;
  std::size_t valueCount = 0;
};

// Reads a full inventory document: root TarnWMIData with WMIData, WMIFetchedValue,
// AgentParams, Resource and InvAuditEntry rows. Values are grouped by class and
// instance number; a property written twice for one instance keeps its last value;
// property 117 of the OS class belongs to OS instance 1 whatever instance number its
// row carries (the scanner records it so).
FullUpload ParseFullUpload(std::string_view body, const Catalogue& catalogue);

struct InstanceChange {
  int classId = 0;
  Change change = Change::kAdded;
  Instance instance;  // for the OS software row, 1814 is "OS_EXT" again
};

struct DifferenceUpload {
  std::vector<InstanceChange> changes;  // in document order
  NameValues agentParams;
  NameValues user;
};

// Reads a difference document: class id -> status -> instances, the software class
// with a group level (OS_EXT or S-1-1-0) between status and instances, plus the
// "USER" and "AgentParams" dictionaries. Instance values end at their first control
// character, as the scanner cleans the values of a full inventory.
DifferenceUpload ParseDifferenceUpload(std::string_view body, const Catalogue& catalogue);

}  // namespace tarn::refserver
