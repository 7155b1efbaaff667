#include "platform/http/curl_http_transport.h"

#include <curl/curl.h>

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

size_t AppendBody(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
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
// interim "100 Continue" answer), so only the final answer's fields are kept.
size_t AppendHeader(char* data, size_t size, size_t count, void* target) {
  auto& headers = *static_cast<HttpHeaders*>(target);
  const std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    headers.clear();
  } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
    headers.emplace_back(std::string(Trimmed(line.substr(0, colon))),
                         std::string(Trimmed(line.substr(colon + 1))));
  }
  return size * count;
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

void ConfigureMethodAndBody(CURL* handle, const HttpRequest& request) {
  if (request.method == "GET" && request.body.empty()) {
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    return;
  }
  if (request.method == "HEAD") {
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    return;
  }
  curl_easy_setopt(handle, CURLOPT_POST, 1L);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.data());
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                   static_cast<curl_off_t>(request.body.size()));
  if (request.method != "POST")
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
}

HttpResult Perform(const HttpRequest& request) {
  const std::unique_ptr<CURL, EasyCleanup> handle(curl_easy_init());
  if (!handle) return {std::nullopt, HttpError{CURLE_FAILED_INIT, "could not create a request"}};
  CURL* curl = handle.get();
  HttpResponse response;
  char errorText[CURL_ERROR_SIZE] = {};
  const SlistPtr headers = HeaderList(request.headers);

  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(request.timeoutSeconds));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &AppendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &AppendHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response.headers);
  if (request.acceptAnyCertificate) {
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  ConfigureMethodAndBody(curl, request);

  const CURLcode code = curl_easy_perform(curl);
  if (code != CURLE_OK) {
    const std::string text = errorText[0] != '\0' ? errorText : curl_easy_strerror(code);
    return {std::nullopt, HttpError{static_cast<long>(code), text}};
  }
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  return {std::move(response), std::nullopt};
}

}  // namespace

HttpResult CurlHttpTransport::Send(const HttpRequest& request) {
  try {
    return Perform(request);
  } catch (const std::exception& failure) {
    return {std::nullopt, HttpError{CURLE_OUT_OF_MEMORY, failure.what()}};
  }
}

}  // namespace tarn
