#include "tarnutils/src/HttpHandler_mac.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

using testing::ScriptedHttp;
using Hosts = std::vector<std::string>;

class HttpHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TarnGlobvars& vars = InitTarnGlobalvars();
    vars.Set_tarnProtocol("http");
    vars.Set_tarnServerPort(8020);
    vars.Set_tarnServerSecurePort(8383);
    vars.Set_tarnlastaccessName("last");
    vars.Set_tarnServerIP("10.0.0.1,10.0.0.2");
    vars.Set_tarnServerName("srv");
    vars.Set_tarnServerFlatName("SRV");
    vars.Set_tarnServerSecIP("10.9.9.9,10.9.9.8");
  }
  void TearDown() override { DeinitTarnGlobalvars(); }

  // Leaves the last communication address as the only one.
  static void OnlyLastAddress() {
    for (auto set : {&TarnGlobvars::Set_tarnServerIP, &TarnGlobvars::Set_tarnServerName,
                     &TarnGlobvars::Set_tarnServerFlatName, &TarnGlobvars::Set_tarnServerSecIP}) {
      (gv_globvars().*set)(std::nullopt);
    }
  }

  ScriptedHttp& http() { return fake_.http(); }

  // The host of every URL tried, in order.
  Hosts TriedHosts() {
    Hosts hosts;
    for (const HttpRequest& request : http().requests) {
      const auto start = request.url.find("://") + 3;
      hosts.push_back(request.url.substr(start, request.url.find(':', start) - start));
    }
    return hosts;
  }

  testing::ScriptedHttpPlatform fake_;
};

void ExpectLogged(const std::string& logged, const std::vector<const char*>& messages) {
  for (const char* message : messages)
    EXPECT_NE(logged.find(message), std::string::npos) << message;
}

TEST_F(HttpHandlerTest, SecurePortAndFirstAddressFromTheSettings) {
  gv_globvars().Set_tarnProtocol("HTTPS");
  gv_globvars().Set_tarnlastaccessName(std::nullopt);
  std::optional<std::string> body;
  HttpHandlermac::initWithTarnServerInfo().TarnGetData("p", body);
  // Without a last access name the IP text comes first, whole, then its pieces.
  EXPECT_EQ(http().requests.at(0).url, "HTTPS://10.0.0.1,10.0.0.2:8383/p");
  EXPECT_EQ(TriedHosts().at(1), "10.0.0.1");
}

TEST_F(HttpHandlerTest, PostAddressesEndAtTheFirstAbsentOne) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(HttpHandlermac::initWithTarnServerInfo().TarnSendData("x", "body"), 7u);
  ExpectLogged(::testing::internal::GetCapturedStderr(),
               {"Error Description: Couldn't connect to server\n"});
  EXPECT_EQ(TriedHosts(), (Hosts{"last", "10.0.0.1,10.0.0.2", "srv", "SRV", "10.9.9.9,10.9.9.8"}));

  gv_globvars().Set_tarnServerName(std::nullopt);
  gv_globvars().Set_tarnServerSecIP("ab");  // two characters: not tried
  http().Script({});
  HttpHandlermac::initWithTarnServerInfo().TarnSendData("x", "");
  EXPECT_EQ(TriedHosts(), (Hosts{"last", "10.0.0.1,10.0.0.2"}));

  gv_globvars().Set_tarnServerIP(std::nullopt);
  gv_globvars().Set_tarnServerName("srv");
  gv_globvars().Set_tarnServerSecIP("abc");
  http().Script({});
  HttpHandlermac::initWithTarnServerInfo().TarnSendData("x", "");
  EXPECT_EQ(TriedHosts(), (Hosts{"last", "abc"}));
}

