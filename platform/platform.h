#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn {

// ---- Running the reporting tools.

enum class WaitPolicy {
  kBounded,    // wait in steps (30 one-second steps by default), then terminate the tool
  kUnbounded,  // wait until the tool ends
};

class ToolRunner {
 public:
  virtual ~ToolRunner() = default;

  // Runs the executable at launchPath (no shell, no PATH search) with the arguments; what it
  // writes to standard error reaches this process's standard error as escaped lines (the
  // log's text, never raw). Gives its standard output, or nothing when the output is not
  // valid UTF-8. A bounded run that outlasts its steps is terminated and gives what it wrote
  // until then. A tool that cannot be launched (nothing executable at the path, spawn
  // failure) raises PlatformException (NSInvalidArgumentException) with the reason, as the
  // platform's task launch does; callers catch it.
  virtual std::optional<std::string> Run(const std::string& launchPath,
                                         const std::vector<std::string>& arguments,
                                         WaitPolicy wait) = 0;

  // Runs the tool until it ends with its standard output written to outputPath, which is
  // created afresh with mode 0600 (an existing regular file is replaced; a link or anything
  // else at the path makes the call fail untouched). Gives the status a shell running
  // "tool > outputPath" would report: 0 when the tool ended with exit status 0, its exit code
  // times 256 otherwise, (128 + signal) times 256 when a signal ended it, kShellOutputFailed
  // when the output file could not be made and kShellCannotLaunch when the tool could not be
  // started. The file keeps whatever the tool wrote either way. Never raises.
  virtual int RunToFile(const std::string& launchPath, const std::vector<std::string>& arguments,
                        const std::string& outputPath) = 0;

  // As Run and RunToFile, but the console lines the runner would write about this run (the
  // tool's standard error, a failure of the runner itself) are appended to lines instead,
  // in order, for the caller to write when it hands the result on. A runner that writes no
  // console lines of its own keeps these defaults.
  virtual std::optional<std::string> RunKeepingLog(const std::string& launchPath,
                                                   const std::vector<std::string>& arguments,
                                                   WaitPolicy wait,
                                                   std::vector<std::string>& lines) {
    (void)lines;
    return Run(launchPath, arguments, wait);
  }
  virtual int RunToFileKeepingLog(const std::string& launchPath,
                                  const std::vector<std::string>& arguments,
                                  const std::string& outputPath, std::vector<std::string>& lines) {
    (void)lines;
    return RunToFile(launchPath, arguments, outputPath);
  }
};

// Shell-form statuses of RunToFile: a redirection the shell cannot open ends it with exit
// code 1, a command it cannot find or run with 127.
inline constexpr int kShellOutputFailed = 1 << 8;
inline constexpr int kShellCannotLaunch = 127 << 8;

// The shell-form status of a tool that ended with this exit code.
constexpr int ShellStatusOfExitCode(int exitCode) { return (exitCode & 0xff) << 8; }

// Raises the PlatformException of a tool that cannot be launched:
// NSInvalidArgumentException, "launch path not accessible: <path>" and the cause.
[[noreturn]] void RaiseLaunchFailure(const std::string& launchPath, const std::string& cause);

// ---- Facts about this computer.

struct InterfaceAddress {
  std::string name;     // "en0"
  int family = 0;       // address family; 2 is IPv4 on every platform
  std::string address;  // "192.168.1.20"
};

// Page counts of the virtual-memory statistics.
struct VmStatistics {
  std::uint64_t pageSize = 0;  // bytes
  std::uint64_t freeCount = 0;
  std::uint64_t activeCount = 0;
  std::uint64_t inactiveCount = 0;
  std::uint64_t wireCount = 0;
};

struct ProcessEntry {
  int pid = 0;
  std::string name;  // the short name the kernel keeps
  unsigned uid = 0;  // the effective user id
};

class HostInfo {
 public:
  virtual ~HostInfo() = default;

  // The host name as gethostname reports it ("Office-Mac.local"); empty on failure.
  virtual std::string HostName() = 0;
  // The user-visible computer name ("Alice's MacBook Pro"); empty on failure.
  virtual std::string LocalizedName() = 0;
  // The interface address list in the system's order; empty on failure.
  virtual std::vector<InterfaceAddress> InterfaceAddresses() = 0;
  // Nothing when the statistics call failed.
  virtual std::optional<VmStatistics> VirtualMemoryStatistics() = 0;
  // Every running process of the computer (ended ones not yet reaped are left out); empty on
  // failure.
  virtual std::vector<ProcessEntry> ProcessTable() = 0;
  // This process's name, comparable with the names of ProcessTable.
  virtual std::string OwnProcessName() = 0;
  virtual int OwnProcessId() = 0;
  // This process's effective user id, comparable with ProcessEntry::uid.
  virtual unsigned OwnUserId() = 0;
};

