#include "tarninventory/src/localinventory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/file/file_util.h"

namespace tarn {
namespace {

// The tools and host facts of the platform it shares.
class SharedTools : public ToolRunner {
 public:
  explicit SharedTools(std::shared_ptr<Platform> inner) : inner_(std::move(inner)) {}
  std::optional<std::string> Run(const std::string& launchPath,
                                 const std::vector<std::string>& arguments,
                                 WaitPolicy wait) override {
    return inner_->Tools().Run(launchPath, arguments, wait);
  }
  int RunToFile(const std::string& launchPath, const std::vector<std::string>& arguments,
                const std::string& outputPath) override {
    return inner_->Tools().RunToFile(launchPath, arguments, outputPath);
  }
  std::optional<std::string> RunKeepingLog(const std::string& launchPath,
                                           const std::vector<std::string>& arguments,
                                           WaitPolicy wait,
                                           std::vector<std::string>& lines) override {
    return inner_->Tools().RunKeepingLog(launchPath, arguments, wait, lines);
  }
  int RunToFileKeepingLog(const std::string& launchPath, const std::vector<std::string>& arguments,
                          const std::string& outputPath, std::vector<std::string>& lines) override {
    return inner_->Tools().RunToFileKeepingLog(launchPath, arguments, outputPath, lines);
  }

 private:
  std::shared_ptr<Platform> inner_;
};

class SharedHost : public HostInfo {
 public:
  explicit SharedHost(std::shared_ptr<Platform> inner) : inner_(std::move(inner)) {}
  std::string HostName() override { return inner_->Host().HostName(); }
  std::string LocalizedName() override { return inner_->Host().LocalizedName(); }
  std::vector<InterfaceAddress> InterfaceAddresses() override {
    return inner_->Host().InterfaceAddresses();
  }
  std::optional<VmStatistics> VirtualMemoryStatistics() override {
    return inner_->Host().VirtualMemoryStatistics();
  }
  std::vector<ProcessEntry> ProcessTable() override { return inner_->Host().ProcessTable(); }
  std::string OwnProcessName() override { return inner_->Host().OwnProcessName(); }
  int OwnProcessId() override { return inner_->Host().OwnProcessId(); }
  unsigned OwnUserId() override { return inner_->Host().OwnUserId(); }

 private:
  std::shared_ptr<Platform> inner_;
};

}  // namespace

std::unique_ptr<Platform> WithoutNetwork(std::unique_ptr<Platform> inner) {
  std::shared_ptr<Platform> shared = inner ? std::move(inner) : MakeLivePlatform();
  // A null transport is the platform's stand-in that answers every request with an error.
  return std::make_unique<Platform>(std::make_unique<SharedTools>(shared),
                                    std::make_unique<SharedHost>(shared), nullptr);
}

std::string LocalDocumentName(const std::string& computer, std::time_t when,
                              const std::string& suffix) {
  std::string name;
  for (const char c : computer) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                       (c >= '0' && c <= '9') || c == '-' || c == '_';
    name += plain ? c : '_';
  }
  if (name.empty()) name = "computer";
  std::tm local{};
  ::localtime_r(&when, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
  return name + "-" + stamp + "-" + suffix;
}

std::optional<std::string> WriteLocalDocument(const std::string& folder, const std::string& name,
                                              const std::string& text) {
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return std::nullopt;
  const std::string path = folder + "/" + name;
  UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.valid()) return std::nullopt;
  if (!WriteAll(file.get(), text) || ::fsync(file.get()) != 0) {
    ::unlink(path.c_str());  // this run's own file: no half document is left behind
    return std::nullopt;
  }
  return path;
}

}  // namespace tarn
