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
