#include "tools/refserver/server.h"

#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tools/refserver/csv.h"
#include "tools/refserver/pages.h"
#include "tools/refserver/terminal.h"
#include "tools/refserver/upload.h"

namespace tarn::refserver {

namespace {

constexpr const char* kServerName = "tarn-refserver";

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

std::string LocalTime() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

void PlainText(httplib::Response& response, int status, const std::string& line) {
  response.status = status;
  response.set_content(line + "\n", "text/plain; charset=utf-8");
}

void Refuse(httplib::Response& response, int status, const std::string& line) {
  PlainText(response, status, line);
  // The rest of the body is not read: the connection cannot carry another request.
  response.set_header("Connection", "close");
}

std::string TooLarge() {
  return "request body larger than " + std::to_string(kMaxBodyBytes) + " bytes";
}

bool IsUploadPath(const std::string& path) {
  const auto name = path.find_first_not_of('/');
  return name != 0 && name != std::string::npos && path.compare(name, std::string::npos, "inventory") == 0;
}

// The connections' workers: one thread per connection being served, made when no
// worker is free, up to a bound, and kept for later connections. Beyond the bound a
// connection waits for a free worker.
class WorkerPool : public httplib::TaskQueue {
 public:
  explicit WorkerPool(std::size_t limit) : limit_(limit) {}
  ~WorkerPool() override { shutdown(); }

  void enqueue(std::function<void()> job) override {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    if (jobs_.size() > idle_ && threads_.size() < limit_) {
      threads_.emplace_back([this] { Work(); });
    }
    wake_.notify_one();
  }

  // Runs the jobs still queued, then ends every worker.
  void shutdown() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

 private:
  void Work() {
    std::unique_lock lock(mutex_);
    while (true) {
      ++idle_;
      wake_.wait(lock, [this] { return !jobs_.empty() || stopping_; });
      --idle_;
      if (jobs_.empty()) return;
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
      lock.lock();
    }
  }

