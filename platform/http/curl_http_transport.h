#pragma once

#include "platform/platform.h"

namespace tarn {

// The live HTTP transport, on libcurl: one easy handle per request, no signals, no
// "Expect: 100-continue" pause before a body. The request's TlsPolicy decides how an HTTPS
// server proves itself: a failed chain or host-name check is error 60
// (CURLE_PEER_FAILED_VERIFICATION), a public key that matches no pin is error 90
// (CURLE_SSL_PINNEDPUBKEYNOTMATCH); either way nothing of the request is sent. Before any
// connection, an HTTPS request fails with 90 when a pin is given that is not a list of
// sha256// hashes (the empty text included) and with 60 when the policy is marked unusable.
//
// Since it answers whatever server sits at an address, it is bounded:
// - only http and https URLs; redirects are never followed (a 3xx is an ordinary response);
//   no proxy, whatever the environment says;
// - time, each with error 28 (CURLE_OPERATION_TIMEDOUT): inactivitySeconds for connecting and
//   for any stretch in which no byte moves either way (bytes the server has yet to take from
//   the system's send buffer count as moving while they drain); totalSeconds for the whole
//   request;
// - a kept body longer than maxResponseBody fails the request with error 63
//   (CURLE_FILESIZE_EXCEEDED); a discarded body is read to its end but never stored;
// - header lines beyond kMaxHttpResponseHeaders bytes fail it with error 23
//   (CURLE_WRITE_ERROR).
class CurlHttpTransport final : public HttpTransport {
 public:
  HttpResult Send(const HttpRequest& request) override;
};

}  // namespace tarn
