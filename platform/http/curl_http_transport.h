#pragma once

#include "platform/platform.h"

namespace tarn {

// The live HTTP transport, on libcurl: one easy handle per request, no signals, no
// "Expect: 100-continue" pause before a body. With acceptAnyCertificate neither the peer
// certificate nor the host name is checked.
//
// Since it answers whatever server sits at an address, it is bounded:
// - only http and https URLs; redirects are never followed (a 3xx is an ordinary response);
//   no proxy, whatever the environment says;
// - timeoutSeconds bounds the whole request, however slowly the answer trickles in
//   (error 28, CURLE_OPERATION_TIMEDOUT);
// - a kept body longer than maxResponseBody fails the request with error 63
//   (CURLE_FILESIZE_EXCEEDED); a discarded body is read to its end but never stored;
// - header lines beyond kMaxHttpResponseHeaders bytes fail it with error 23
//   (CURLE_WRITE_ERROR).
class CurlHttpTransport final : public HttpTransport {
 public:
  HttpResult Send(const HttpRequest& request) override;
};

}  // namespace tarn
