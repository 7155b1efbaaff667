// Fakes of the platform seam for the agent utilities' tests.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/fake/fake_platform.h"
#include "platform/platform.h"

namespace tarn::testing {

class NoHttp : public HttpTransport {
 public:
  HttpResult Send(const HttpRequest&) override {
    return HttpResult{std::nullopt, HttpError{7, "no network in tests"}};
  }
};

// Records every request and answers with the scripted results in order; once they are used
// up, every request fails to connect (error 7).
class ScriptedHttp final : public HttpTransport {
 public:
  HttpResult Send(const HttpRequest& request) override {
    requests.push_back(request);
    if (answered_ < answers_.size()) return answers_[answered_++];
    return HttpResult{std::nullopt, HttpError{7, "Couldn't connect to server"}};
  }
  static HttpResult Answer(long status, HttpHeaders headers = {}, std::string body = "") {
    return HttpResult{HttpResponse{status, std::move(headers), std::move(body)}, std::nullopt};
  }
  // Starts over with these answers and no recorded request.
  void Script(std::vector<HttpResult> answers) {
    answers_ = std::move(answers);
    answered_ = 0;
    requests.clear();
  }

  std::vector<HttpRequest> requests;

 private:
  std::vector<HttpResult> answers_;
  std::size_t answered_ = 0;
};

// Installs a platform whose only part is a ScriptedHttp, for the lifetime of the object.
class ScriptedHttpPlatform {
 public:
  ScriptedHttpPlatform() {
    auto http = std::make_unique<ScriptedHttp>();
    http_ = http.get();
    scope_ = std::make_unique<ScopedPlatform>(
        std::make_unique<Platform>(nullptr, nullptr, std::move(http)));
  }
  ScriptedHttp& http() { return *http_; }

 private:
  ScriptedHttp* http_;
  std::unique_ptr<ScopedPlatform> scope_;
};

// Installs fakes for the lifetime of the object; tools() and host() reach them.
class FakePlatform {
 public:
  FakePlatform() {
    auto tools = std::make_unique<FakeToolRunner>();
    auto host = std::make_unique<FakeHostInfo>();
    tools_ = tools.get();
    host_ = host.get();
    scope_ = std::make_unique<ScopedPlatform>(
        std::make_unique<Platform>(std::move(tools), std::move(host), std::make_unique<NoHttp>()));
  }
  FakeToolRunner& tools() { return *tools_; }
  FakeHostInfo& host() { return *host_; }

 private:
  FakeToolRunner* tools_;
  FakeHostInfo* host_;
  std::unique_ptr<ScopedPlatform> scope_;
};

// A fresh temporary folder, removed with the object.
class TempDir {
 public:
  explicit TempDir(const std::string& name)
      : path_(std::filesystem::temp_directory_path() /
              ("tarn-" + name + "-" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace tarn::testing
