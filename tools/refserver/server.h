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
// Request bodies above kMaxBodyBytes once decoded (whatever their transfer and content
// encoding) are refused with 413; only uploads may send a chunked or compressed body.
//
// Up to kMaxWorkers connections are served at once, each by its own worker, so a slow
// client holds one worker and never the others; a connection that sends nothing for
// kReadTimeoutSeconds (or takes as long to accept a write) is closed. The listening
// socket is not shared: a port in use by another server cannot be bound.
#pragma once

#include <httplib.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/store.h"

namespace tarn::refserver {

inline constexpr std::size_t kMaxBodyBytes = 64u << 20;
inline constexpr const char* kServerHeader = "X-Tarn-Header";
inline constexpr std::size_t kMaxWorkers = 256;
inline constexpr int kReadTimeoutSeconds = 5;
inline constexpr int kWriteTimeoutSeconds = 5;
inline constexpr int kKeepAliveTimeoutSeconds = 2;

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
  // std::runtime_error when the address cannot be bound (saying so when the port is in
  // use).
  int Bind(const std::string& host, int port);
  // Serves on the bound socket until Stop(); false when serving failed.
  bool Serve();
  // Ends Serve() from another thread (waits a moment for it to have started).
  void Stop();
  bool secure() const { return secure_; }

 private:
  void Routes();
  void ResourceDocument(const httplib::Request& request, httplib::Response& response);
  void Upload(const httplib::Request& request, httplib::Response& response,
              const httplib::ContentReader& reader);
  std::optional<std::string> ReadBody(const httplib::Request& request,
                                      httplib::Response& response,
                                      const httplib::ContentReader& reader);
  void ComputerPage(const httplib::Request& request, httplib::Response& response, bool json);
  void Log(const httplib::Request& request, const httplib::Response& response) const;
  void WidenBacklog();

  Store& store_;
  const Catalogue& catalogue_;
  LogSink log_;
  bool secure_ = false;
  std::unique_ptr<httplib::Server> server_;
  int listenSocket_ = -1;  // owned by server_
  // Bytes of each upload body being read, for its access-log line (uploads are read by
  // their handler, so the request itself holds no body).
  mutable std::mutex bodySizesMutex_;
  mutable std::map<const httplib::Request*, std::size_t> bodySizes_;
};

}  // namespace tarn::refserver
