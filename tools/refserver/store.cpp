#include "tools/refserver/store.h"

#include <openssl/sha.h>

#include <ctime>

namespace tarn::refserver {

namespace {

constexpr const char* kSchema = R"sql(
PRAGMA journal_mode = WAL;
PRAGMA foreign_keys = ON;
CREATE TABLE IF NOT EXISTS computers (
  id INTEGER PRIMARY KEY,
  customer_id TEXT NOT NULL,
  domain TEXT NOT NULL,
  name TEXT NOT NULL,
  first_seen INTEGER NOT NULL,
  UNIQUE (customer_id, domain, name)
);
CREATE TABLE IF NOT EXISTS property_values (
  computer_id INTEGER NOT NULL REFERENCES computers (id),
  class_id INTEGER NOT NULL,
  instance INTEGER NOT NULL,
  property_id INTEGER NOT NULL,
  value TEXT NOT NULL,
  PRIMARY KEY (computer_id, class_id, instance, property_id)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS agent_params (
  computer_id INTEGER NOT NULL REFERENCES computers (id),
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  value TEXT NOT NULL,
  PRIMARY KEY (computer_id, position)
);
CREATE TABLE IF NOT EXISTS uploads (
  id INTEGER PRIMARY KEY,
  computer_id INTEGER NOT NULL REFERENCES computers (id),
  received INTEGER NOT NULL,
  kind TEXT NOT NULL CHECK (kind IN ('full', 'difference')),
  audit_id TEXT NOT NULL,
  resource_id TEXT NOT NULL,
  scan_time TEXT NOT NULL,
  prev_scan_time TEXT NOT NULL,
  on_demand INTEGER NOT NULL,
  body_size INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS uploads_by_computer ON uploads (computer_id, id);
CREATE TABLE IF NOT EXISTS upload_classes (
  upload_id INTEGER NOT NULL REFERENCES uploads (id),
  class_id INTEGER NOT NULL,
  instances INTEGER NOT NULL,
  added INTEGER NOT NULL,
  deleted INTEGER NOT NULL,
  modified INTEGER NOT NULL,
  unmatched INTEGER NOT NULL,
  PRIMARY KEY (upload_id, class_id)
);
CREATE TABLE IF NOT EXISTS difference_digests (
  upload_id INTEGER PRIMARY KEY REFERENCES uploads (id),
  computer_id INTEGER NOT NULL REFERENCES computers (id),
  prev_scan_time TEXT NOT NULL,
  digest TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS difference_digests_by_computer
  ON difference_digests (computer_id, prev_scan_time, digest);
CREATE TABLE IF NOT EXISTS upload_items (
  upload_id INTEGER NOT NULL REFERENCES uploads (id),
  position INTEGER NOT NULL,
  class_id INTEGER NOT NULL,
  status INTEGER NOT NULL,
  label TEXT NOT NULL,
  PRIMARY KEY (upload_id, position)
);
)sql";

std::int64_t Now() { return static_cast<std::int64_t>(std::time(nullptr)); }

// SHA-256 (hex) of the changes a difference carries, written unambiguously (every
// field with its length), so that two sendings of one difference give one digest.
std::string ChangesDigest(const std::vector<InstanceChange>& changes) {
  std::string content;
  auto field = [&content](std::string_view text) {
    content += std::to_string(text.size());
    content += ':';
    content += text;
  };
  for (const InstanceChange& change : changes) {
    field(std::to_string(change.classId));
    field(std::to_string(static_cast<int>(change.change)));
    field(std::to_string(change.instance.size()));
    for (const auto& [propertyId, value] : change.instance) {
      field(std::to_string(propertyId));
      field(value);
    }
  }
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(content.data()), content.size(), digest);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (const unsigned char byte : digest) {
    hex += kHex[byte >> 4];
    hex += kHex[byte & 0xF];
  }
  return hex;
}

std::size_t InstanceCount(const Inventory& inventory) {
  std::size_t count = 0;
  for (const auto& [classId, instances] : inventory) count += instances.size();
  return count;
}

}  // namespace

Store::Store(const std::string& path) : db_(path) { db_.Execute(kSchema); }

std::int64_t Store::ResourceId(const std::string& customerId, const std::string& domain,
                               const std::string& computer) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  const std::int64_t id = FindOrCreateComputer(customerId, domain, computer);
  transaction.Commit();
  return id;
}

std::int64_t Store::FindOrCreateComputer(const std::string& customerId, const std::string& domain,
                                         const std::string& computer) {
  db_.Prepare(
         "INSERT OR IGNORE INTO computers (customer_id, domain, name, first_seen) "
         "VALUES (?, ?, ?, ?)")
      .Bind(1, customerId)
      .Bind(2, domain)
      .Bind(3, computer)
      .Bind(4, Now())
      .Run();
  Statement find = db_.Prepare(
      "SELECT id FROM computers WHERE customer_id = ? AND domain = ? AND name = ?");
  find.Bind(1, customerId).Bind(2, domain).Bind(3, computer);
  if (!find.Step()) throw SqliteError("computer vanished after its insertion");
  return find.Int(0);
}

std::optional<std::int64_t> Store::FindComputer(const UploadQuery& query) {
  Statement find = db_.Prepare(
      "SELECT c.id FROM computers c WHERE c.customer_id = ? AND c.domain = ? AND c.name = ? "
      "AND EXISTS (SELECT 1 FROM uploads u WHERE u.computer_id = c.id AND u.kind = 'full')");
  find.Bind(1, query.customerId).Bind(2, query.domain).Bind(3, query.computer);
  if (!find.Step()) return std::nullopt;
  return find.Int(0);
}

UploadResult Store::StoreFull(const UploadQuery& query, const FullUpload& upload,
                              std::size_t bodySize) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  const std::int64_t computerId =
      FindOrCreateComputer(query.customerId, query.domain, query.computer);
  SaveInventory(computerId, upload.inventory);
  SaveAgentParams(computerId, upload.agentParams);
  const std::int64_t uploadId = AddUpload(computerId, query, "full", bodySize);
  AddUploadClasses(uploadId, upload.inventory, {});
  transaction.Commit();
  return {computerId, uploadId,
          "full inventory of " + query.computer + " stored: " +
              std::to_string(upload.inventory.size()) + " classes, " +
              std::to_string(InstanceCount(upload.inventory)) + " instances, " +
              std::to_string(upload.valueCount) + " values"};
}

