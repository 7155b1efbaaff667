#pragma once

#include "platform/platform.h"

namespace tarn {

// The live HTTP transport, on libcurl: one easy handle per request, no signals, redirects not
// followed, no "Expect: 100-continue" pause before a body. With acceptAnyCertificate neither
// the peer certificate nor the host name is checked.
class CurlHttpTransport final : public HttpTransport {
 public:
  HttpResult Send(const HttpRequest& request) override;
};

}  // namespace tarn
