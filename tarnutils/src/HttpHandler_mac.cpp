#include "tarnutils/src/HttpHandler_mac.h"

#include <strings.h>

#include <string_view>
#include <utility>

#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_value.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/TarnStringutil.h"

namespace tarn {
namespace {

constexpr const char* kSendSignature = "-[HttpHandlermac TarnSendData:data:]";
constexpr const char* kGetSignature = "-[HttpHandlermac TarnGetData:data:ifModifiedKey:]";

constexpr char kHex[] = "0123456789ABCDEF";

bool IsAlphanumeric(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

// Characters a URL may hold in its path and query (RFC 3986): the unreserved ones, the
// sub-delimiters, ":", "@", "/" and "?". Everything else, "#" included, is escaped, so the
// text reaches the server as written.
bool IsUrlCharacter(unsigned char c) {
  return IsAlphanumeric(c) || std::string_view("-._~!$&'()*+,;=:@/?").find(static_cast<char>(c)) !=
                                  std::string_view::npos;
}

// What EncodeUrlValue keeps.
bool IsPlainValueCharacter(unsigned char c) {
  return IsAlphanumeric(c) ||
         std::string_view("-._~()").find(static_cast<char>(c)) != std::string_view::npos;
}

void AppendEscaped(std::string& out, unsigned char byte) {
  out += '%';
  out += kHex[byte >> 4];
  out += kHex[byte & 0x0F];
}

// The text with every byte escaped that keep refuses or alsoEscaped names.
template <typename Keep>
std::string PercentEscape(std::string_view text, std::string_view alsoEscaped, Keep keep) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (keep(byte) && alsoEscaped.find(c) == std::string_view::npos) {
      escaped += c;
    } else {
      AppendEscaped(escaped, byte);
    }
  }
  return escaped;
}

// The whole-address pass: what a URL cannot hold is escaped, but an escape already in the
// text ("%" and two hex digits, as EncodeUrlValue writes them) is kept, never escaped again.
std::string EscapeAddress(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool existingEscape =
        text[i] == '%' && i + 2 < text.size() && IsHexDigit(text[i + 1]) && IsHexDigit(text[i + 2]);
    if (IsUrlCharacter(byte) || existingEscape) {
      escaped += text[i];
    } else {
      AppendEscaped(escaped, byte);
    }
  }
  return escaped;
}

struct Phrase {
  long status;
  const char* text;
};

constexpr Phrase kReasonPhrases[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {421, "Misdirected Request"},
    {422, "Unprocessable Content"},
    {426, "Upgrade Required"},
    {429, "Too Many Requests"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
};

// The standard reason phrase of a status code; codes without one get their class's name.
const char* ReasonPhrase(long status) {
  for (const Phrase& phrase : kReasonPhrases) {
    if (phrase.status == status) return phrase.text;
  }
  constexpr const char* kClasses[] = {"Informational", "Success", "Redirection", "Client Error",
                                      "Server Error"};
  return status >= 100 && status < 600 ? kClasses[status / 100 - 1] : "No Response";
}

// Appends the pieces of a comma-separated address text longer than two characters.
void AppendSplit(std::vector<std::string>& addresses, const std::optional<std::string>& text) {
  if (!text || text->size() <= 2) return;
  for (std::string& piece : SplitText(*text, ",")) addresses.push_back(std::move(piece));
}

// The result of a failed attempt: the transport error's code (its text is logged), else
// fallback.
DWORD FailureCode(const HttpResult& answer, DWORD fallback) {
  if (!answer.error) return fallback;
  ConsoleLog("Error Description: %s\n", answer.error->text.c_str());
  return static_cast<DWORD>(answer.error->code);
}

void LogException(const char* operation, const PlatformException& failure) {
  ConsoleLog("%s: Expception occurred: %s :reason: %s\n", operation, failure.name().c_str(),
             failure.reason().c_str());
}

}  // namespace

