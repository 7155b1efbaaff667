#include "platform/http/curl_http_transport.h"

#include <curl/curl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {
namespace {

struct EasyCleanup {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct SlistFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using SlistPtr = std::unique_ptr<curl_slist, SlistFree>;

// A libcurl option that could not be set: the request is not sent without it.
struct OptionRefused {
  CURLcode code;
};

template <typename Value>
void SetOption(CURL* curl, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(curl, option, value);
  if (code != CURLE_OK) throw OptionRefused{code};
}

HttpResult Failure(long code, std::string text) {
  return {std::nullopt, HttpError{code, std::move(text)}};
}

// What the callbacks fill while the answer arrives, and the bound that stopped it early.
struct Reception {
  std::size_t maxBody = kMaxHttpResponseBody;
  bool discardBody = false;
  std::size_t headerBytes = 0;
  HttpResponse response;
  std::optional<HttpError> exceeded;
};

// Returning fewer bytes than offered makes libcurl abort the transfer.
size_t ReceiveBody(char* data, size_t size, size_t count, void* target) {
  auto& reception = *static_cast<Reception*>(target);
  const size_t bytes = size * count;
  if (reception.discardBody) return bytes;
  if (bytes > reception.maxBody - reception.response.body.size()) {
    reception.exceeded =
        HttpError{CURLE_FILESIZE_EXCEEDED,
                  "response body larger than " + std::to_string(reception.maxBody) + " bytes"};
    return 0;
  }
  reception.response.body.append(data, bytes);
  return bytes;
}

// Bytes written to a connected socket that its peer has not yet acknowledged; -1 when the
// system does not tell.
long UnacknowledgedBytes(curl_socket_t socket) {
  int queued = 0;
#if defined(SO_NWRITE)
  socklen_t length = sizeof queued;
  if (::getsockopt(socket, SOL_SOCKET, SO_NWRITE, &queued, &length) == 0) return queued;
#elif defined(TIOCOUTQ)
  if (::ioctl(socket, TIOCOUTQ, &queued) == 0) return queued;
#endif
  return -1;
}

// Ends a transfer in which no byte has moved, in either direction, for a given time. libcurl
// counts the bytes it hands to the system and takes from it; the end of an upload may sit in
// the system's send buffer while a slow server takes it, so the bytes still unacknowledged
// there count as well: while they drain, the upload is moving. The watch learns of the
// request's sockets as libcurl opens and closes them, so it must outlive the handle.
class InactivityWatch {
 public:
  using Clock = std::chrono::steady_clock;

  explicit InactivityWatch(int seconds)
      : limit_(std::max(1, seconds)), lastMovement_(Clock::now()) {}

  // libcurl's progress callback: a non-zero result aborts the transfer.
  static int OnProgress(void* target, curl_off_t, curl_off_t downloaded, curl_off_t,
                        curl_off_t uploaded) {
    return static_cast<InactivityWatch*>(target)->Moved(downloaded, uploaded) ? 0 : 1;
  }
  // Called for every socket libcurl opens.
  static int OnSocketOpened(void* target, curl_socket_t socket, curlsocktype) {
    static_cast<InactivityWatch*>(target)->sockets_.push_back(socket);
    return CURL_SOCKOPT_OK;
  }
  // Called instead of closing a socket: it must be closed here.
  static int OnSocketClosing(void* target, curl_socket_t socket) {
    auto& sockets = static_cast<InactivityWatch*>(target)->sockets_;
    std::erase(sockets, socket);
    return ::close(socket);
  }

  bool expired() const { return expired_; }
  std::string Description() const {
    return "no byte moved in either direction for " + std::to_string(limit_.count()) + " s";
  }

 private:
  struct Counts {
    curl_off_t downloaded = 0;
    curl_off_t uploaded = 0;
    long unacknowledged = 0;
    bool operator==(const Counts&) const = default;
  };

