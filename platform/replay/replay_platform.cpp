#include "platform/replay/replay_platform.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/console_log.h"
#include "platform/file/file_util.h"
#include "platform/host/live_host_info.h"
#include "platform/http/curl_http_transport.h"
#include "platform/plist/plist_io.h"
#include "platform/text/utf8.h"

namespace tarn {
namespace {

struct RecordedCommand {
  std::string launchPath;
  std::vector<std::string> arguments;
  std::string outputPath;  // absolute or relative to the working folder, ready to open
  std::int64_t exitCode = 0;
  std::chrono::microseconds duration{0};
};

std::optional<std::string> TextAt(const PlistPtr& dictionary, std::string_view key) {
  const PlistPtr value = dictionary->ValueForKey(key);
  return value ? value->AsString() : std::nullopt;
}

std::optional<std::int64_t> IntegerAt(const PlistPtr& dictionary, std::string_view key) {
  const PlistPtr value = dictionary->ValueForKey(key);
  return value && value->IsInteger() ? value->AsInteger() : std::nullopt;
}

// A recorded duration in seconds; zero when absent, negative or not a number.
std::chrono::microseconds DurationAt(const PlistPtr& dictionary, std::string_view key) {
  const PlistPtr value = dictionary->ValueForKey(key);
  double seconds = 0;
  if (value && value->IsReal()) seconds = *value->AsReal();
  if (value && value->IsInteger()) seconds = static_cast<double>(value->AsInteger().value_or(0));
  // Nothing a tool could have taken: up to a day.
  if (!(seconds > 0) || seconds > 86400) return std::chrono::microseconds(0);
  return std::chrono::microseconds(static_cast<std::int64_t>(seconds * 1e6));
}

std::optional<std::vector<std::string>> TextArray(const PlistPtr& value) {
  std::vector<std::string> texts;
  if (!value) return texts;
  if (!value->IsArray()) return std::nullopt;
  for (const auto& element : value->Elements()) {
    auto text = element->AsString();
    if (!text) return std::nullopt;
    texts.push_back(std::move(*text));
  }
  return texts;
}

std::optional<RecordedCommand> CommandFrom(const PlistPtr& entry, const std::string& directory) {
  if (!entry->IsDictionary()) return std::nullopt;
  auto launchPath = TextAt(entry, "launchPath");
  auto arguments = TextArray(entry->ValueForKey("arguments"));
  auto output = TextAt(entry, "output");
  // An output file must sit beside the manifest: a name, not a path.
  if (!launchPath || !arguments || !output || !IsPlainFileName(*output)) return std::nullopt;
  return RecordedCommand{std::move(*launchPath), std::move(*arguments), directory + "/" + *output,
                         IntegerAt(entry, "exitCode").value_or(0),
                         DurationAt(entry, "seconds")};
}

std::vector<RecordedCommand> CommandsFrom(const PlistPtr& manifest, const std::string& directory) {
  std::vector<RecordedCommand> commands;
  const PlistPtr list = manifest->ValueForKey("commands");
  if (!list || !list->IsArray()) return commands;
  for (const auto& entry : list->Elements()) {
    if (auto command = CommandFrom(entry, directory)) {
      commands.push_back(std::move(*command));
    } else {
      ConsoleLog("Replay: skipping a malformed command entry in %s/manifest.plist",
                 directory.c_str());
    }
  }
  return commands;
}

class ReplayToolRunner final : public ToolRunner {
 public:
  ReplayToolRunner(std::vector<RecordedCommand> commands, ReplayOptions options)
      : commands_(std::move(commands)), options_(std::move(options)) {
    if (!options_.sleep) {
      options_.sleep = [](std::chrono::microseconds length) {
        std::this_thread::sleep_for(length);
      };
    }
  }

  std::optional<std::string> Run(const std::string& launchPath,
                                 const std::vector<std::string>& arguments,
                                 WaitPolicy wait) override {
    const RecordedCommand* command = Find(launchPath, arguments);
    if (command == nullptr) RaiseLaunchFailure(launchPath, "not recorded on this machine");
    TakeRecordedTime(*command, wait == WaitPolicy::kBounded);
    auto output = ReadWholeFile(command->outputPath);
    if (!output) RaiseLaunchFailure(launchPath, "recorded output missing");
    if (!IsValidUtf8(*output)) return std::nullopt;
    return output;
  }

