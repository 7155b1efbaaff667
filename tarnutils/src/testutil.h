// Fakes of the platform seam for the agent utilities' tests.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace tarn::testing {

// Answers tool runs from a table keyed by the launch path and its arguments
// joined with blanks; an unknown command gives nothing. Records what ran.
class FakeToolRunner : public ToolRunner {
 public:
  std::map<std::string, std::string> outputs;
  std::vector<std::string> ran;

  static std::string Key(const std::string& launchPath, const std::vector<std::string>& arguments) {
    std::string key = launchPath;
    for (const auto& argument : arguments) key += " " + argument;
    return key;
  }

  std::optional<std::string> Run(const std::string& launchPath,
                                 const std::vector<std::string>& arguments, WaitPolicy) override {
    const std::string key = Key(launchPath, arguments);
    ran.push_back(key);
    const auto found = outputs.find(key);
    if (found == outputs.end()) return std::nullopt;
    return found->second;
  }

  bool RunToFile(const std::string&, const std::vector<std::string>&, const std::string&) override {
    return false;
  }
};

class FakeHostInfo : public HostInfo {
 public:
  std::string hostName;
  std::string localizedName;
  std::vector<InterfaceAddress> interfaces;
  std::vector<ProcessEntry> processes;
  std::string ownName = "tarninventory";
  int ownId = 100;

  std::string HostName() override { return hostName; }
  std::string LocalizedName() override { return localizedName; }
  std::vector<InterfaceAddress> InterfaceAddresses() override { return interfaces; }
  std::optional<VmStatistics> VirtualMemoryStatistics() override { return std::nullopt; }
  std::vector<ProcessEntry> ProcessTable() override { return processes; }
  std::string OwnProcessName() override { return ownName; }
  int OwnProcessId() override { return ownId; }
};

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
