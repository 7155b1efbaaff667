#include "platform/http/curl_http_transport.h"

#include <curl/curl.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

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
// or the environment's (no proxy), and bounds time and the size of what it keeps.
void ConfigureBounds(CURL* curl, const HttpRequest& request) {
  SetOption(curl, CURLOPT_NOSIGNAL, 1L);
  SetOption(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  SetOption(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  SetOption(curl, CURLOPT_FOLLOWLOCATION, 0L);
  SetOption(curl, CURLOPT_PROXY, "");
  SetOption(curl, CURLOPT_TIMEOUT, static_cast<long>(std::max(1, request.timeoutSeconds)));
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
  if (!tls.pinnedPublicKeys.empty()) {
    SetOption(curl, CURLOPT_PINNEDPUBLICKEY, tls.pinnedPublicKeys.c_str());
  }
}

HttpResult Perform(const HttpRequest& request) {
  // libcurl would read anything else as the name of a key file, which pins nothing useful.
  if (!request.tls.pinnedPublicKeys.empty() &&
      !IsPinnedPublicKeyList(request.tls.pinnedPublicKeys)) {
    return Failure(CURLE_SSL_PINNEDPUBKEYNOTMATCH,
                   "the pinned public key is not a list of sha256// key hashes");
  }
  const std::unique_ptr<CURL, EasyCleanup> handle(curl_easy_init());
  if (!handle) return Failure(CURLE_FAILED_INIT, "could not create a request");
  CURL* curl = handle.get();
  Reception reception{request.maxResponseBody, request.discardResponseBody, 0, {}, std::nullopt};
  char errorText[CURL_ERROR_SIZE] = {};
  const SlistPtr headers = HeaderList(request.headers);

  SetOption(curl, CURLOPT_URL, request.url.c_str());
  SetOption(curl, CURLOPT_ERRORBUFFER, errorText);
  ConfigureBounds(curl, request);
  ConfigureTls(curl, request.tls);
  SetOption(curl, CURLOPT_HTTPHEADER, headers.get());
  SetOption(curl, CURLOPT_WRITEFUNCTION, &ReceiveBody);
  SetOption(curl, CURLOPT_WRITEDATA, &reception);
  SetOption(curl, CURLOPT_HEADERFUNCTION, &ReceiveHeader);
  SetOption(curl, CURLOPT_HEADERDATA, &reception);
  ConfigureMethodAndBody(curl, request);

  const CURLcode code = curl_easy_perform(curl);
  if (reception.exceeded) return {std::nullopt, std::move(reception.exceeded)};
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