  // False once nothing has moved for the limit.
  bool Moved(curl_off_t downloaded, curl_off_t uploaded) {
    Counts now{downloaded, uploaded, 0};
    for (const curl_socket_t socket : sockets_) {
      now.unacknowledged += std::max(0L, UnacknowledgedBytes(socket));
    }
    const auto time = Clock::now();
    if (now != counts_) {
      counts_ = now;
      lastMovement_ = time;
      return true;
    }
    expired_ = time - lastMovement_ >= limit_;
    return !expired_;
  }

  std::chrono::seconds limit_;
  Clock::time_point lastMovement_;
  Counts counts_;
  std::vector<curl_socket_t> sockets_;
  bool expired_ = false;
};

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' ' ||
                           text.back() == '\t')) {
    text.remove_suffix(1);
  }
  return text;
}

// Header lines arrive one per call. A status line starts a new header block (after an
// interim "100 Continue" answer), so only the final answer's fields are kept; the bound
// counts the lines of every block.
size_t ReceiveHeader(char* data, size_t size, size_t count, void* target) {
  auto& reception = *static_cast<Reception*>(target);
  const size_t bytes = size * count;
  reception.headerBytes += bytes;
  if (reception.headerBytes > kMaxHttpResponseHeaders) {
    reception.exceeded =
        HttpError{CURLE_WRITE_ERROR, "response headers larger than " +
                                         std::to_string(kMaxHttpResponseHeaders) + " bytes"};
    return 0;
  }
  auto& headers = reception.response.headers;
  const std::string_view line(data, bytes);
  if (line.starts_with("HTTP/")) {
    headers.clear();
  } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
    headers.emplace_back(std::string(Trimmed(line.substr(0, colon))),
                         std::string(Trimmed(line.substr(colon + 1))));
  }
  return bytes;
}

SlistPtr HeaderList(const HttpHeaders& headers) {
  SlistPtr list;
  const auto append = [&list](const std::string& line) {
    curl_slist* grown = curl_slist_append(list.get(), line.c_str());
    if (grown == nullptr) throw std::bad_alloc();
    (void)list.release();
    list.reset(grown);
  };
  for (const auto& [name, value] : headers) append(name + ": " + value);
  append("Expect:");
  return list;
}

