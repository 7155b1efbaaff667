// A management server for the end-to-end tests: hands out a resource id, accepts inventory
// uploads and keeps every request it received. Plain HTTP or HTTPS with a self-signed
// certificate made when the test starts; faults are chosen per test.
#pragma once

#include <httplib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarn::testing {

struct ReceivedRequest {
  std::string method;
  std::string target;  // path and query as sent
  httplib::Headers headers;
  std::string body;
  bool secure = false;
};

// What the server does with an upload or a resource request.
enum class Answer {
  kAccept,          // 200 with the server's header
  kWithoutHeader,   // 200 without the server's header
  kServerError,     // 500
  kSlow,            // waits longer than the client's 30-second limit
  kCloseMidAnswer,  // announces a body and closes the connection in its middle
};

// A self-signed certificate and key for 127.0.0.1, made with the openssl command.
class SelfSignedCertificate {
 public:
  explicit SelfSignedCertificate(const std::filesystem::path& folder)
      : certificate_(folder / "server.crt"), key_(folder / "server.key") {
    const std::string command =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "
        "/CN=127.0.0.1 -keyout '" +
        key_.string() + "' -out '" + certificate_.string() + "' >/dev/null 2>&1";
    made_ = std::system(command.c_str()) == 0;
  }
  bool made() const { return made_; }
  const std::filesystem::path& certificate() const { return certificate_; }
  const std::filesystem::path& key() const { return key_; }

 private:
  std::filesystem::path certificate_;
  std::filesystem::path key_;
  bool made_ = false;
};

class InventoryServer {
 public:
  // Plain HTTP.
  InventoryServer() : server_(std::make_unique<httplib::Server>()) { Start(false); }
  // HTTPS with the given certificate.
  explicit InventoryServer(const SelfSignedCertificate& certificate)
      : server_(std::make_unique<httplib::SSLServer>(certificate.certificate().c_str(),
                                                     certificate.key().c_str())) {
    Start(true);
  }
  ~InventoryServer() {
    stopping_ = true;
    for (int wait = 0; wait < 5000 && !server_->is_running(); ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    server_->stop();
    if (thread_.joinable()) thread_.join();
  }
  InventoryServer(const InventoryServer&) = delete;
  InventoryServer& operator=(const InventoryServer&) = delete;

  int port() const { return port_; }
  void SetUploadAnswer(Answer answer) { uploadAnswer_ = answer; }
  void SetResourceAnswer(Answer answer) { resourceAnswer_ = answer; }
  void SetResourceId(const std::string& id) {
    std::lock_guard lock(mutex_);
    resourceId_ = id;
  }

  std::vector<ReceivedRequest> Requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  // How many uploads came, without copying them: cheap enough to poll for the next one.
  std::size_t UploadCount() const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    for (const auto& request : requests_) count += request.method == "POST" ? 1 : 0;
    return count;
  }
  std::vector<ReceivedRequest> Uploads() const {
    std::vector<ReceivedRequest> uploads;
    for (auto& request : Requests()) {
      if (request.method == "POST") uploads.push_back(request);
    }
    return uploads;
  }

  // The resource document as the server sends it: one Agentparams row.
  static std::string ResourceDocument(const std::string& id) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Tarn>\n"
           "<Agentparams PARAM_NAME=\"RESOURCE_ID\" param_Value=\"" +
           id + "\" />\n</Tarn>\n";
  }

 private:
  void Start(bool secure) {
    secure_ = secure;
    server_->Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
      Keep(request);
      std::string id;
      {
        std::lock_guard lock(mutex_);
        id = resourceId_;
      }
      Respond(resourceAnswer_, ResourceDocument(id), response);
    });
    server_->Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
      Keep(request);
      Respond(uploadAnswer_, "OK", response);
    });
    port_ = server_->bind_to_any_port("127.0.0.1");
    if (port_ > 0) thread_ = std::thread([this] { server_->listen_after_bind(); });
  }

  void Keep(const httplib::Request& request) {
    std::lock_guard lock(mutex_);
    requests_.push_back({request.method, request.target, request.headers, request.body, secure_});
  }

  void Respond(Answer answer, const std::string& body, httplib::Response& response) {
    switch (answer) {
      case Answer::kAccept:
        response.set_header("X-Tarn-Header", "tarn-test-server");
        response.set_content(body, "text/xml");
        return;
      case Answer::kWithoutHeader:
        response.set_content(body, "text/xml");
        return;
      case Answer::kServerError:
        response.status = 500;
        response.set_header("X-Tarn-Header", "tarn-test-server");
        response.set_content("failure", "text/plain");
        return;
      case Answer::kSlow:
        for (int second = 0; second < 40 && !stopping_; ++second) {
          std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        response.set_header("X-Tarn-Header", "tarn-test-server");
        response.set_content(body, "text/xml");
        return;
      case Answer::kCloseMidAnswer:
        response.set_header("X-Tarn-Header", "tarn-test-server");
        response.set_content_provider(
            1000, "text/xml", [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
              if (offset > 0) return false;  // closes the connection with 990 bytes owed
              sink.write("0123456789", 10);
              return true;
            });
        return;
    }
  }

  std::unique_ptr<httplib::Server> server_;
  bool secure_ = false;
  int port_ = 0;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<Answer> uploadAnswer_{Answer::kAccept};
  std::atomic<Answer> resourceAnswer_{Answer::kAccept};
  mutable std::mutex mutex_;
  std::string resourceId_ = "77";
  std::vector<ReceivedRequest> requests_;
};

}  // namespace tarn::testing
