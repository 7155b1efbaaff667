#include "tools/refserver/server.h"

#include <chrono>
#include <ctime>
#include <stdexcept>
#include <thread>

#include "tools/refserver/csv.h"
#include "tools/refserver/pages.h"
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
  Routes();
}

RefServer::~RefServer() = default;

void RefServer::Routes() {
  using httplib::Request;
  using httplib::Response;
  server_->Get(R"(/+client-data/([^/]+)/domains/([^/]*)/resources/([^/]+)\.xml)",
               [this](const Request& rq, Response& rs) { ResourceDocument(rq, rs); });
  server_->Post(R"(/+inventory)", [this](const Request& rq, Response& rs) { Upload(rq, rs); });
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
      PlainText(rs, 413, "request body larger than " + std::to_string(kMaxBodyBytes) + " bytes");
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

void RefServer::Upload(const httplib::Request& request, httplib::Response& response) {
  try {
    const UploadQuery query = ReadUploadQuery(request.params);
    const UploadResult result =
        query.full ? store_.StoreFull(query, ParseFullUpload(request.body, catalogue_),
                                      request.body.size())
                   : store_.StoreDifference(query,
                                            ParseDifferenceUpload(request.body, catalogue_),
                                            request.body.size(), catalogue_);
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
    line += ' ';
    line += std::to_string(request.body.size());
    line += " bytes";
  }
  const bool plain = response.get_header_value("Content-Type").rfind("text/plain", 0) == 0;
  if (plain && (request.method == "POST" || response.status >= 400)) {
    line += " : " + FirstLine(response.body);
  }
  log_(line);
}

int RefServer::Bind(const std::string& host, int port) {
  if (port == 0) {
    const int bound = server_->bind_to_any_port(host);
    if (bound <= 0) throw std::runtime_error("cannot bind to any port on " + host);
    return bound;
  }
  if (!server_->bind_to_port(host, port)) {
    throw std::runtime_error("cannot bind to " + host + ":" + std::to_string(port));
  }
  return port;
}

bool RefServer::Serve() { return server_->listen_after_bind(); }

void RefServer::Stop() {
  for (int wait = 0; wait < 500 && !server_->is_running(); ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  server_->stop();
}

}  // namespace tarn::refserver