TEST_F(HttpHandlerTest, PostRequestUrlHeadersAndMessages) {
  http().Script({ScriptedHttp::Answer(500), ScriptedHttp::Answer(200, {{"Server", "x"}})});
  HttpHandlermac client = HttpHandlermac::initWithTarnServerInfo();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(
      client.TarnSendData("/inventory?name=Mac Book&pct=50%&tag=#1&u=\xC3\xA9|", "<DataObject/>"),
      0u);
  const std::string logged = ::testing::internal::GetCapturedStderr();
  ASSERT_EQ(http().requests.size(), 2u);
  const HttpRequest& request = http().requests[1];
  EXPECT_EQ(
      request.url,
      "http://10.0.0.1,10.0.0.2:8020//inventory?name=Mac%20Book&pct=50%25&tag=%231&u=%C3%A9%7C");
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.headers, (HttpHeaders{{"Connection", "close"},
                                          {"Accept", "text/xml"},
                                          {"Content-type", "application/xml"}}));
  EXPECT_EQ(request.body, "<DataObject/>");
  EXPECT_EQ(request.inactivitySeconds, 30);
  EXPECT_EQ(request.totalSeconds, 600);
  EXPECT_TRUE(request.tls.acceptAnyCertificate);
  EXPECT_EQ(request.tls.caFile, "");
  EXPECT_EQ(request.tls.pinnedPublicKeys, std::nullopt);
  EXPECT_EQ(request.tls.unusable, std::nullopt);
  EXPECT_TRUE(request.discardResponseBody);
  EXPECT_EQ(client.GetLastAccessAddress(), "10.0.0.1,10.0.0.2");
  EXPECT_EQ(client.GetHttpStatusCode(), 200);
  ExpectLogged(logged, {"-[HttpHandlermac TarnSendData:data:] [Line ",
                        "] download url: /inventory?name=Mac Book&pct=50%&tag=#1",
                        "url string:http://last:8020//inventory?name=Mac%20Book",
                        "] Data to Send length: 13\n",
                        "Http response status code: 500: Description:Internal Server Error\n",
                        "Http response status code: 200: Description:OK\n"});

  OnlyLastAddress();
  http().Script({ScriptedHttp::Answer(404)});
  EXPECT_EQ(HttpHandlermac::initWithTarnServerInfo().TarnSendData("x", ""), 1u);
}

TEST_F(HttpHandlerTest, ValidationNeedsTheServerHeaderOnA200) {
  const HttpResult foreign = ScriptedHttp::Answer(200, {{"Server", "other"}}, "foreign");
  const HttpResult ours = ScriptedHttp::Answer(200, {{"x-tarn-header", "1"}}, "ours");
  std::optional<std::string> body;

  http().Script({foreign});
  EXPECT_EQ(HttpHandlermac::initWithTarnServerInfo().TarnGetData("p", body), 0u);
  EXPECT_EQ(body, "foreign");  // validation off

  HttpHandlermac client = HttpHandlermac::initWithTarnServerInfo();
  client.SetValidateServer(true);
  http().Script({foreign, ours});
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(client.TarnGetData("p", body), 0u);
  ExpectLogged(
      ::testing::internal::GetCapturedStderr(),
      {"Tarn server header is not found in response header !!! Invalid server response!",
       "Server header: {", "Server = other;", "Tarn server header value: X-Tarn-Header: 1"});
  EXPECT_EQ(body, "ours");
  EXPECT_EQ(TriedHosts(), (Hosts{"last", "10.0.0.1"}));
  EXPECT_EQ(client.GetLastAccessAddress(), "10.0.0.1");

  OnlyLastAddress();
  client = HttpHandlermac::initWithTarnServerInfo();
  client.SetValidateServer(true);
  http().Script({foreign});
  EXPECT_EQ(client.TarnSendData("p", ""), 1u);
  EXPECT_EQ(client.GetHttpStatusCode(), 0);
  http().Script({foreign});
  EXPECT_EQ(client.TarnGetData("p", body), 1u);
  EXPECT_FALSE(body);
  http().Script({ScriptedHttp::Answer(200)});  // no header fields at all
  EXPECT_EQ(client.TarnGetData("p", body), 0u);
}

