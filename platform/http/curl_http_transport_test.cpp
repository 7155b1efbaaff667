#include "platform/http/curl_http_transport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "platform/file/file_util.h"
#include "platform/http/loopback_server.h"

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

HttpRequest Get(const std::string& url, int timeoutSeconds = 10) {
  HttpRequest request;
  request.url = url;
  request.timeoutSeconds = timeoutSeconds;
  return request;
}

// Sets an environment variable for the lifetime of the object. Declared before any server, so
// no other thread runs while the environment changes.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    ::setenv(name, value, 1);
  }
  ~ScopedEnvironment() {
    if (previous_) {
      ::setenv(name_, previous_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> previous_;
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
    CurlHttpTransport().Send(Get("http://127.0.0.1:" + std::to_string(unusedPort) + "/", 5));
  }
  const HttpResult result =
      CurlHttpTransport().Send(Get("http://127.0.0.1:" + std::to_string(unusedPort) + "/", 5));
  EXPECT_FALSE(result.response.has_value());
  ASSERT_TRUE(result.error.has_value());
  EXPECT_EQ(result.error->code, 7);  // CURLE_COULDNT_CONNECT
  EXPECT_FALSE(result.error->text.empty());
}

// libcurl would take a text that is not a key hash for the name of a key file; the transport
// refuses such a pin before it connects anywhere.
TEST(CurlHttpTransportTest, APinThatIsNotAKeyHashFailsBeforeConnecting) {
  std::atomic<int> hits = 0;
  testing::LoopbackServer server([&hits](httplib::Server& routes) {
    routes.Get("/", [&hits](const httplib::Request&, httplib::Response& response) {
      ++hits;
      response.set_content("ok", "text/plain");
    });
  });
  ASSERT_NE(server.port(), 0);
  for (const char* pin : {"/etc/ssl/certs/ca-certificates.crt", "sha256//short=",
                          "sha256//47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=;"}) {
    SCOPED_TRACE(pin);
    HttpRequest request = Get(server.Url("/"), 5);
    request.tls.pinnedPublicKeys = pin;
    const HttpResult result = CurlHttpTransport().Send(request);
    ASSERT_TRUE(result.error.has_value());
    EXPECT_EQ(result.error->code, 90);  // CURLE_SSL_PINNEDPUBKEYNOTMATCH
  }
  EXPECT_EQ(hits, 0);
}

// A proxy in the environment would send every request to port 9 of this host, where nothing
// listens; the answers below prove it was ignored.
TEST(CurlHttpTransportTest, OnlyHttpNoRedirectsNoProxy) {
  const ScopedEnvironment httpProxy("http_proxy", "http://127.0.0.1:9");
  std::atomic<int> targetHits = 0;
  testing::LoopbackServer server([&targetHits](httplib::Server& routes) {
    routes.Get("/moved", [](const httplib::Request&, httplib::Response& response) {
      response.set_redirect("/target");
    });
    routes.Get("/target", [&targetHits](const httplib::Request&, httplib::Response& response) {
      ++targetHits;
      response.set_content("target", "text/plain");
    });
  });
  ASSERT_NE(server.port(), 0);
  CurlHttpTransport transport;

  const HttpResult moved = transport.Send(Get(server.Url("/moved")));
  ASSERT_TRUE(moved.response.has_value()) << (moved.error ? moved.error->text : "");
  EXPECT_EQ(moved.response->status, 302);
  EXPECT_EQ(targetHits, 0);

  for (const char* url : {"file:///etc/hostname", "ftp://127.0.0.1:9/", "dict://127.0.0.1:9/"}) {
    const HttpResult refused = transport.Send(Get(url));
    EXPECT_FALSE(refused.response.has_value()) << url;
    ASSERT_TRUE(refused.error.has_value()) << url;
    EXPECT_EQ(refused.error->code, 1) << url;  // CURLE_UNSUPPORTED_PROTOCOL
  }
}

TEST(CurlHttpTransportTest, KeptBodiesAreBoundedDiscardedOnesAreReadAndDropped) {
  const std::string full(kMaxHttpResponseBody, 'x');
  testing::LoopbackServer server([&full](httplib::Server& routes) {
    routes.Get("/full", [&full](const httplib::Request&, httplib::Response& response) {
      response.set_content(full, "text/plain");
    });
    routes.Get("/over", [&full](const httplib::Request&, httplib::Response& response) {
      response.set_content(full + "y", "text/plain");
    });
    // No Content-Length: the size shows only while the body arrives.
    routes.Get("/chunked", [](const httplib::Request&, httplib::Response& response) {
      response.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink& sink) {
        const std::string piece(400, 'z');
        for (int i = 0; i < 3; ++i) {
          if (!sink.write(piece.data(), piece.size())) return false;
        }
        sink.done();
        return true;
      });
    });
    routes.Post("/answer", [&full](const httplib::Request&, httplib::Response& response) {
      response.set_content(full + full, "text/plain");
    });
  });
  ASSERT_NE(server.port(), 0);
  CurlHttpTransport transport;

  const HttpResult atLimit = transport.Send(Get(server.Url("/full")));
  ASSERT_TRUE(atLimit.response.has_value()) << (atLimit.error ? atLimit.error->text : "");
  EXPECT_EQ(atLimit.response->body.size(), kMaxHttpResponseBody);

  const HttpResult over = transport.Send(Get(server.Url("/over")));
  EXPECT_FALSE(over.response.has_value());
  ASSERT_TRUE(over.error.has_value());
  EXPECT_EQ(over.error->code, 63);  // CURLE_FILESIZE_EXCEEDED
  EXPECT_EQ(over.error->text, "response body larger than 1048576 bytes");

  HttpRequest chunked = Get(server.Url("/chunked"));
  chunked.maxResponseBody = 1200;
  const HttpResult fits = transport.Send(chunked);
  ASSERT_TRUE(fits.response.has_value()) << (fits.error ? fits.error->text : "");
  EXPECT_EQ(fits.response->body, std::string(1200, 'z'));
  chunked.maxResponseBody = 1199;
  const HttpResult tooLong = transport.Send(chunked);
  ASSERT_TRUE(tooLong.error.has_value());
  EXPECT_EQ(tooLong.error->code, 63);
  EXPECT_EQ(tooLong.error->text, "response body larger than 1199 bytes");

  HttpRequest post = Get(server.Url("/answer"));
  post.method = "POST";
  post.body = "<DataObject/>";
  post.discardResponseBody = true;
  const HttpResult posted = transport.Send(post);
  ASSERT_TRUE(posted.response.has_value()) << (posted.error ? posted.error->text : "");
  EXPECT_EQ(posted.response->status, 200);
  EXPECT_EQ(posted.response->body, "");
}

