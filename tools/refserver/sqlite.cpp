#include "tools/refserver/sqlite.h"

namespace tarn::refserver {

namespace {

[[noreturn]] void Fail(sqlite3* db, const std::string& what) {
  throw SqliteError(what + ": " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory"));
}

}  // namespace

Database::Database(const std::string& path) {
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &raw,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
  db_.reset(raw);  // a handle comes back even on failure, and must be closed
  if (rc != SQLITE_OK) Fail(raw, "cannot open database " + path);
  sqlite3_busy_timeout(raw, 5000);
}

void Database::Execute(const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message != nullptr ? message : "unknown error";
    sqlite3_free(message);
    throw SqliteError("SQL failed: " + text);
  }
}

Statement Database::Prepare(std::string_view sql) { return Statement(db_.get(), sql); }

std::int64_t Database::LastInsertId() const { return sqlite3_last_insert_rowid(db_.get()); }

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &raw, nullptr) !=
      SQLITE_OK) {
    Fail(db, "cannot prepare \"" + std::string(sql) + "\"");
  }
  statement_.reset(raw);
}

Statement& Statement::Bind(int index, std::int64_t value) {
  if (sqlite3_bind_int64(statement_.get(), index, value) != SQLITE_OK) Fail(db_, "bind");
  return *this;
}

Statement& Statement::Bind(int index, std::string_view value) {
  if (sqlite3_bind_text64(statement_.get(), index, value.data(), value.size(), SQLITE_TRANSIENT,
                          SQLITE_UTF8) != SQLITE_OK) {
    Fail(db_, "bind");
  }
  return *this;
}

bool Statement::Step() {
  const int rc = sqlite3_step(statement_.get());
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  Fail(db_, "step");
}

void Statement::Run() {
  while (Step()) {
  }
  Reset();
}

void Statement::Reset() {
  sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
}

std::int64_t Statement::Int(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string Statement::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(statement_.get(), column);
  if (text == nullptr) return {};
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column)));
}

Transaction::Transaction(Database& db) : db_(db) { db_.Execute("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
  if (done_) return;
  try {
    db_.Execute("ROLLBACK");
  } catch (const SqliteError&) {
    // The transaction is gone already (SQLite rolls back by itself after some errors).
  }
}

void Transaction::Commit() {
  db_.Execute("COMMIT");
  done_ = true;
}

}  // namespace tarn::refserver
