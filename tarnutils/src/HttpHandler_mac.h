// The agent's client for its management server. The server is known under several
// addresses (the one that worked last, IP, name, flat name, secondary IP); each request tries
// them in turn until one answers, over HTTP or HTTPS as the agent settings say. Requests are
// synchronous and go through the process-wide platform's HTTP transport; every diagnostic
// goes to the console log except the body length of a POST, which goes to standard error.
// How the server must prove itself over HTTPS is the settings' TLS policy; a server that
// fails it (libcurl 60 or 90) is a transport error like an unreachable one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/platform.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

class HttpHandlermac {
 public:
  // The response header by which the management server identifies itself.
  static constexpr const char* kServerHeader = "X-Tarn-Header";
  // TarnGetData's result when the server answers 304.
  static constexpr DWORD kNotModified = 90001;
  // Connecting, and any stretch in which no byte moves either way, may take this long.
  static constexpr int kInactivitySeconds = 30;
  // The whole request may take this long while its bytes keep moving (a large inventory on a
  // slow line).
  static constexpr int kRequestSeconds = 600;

  // A client for the server of the agent settings (gv_globvars must exist): port
  // tarnServerSecurePort when the protocol is "https" in any letter case, else tarnServerPort;
  // last communication address tarnlastaccessName, else tarnServerIP. Status 0, keep-alive
  // and validation off, no last access address. The TLS policy comes from the settings'
  // tlsCaFile, tlsVerify, tlsPinnedPublicKeys and tlsSettingsError (TlsPolicyFromSettings).
  static HttpHandlermac initWithTarnServerInfo();

  // Any certificate accepted unless tlsVerify is set or a CA file is named; the CA file and
  // the pinned keys as they are (a pin that is set, even to an empty text, is checked); a
  // settings error makes the policy unusable, so every HTTPS request fails.
  static TlsPolicy TlsPolicyFromSettings();

  // POSTs body ("Content-type: application/xml", "Accept: text/xml") to pathAndQuery at the
  // last communication address, IP, name and flat name (the list ends at the first absent
  // one), then the secondary IP when it is longer than two characters; the addresses are
  // used whole. The answer's body is not kept. 0 when an address answered 200 (and passed
  // validation when it is on); otherwise the last attempt's transport error code, or 1.
  DWORD TarnSendData(const std::string& pathAndQuery, std::string body);

  // GETs pathAndQuery from the last communication address, the pieces of the IP text split at
  // "," (when longer than two characters), name and flat name (when present), then the pieces
  // of the secondary IP alike. Results: 0 with the body in bodyOut; 90001 on a 304 and 404 on
  // a 404, both at once; 403 when no address succeeded and one answered 403; otherwise the
  // last attempt's transport error code or status, or 1 after a failed validation. bodyOut is
  // absent unless the result is 0. An absent last communication address fails with 1 before
  // any request. ifModifiedKey is not supported: this program never keeps If-Modified-Since
  // times, so no such header is sent and the key is ignored.
  DWORD TarnGetData(const std::string& pathAndQuery, std::optional<std::string>& bodyOut,
                    const std::optional<std::string>& ifModifiedKey = std::nullopt);

  // True when the answer is acceptable: it has no header fields at all, or it has headerName
  // (compared without letter case) with any value.
  bool VaidateServerResponseHeader(const HttpResponse& response,
                                   const std::string& headerName) const;

  // text percent-encoded in UTF-8, escaping, besides what a URL cannot hold, every character
  // of "!*'();:@&amp;=+$,/?%#[]" (the letters a, m and p included).
  static std::string stringByUrlEncoding(const std::string& text);

  // A value inserted into a path segment or a query: every byte percent-encoded ("%XX",
  // upper-case hex; a UTF-8 character byte by byte) except the letters, digits and
  // "-._~()"; a value that is "." or ".." has its dots encoded too, so it never reads as a
  // step in the path. Names, numbers and "(null)" come out unchanged.
  static std::string EncodeUrlValue(std::string_view value);

  // The status of the last answer; 0 after a failed validation or when no answer came.
  std::int32_t GetHttpStatusCode() const { return httpStatusCode; }
  // Off: requests carry "Connection: close"; on: "Connection: Keep-Alive".
  void SetKeepAlive(bool on) { keepAliveOn = on; }
  bool GetKeepAlive() const { return keepAliveOn; }
  // On: a 200 answer counts only when it carries kServerHeader.
  void SetValidateServer(bool on) { validateServer = on; }
  bool GetValidateServer() const { return validateServer; }
  // How many server addresses an upload is offered to, one after another.
  std::size_t PostAddressCount() const { return PostAddresses().size(); }
  // The address that answered this object's last successful request (or its 304/404).
  const std::optional<std::string>& GetLastAccessAddress() const { return lastaccessAddress; }

 private:
  using OptText = std::optional<std::string>;

  HttpHandlermac() = default;

  std::vector<std::string> PostAddresses() const;
  std::vector<std::string> GetAddresses() const;
  std::string UrlFor(const std::string& address, const std::string& pathAndQuery) const;
  HttpRequest NewRequest(const char* method, const std::string& url) const;
  HttpResult Exchange(const HttpRequest& request);
  bool AcceptedOk(const HttpResult& answer);
  std::optional<DWORD> FinalAnswer(long status, const std::string& address);

  OptText TarnServerName;
  OptText TarnServerFlatName;
  OptText TarnServerIP;
  OptText TarnServerSecIP;
  OptText TarnProtocol;
  std::int32_t TarnServerPort = 0;
  OptText TarnlastCommunicationAddr;
  std::int32_t httpStatusCode = 0;
  bool keepAliveOn = false;
  bool validateServer = false;
  OptText lastaccessAddress;
  TlsPolicy tlsPolicy;
};

}  // namespace tarn
