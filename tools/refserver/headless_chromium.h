// Headless Chromium driven over its DevTools pipe, for the page tests: a phone or a
// desktop viewport, a page loaded to its load event, JavaScript measurements and
// whole-page screenshots.
//
// With --remote-debugging-pipe the browser reads commands from its descriptor 3 and
// writes answers and events to its descriptor 4, one JSON message per NUL-terminated
// record. Here both are ends of socket pairs, so that a browser that died makes a
// write fail instead of raising SIGPIPE.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/refserver/json.h"
#include "tools/refserver/testutil.h"

namespace tarn::refserver::testing {

// Standard base64 (RFC 4648) to bytes; stops at the first byte outside the alphabet.
inline std::string DecodeBase64(std::string_view text) {
  auto sextet = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  std::string bytes;
  unsigned bits = 0;
  int count = 0;
  for (const char c : text) {
    const int value = sextet(c);
    if (value < 0) break;
    bits = (bits << 6) | static_cast<unsigned>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes += static_cast<char>((bits >> count) & 0xff);
    }
  }
  return bytes;
}

class HeadlessChromium {
 public:
  // Starts the browser with a fresh profile in the given (empty) folder and opens a tab.
  HeadlessChromium(const std::string& binary, const std::filesystem::path& profile) {
    int commands[2];
    int answers[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, commands) != 0 ||
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, answers) != 0) {
      throw std::runtime_error("socketpair failed");
    }
    // The browser's ends go to 3 and 4 from descriptors above both.
    const int browserIn = ::fcntl(commands[1], F_DUPFD_CLOEXEC, 10);
    const int browserOut = ::fcntl(answers[1], F_DUPFD_CLOEXEC, 10);
    ::close(commands[1]);
    ::close(answers[1]);
    std::vector<std::string> arguments = {
        binary, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
        "--no-first-run", "--disable-background-networking", "--disable-component-update",
        "--disable-sync", "--disable-dev-shm-usage", "--hide-scrollbars",
        "--remote-debugging-pipe", "--user-data-dir=" + profile.string(), "about:blank"};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setpgid(0, 0);
      const int null = ::open("/dev/null", O_RDWR);
      if (null < 0 || ::dup2(null, 0) < 0 || ::dup2(null, 1) < 0 || ::dup2(null, 2) < 0 ||
          ::dup2(browserIn, 3) < 0 || ::dup2(browserOut, 4) < 0) {
        ::_exit(127);
      }
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(browserIn);
    ::close(browserOut);
    toBrowser_ = commands[0];
    fromBrowser_ = answers[0];
    if (pid_ < 0) throw std::runtime_error("fork failed");
    ::setpgid(pid_, pid_);

    try {
      const JsonValue target = Call("Target.createTarget", R"({"url":"about:blank"})", false);
      std::string params = "{\"targetId\":";
      AppendJsonString(params, Text(target, "targetId"));
      params += ",\"flatten\":true}";
      session_ = Text(Call("Target.attachToTarget", params, false), "sessionId");
      Call("Page.enable", "{}");
    } catch (...) {
      Stop();
      throw;
    }
  }

  ~HeadlessChromium() { Stop(); }
  HeadlessChromium(const HeadlessChromium&) = delete;
  HeadlessChromium& operator=(const HeadlessChromium&) = delete;

  // The viewport in CSS pixels; a mobile one lays pages out as a phone does (the
  // page's viewport declaration decides the layout width).
  void SetViewport(int width, int height, bool mobile) {
    width_ = width;
    Call("Emulation.setDeviceMetricsOverride",
         "{\"width\":" + std::to_string(width) + ",\"height\":" + std::to_string(height) +
             ",\"deviceScaleFactor\":1,\"mobile\":" + (mobile ? "true" : "false") + "}");
  }

  // Loads the address and waits for the page's load event.
  void Navigate(const std::string& url) {
    loaded_ = false;
    std::string params = "{\"url\":";
    AppendJsonString(params, url);
    const JsonValue result = Call("Page.navigate", params + "}");
    if (const JsonValue* error = FindMember(result, "errorText")) {
      throw std::runtime_error("cannot load " + url + ": " + error->get<std::string>());
    }
    while (!loaded_) Dispatch(Receive());
  }

  // The value of a JavaScript expression that gives a string.
  std::string Evaluate(const std::string& expression) {
    std::string params = "{\"expression\":";
    AppendJsonString(params, expression);
    const JsonValue result = Call("Runtime.evaluate", params + ",\"returnByValue\":true}");
    const JsonValue* value = FindMember(result, "result");
    if (value == nullptr || FindMember(*value, "value") == nullptr || !FindMember(*value, "value")->is_string()) {
      throw std::runtime_error("expression gave no string: " + expression);
    }
    return FindMember(*value, "value")->get<std::string>();
  }

  // The whole page (not only the viewport) as PNG bytes, at the viewport's width.
  std::string Screenshot() {
    const std::string height = Evaluate("String(document.documentElement.scrollHeight)");
    const JsonValue result = Call(
        "Page.captureScreenshot",
        "{\"format\":\"png\",\"captureBeyondViewport\":true,\"clip\":{\"x\":0,\"y\":0,\"width\":" +
            std::to_string(width_) + ",\"height\":" + height + ",\"scale\":1}}");
    return DecodeBase64(Text(result, "data"));
  }

 private:
  // Asks the browser to close, then ends its process group.
  void Stop() {
    if (pid_ > 0) {
      try {
        Send("Browser.close", "{}", false);
      } catch (const std::exception&) {
      }
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      int status = 0;
      while (::waitpid(pid_, &status, WNOHANG) == 0 &&
             std::chrono::steady_clock::now() < deadline) {
        ::usleep(20'000);
      }
      ::kill(-pid_, SIGKILL);  // the browser's helper processes, and the browser if it hung
      ::waitpid(pid_, &status, 0);
      pid_ = -1;
    }
    if (toBrowser_ >= 0) ::close(toBrowser_);
    if (fromBrowser_ >= 0) ::close(fromBrowser_);
    toBrowser_ = fromBrowser_ = -1;
  }

  static std::string Text(const JsonValue& object, std::string_view key) {
    const JsonValue* value = FindMember(object, key);
    if (value == nullptr || !value->is_string()) {
      throw std::runtime_error("DevTools answer without " + std::string(key));
    }
    return value->get<std::string>();
  }

  int Send(const std::string& method, const std::string& params, bool inSession) {
    const int id = ++lastId_;
    std::string message = "{\"id\":" + std::to_string(id) + ",\"method\":";
    AppendJsonString(message, method);
    message += ",\"params\":" + params;
    if (inSession) {
      message += ",\"sessionId\":";
      AppendJsonString(message, session_);
    }
    message += '}';
    message += '\0';
    for (std::size_t sent = 0; sent < message.size();) {
      const ssize_t n =
          ::send(toBrowser_, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) throw std::runtime_error("the browser closed its DevTools pipe");
      sent += static_cast<std::size_t>(n);
    }
    return id;
  }

  // Sends a command and waits for its answer; events meanwhile are dispatched.
  JsonValue Call(const std::string& method, const std::string& params, bool inSession = true) {
    const int id = Send(method, params, inSession);
    for (;;) {
      JsonValue message = Receive();
      const JsonValue* answerId = FindMember(message, "id");
      if (answerId == nullptr) {
        Dispatch(message);
        continue;
      }
      if (answerId->get<long long>() != id) continue;
      if (const JsonValue* error = FindMember(message, "error")) {
        const JsonValue* text = FindMember(*error, "message");
        throw std::runtime_error(method + " failed: " +
                                 (text != nullptr && text->is_string() ? text->get<std::string>() : ""));
      }
      const JsonValue* result = FindMember(message, "result");
      return result != nullptr ? *result : JsonValue{};
    }
  }

  void Dispatch(const JsonValue& event) {
    const JsonValue* method = FindMember(event, "method");
    if (method != nullptr && method->is_string() && method->get<std::string>() == "Page.loadEventFired") {
      loaded_ = true;
    }
  }

  // The next message; throws when none comes within the time limit.
  JsonValue Receive() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
      const auto end = buffer_.find('\0');
      if (end != std::string::npos) {
        const std::string message = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return ParseJson(message);
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) throw std::runtime_error("no DevTools answer within 60 s");
      pollfd ready{fromBrowser_, POLLIN, 0};
      if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
      char chunk[65536];
      const ssize_t n = ::read(fromBrowser_, chunk, sizeof chunk);
      if (n <= 0) throw std::runtime_error("the browser closed its DevTools pipe");
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

  pid_t pid_ = -1;
  int toBrowser_ = -1;
  int fromBrowser_ = -1;
  std::string buffer_;
  std::string session_;
  int lastId_ = 0;
  int width_ = 0;
  bool loaded_ = false;
};

}  // namespace tarn::refserver::testing