UploadResult Store::StoreDifference(const UploadQuery& query, const DifferenceUpload& upload,
                                    std::size_t bodySize, const Catalogue& catalogue) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  const auto computerId = FindComputer(query);
  if (!computerId) {
    throw UploadError(409, "difference for " + query.computer + " (domain " + query.domain +
                               ", customer " + query.customerId +
                               ") refused: the server holds no full inventory of it yet");
  }
  const std::string digest = ChangesDigest(upload.changes);
  if (const auto earlier = AppliedDifferenceUpload(*computerId, query.previousScanTime, digest)) {
    return {*computerId, *earlier,
            "difference for " + query.computer + " already applied as upload " +
                std::to_string(*earlier) + ", not applied again",
            true};
  }
  Inventory inventory = LoadInventory(*computerId);
  const AppliedDifference applied = ApplyDifference(inventory, upload.changes, catalogue);
  SaveInventory(*computerId, inventory);
  SaveAgentParams(*computerId, upload.agentParams);
  const std::int64_t uploadId = AddUpload(*computerId, query, "difference", bodySize);
  AddUploadClasses(uploadId, inventory, applied.classes);
  db_.Prepare(
         "INSERT INTO difference_digests (upload_id, computer_id, prev_scan_time, digest) "
         "VALUES (?, ?, ?, ?)")
      .Bind(1, uploadId)
      .Bind(2, *computerId)
      .Bind(3, query.previousScanTime)
      .Bind(4, digest)
      .Run();
  Statement item = db_.Prepare(
      "INSERT INTO upload_items (upload_id, position, class_id, status, label) "
      "VALUES (?, ?, ?, ?, ?)");
  std::int64_t position = 0;
  for (const ChangedItem& changed : applied.items) {
    item.Bind(1, uploadId)
        .Bind(2, position++)
        .Bind(3, changed.classId)
        .Bind(4, static_cast<std::int64_t>(changed.change))
        .Bind(5, changed.label)
        .Run();
  }
  transaction.Commit();
  ClassChanges total;
  for (const auto& [classId, counts] : applied.classes) {
    total.added += counts.added;
    total.deleted += counts.deleted;
    total.modified += counts.modified;
    total.unmatched += counts.unmatched;
  }
  std::string summary = "difference for " + query.computer + " applied: " +
                        std::to_string(total.added) + " added, " +
                        std::to_string(total.deleted) + " deleted, " +
                        std::to_string(total.modified) + " modified";
  if (total.unmatched > 0) {
    summary += ", " + std::to_string(total.unmatched) + " not matching the stored inventory";
  }
  return {*computerId, uploadId, summary};
}

