// For tests: a cpp-httplib server on a free loopback port, serving on its own thread for the
// lifetime of the object. Test targets that include this link cpp-httplib.
#pragma once

#include <httplib.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace tarn::testing {

class LoopbackServer {
 public:
  // routes registers the handlers; they are in place before the first request is served.
  explicit LoopbackServer(const std::function<void(httplib::Server&)>& routes) {
    routes(server_);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ > 0) thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~LoopbackServer() {
    if (!thread_.joinable()) return;
    // stop() does nothing before the thread has started listening.
    for (int wait = 0; wait < 5000 && !server_.is_running(); ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    server_.stop();
    thread_.join();
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // 0 when no port could be bound.
  int port() const { return port_; }
  // "http://127.0.0.1:<port>" followed by target.
  std::string Url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(port_) + target;
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace tarn::testing