// ---- HTTP.

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// Bounds on what a response may bring. A server that sends more fails the request: the
// transport reports an error, not a response.
inline constexpr std::size_t kMaxHttpResponseBody = 1024 * 1024;     // bytes of a kept body
inline constexpr std::size_t kMaxHttpResponseHeaders = 64 * 1024;  // bytes of all header lines

// How an HTTPS server proves itself. The default checks the certificate chain against the
// system's authorities and the host name.
struct TlsPolicy {
  // No chain and no host-name check (a pin below is still checked).
  bool acceptAnyCertificate = false;
  // PEM bundle of the authorities to trust instead of the system's; empty: the system's.
  std::string caFile;
  // The server's public key must be one of these: "sha256//" and the base64 of a SHA-256
  // hash of the DER public key, several joined by ";". Absent: no pin. A text that is not such
  // a list, the empty text included, fails every HTTPS request (see IsPinnedPublicKeyList).
  std::optional<std::string> pinnedPublicKeys;
  // Why the configured checks cannot be applied (a setting that could not be read); when set,
  // every HTTPS request fails before connecting.
  std::optional<std::string> unusable;
};

// True for "sha256//<44 base64 characters>" entries joined by ";" (no empty entry).
bool IsPinnedPublicKeyList(std::string_view text);

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  HttpHeaders headers;
  std::string body;
  // Bounds connecting, and any later stretch in which no byte moves in either direction (the
  // body still being taken by the server, or the answer still arriving, both count as
  // moving); values below 1 count as 1.
  int inactivitySeconds = 30;
  // Bounds the whole exchange however steadily its bytes move; values below 1 count as 1.
  int totalSeconds = 600;
  TlsPolicy tls;
  // Largest body kept in HttpResponse::body; a longer one is an error.
  std::size_t maxResponseBody = kMaxHttpResponseBody;
  // The body is read and dropped, whatever its size: HttpResponse::body stays empty.
  bool discardResponseBody = false;
};

struct HttpResponse {
  long status = 0;
  HttpHeaders headers;  // in the order received; names as the server wrote them
  std::string body;
};

struct HttpError {
  long code = 0;  // the transport's error code (libcurl's CURLcode for the live transport)
  std::string text;
};

// Exactly one of response and error is set.
struct HttpResult {
  std::optional<HttpResponse> response;
  std::optional<HttpError> error;
};

class HttpTransport {
 public:
  virtual ~HttpTransport() = default;
  // One synchronous request. A server answer of any status is a response; no answer
  // (connection, TLS, time-out) is an error. Never raises.
  virtual HttpResult Send(const HttpRequest& request) = 0;
};

// ---- The process-wide seam.

// The operating system as the rest of the program sees it. Owns its three parts; a part given
// as null is replaced by a stand-in that launches nothing, knows no host fact (empty names,
// no statistics) and answers every request with an error, so a test fakes only what it needs.
class Platform {
 public:
  Platform(std::unique_ptr<ToolRunner> tools, std::unique_ptr<HostInfo> host,
           std::unique_ptr<HttpTransport> http);

  ToolRunner& Tools() { return *tools_; }
  // Puts another tool runner in place and gives back the one it replaces; null installs the
  // stand-in that launches nothing.
  std::unique_ptr<ToolRunner> ReplaceTools(std::unique_ptr<ToolRunner> tools);
  HostInfo& Host() { return *host_; }
  HttpTransport& Http() { return *http_; }

 private:
  std::unique_ptr<ToolRunner> tools_;
  std::unique_ptr<HostInfo> host_;
  std::unique_ptr<HttpTransport> http_;
};

// The installed platform. When none was installed the live one is installed on first use.
Platform& CurrentPlatform();

// Installs the platform for the rest of the process and gives back the one it replaces
// (absent when none was installed). Used by the driver at start-up.
std::unique_ptr<Platform> InstallPlatform(std::unique_ptr<Platform> platform);

// The live platform of this operating system.
std::unique_ptr<Platform> MakeLivePlatform();

// For tests: installs a platform for the lifetime of the guard and puts the previous one back.
class ScopedPlatform {
 public:
  explicit ScopedPlatform(std::unique_ptr<Platform> platform);
  ~ScopedPlatform();
  ScopedPlatform(const ScopedPlatform&) = delete;
  ScopedPlatform& operator=(const ScopedPlatform&) = delete;

  Platform& platform() { return CurrentPlatform(); }

 private:
  std::unique_ptr<Platform> previous_;
};

}  // namespace tarn