  const std::size_t limit_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool stopping_ = false;
};

}  // namespace

RefServer::RefServer(Store& store, const Catalogue& catalogue, LogSink log,
                     const std::string& certificate, const std::string& key)
    : store_(store), catalogue_(catalogue), log_(std::move(log)) {
  if (certificate.empty() != key.empty()) {
    throw std::runtime_error("HTTPS needs both a certificate and a key");
  }
  if (certificate.empty()) {
    server_ = std::make_unique<httplib::Server>();
  } else {
    auto secureServer = std::make_unique<httplib::SSLServer>(certificate.c_str(), key.c_str());
    if (!secureServer->is_valid()) {
      throw std::runtime_error("cannot load the certificate " + certificate + " and key " + key);
    }
    server_ = std::move(secureServer);
    secure_ = true;
  }
  server_->set_payload_max_length(kMaxBodyBytes);
  // Only SO_REUSEADDR (a restarted server binds at once): the library's default adds
  // SO_REUSEPORT, which lets a second server take the same port.
  server_->set_socket_options([this](int socket) {
    const int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    listenSocket_ = socket;
  });
  server_->set_read_timeout(kReadTimeoutSeconds, 0);
  server_->set_write_timeout(kWriteTimeoutSeconds, 0);
  server_->set_keep_alive_timeout(kKeepAliveTimeoutSeconds);
  // The library takes ownership of the queue it is handed.
  server_->new_task_queue = [] { return new WorkerPool(kMaxWorkers); };
  Routes();
}

RefServer::~RefServer() = default;

void RefServer::Routes() {
  using httplib::Request;
  using httplib::Response;
  server_->Get(R"(/+client-data/([^/]+)/domains/([^/]*)/resources/([^/]+)\.xml)",
               [this](const Request& rq, Response& rs) { ResourceDocument(rq, rs); });
  server_->Post(R"(/+inventory)",
                [this](const Request& rq, Response& rs, const httplib::ContentReader& reader) {
                  Upload(rq, rs, reader);
                });
  // Other requests have their body read whole before any handler runs: one that is
  // chunked or compressed, whose decoded size is unknown until read, is refused unread.
  server_->set_pre_routing_handler([](const Request& rq, Response& rs) {
    const bool unbounded = rq.has_header("Content-Encoding") || rq.has_header("Transfer-Encoding");
    if (!unbounded || (rq.method == "POST" && IsUploadPath(rq.path))) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    Refuse(rs, 400, "a chunked or compressed request body is accepted by POST /inventory only");
    return httplib::Server::HandlerResponse::Handled;
  });
  server_->Get("/", [this](const Request& rq, Response& rs) {
    rs.set_content(ComputerListPage(store_.Computers(), rq.params), "text/html; charset=utf-8");
  });
  server_->Get("/api/computers", [this](const Request&, Response& rs) {
    rs.set_content(ComputerListJson(store_.Computers()), "application/json");
  });
  server_->Get(R"(/computers/(\d{1,18})\.json)",
               [this](const Request& rq, Response& rs) { ComputerPage(rq, rs, true); });
  server_->Get(R"(/computers/(\d{1,18}))",
               [this](const Request& rq, Response& rs) { ComputerPage(rq, rs, false); });
  server_->Get(R"(/computers/(\d{1,18})/classes/(\d{1,9})\.csv)",
               [this](const Request& rq, Response& rs) {
                 const std::int64_t id = std::stoll(rq.matches[1].str());
                 const int classId = std::stoi(rq.matches[2].str());
                 const auto computer = store_.Computer(id);
                 if (!computer || computer->inventory.count(classId) == 0) {
                   PlainText(rs, 404, "computer " + std::to_string(id) + " holds no class " +
                                          std::to_string(classId));
                   return;
                 }
                 const std::string className = catalogue_.ClassName(classId);
                 rs.set_header("Content-Disposition",
                               "attachment; filename=\"" +
                                   CsvFileName(computer->summary.name, className) + "\"");
                 rs.set_content(ClassCsv(classId, computer->inventory.at(classId), catalogue_),
                                "text/csv; charset=utf-8");
               });
  server_->set_exception_handler([](const Request&, Response& rs, std::exception_ptr error) {
    std::string what = "unknown failure";
    try {
      if (error) std::rethrow_exception(error);
    } catch (const std::exception& caught) {
      what = caught.what();
    } catch (...) {
    }
    PlainText(rs, 500, "internal error: " + FirstLine(what));
  });
  server_->set_error_handler([](const Request& rq, Response& rs) {
    if (!rs.body.empty()) return;
    if (rs.status == 404) {
      PlainText(rs, 404, "no such page: " + rq.path);
    } else if (rs.status == 413) {
      PlainText(rs, 413, TooLarge());
    } else {
      PlainText(rs, rs.status, "request refused");
    }
  });
  server_->set_post_routing_handler([](const Request&, Response& rs) {
    rs.set_header(kServerHeader, kServerName);
  });
  server_->set_logger([this](const Request& rq, const Response& rs) { Log(rq, rs); });
}

void RefServer::ResourceDocument(const httplib::Request& request, httplib::Response& response) {
  const std::int64_t id =
      store_.ResourceId(request.matches[1].str(), request.matches[2].str(), request.matches[3].str());
  response.set_content(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Tarn>\n"
      "<Agentparams PARAM_NAME=\"RESOURCE_ID\" param_Value=\"" +
          std::to_string(id) + "\" />\n</Tarn>\n",
      "text/xml");
}

std::optional<std::string> RefServer::ReadBody(const httplib::Request& request,
                                               httplib::Response& response,
                                               const httplib::ContentReader& reader) {
  const std::string declared = request.get_header_value("Content-Length");
  std::uint64_t declaredLength = 0;
  std::from_chars(declared.data(), declared.data() + declared.size(), declaredLength);
  if (declaredLength > kMaxBodyBytes) {
    // The library reads a declared body this large to its end without keeping it, so
    // the client, done sending, reads the answer.
    reader([](const char*, std::size_t) { return false; });
    Refuse(response, 413, TooLarge());
    return std::nullopt;
  }
  // The reader hands over the body decoded (chunks joined, compression undone): the
  // limit holds for what would be parsed, and reading stops as soon as it is passed.
  std::string body;
  bool tooLarge = false;
  const bool complete = reader([&](const char* data, std::size_t length) {
    if (length > kMaxBodyBytes - body.size()) {
      tooLarge = true;
      return false;
    }
    body.append(data, length);
    std::lock_guard lock(bodySizesMutex_);
    bodySizes_[&request] = body.size();
    return true;
  });
  if (tooLarge) {
    Refuse(response, 413, TooLarge());
    return std::nullopt;
  }
  if (!complete) {
    Refuse(response, 400, "request body incomplete or not decodable");
    return std::nullopt;
  }
  return body;
}

void RefServer::Upload(const httplib::Request& request, httplib::Response& response,
                       const httplib::ContentReader& reader) {
  try {
    const std::optional<std::string> body = ReadBody(request, response, reader);
    if (!body) return;
    const UploadQuery query = ReadUploadQuery(request.params);
    const UploadResult result =
        query.full ? store_.StoreFull(query, ParseFullUpload(*body, catalogue_), body->size())
                   : store_.StoreDifference(query, ParseDifferenceUpload(*body, catalogue_),
                                            body->size(), catalogue_);
    PlainText(response, 200, result.summary + " (computer " + std::to_string(result.computerId) +
                                 ", upload " + std::to_string(result.uploadId) + ")");
  } catch (const UploadError& error) {
    PlainText(response, error.status(), FirstLine(error.what()));
  }
}

void RefServer::ComputerPage(const httplib::Request& request, httplib::Response& response,
                             bool json) {
  const std::int64_t id = std::stoll(request.matches[1].str());
  const auto computer = store_.Computer(id);
  if (!computer) {
    response.status = 404;
    if (json) {
      response.set_content("{\"error\":\"no computer " + std::to_string(id) + "\"}\n",
                           "application/json");
    } else {
      response.set_content(MessagePage("Not found", "No computer has the id " + std::to_string(id)),
                           "text/html; charset=utf-8");
    }
    return;
  }
  if (json) {
    response.set_content(ComputerJson(*computer, catalogue_), "application/json");
  } else {
    response.set_content(refserver::ComputerPage(*computer, catalogue_, request.params),
                         "text/html; charset=utf-8");
  }
}

void RefServer::Log(const httplib::Request& request, const httplib::Response& response) const {
  if (!log_) return;
  std::string line = LocalTime() + " " + request.remote_addr + " " + request.method + " " +
                     request.target + " " + std::to_string(response.status);
  if (request.method == "POST") {
    std::size_t bytes = request.body.size();
    {
      std::lock_guard lock(bodySizesMutex_);
      if (const auto read = bodySizes_.find(&request); read != bodySizes_.end()) {
        bytes = read->second;
        bodySizes_.erase(read);
      }
    }
    line += ' ';
    line += std::to_string(bytes);
    line += " bytes";
  }
  const bool plain = response.get_header_value("Content-Type").rfind("text/plain", 0) == 0;
  if (plain && (request.method == "POST" || response.status >= 400)) {
    line += " : " + FirstLine(response.body);
  }
  // The target and the answer carry what the client sent (a computer's name among it).
  log_(TerminalSafe(line));
}

int RefServer::Bind(const std::string& host, int port) {
  if (port == 0) {
    const int bound = server_->bind_to_any_port(host);
    if (bound <= 0) throw std::runtime_error("cannot bind to any port on " + host);
    WidenBacklog();
    return bound;
  }
  errno = 0;
  if (!server_->bind_to_port(host, port)) {
    const int error = errno;
    const std::string where = host + ":" + std::to_string(port);
    if (error == EADDRINUSE) {
      throw std::runtime_error("cannot listen on " + where + ": the port is in use");
    }
    throw std::runtime_error("cannot listen on " + where +
                             (error != 0 ? ": " + std::string(std::strerror(error)) : ""));
  }
  WidenBacklog();
  return port;
}

void RefServer::WidenBacklog() {
  // The library listens with a backlog of 5: agents connecting at once would have their
  // connections dropped and retried a second later. Listening again widens it.
  if (listenSocket_ >= 0) ::listen(listenSocket_, SOMAXCONN);
}

bool RefServer::Serve() { return server_->listen_after_bind(); }

void RefServer::Stop() {
  for (int wait = 0; wait < 500 && !server_->is_running(); ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  server_->stop();
}

}  // namespace tarn::refserver