std::optional<std::int64_t> Store::AppliedDifferenceUpload(std::int64_t computerId,
                                                           const std::string& previousScanTime,
                                                           const std::string& digest) {
  // Only differences applied since the computer's last full inventory count: a full
  // upload replaces everything they did.
  Statement find = db_.Prepare(R"sql(
    SELECT d.upload_id FROM difference_digests d
    WHERE d.computer_id = ?1 AND d.prev_scan_time = ?2 AND d.digest = ?3
      AND d.upload_id > (SELECT MAX(u.id) FROM uploads u
                         WHERE u.computer_id = ?1 AND u.kind = 'full')
    ORDER BY d.upload_id LIMIT 1)sql");
  find.Bind(1, computerId).Bind(2, previousScanTime).Bind(3, digest);
  if (!find.Step()) return std::nullopt;
  return find.Int(0);
}

Inventory Store::LoadInventory(std::int64_t computerId) {
  Inventory inventory;
  Statement select = db_.Prepare(
      "SELECT class_id, instance, property_id, value FROM property_values WHERE computer_id = ?");
  select.Bind(1, computerId);
  while (select.Step()) {
    inventory[static_cast<int>(select.Int(0))][static_cast<int>(select.Int(1))]
             [static_cast<int>(select.Int(2))] = select.Text(3);
  }
  return inventory;
}

void Store::SaveInventory(std::int64_t computerId, const Inventory& inventory) {
  db_.Prepare("DELETE FROM property_values WHERE computer_id = ?").Bind(1, computerId).Run();
  Statement insert = db_.Prepare(
      "INSERT INTO property_values (computer_id, class_id, instance, property_id, value) "
      "VALUES (?, ?, ?, ?, ?)");
  for (const auto& [classId, instances] : inventory) {
    for (const auto& [number, instance] : instances) {
      for (const auto& [propertyId, value] : instance) {
        insert.Bind(1, computerId)
            .Bind(2, classId)
            .Bind(3, number)
            .Bind(4, propertyId)
            .Bind(5, value)
            .Run();
      }
    }
  }
}

void Store::SaveAgentParams(std::int64_t computerId, const NameValues& params) {
  db_.Prepare("DELETE FROM agent_params WHERE computer_id = ?").Bind(1, computerId).Run();
  Statement insert = db_.Prepare(
      "INSERT INTO agent_params (computer_id, position, name, value) VALUES (?, ?, ?, ?)");
  std::int64_t position = 0;
  for (const auto& [name, value] : params) {
    insert.Bind(1, computerId).Bind(2, position++).Bind(3, name).Bind(4, value).Run();
  }
}

std::int64_t Store::AddUpload(std::int64_t computerId, const UploadQuery& query, const char* kind,
                              std::size_t bodySize) {
  db_.Prepare(
         "INSERT INTO uploads (computer_id, received, kind, audit_id, resource_id, scan_time, "
         "prev_scan_time, on_demand, body_size) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)")
      .Bind(1, computerId)
      .Bind(2, Now())
      .Bind(3, std::string_view(kind))
      .Bind(4, query.auditId)
      .Bind(5, query.resourceId.value_or(""))
      .Bind(6, query.currentScanTime)
      .Bind(7, query.previousScanTime)
      .Bind(8, std::int64_t{query.onDemand ? 1 : 0})
      .Bind(9, static_cast<std::int64_t>(bodySize))
      .Run();
  return db_.LastInsertId();
}

void Store::AddUploadClasses(std::int64_t uploadId, const Inventory& inventory,
                             const std::map<int, ClassChanges>& changes) {
  Statement insert = db_.Prepare(
      "INSERT INTO upload_classes (upload_id, class_id, instances, added, deleted, modified, "
      "unmatched) VALUES (?, ?, ?, ?, ?, ?, ?)");
  auto add = [&](int classId, const ClassChanges& counts) {
    const auto held = inventory.find(classId);
    insert.Bind(1, uploadId)
        .Bind(2, classId)
        .Bind(3, static_cast<std::int64_t>(held != inventory.end() ? held->second.size() : 0))
        .Bind(4, counts.added)
        .Bind(5, counts.deleted)
        .Bind(6, counts.modified)
        .Bind(7, counts.unmatched)
        .Run();
  };
  if (changes.empty()) {
    // A full upload: every class it holds.
    for (const auto& [classId, instances] : inventory) add(classId, {});
  } else {
    for (const auto& [classId, counts] : changes) add(classId, counts);
  }
}

