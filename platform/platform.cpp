#include "platform/platform.h"

#include <algorithm>
#include <utility>

#include "platform/exception/platform_exception.h"
#include "platform/host/live_host_info.h"
#include "platform/http/curl_http_transport.h"
#include "platform/process/posix_tool_runner.h"

namespace tarn {
namespace {

// Stand-ins for parts a platform was built without: nothing can be launched, no host fact
// can be had, no request can be sent.
class NoToolRunner final : public ToolRunner {
 public:
  std::optional<std::string> Run(const std::string& launchPath, const std::vector<std::string>&,
                                 WaitPolicy) override {
    RaiseLaunchFailure(launchPath, "no tool runner installed");
  }
  int RunToFile(const std::string&, const std::vector<std::string>&, const std::string&) override {
    return kShellCannotLaunch;
  }
};

class NoHostInfo final : public HostInfo {
 public:
  std::string HostName() override { return {}; }
  std::string LocalizedName() override { return {}; }
  std::vector<InterfaceAddress> InterfaceAddresses() override { return {}; }
  std::optional<VmStatistics> VirtualMemoryStatistics() override { return std::nullopt; }
  std::vector<ProcessEntry> ProcessTable() override { return {}; }
  std::string OwnProcessName() override { return {}; }
  int OwnProcessId() override { return 0; }
  unsigned OwnUserId() override { return 0; }
};

class NoHttpTransport final : public HttpTransport {
 public:
  HttpResult Send(const HttpRequest&) override {
    return HttpResult{std::nullopt, HttpError{-1, "no HTTP transport installed"}};
  }
};

// The one process-wide platform.
std::unique_ptr<Platform>& InstalledPlatform() {
  static std::unique_ptr<Platform> installed;
  return installed;
}

}  // namespace

bool IsPinnedPublicKeyList(std::string_view text) {
  constexpr std::string_view kPrefix = "sha256//";
  constexpr std::size_t kHashLength = 44;  // base64 of 32 bytes, one "=" of padding
  const auto isBase64 = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
  };
  if (text.empty()) return false;
  for (;;) {
    const std::size_t end = std::min(text.find(';'), text.size());
    const std::string_view entry = text.substr(0, end);
    if (!entry.starts_with(kPrefix) || entry.size() != kPrefix.size() + kHashLength ||
        entry.back() != '=') {
      return false;
    }
    const std::string_view hash = entry.substr(kPrefix.size(), kHashLength - 1);
    for (const char c : hash) {
      if (!isBase64(c)) return false;
    }
    if (end == text.size()) return true;
    text.remove_prefix(end + 1);
  }
}

void RaiseLaunchFailure(const std::string& launchPath, const std::string& cause) {
  throw PlatformException(kInvalidArgumentException,
                          "launch path not accessible: " + launchPath + ": " + cause);
}

Platform::Platform(std::unique_ptr<ToolRunner> tools, std::unique_ptr<HostInfo> host,
                   std::unique_ptr<HttpTransport> http)
    : tools_(tools ? std::move(tools) : std::make_unique<NoToolRunner>()),
      host_(host ? std::move(host) : std::make_unique<NoHostInfo>()),
      http_(http ? std::move(http) : std::make_unique<NoHttpTransport>()) {}

std::unique_ptr<ToolRunner> Platform::ReplaceTools(std::unique_ptr<ToolRunner> tools) {
  return std::exchange(tools_, tools ? std::move(tools) : std::make_unique<NoToolRunner>());
}

Platform& CurrentPlatform() {
  auto& installed = InstalledPlatform();
  if (!installed) installed = MakeLivePlatform();
  return *installed;
}

std::unique_ptr<Platform> InstallPlatform(std::unique_ptr<Platform> platform) {
  return std::exchange(InstalledPlatform(), std::move(platform));
}

std::unique_ptr<Platform> MakeLivePlatform() {
  return std::make_unique<Platform>(std::make_unique<PosixToolRunner>(), MakeLiveHostInfo(),
                                    std::make_unique<CurlHttpTransport>());
}

ScopedPlatform::ScopedPlatform(std::unique_ptr<Platform> platform)
    : previous_(InstallPlatform(std::move(platform))) {}

ScopedPlatform::~ScopedPlatform() { InstallPlatform(std::move(previous_)); }

}  // namespace tarn