TEST_F(HttpHandlerTest, GetSplitsAddressesAndStopsAtNotFoundOrNotModified) {
  HttpHandlermac client = HttpHandlermac::initWithTarnServerInfo();
  client.SetKeepAlive(true);
  std::optional<std::string> body = "stale";
  EXPECT_EQ(client.TarnGetData("client-data/x.xml", body), 7u);
  EXPECT_FALSE(body);
  EXPECT_EQ(TriedHosts(),
            (Hosts{"last", "10.0.0.1", "10.0.0.2", "srv", "SRV", "10.9.9.9", "10.9.9.8"}));
  const HttpRequest& request = http().requests.at(0);
  EXPECT_EQ(request.url, "http://last:8020/client-data/x.xml");
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.headers, (HttpHeaders{{"Connection", "Keep-Alive"}}));
  EXPECT_FALSE(request.discardResponseBody);

  gv_globvars().Set_tarnServerIP("ab");
  gv_globvars().Set_tarnServerFlatName(std::nullopt);
  http().Script({});
  HttpHandlermac::initWithTarnServerInfo().TarnGetData("p", body);
  EXPECT_EQ(TriedHosts(), (Hosts{"last", "srv", "10.9.9.9", "10.9.9.8"}));

  const struct {
    long status;
    DWORD result;
    std::vector<const char*> messages;
  } stops[] = {
      {404,
       404,
       {"-[HttpHandlermac TarnGetData:data:ifModifiedKey:] [Line ", "] : 404 not found \n"}},
      {304, 90001, {"] (If-Modified-Since)File not modified since the time: (null) \n"}}};
  for (const auto& stop : stops) {
    http().Script({ScriptedHttp::Answer(stop.status, {}, "page")});
    client = HttpHandlermac::initWithTarnServerInfo();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(client.TarnGetData("p", body), stop.result);
    ExpectLogged(::testing::internal::GetCapturedStderr(), stop.messages);
    EXPECT_EQ(http().requests.size(), 1u);
    EXPECT_FALSE(body);
    EXPECT_EQ(client.GetLastAccessAddress(), "last");
  }
}

TEST_F(HttpHandlerTest, GetResultWhenNoAddressSucceeds) {
  using S = ScriptedHttp;
  const struct {
    std::vector<HttpResult> script;  // errors (7) follow
    DWORD result;
  } cases[] = {
      {{S::Answer(403), S::Answer(500)}, 403},
      {{S::Answer(500), S::Answer(302), S::Answer(502), S::Answer(503), S::Answer(504),
        S::Answer(500), S::Answer(401)},
       401},
      {{S::Answer(500)}, 7},
  };
  for (const auto& c : cases) {
    http().Script(c.script);
    std::optional<std::string> body;
    EXPECT_EQ(HttpHandlermac::initWithTarnServerInfo().TarnGetData("p", body), c.result);
    EXPECT_EQ(http().requests.size(), 7u);
  }

  gv_globvars().Set_tarnlastaccessName(std::nullopt);
  gv_globvars().Set_tarnServerIP(std::nullopt);
  http().Script({});
  std::optional<std::string> body;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(HttpHandlermac::initWithTarnServerInfo().TarnGetData("p", body), 1u);
  ExpectLogged(::testing::internal::GetCapturedStderr(),
               {"TarnGetData: Expception occurred: NSInvalidArgumentException :reason: "});
  EXPECT_TRUE(http().requests.empty());
}