  int RunToFile(const std::string& launchPath, const std::vector<std::string>& arguments,
                const std::string& outputPath) override {
    const RecordedCommand* command = Find(launchPath, arguments);
    if (command == nullptr) return kShellCannotLaunch;
    TakeRecordedTime(*command, false);
    // The recorded output is copied as the tool would have written it.
    const UniqueFd recorded(::open(command->outputPath.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (!recorded.valid() || ::fstat(recorded.get(), &info) != 0 || S_ISDIR(info.st_mode)) {
      return kShellCannotLaunch;
    }
    const UniqueFd file = CreateFreshOutputFile(outputPath);
    if (!file.valid() || !CopyContents(recorded.get(), file.get())) return kShellOutputFailed;
    return ShellStatusOfExitCode(command->exitCode);
  }

 private:
  void TakeRecordedTime(const RecordedCommand& command, bool bounded) const {
    if (!options_.timing || command.duration.count() == 0) return;
    options_.sleep(bounded ? std::min<std::chrono::microseconds>(command.duration,
                                                                 options_.boundedWait)
                           : command.duration);
  }

  const RecordedCommand* Find(const std::string& launchPath,
                              const std::vector<std::string>& arguments) const {
    for (const auto& command : commands_) {
      if (command.launchPath == launchPath && command.arguments == arguments) return &command;
    }
    return nullptr;
  }

  std::vector<RecordedCommand> commands_;
  ReplayOptions options_;
};

std::vector<InterfaceAddress> InterfacesFrom(const PlistPtr& host) {
  std::vector<InterfaceAddress> interfaces;
  const PlistPtr list = host->ValueForKey("interfaces");
  if (!list || !list->IsArray()) return interfaces;
  for (const auto& entry : list->Elements()) {
    if (!entry->IsDictionary()) continue;
    auto name = TextAt(entry, "name");
    auto family = IntegerAt(entry, "family");
    auto address = TextAt(entry, "address");
    if (name && family && address) {
      interfaces.push_back({std::move(*name), static_cast<int>(*family), std::move(*address)});
    }
  }
  return interfaces;
}

std::optional<VmStatistics> StatisticsFrom(const PlistPtr& host) {
  const PlistPtr recorded = host->ValueForKey("vmStatistics");
  if (!recorded || !recorded->IsDictionary()) return std::nullopt;
  const auto pageSize = IntegerAt(recorded, "pageSize");
  const auto freeCount = IntegerAt(recorded, "free");
  const auto activeCount = IntegerAt(recorded, "active");
  const auto inactiveCount = IntegerAt(recorded, "inactive");
  const auto wireCount = IntegerAt(recorded, "wired");
  if (!pageSize || !freeCount || !activeCount || !inactiveCount || !wireCount) return std::nullopt;
  const auto count = [](std::int64_t value) { return static_cast<std::uint64_t>(value); };
  return VmStatistics{count(*pageSize), count(*freeCount), count(*activeCount),
                      count(*inactiveCount), count(*wireCount)};
}

class ReplayHostInfo final : public HostInfo {
 public:
  ReplayHostInfo(const PlistPtr& host, std::unique_ptr<HostInfo> live) : live_(std::move(live)) {
    if (!host || !host->IsDictionary()) return;
    hostName_ = TextAt(host, "hostName").value_or("");
    localizedName_ = TextAt(host, "localizedName").value_or("");
    interfaces_ = InterfacesFrom(host);
    statistics_ = StatisticsFrom(host);
  }

  std::string HostName() override { return hostName_; }
  std::string LocalizedName() override { return localizedName_; }
  std::vector<InterfaceAddress> InterfaceAddresses() override { return interfaces_; }
  std::optional<VmStatistics> VirtualMemoryStatistics() override { return statistics_; }
  std::vector<ProcessEntry> ProcessTable() override { return live_->ProcessTable(); }
  std::string OwnProcessName() override { return live_->OwnProcessName(); }
  int OwnProcessId() override { return live_->OwnProcessId(); }
  unsigned OwnUserId() override { return live_->OwnUserId(); }

 private:
  std::unique_ptr<HostInfo> live_;
  std::string hostName_;
  std::string localizedName_;
  std::vector<InterfaceAddress> interfaces_;
  std::optional<VmStatistics> statistics_;
};

}  // namespace

std::unique_ptr<Platform> MakeReplayPlatform(const std::string& machineDirectory,
                                             ReplayOptions options) {
  const std::string manifestPath = machineDirectory + "/manifest.plist";
  const PlistPtr manifest = ReadPlistFile(manifestPath);
  if (!manifest || !manifest->IsDictionary()) {
    ConsoleLog("Replay: cannot read the recorded machine manifest %s", manifestPath.c_str());
    return nullptr;
  }
  return std::make_unique<Platform>(
      std::make_unique<ReplayToolRunner>(CommandsFrom(manifest, machineDirectory),
                                         std::move(options)),
      std::make_unique<ReplayHostInfo>(manifest->ValueForKey("host"), MakeLiveHostInfo()),
      std::make_unique<CurlHttpTransport>());
}

}  // namespace tarn
