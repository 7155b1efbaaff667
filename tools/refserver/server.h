// The reference management server over HTTP(S): resource ids, inventory uploads
// and the pages that show what it holds.
//
//   GET  /client-data/<customer>/domains/<domain>/resources/<computer>.xml
//        the computer's resource document (its id is stable per triple)
//   POST /inventory (also //inventory, as the scanner writes it) with the upload query:
//        a full inventory (scanType=1, XML) or a difference (scanType=0, JSON)
//   GET  /                      computers (HTML)
//   GET  /computers/<id>        one computer: inventory, changes, history (HTML)
//   GET  /computers/<id>.json   the same as JSON
//   GET  /computers/<id>/classes/<class>.csv   one class's instances as CSV
//   GET  /api/computers         computers (JSON)
//
// Every answer carries "X-Tarn-Header". Upload answers are one line of plain text:
// what was stored, or why the upload was refused (4xx; nothing is changed then).
// Request bodies above kMaxBodyBytes are refused with 413.
#pragma once

#include <httplib.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/store.h"

namespace tarn::refserver {

inline constexpr std::size_t kMaxBodyBytes = 64u << 20;
inline constexpr const char* kServerHeader = "X-Tarn-Header";

// Receives one access-log line per request (no line feed).
using LogSink = std::function<void(const std::string&)>;

class RefServer {
 public:
  // Plain HTTP when certificate and key are empty, HTTPS otherwise. Raises
  // std::runtime_error when the certificate or key cannot be loaded.
  RefServer(Store& store, const Catalogue& catalogue, LogSink log,
            const std::string& certificate = "", const std::string& key = "");
  ~RefServer();
  RefServer(const RefServer&) = delete;
  RefServer& operator=(const RefServer&) = delete;

  // Binds the listening socket; port 0 takes a free port. Returns the port, raises
  // std::runtime_error when the address cannot be bound.
  int Bind(const std::string& host, int port);
  // Serves on the bound socket until Stop(); false when serving failed.
  bool Serve();
  // Ends Serve() from another thread (waits a moment for it to have started).
  void Stop();
  bool secure() const { return secure_; }

 private:
  void Routes();
  void ResourceDocument(const httplib::Request& request, httplib::Response& response);
  void Upload(const httplib::Request& request, httplib::Response& response);
  void ComputerPage(const httplib::Request& request, httplib::Response& response, bool json);
  void Log(const httplib::Request& request, const httplib::Response& response) const;

  Store& store_;
  const Catalogue& catalogue_;
  LogSink log_;
  bool secure_ = false;
  std::unique_ptr<httplib::Server> server_;
};

}  // namespace tarn::refserver