TEST(HttpHandlerEncoding, StringByUrlEncodingEscapesItsExtraSetIncludingAmpEntityLetters) {
  EXPECT_EQ(HttpHandlermac::stringByUrlEncoding("a b/c?d=e&f"), "%61%20b%2Fc%3Fd%3De%26f");
  EXPECT_EQ(HttpHandlermac::stringByUrlEncoding("map-._~z\xC3\xA9"), "%6D%61%70-._~z%C3%A9");
  EXPECT_EQ(HttpHandlermac::stringByUrlEncoding("!*'();:@+$,%#[]"),
            "%21%2A%27%28%29%3B%3A%40%2B%24%2C%25%23%5B%5D");
}

TEST(HttpHandlerEncoding, InsertedValuesCannotAddParametersOrPathSteps) {
  struct Case {
    const char* value;
    const char* encoded;
  };
  const Case cases[] = {
      {"office-mac", "office-mac"},
      {"A-77", "A-77"},
      {"(null)", "(null)"},
      {"v1.2_x~y", "v1.2_x~y"},
      {"42&customerId=666", "42%26customerId%3D666"},
      {"42#frag", "42%23frag"},
      {"../../../../admin/reset", "..%2F..%2F..%2F..%2Fadmin%2Freset"},
      {"..", "%2E%2E"},
      {".", "%2E"},
      {"...", "..."},
      {"50%", "50%25"},
      {"%41", "%2541"},
      {"Alice's Mac\n", "Alice%27s%20Mac%0A"},
      {"caf\xC3\xA9", "caf%C3%A9"},
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(HttpHandlermac::EncodeUrlValue(c.value), c.encoded);
}

TEST_F(HttpHandlerTest, EncodedValuesAreNotEscapedAgainButLoosePercentSignsAre) {
  http().Script({ScriptedHttp::Answer(200)});
  const std::string query =
      "/inventory?computer=" + HttpHandlermac::EncodeUrlValue("a&b=c #d%") + "&pct=5%";
  EXPECT_EQ(HttpHandlermac::initWithTarnServerInfo().TarnSendData(query, ""), 0u);
  EXPECT_EQ(http().requests.at(0).url,
            "http://last:8020//inventory?computer=a%26b%3Dc%20%23d%25&pct=5%25");
}

TEST_F(HttpHandlerTest, TlsPolicyFollowsTheSettings) {
  struct Case {
    bool verify;
    std::optional<std::string> caFile;
    std::optional<std::string> pins;
    std::optional<std::string> error;
    bool acceptAny;
  };
  const std::string pin = "sha256//47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=";
  const Case cases[] = {
      {false, std::nullopt, std::nullopt, std::nullopt, true},
      {true, std::nullopt, std::nullopt, std::nullopt, false},
      {false, "/etc/tarn/ca.pem", std::nullopt, std::nullopt, false},
      {true, "/etc/tarn/ca.pem", pin, std::nullopt, false},
      {false, std::nullopt, pin, std::nullopt, true},  // the pin is checked, the chain not
      {false, std::nullopt, "", std::nullopt, true},   // an empty pin is a pin: nothing matches
      {true, std::nullopt, std::nullopt, "TLS_VERIFY is unusable", false},
  };
  for (const Case& c : cases) {
    gv_globvars().Set_tlsVerify(c.verify);
    gv_globvars().Set_tlsCaFile(c.caFile);
    gv_globvars().Set_tlsPinnedPublicKeys(c.pins);
    gv_globvars().Set_tlsSettingsError(c.error);
    http().Script({});
    std::optional<std::string> body;
    HttpHandlermac::initWithTarnServerInfo().TarnGetData("p", body);
    HttpHandlermac::initWithTarnServerInfo().TarnSendData("p", "");
    ASSERT_FALSE(http().requests.empty());
    for (const HttpRequest& request : http().requests) {
      EXPECT_EQ(request.tls.acceptAnyCertificate, c.acceptAny);
      EXPECT_EQ(request.tls.caFile, c.caFile.value_or(""));
      EXPECT_EQ(request.tls.pinnedPublicKeys, c.pins);
      EXPECT_EQ(request.tls.unusable, c.error);
    }
  }
}

}  // namespace
}  // namespace tarn