TEST(CurlHttpTransportTest, HeaderLinesAreBoundedAsAWhole) {
  testing::LoopbackServer server([](httplib::Server& routes) {
    routes.Get(R"(/headers/(\d+))",
               [](const httplib::Request& request, httplib::Response& response) {
                 const int count = std::stoi(request.matches[1]);
                 for (int i = 0; i < count; ++i) {
                   response.set_header("X-Pad-" + std::to_string(i), std::string(1000, 'p'));
                 }
                 response.set_content("ok", "text/plain");
               });
  });
  ASSERT_NE(server.port(), 0);
  CurlHttpTransport transport;

  const HttpResult fits = transport.Send(Get(server.Url("/headers/60")));
  ASSERT_TRUE(fits.response.has_value()) << (fits.error ? fits.error->text : "");
  EXPECT_EQ(fits.response->body, "ok");

  const HttpResult tooMany = transport.Send(Get(server.Url("/headers/70")));
  EXPECT_FALSE(tooMany.response.has_value());
  ASSERT_TRUE(tooMany.error.has_value());
  EXPECT_EQ(tooMany.error->code, 23);  // CURLE_WRITE_ERROR
  EXPECT_EQ(tooMany.error->text, "response headers larger than 65536 bytes");
}

// The server keeps sending, a byte at a time for ten seconds, so only a bound on the whole
// request ends it sooner.
TEST(CurlHttpTransportTest, TimeoutBoundsATricklingAnswer) {
  testing::LoopbackServer server([](httplib::Server& routes) {
    routes.Get("/slow", [](const httplib::Request&, httplib::Response& response) {
      response.set_chunked_content_provider("text/plain", [](size_t sent, httplib::DataSink& sink) {
        if (sent == 40) {
          sink.done();
          return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        return sink.write("x", 1);
      });
    });
  });
  ASSERT_NE(server.port(), 0);
  const auto start = std::chrono::steady_clock::now();
  const HttpResult result = CurlHttpTransport().Send(Get(server.Url("/slow"), 2));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(result.response.has_value());
  ASSERT_TRUE(result.error.has_value());
  EXPECT_EQ(result.error->code, 28);  // CURLE_OPERATION_TIMEDOUT
  EXPECT_LT(elapsed, std::chrono::seconds(8));
}

}  // namespace
}  // namespace tarn
