#include "platform/fake/fake_platform.h"

#include "platform/file/file_util.h"

namespace tarn {

void FakeToolRunner::Answer(const std::string& launchPath,
                            const std::vector<std::string>& arguments,
                            std::optional<std::string> output) {
  answers_[Command{launchPath, arguments}] = std::move(output);
}

std::optional<std::string> FakeToolRunner::Run(const std::string& launchPath,
                                               const std::vector<std::string>& arguments,
                                               WaitPolicy wait) {
  calls_.push_back(Call{launchPath, arguments, wait, std::nullopt});
  const auto found = answers_.find(Command{launchPath, arguments});
  if (found == answers_.end() || !found->second) {
    RaiseLaunchFailure(launchPath, "no answer set up by the test");
  }
  return found->second;
}

int FakeToolRunner::RunToFile(const std::string& launchPath,
                              const std::vector<std::string>& arguments,
                              const std::string& outputPath) {
  calls_.push_back(Call{launchPath, arguments, std::nullopt, outputPath});
  const auto found = answers_.find(Command{launchPath, arguments});
  if (found == answers_.end() || !found->second) return kShellCannotLaunch;
  const UniqueFd file = CreateFreshOutputFile(outputPath);
  return file.valid() && WriteAll(file.get(), *found->second) ? 0 : kShellOutputFailed;
}

}  // namespace tarn
