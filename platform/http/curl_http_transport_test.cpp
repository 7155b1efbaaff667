#include "platform/http/curl_http_transport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "platform/file/file_util.h"
#include "platform/http/loopback_server.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// How OneShotServer takes the request and gives its answer.
struct Pace {
  // The request is read this many bytes at a time, with this pause in between; the
  // server's receive buffer is kept small, so the client's bytes wait on the client's side.
  std::size_t readChunk = 4096;
  milliseconds readPause{0};
  // Only the head of the request is read: the server stops taking the body.
  bool stopReadingAtBody = false;
  // The answer is held back this long (until the server is destroyed when negative)...
  milliseconds answerDelay{0};
  // ...then written whole, or from the body on a byte at a time with this pause between bytes.
  milliseconds answerBytePause{0};
};

// A loopback server that answers one connection with a fixed response, at the pace given, and
// keeps the request it received.
class OneShotServer {
 public:
  explicit OneShotServer(std::string response, Pace pace = {})
      : response_(std::move(response)), pace_(pace) {
    listener_ = UniqueFd(::socket(AF_INET, SOCK_STREAM, 0));
    const int receiveBuffer = 16 * 1024;
    ::setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
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
    thread_ = std::jthread([this](std::stop_token stop) { Serve(stop); });
  }

  int port() const { return port_; }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  // Valid once the client has its response (waits for a held-back answer to be written).
  const std::string& request() {
    if (thread_.joinable()) thread_.join();
    return request_;
  }

 private:
  void Serve(std::stop_token stop) {
    const UniqueFd connection(::accept(listener_.get(), nullptr, nullptr));
    if (!connection.valid()) return;
    char buffer[4096];
    std::size_t round = 0;  // bytes read since the last pause
    while (!RequestComplete()) {
      const std::size_t want = std::min(sizeof buffer, pace_.readChunk - round);
      const ssize_t got = ::read(connection.get(), buffer, want);
      if (got <= 0) return;
      request_.append(buffer, static_cast<std::size_t>(got));
      if (pace_.stopReadingAtBody && headerEnd_ != std::string::npos) break;
      round += static_cast<std::size_t>(got);
      if (round == pace_.readChunk) {
        round = 0;
        if (!Pause(stop, pace_.readPause)) return;
      }
    }
    if (!Pause(stop, pace_.answerDelay)) return;
    const std::size_t bodyStart = std::min(response_.find("\r\n\r\n") + 4, response_.size());
    if (pace_.answerBytePause == milliseconds(0)) {
      Send(connection.get(), response_);
      return;
    }
    Send(connection.get(), response_.substr(0, bodyStart));
    for (std::size_t i = bodyStart; i < response_.size(); ++i) {
      if (!Pause(stop, pace_.answerBytePause) || !Send(connection.get(), response_.substr(i, 1))) {
        return;
      }
    }
  }

  // Waits for the time (forever when negative); false when the server is being destroyed.
  static bool Pause(std::stop_token stop, milliseconds time) {
    if (time == milliseconds(0)) return true;
    std::mutex mutex;
    std::condition_variable_any wake;
    std::unique_lock lock(mutex);
    const milliseconds wait = time < milliseconds(0) ? milliseconds(3600000) : time;
    wake.wait_for(lock, stop, wait, [] { return false; });
    return !stop.stop_requested();
  }

  // Without SIGPIPE: the client may have given up.
  static bool Send(int fd, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t wrote = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (wrote <= 0) return false;
      sent += static_cast<std::size_t>(wrote);
    }
    return true;
  }

  bool RequestComplete() {
    if (headerEnd_ == std::string::npos) {
      headerEnd_ = request_.find("\r\n\r\n");
      if (headerEnd_ == std::string::npos) return false;
      const auto lengthField = request_.find("Content-Length: ");
      expected_ = headerEnd_ + 4;
      if (lengthField != std::string::npos && lengthField < headerEnd_) {
        expected_ += std::stoul(request_.substr(lengthField + 16));
      }
    }
    return request_.size() >= expected_;
  }

  std::string response_;
  Pace pace_;
  UniqueFd listener_;
  int port_ = 0;
  std::string request_;
  std::size_t headerEnd_ = std::string::npos;
  std::size_t expected_ = 0;
  std::jthread thread_;
};

