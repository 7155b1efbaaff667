// The server's data in SQLite: computers with their resource ids, each computer's
// current inventory, its last agent parameters, and the history of its uploads with
// the changes each difference brought. Every upload is one transaction: a refused or
// failed upload changes nothing. Safe to use from several threads (one connection,
// one lock).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/refserver/apply.h"
#include "tools/refserver/catalogue.h"
#include "tools/refserver/inventory.h"
#include "tools/refserver/sqlite.h"
#include "tools/refserver/upload.h"

namespace tarn::refserver {

struct ComputerSummary {
  std::int64_t id = 0;  // the resource id
  std::string customerId;
  std::string domain;
  std::string name;
  std::int64_t firstSeen = 0;  // seconds since 1970
  int uploads = 0;
  std::int64_t lastUpload = 0;  // 0 when none
  std::string lastKind;         // "full" or "difference", empty when none
  int classes = 0;
  int instances = 0;
};

// Per class in one upload: instances held afterwards and what the upload changed.
struct UploadClass {
  int instances = 0;
  ClassChanges changes;
};

struct UploadRecord {
  std::int64_t id = 0;
  std::int64_t received = 0;
  std::string kind;  // "full" or "difference"
  std::string auditId;
  std::string resourceId;  // as the query gave it, empty when absent
  std::string scanTime;
  std::string previousScanTime;
  bool onDemand = false;
  std::int64_t bodySize = 0;
  std::map<int, UploadClass> classes;
  std::vector<ChangedItem> items;
};

struct ComputerDetails {
  ComputerSummary summary;
  Inventory inventory;
  NameValues agentParams;
  std::vector<UploadRecord> uploads;  // newest first
};

// What an accepted upload did, for its answer and the access log.
struct UploadResult {
  std::int64_t computerId = 0;
  std::int64_t uploadId = 0;
  std::string summary;  // one line
  // A difference already applied (same previous scan time, same changes since the last
  // full inventory): accepted without applying it again; uploadId is the earlier one.
  bool alreadyApplied = false;
};

class Store {
 public:
  // Opens or creates the database and its tables.
  explicit Store(const std::string& path);

  // The resource id of the computer, created on first request; the same triple always
  // gives the same id.
  std::int64_t ResourceId(const std::string& customerId, const std::string& domain,
                          const std::string& computer);

  // Replaces the computer's inventory (creating the computer when it is new).
  UploadResult StoreFull(const UploadQuery& query, const FullUpload& upload,
                         std::size_t bodySize);

  // Applies a difference. Raises UploadError(409) when the computer has no full
  // inventory yet; nothing is changed then. A difference whose previous scan time and
  // changes equal one applied since the last full inventory (the scanner sends it
  // again when it did not see the answer) is accepted without being applied again.
  UploadResult StoreDifference(const UploadQuery& query, const DifferenceUpload& upload,
                               std::size_t bodySize, const Catalogue& catalogue);

  std::vector<ComputerSummary> Computers();
  std::optional<ComputerDetails> Computer(std::int64_t id);

 private:
  std::optional<std::int64_t> FindComputer(const UploadQuery& query);
  std::int64_t FindOrCreateComputer(const std::string& customerId, const std::string& domain,
                                    const std::string& computer);
  std::optional<std::int64_t> AppliedDifferenceUpload(std::int64_t computerId,
                                                      const std::string& previousScanTime,
                                                      const std::string& digest);
  Inventory LoadInventory(std::int64_t computerId);
  void SaveInventory(std::int64_t computerId, const Inventory& inventory);
  void SaveAgentParams(std::int64_t computerId, const NameValues& params);
  std::int64_t AddUpload(std::int64_t computerId, const UploadQuery& query, const char* kind,
                         std::size_t bodySize);
  void AddUploadClasses(std::int64_t uploadId, const Inventory& inventory,
                        const std::map<int, ClassChanges>& changes);
  std::vector<UploadRecord> LoadUploads(std::int64_t computerId);
  std::optional<ComputerSummary> Summary(std::int64_t computerId);

  std::mutex mutex_;
  Database db_;
};

}  // namespace tarn::refserver
