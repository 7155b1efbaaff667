#include "platform/http/curl_http_transport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "platform/file/file_util.h"

namespace tarn {
namespace {

// A loopback server that answers one connection with a fixed response and keeps the request
// it received.
class OneShotServer {
 public:
  explicit OneShotServer(std::string response) : response_(std::move(response)) {
    listener_ = UniqueFd(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 1) != 0 ||
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::jthread([this] { Serve(); });
  }

  int port() const { return port_; }
  // Valid once the client has its response.
  const std::string& request() {
    if (thread_.joinable()) thread_.join();
    return request_;
  }

 private:
  void Serve() {
    const UniqueFd connection(::accept(listener_.get(), nullptr, nullptr));
    if (!connection.valid()) return;
    char buffer[4096];
    while (!RequestComplete()) {
      const ssize_t got = ::read(connection.get(), buffer, sizeof buffer);
      if (got <= 0) break;
      request_.append(buffer, static_cast<std::size_t>(got));
    }
    WriteAll(connection.get(), response_);
  }

  bool RequestComplete() const {
    const auto headerEnd = request_.find("\r\n\r\n");
    if (headerEnd == std::string::npos) return false;
    const auto lengthField = request_.find("Content-Length: ");
    if (lengthField == std::string::npos || lengthField > headerEnd) return true;
    const auto expected = std::stoul(request_.substr(lengthField + 16));
    return request_.size() >= headerEnd + 4 + expected;
  }

  std::string response_;
  UniqueFd listener_;
  int port_ = 0;
  std::string request_;
  std::jthread thread_;
};

TEST(CurlHttpTransportTest, PostsAndReturnsStatusHeadersAndBody) {
  OneShotServer server(
      "HTTP/1.1 201 Created\r\nX-Tarn-Header: accepted\r\nContent-Length: 5\r\n"
      "Connection: close\r\n\r\nhello");
  ASSERT_NE(server.port(), 0);
  CurlHttpTransport transport;
  HttpRequest request;
  request.method = "POST";
  request.url = "http://127.0.0.1:" + std::to_string(server.port()) + "/inventory?computer=mac";
  request.headers = {{"Accept", "text/xml"}, {"Content-type", "application/xml"}};
  request.body = "<DataObject/>";
  request.timeoutSeconds = 10;
  const HttpResult result = transport.Send(request);

  ASSERT_TRUE(result.response.has_value()) << (result.error ? result.error->text : "");
  EXPECT_FALSE(result.error.has_value());
  EXPECT_EQ(result.response->status, 201);
  EXPECT_EQ(result.response->body, "hello");
  bool headerSeen = false;
  for (const auto& [name, value] : result.response->headers) {
    headerSeen = headerSeen || (name == "X-Tarn-Header" && value == "accepted");
  }
  EXPECT_TRUE(headerSeen);

  const std::string& received = server.request();
  EXPECT_EQ(received.rfind("POST /inventory?computer=mac HTTP/1.1\r\n", 0), 0u) << received;
  EXPECT_NE(received.find("\r\nContent-type: application/xml\r\n"), std::string::npos);
  EXPECT_EQ(received.find("Expect:"), std::string::npos);
  EXPECT_EQ(received.substr(received.size() - 13), "<DataObject/>");
}

TEST(CurlHttpTransportTest, NoServerIsAnErrorNotAResponse) {
  int unusedPort = 0;
  {
    OneShotServer closed("");  // binds a free port, then lets it go
    unusedPort = closed.port();
    // Connect once so the server thread ends.
    CurlHttpTransport().Send(HttpRequest{
        "GET", "http://127.0.0.1:" + std::to_string(unusedPort) + "/", {}, "", 5, false});
  }
  const HttpResult result = CurlHttpTransport().Send(
      HttpRequest{"GET", "http://127.0.0.1:" + std::to_string(unusedPort) + "/", {}, "", 5, false});
  EXPECT_FALSE(result.response.has_value());
  ASSERT_TRUE(result.error.has_value());
  EXPECT_EQ(result.error->code, 7);  // CURLE_COULDNT_CONNECT
  EXPECT_FALSE(result.error->text.empty());
}

}  // namespace
}  // namespace tarn