std::vector<ComputerSummary> Store::Computers() {
  std::lock_guard lock(mutex_);
  std::vector<ComputerSummary> computers;
  Statement select = db_.Prepare("SELECT id FROM computers ORDER BY id");
  while (select.Step()) {
    if (auto summary = Summary(select.Int(0))) computers.push_back(std::move(*summary));
  }
  return computers;
}

std::optional<ComputerSummary> Store::Summary(std::int64_t computerId) {
  Statement select = db_.Prepare(R"sql(
    SELECT c.id, c.customer_id, c.domain, c.name, c.first_seen,
      (SELECT COUNT(*) FROM uploads u WHERE u.computer_id = c.id),
      (SELECT received FROM uploads u WHERE u.computer_id = c.id ORDER BY u.id DESC LIMIT 1),
      (SELECT kind FROM uploads u WHERE u.computer_id = c.id ORDER BY u.id DESC LIMIT 1),
      (SELECT COUNT(DISTINCT class_id) FROM property_values v WHERE v.computer_id = c.id),
      (SELECT COUNT(DISTINCT class_id || ':' || instance) FROM property_values v
         WHERE v.computer_id = c.id)
    FROM computers c WHERE c.id = ?)sql");
  select.Bind(1, computerId);
  if (!select.Step()) return std::nullopt;
  ComputerSummary summary;
  summary.id = select.Int(0);
  summary.customerId = select.Text(1);
  summary.domain = select.Text(2);
  summary.name = select.Text(3);
  summary.firstSeen = select.Int(4);
  summary.uploads = static_cast<int>(select.Int(5));
  summary.lastUpload = select.Int(6);
  summary.lastKind = select.Text(7);
  summary.classes = static_cast<int>(select.Int(8));
  summary.instances = static_cast<int>(select.Int(9));
  return summary;
}

std::optional<ComputerDetails> Store::Computer(std::int64_t id) {
  std::lock_guard lock(mutex_);
  auto summary = Summary(id);
  if (!summary) return std::nullopt;
  ComputerDetails details;
  details.summary = std::move(*summary);
  details.inventory = LoadInventory(id);
  Statement params = db_.Prepare(
      "SELECT name, value FROM agent_params WHERE computer_id = ? ORDER BY position");
  params.Bind(1, id);
  while (params.Step()) details.agentParams.emplace_back(params.Text(0), params.Text(1));
  details.uploads = LoadUploads(id);
  return details;
}

std::vector<UploadRecord> Store::LoadUploads(std::int64_t computerId) {
  std::vector<UploadRecord> uploads;
  Statement select = db_.Prepare(
      "SELECT id, received, kind, audit_id, resource_id, scan_time, prev_scan_time, on_demand, "
      "body_size FROM uploads WHERE computer_id = ? ORDER BY id DESC");
  select.Bind(1, computerId);
  Statement classes = db_.Prepare(
      "SELECT class_id, instances, added, deleted, modified, unmatched FROM upload_classes "
      "WHERE upload_id = ? ORDER BY class_id");
  Statement items = db_.Prepare(
      "SELECT class_id, status, label FROM upload_items WHERE upload_id = ? ORDER BY position");
  while (select.Step()) {
    UploadRecord record;
    record.id = select.Int(0);
    record.received = select.Int(1);
    record.kind = select.Text(2);
    record.auditId = select.Text(3);
    record.resourceId = select.Text(4);
    record.scanTime = select.Text(5);
    record.previousScanTime = select.Text(6);
    record.onDemand = select.Int(7) != 0;
    record.bodySize = select.Int(8);
    classes.Bind(1, record.id);
    while (classes.Step()) {
      UploadClass& entry = record.classes[static_cast<int>(classes.Int(0))];
      entry.instances = static_cast<int>(classes.Int(1));
      entry.changes = {static_cast<int>(classes.Int(2)), static_cast<int>(classes.Int(3)),
                       static_cast<int>(classes.Int(4)), static_cast<int>(classes.Int(5))};
    }
    classes.Reset();
    items.Bind(1, record.id);
    while (items.Step()) {
      record.items.push_back({static_cast<int>(items.Int(0)),
                              static_cast<Change>(items.Int(1)), items.Text(2)});
    }
    items.Reset();
    uploads.push_back(std::move(record));
  }
  return uploads;
}

}  // namespace tarn::refserver
