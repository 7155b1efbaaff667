#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace tarn {

// The live tool runner: posix_spawn (never a shell), standard output through a pipe that is
// read while the tool runs, so a tool printing more than a pipe holds never stalls. The tool's
// standard input is /dev/null; its standard error comes through a second pipe and is written
// to this process's standard error as console lines naming the tool, control characters
// escaped. The tool inherits no other descriptor. Every child is reaped.
//
// A bounded run waits in steps: after each step the tool is terminated if this was step
// number stepLimit (counting from 0), so the longest wait is stepLimit + 1 steps; otherwise
// the wait ends once the tool has ended. Termination is SIGTERM, then SIGKILL when the tool
// is still there after the grace period. The output written until then is kept.
class PosixToolRunner final : public ToolRunner {
 public:
  struct Timing {
    std::chrono::milliseconds stepLength{1000};
    int stepLimit = 30;
    std::chrono::milliseconds terminationGrace{2000};
  };

  PosixToolRunner() = default;
  explicit PosixToolRunner(Timing timing) : timing_(timing) {}

  std::optional<std::string> Run(const std::string& launchPath,
                                 const std::vector<std::string>& arguments,
                                 WaitPolicy wait) override;
  int RunToFile(const std::string& launchPath, const std::vector<std::string>& arguments,
                 const std::string& outputPath) override;
  std::optional<std::string> RunKeepingLog(const std::string& launchPath,
                                           const std::vector<std::string>& arguments,
                                           WaitPolicy wait,
                                           std::vector<std::string>& lines) override;
  int RunToFileKeepingLog(const std::string& launchPath, const std::vector<std::string>& arguments,
                          const std::string& outputPath, std::vector<std::string>& lines) override;

 private:
  Timing timing_;
};

}  // namespace tarn