HttpHandlermac HttpHandlermac::initWithTarnServerInfo() {
  const TarnGlobvars& vars = gv_globvars();
  HttpHandlermac handler;
  handler.TarnServerName = vars.tarnServerName();
  handler.TarnServerFlatName = vars.tarnServerFlatName();
  handler.TarnServerIP = vars.tarnServerIP();
  handler.TarnServerSecIP = vars.tarnServerSecIP();
  handler.TarnProtocol = vars.tarnProtocol();
  const bool secure = vars.tarnProtocol() && strcasecmp(vars.tarnProtocol()->c_str(), "https") == 0;
  handler.TarnServerPort =
      static_cast<std::int32_t>(secure ? vars.tarnServerSecurePort() : vars.tarnServerPort());
  handler.TarnlastCommunicationAddr =
      vars.tarnlastaccessName() ? vars.tarnlastaccessName() : vars.tarnServerIP();
  handler.tlsPolicy = TlsPolicyFromSettings();
  return handler;
}

TlsPolicy HttpHandlermac::TlsPolicyFromSettings() {
  const TarnGlobvars& vars = gv_globvars();
  TlsPolicy policy;
  policy.caFile = vars.tlsCaFile().value_or("");
  policy.acceptAnyCertificate = !vars.tlsVerify() && policy.caFile.empty();
  policy.pinnedPublicKeys = vars.tlsPinnedPublicKeys();
  policy.unusable = vars.tlsSettingsError();
  return policy;
}

std::vector<std::string> HttpHandlermac::PostAddresses() const {
  std::vector<std::string> addresses;
  for (const OptText* candidate :
       {&TarnlastCommunicationAddr, &TarnServerIP, &TarnServerName, &TarnServerFlatName}) {
    if (!*candidate) break;
    addresses.push_back(**candidate);
  }
  if (TarnServerSecIP && TarnServerSecIP->size() > 2) addresses.push_back(*TarnServerSecIP);
  return addresses;
}

// The list cannot hold an absent first address: building it raises, as the platform's
// containers do when given nothing.
std::vector<std::string> HttpHandlermac::GetAddresses() const {
  if (!TarnlastCommunicationAddr) {
    throw PlatformException(kInvalidArgumentException, "attempt to insert nil object at 0");
  }
  std::vector<std::string> addresses{*TarnlastCommunicationAddr};
  AppendSplit(addresses, TarnServerIP);
  if (TarnServerName) addresses.push_back(*TarnServerName);
  if (TarnServerFlatName) addresses.push_back(*TarnServerFlatName);
  AppendSplit(addresses, TarnServerSecIP);
  return addresses;
}

// "protocol://address:port/" and the escaped path: a path that starts with "/" gives a
// double slash after the port, which the server expects.
std::string HttpHandlermac::UrlFor(const std::string& address,
                                   const std::string& pathAndQuery) const {
  return std::string(Describe(TarnProtocol)) + "://" + address + ":" +
         std::to_string(TarnServerPort) + "/" + EscapeAddress(pathAndQuery);
}

HttpRequest HttpHandlermac::NewRequest(const char* method, const std::string& url) const {
  HttpRequest request;
  request.method = method;
  request.url = url;
  request.headers.emplace_back("Connection", keepAliveOn ? "Keep-Alive" : "close");
  request.inactivitySeconds = kInactivitySeconds;
  request.totalSeconds = kRequestSeconds;
  request.tls = tlsPolicy;
  return request;
}

HttpResult HttpHandlermac::Exchange(const HttpRequest& request) {
  HttpResult answer = CurrentPlatform().Http().Send(request);
  httpStatusCode = answer.response ? static_cast<std::int32_t>(answer.response->status) : 0;
  ConsoleLog("Http response status code: %i: Description:%s\n", httpStatusCode,
             ReasonPhrase(httpStatusCode));
  return answer;
}

// A 200 answer that passes validation when it is on; a rejected one leaves the status 0.
bool HttpHandlermac::AcceptedOk(const HttpResult& answer) {
  if (!answer.response || answer.response->status != 200) return false;
  if (!validateServer || VaidateServerResponseHeader(*answer.response, kServerHeader)) {
    return true;
  }
  httpStatusCode = 0;
  return false;
}