HttpRequest Get(const std::string& url, int inactivitySeconds = 10, int totalSeconds = 60) {
  HttpRequest request;
  request.url = url;
  request.inactivitySeconds = inactivitySeconds;
  request.totalSeconds = totalSeconds;
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
  request.inactivitySeconds = 10;
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

// libcurl would take a text that is not a key hash for the name of a key file (and an empty
// one for no pin at all): the transport refuses such a pin, and a policy marked unusable,
// before it connects anywhere. Nothing listens at the HTTPS port, so a request that tried to
// connect would fail with 7. Plain HTTP has no certificate, and no policy to apply.
TEST(CurlHttpTransportTest, AnUnusablePolicyFailsEveryHttpsRequestBeforeConnecting) {
  std::atomic<int> hits = 0;
  testing::LoopbackServer server([&hits](httplib::Server& routes) {
    routes.Get("/", [&hits](const httplib::Request&, httplib::Response& response) {
      ++hits;
      response.set_content("ok", "text/plain");
    });
  });
  ASSERT_NE(server.port(), 0);
  const std::string nowhere = "HTTPS://127.0.0.1:1/";
  struct Case {
    std::optional<std::string> pin;
    std::optional<std::string> unusable;
    long code;
    const char* text;
  };
  const char* const kNotAPin = "the pinned public key is not a list of sha256// key hashes";
  const Case cases[] = {
      {"", std::nullopt, 90, kNotAPin},  // CURLE_SSL_PINNEDPUBKEYNOTMATCH
      {"/etc/ssl/certs/ca-certificates.crt", std::nullopt, 90, kNotAPin},
      {"sha256//short=", std::nullopt, 90, kNotAPin},
      {"sha256//47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=;", std::nullopt, 90, kNotAPin},
      {std::nullopt, "TLS_VERIFY is unusable", 60, "TLS_VERIFY is unusable"},  // PEER_FAILED
      {"sha256//47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=", "unusable", 60, "unusable"},
      {std::nullopt, std::nullopt, 7, nullptr},  // CURLE_COULDNT_CONNECT
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pin.value_or("(no pin)") + " / " + c.unusable.value_or("(usable)"));
    HttpRequest request = Get(nowhere, 5);
    request.tls.pinnedPublicKeys = c.pin;
    request.tls.unusable = c.unusable;
    const HttpResult refused = CurlHttpTransport().Send(request);
    ASSERT_TRUE(refused.error.has_value());
    EXPECT_EQ(refused.error->code, c.code);
    if (c.text != nullptr) {
      EXPECT_EQ(refused.error->text, c.text);
    }

    request.url = server.Url("/");
    const HttpResult plain = CurlHttpTransport().Send(request);
    ASSERT_TRUE(plain.response.has_value()) << (plain.error ? plain.error->text : "");
    EXPECT_EQ(plain.response->body, "ok");
  }
  EXPECT_EQ(hits, static_cast<int>(std::size(cases)));
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

constexpr const char* kOkResponse =
    "HTTP/1.1 200 OK\r\nContent-Length: 8\r\nConnection: close\r\n\r\naccepted";

// A large upload to a server that takes it slowly (about 1 MiB a second) lasts far longer
// than the inactivity limit: it succeeds, because bytes keep moving. Most of the body is
// handed to the system long before the server takes it, so the client's own counts stand
// still while the send buffer drains.
TEST(CurlHttpTransportTest, AnUploadTakenSlowlySucceedsWhileBytesMove) {
  OneShotServer server(kOkResponse, {.readChunk = 64 * 1024, .readPause = milliseconds(60)});
  ASSERT_NE(server.port(), 0);
  HttpRequest request = Get(server.Url(), 2, 60);
  request.method = "POST";
  request.body = std::string(5 * 1024 * 1024, 'u');
  const auto start = Clock::now();
  const HttpResult result = CurlHttpTransport().Send(request);
  const auto took = Clock::now() - start;
  ASSERT_TRUE(result.response.has_value()) << result.error->code << " " << result.error->text;
  EXPECT_EQ(result.response->status, 200);
  EXPECT_EQ(result.response->body, "accepted");
  const std::string& received = server.request();
  EXPECT_EQ(received.substr(received.find("\r\n\r\n") + 4), request.body);
  // The upload did outlast the inactivity limit, which used to bound the whole request.
  EXPECT_GT(took, std::chrono::seconds(2));
}

// An answer that trickles in, a byte every 250 ms, is never inactive for a second: only the
// bound on the whole request ends it.
TEST(CurlHttpTransportTest, ATricklingAnswerIsBoundedOnlyByTheWholeRequest) {
  const Pace trickle{.answerBytePause = milliseconds(250)};
  OneShotServer patient(kOkResponse, trickle);
  ASSERT_NE(patient.port(), 0);
  const HttpResult slow = CurlHttpTransport().Send(Get(patient.Url(), 1, 60));
  ASSERT_TRUE(slow.response.has_value()) << slow.error->code << " " << slow.error->text;
  EXPECT_EQ(slow.response->body, "accepted");

  OneShotServer bounded(kOkResponse, trickle);
  ASSERT_NE(bounded.port(), 0);
  const HttpResult cut = CurlHttpTransport().Send(Get(bounded.Url(), 1, 1));
  EXPECT_FALSE(cut.response.has_value());
  ASSERT_TRUE(cut.error.has_value());
  EXPECT_EQ(cut.error->code, 28);  // CURLE_OPERATION_TIMEDOUT
  EXPECT_EQ(cut.error->text.rfind("Operation timed out after ", 0), 0u) << cut.error->text;
}

// A server that has the whole request and says nothing, and one that stops taking the body,
// both fail the request once no byte has moved for the inactivity limit.
TEST(CurlHttpTransportTest, NoByteMovingForTheInactivityLimitFailsTheRequest) {
  struct Case {
    const char* name;
    Pace pace;
    std::size_t bodySize;
  };
  const Case cases[] = {
      {"silent after the request", {.answerDelay = milliseconds(-1)}, 100},
      {"stops taking the body",
       {.stopReadingAtBody = true, .answerDelay = milliseconds(-1)},
       16 * 1024 * 1024},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    OneShotServer server(kOkResponse, c.pace);
    ASSERT_NE(server.port(), 0);
    HttpRequest request = Get(server.Url(), 1, 60);
    request.method = "POST";
    request.body = std::string(c.bodySize, 'b');
    const auto start = Clock::now();
    const HttpResult result = CurlHttpTransport().Send(request);
    const auto took = Clock::now() - start;
    EXPECT_FALSE(result.response.has_value());
    ASSERT_TRUE(result.error.has_value());
    EXPECT_EQ(result.error->code, 28);  // CURLE_OPERATION_TIMEDOUT
    EXPECT_EQ(result.error->text, "no byte moved in either direction for 1 s");
    EXPECT_GE(took, std::chrono::seconds(1));
  }
}

}  // namespace
}  // namespace tarn
