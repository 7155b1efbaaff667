#include "tarninventory/src/commandline.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarn {
namespace {

using Action = CommandLine::Action;

TEST(CommandLineTest, OnlyTheFirstWordCanBeOneOfTheScannersOwn) {
  struct Case {
    std::vector<const char*> argv;
    Action action;
    std::optional<std::string> localFolder;
    std::vector<std::string> arguments;  // what the scan reads
  };
  const std::vector<Case> cases = {
      {{"tarninventory"}, Action::kScan, std::nullopt, {"tarninventory"}},
      {{"t", "assetscan", "1", "77"}, Action::kScan, std::nullopt, {"t", "assetscan", "1", "77"}},
      {{"t", "--version"}, Action::kVersion, std::nullopt, {"t", "--version"}},
      {{"t", "--help", "assetscan"}, Action::kHelp, std::nullopt, {"t", "--help", "assetscan"}},
      // Not the scanner's words: the scan calls them invalid arguments.
      {{"t", "--verbose"}, Action::kScan, std::nullopt, {"t", "--verbose"}},
      {{"t", "-h"}, Action::kScan, std::nullopt, {"t", "-h"}},
      {{"t", "--VERSION"}, Action::kScan, std::nullopt, {"t", "--VERSION"}},
      {{"t", "scheduled", "--version"}, Action::kScan, std::nullopt,
       {"t", "scheduled", "--version"}},
      {{"t", "--local", "out", "ondemand", "1", "A-7"}, Action::kScan, "out",
       {"t", "ondemand", "1", "A-7"}},
      // A folder and no scan word: the scan's "Give correct argument".
      {{"t", "--local", "out"}, Action::kScan, "out", {"t"}},
      {{"t", "--local"}, Action::kUsageError, std::nullopt, {"t", "--local"}},
      {{"t", "--local", ""}, Action::kUsageError, std::nullopt, {"t", "--local", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argv.size() > 1 ? c.argv[1] : "(none)");
    const CommandLine command = ReadCommandLine(static_cast<int>(c.argv.size()), c.argv.data());
    EXPECT_EQ(command.action, c.action);
    EXPECT_EQ(command.localFolder, c.localFolder);
    EXPECT_EQ(std::vector<std::string>(command.arguments.begin(), command.arguments.end()),
              c.arguments);
    EXPECT_EQ(command.error.empty(), c.action != Action::kUsageError);
  }
}

}  // namespace
}  // namespace tarn
