// A thin RAII layer over SQLite: a connection, prepared statements with bound
// parameters, and a transaction that rolls back unless committed. Every failure
// raises SqliteError with SQLite's own message.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarn::refserver {

class SqliteError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Statement;

class Database {
 public:
  // Opens (creating when missing) the database file; ":memory:" gives a private one.
  explicit Database(const std::string& path);

  // Runs one or more statements that take no parameters and return no rows.
  void Execute(const std::string& sql);
  Statement Prepare(std::string_view sql);
  std::int64_t LastInsertId() const;
  sqlite3* handle() const { return db_.get(); }

 private:
  struct Closer {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
  };
  std::unique_ptr<sqlite3, Closer> db_;
};

// A prepared statement. Parameters are numbered from 1, columns from 0.
class Statement {
 public:
  Statement(sqlite3* db, std::string_view sql);

  Statement& Bind(int index, std::int64_t value);
  Statement& Bind(int index, std::string_view value);
  // Advances to the next row; false once the statement is done.
  bool Step();
  // Runs a statement that returns no rows, then makes it ready to run again.
  void Run();
  void Reset();

  std::int64_t Int(int column) const;
  std::string Text(int column) const;

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  sqlite3* db_;
  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
};

// BEGIN IMMEDIATE on construction; ROLLBACK on destruction unless Commit() ran.
class Transaction {
 public:
  explicit Transaction(Database& db);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void Commit();

 private:
  Database& db_;
  bool done_ = false;
};

}  // namespace tarn::refserver