void ConfigureMethodAndBody(CURL* curl, const HttpRequest& request) {
  if (request.method == "GET" && request.body.empty()) {
    SetOption(curl, CURLOPT_HTTPGET, 1L);
    return;
  }
  if (request.method == "HEAD") {
    SetOption(curl, CURLOPT_NOBODY, 1L);
    return;
  }
  SetOption(curl, CURLOPT_POST, 1L);
  SetOption(curl, CURLOPT_POSTFIELDS, request.body.data());
  SetOption(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  if (request.method != "POST") SetOption(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
}

// The transport talks to whatever answers at an address, often with any certificate
// accepted, so it speaks only HTTP(S), goes nowhere else on the server's word (no redirects)
// or the environment's (no proxy), and bounds time and the size of what it keeps. Time is
// bounded for connecting, for a stretch without movement (the watch) and, generously, for
// the whole request, so a large upload on a slow line can take as long as it keeps moving.
void ConfigureBounds(CURL* curl, const HttpRequest& request, InactivityWatch& watch) {
  SetOption(curl, CURLOPT_NOSIGNAL, 1L);
  SetOption(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  SetOption(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  SetOption(curl, CURLOPT_FOLLOWLOCATION, 0L);
  SetOption(curl, CURLOPT_PROXY, "");
  SetOption(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(std::max(1, request.inactivitySeconds)));
  SetOption(curl, CURLOPT_TIMEOUT, static_cast<long>(std::max(1, request.totalSeconds)));
  SetOption(curl, CURLOPT_XFERINFOFUNCTION, &InactivityWatch::OnProgress);
  SetOption(curl, CURLOPT_XFERINFODATA, &watch);
  SetOption(curl, CURLOPT_NOPROGRESS, 0L);
  SetOption(curl, CURLOPT_SOCKOPTFUNCTION, &InactivityWatch::OnSocketOpened);
  SetOption(curl, CURLOPT_SOCKOPTDATA, &watch);
  SetOption(curl, CURLOPT_CLOSESOCKETFUNCTION, &InactivityWatch::OnSocketClosing);
  SetOption(curl, CURLOPT_CLOSESOCKETDATA, &watch);
}

// How the server must prove itself: the chain and host name (against the system's or the
// given authorities) unless any certificate is accepted, and the pinned keys either way.
void ConfigureTls(CURL* curl, const TlsPolicy& tls) {
  if (tls.acceptAnyCertificate) {
    SetOption(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    SetOption(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  } else {
    SetOption(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    SetOption(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!tls.caFile.empty()) SetOption(curl, CURLOPT_CAINFO, tls.caFile.c_str());
  }
  if (tls.pinnedPublicKeys) {
    SetOption(curl, CURLOPT_PINNEDPUBLICKEY, tls.pinnedPublicKeys->c_str());
  }
}

bool IsHttpsUrl(std::string_view url) {
  constexpr std::string_view kScheme = "https://";
  if (url.size() < kScheme.size()) return false;
  for (std::size_t i = 0; i < kScheme.size(); ++i) {
    const char c = url[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != kScheme[i]) return false;
  }
  return true;
}

// Why an HTTPS request cannot be made under the policy, before any connection: settings that
// could not be read, or a pin that is no list of key hashes (libcurl would read such a text
// as the name of a key file, which pins nothing useful).
std::optional<HttpError> PolicyRefusal(const TlsPolicy& tls) {
  if (tls.unusable) return HttpError{CURLE_PEER_FAILED_VERIFICATION, *tls.unusable};
  if (tls.pinnedPublicKeys && !IsPinnedPublicKeyList(*tls.pinnedPublicKeys)) {
    return HttpError{CURLE_SSL_PINNEDPUBKEYNOTMATCH,
                     "the pinned public key is not a list of sha256// key hashes"};
  }
  return std::nullopt;
}

HttpResult Perform(const HttpRequest& request) {
  if (IsHttpsUrl(request.url)) {
    if (auto refusal = PolicyRefusal(request.tls)) return {std::nullopt, std::move(refusal)};
  }
  InactivityWatch watch(request.inactivitySeconds);  // closes the handle's sockets
  const std::unique_ptr<CURL, EasyCleanup> handle(curl_easy_init());
  if (!handle) return Failure(CURLE_FAILED_INIT, "could not create a request");
  CURL* curl = handle.get();
  Reception reception{request.maxResponseBody, request.discardResponseBody, 0, {}, std::nullopt};
  char errorText[CURL_ERROR_SIZE] = {};
  const SlistPtr headers = HeaderList(request.headers);

  SetOption(curl, CURLOPT_URL, request.url.c_str());
  SetOption(curl, CURLOPT_ERRORBUFFER, errorText);
  ConfigureBounds(curl, request, watch);
  ConfigureTls(curl, request.tls);
  SetOption(curl, CURLOPT_HTTPHEADER, headers.get());
  SetOption(curl, CURLOPT_WRITEFUNCTION, &ReceiveBody);
  SetOption(curl, CURLOPT_WRITEDATA, &reception);
  SetOption(curl, CURLOPT_HEADERFUNCTION, &ReceiveHeader);
  SetOption(curl, CURLOPT_HEADERDATA, &reception);
  ConfigureMethodAndBody(curl, request);

  const CURLcode code = curl_easy_perform(curl);
  if (reception.exceeded) return {std::nullopt, std::move(reception.exceeded)};
  if (watch.expired()) return Failure(CURLE_OPERATION_TIMEDOUT, watch.Description());
  if (code != CURLE_OK) {
    return Failure(code, errorText[0] != '\0' ? errorText : curl_easy_strerror(code));
  }
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reception.response.status);
  return {std::move(reception.response), std::nullopt};
}

}  // namespace

HttpResult CurlHttpTransport::Send(const HttpRequest& request) {
  try {
    return Perform(request);
  } catch (const OptionRefused& refused) {
    return Failure(refused.code, std::string("could not configure the request: ") +
                                     curl_easy_strerror(refused.code));
  } catch (const std::exception& failure) {
    return Failure(CURLE_OUT_OF_MEMORY, failure.what());
  }
}

}  // namespace tarn
