#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform.h"

namespace tarn {

// A tool runner for tests: answers from a table set up by the test and records every run.
// A command without an answer could not be launched (Run raises, RunToFile fails).
class FakeToolRunner final : public ToolRunner {
 public:
  struct Call {
    std::string launchPath;
    std::vector<std::string> arguments;
    std::optional<WaitPolicy> wait;         // absent for RunToFile
    std::optional<std::string> outputPath;  // set for RunToFile
  };

  // The output the command gives; nothing makes it "could not be launched" explicitly.
  void Answer(const std::string& launchPath, const std::vector<std::string>& arguments,
              std::optional<std::string> output);

  std::optional<std::string> Run(const std::string& launchPath,
                                 const std::vector<std::string>& arguments,
                                 WaitPolicy wait) override;
  // Writes the answer into the file (replacing it) and gives 0 when there is an answer.
  int RunToFile(const std::string& launchPath, const std::vector<std::string>& arguments,
                 const std::string& outputPath) override;

  const std::vector<Call>& calls() const { return calls_; }

 private:
  using Command = std::pair<std::string, std::vector<std::string>>;
  std::map<Command, std::optional<std::string>> answers_;
  std::vector<Call> calls_;
};

// Host facts for tests: whatever the test puts in the fields.
class FakeHostInfo final : public HostInfo {
 public:
  std::string hostName;
  std::string localizedName;
  std::vector<InterfaceAddress> interfaces;
  std::optional<VmStatistics> statistics;
  std::vector<ProcessEntry> processes;
  std::string ownName = "tarninventory";
  int ownPid = 1;
  unsigned ownUid = 0;

  std::string HostName() override { return hostName; }
  std::string LocalizedName() override { return localizedName; }
  std::vector<InterfaceAddress> InterfaceAddresses() override { return interfaces; }
  std::optional<VmStatistics> VirtualMemoryStatistics() override { return statistics; }
  std::vector<ProcessEntry> ProcessTable() override { return processes; }
  std::string OwnProcessName() override { return ownName; }
  int OwnProcessId() override { return ownPid; }
  unsigned OwnUserId() override { return ownUid; }
};

}  // namespace tarn