DWORD HttpHandlermac::TarnSendData(const std::string& pathAndQuery, std::string body) {
  ConsoleWhere(kSendSignature, __LINE__, "download url: %s\n", pathAndQuery.c_str());
  try {
    DWORD result = 1;
    // One request for every address: the body (a whole inventory) is never copied.
    HttpRequest request = NewRequest("POST", "");
    request.headers.emplace_back("Accept", "text/xml");
    request.headers.emplace_back("Content-type", "application/xml");
    request.body = std::move(body);
    request.discardResponseBody = true;
    for (const std::string& address : PostAddresses()) {
      request.url = UrlFor(address, pathAndQuery);
      ConsoleLog("url string:%s\n", request.url.c_str());
      StderrWhere(kSendSignature, __LINE__, "Data to Send length: %lu\n",
                  static_cast<unsigned long>(request.body.size()));
      const HttpResult answer = Exchange(request);
      if (AcceptedOk(answer)) {
        lastaccessAddress = address;
        return 0;
      }
      result = FailureCode(answer, 1);
    }
    return result;
  } catch (const PlatformException& failure) {
    LogException("TarnSendData", failure);
    return 1;
  }
}

// 304 and 404 end a GET at once, with the answering address kept.
std::optional<DWORD> HttpHandlermac::FinalAnswer(long status, const std::string& address) {
  if (status == 304) {
    // No If-Modified-Since time is ever sent, so there is none to name.
    ConsoleWhere(kGetSignature, __LINE__,
                 "(If-Modified-Since)File not modified since the time: %s \n", "(null)");
  } else if (status == 404) {
    ConsoleWhere(kGetSignature, __LINE__, ": 404 not found \n");
  } else {
    return std::nullopt;
  }
  lastaccessAddress = address;
  return status == 304 ? kNotModified : 404;
}

DWORD HttpHandlermac::TarnGetData(const std::string& pathAndQuery,
                                  std::optional<std::string>& bodyOut,
                                  const std::optional<std::string>& /*ifModifiedKey*/) {
  bodyOut.reset();
  bool refused = false;
  try {
    DWORD result = 1;
    for (const std::string& address : GetAddresses()) {
      const std::string url = UrlFor(address, pathAndQuery);
      ConsoleWhere(kGetSignature, __LINE__, "url string:%s", url.c_str());
      HttpResult answer = Exchange(NewRequest("GET", url));
      if (AcceptedOk(answer)) {
        bodyOut = std::move(answer.response->body);
        lastaccessAddress = address;
        return 0;
      }
      const long status = answer.response ? answer.response->status : 0;
      if (const std::optional<DWORD> final = FinalAnswer(status, address)) return *final;
      refused = refused || status == 403;
      result = status == 200 ? 1 : FailureCode(answer, static_cast<DWORD>(status));
    }
    return refused ? 403 : result;
  } catch (const PlatformException& failure) {
    LogException("TarnGetData", failure);
    return refused ? 403 : 1;
  }
}

bool HttpHandlermac::VaidateServerResponseHeader(const HttpResponse& response,
                                                 const std::string& headerName) const {
  if (response.headers.empty()) return true;
  for (const auto& [name, value] : response.headers) {
    if (strcasecmp(name.c_str(), headerName.c_str()) == 0) {
      ConsoleLog("Tarn server header value: %s: %s", headerName.c_str(), value.c_str());
      return true;
    }
  }
  ConsoleLog("Tarn server header is not found in response header !!! Invalid server response!");
  const PlistPtr fields = PlistValue::MakeDictionary();
  for (const auto& [name, value] : response.headers) {
    fields->SetValueForKey(name, PlistValue::MakeString(value));
  }
  ConsoleLog("Server header: %s", fields->Description().c_str());
  return false;
}

std::string HttpHandlermac::stringByUrlEncoding(const std::string& text) {
  return PercentEscape(text, "!*'();:@&amp;=+$,/?%#[]", IsUrlCharacter);
}

std::string HttpHandlermac::EncodeUrlValue(std::string_view value) {
  const bool dotStep = value == "." || value == "..";
  return PercentEscape(value, dotStep ? "." : "", IsPlainValueCharacter);
}

}  // namespace tarn
