#include "platform/platform.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "platform/console_log.h"

namespace tarn {
namespace {

// Records what it was asked to run and answers with a fixed text.
class RecordingToolRunner final : public ToolRunner {
 public:
  explicit RecordingToolRunner(std::vector<std::string>* launched) : launched_(launched) {}
  std::optional<std::string> Run(const std::string& launchPath, const std::vector<std::string>&,
                                 WaitPolicy) override {
    launched_->push_back(launchPath);
    return "fake\n";
  }
  bool RunToFile(const std::string&, const std::vector<std::string>&, const std::string&) override {
    return false;
  }

 private:
  std::vector<std::string>* launched_;
};

TEST(PlatformTest, ScopedPlatformInstallsAFakeAndPutsThePreviousOneBack) {
  Platform& before = CurrentPlatform();
  std::vector<std::string> launched;
  {
    ScopedPlatform fake(std::make_unique<Platform>(std::make_unique<RecordingToolRunner>(&launched),
                                                   nullptr, nullptr));
    EXPECT_NE(&CurrentPlatform(), &before);
    EXPECT_EQ(CurrentPlatform().Tools().Run("/usr/bin/sw_vers", {}, WaitPolicy::kBounded),
              "fake\n");
    // Parts left out are stand-ins that fail quietly.
    EXPECT_EQ(CurrentPlatform().Host().HostName(), "");
    EXPECT_FALSE(CurrentPlatform().Host().VirtualMemoryStatistics().has_value());
    const HttpResult result = CurrentPlatform().Http().Send(HttpRequest{});
    EXPECT_FALSE(result.response.has_value());
    ASSERT_TRUE(result.error.has_value());
  }
  EXPECT_EQ(launched, std::vector<std::string>{"/usr/bin/sw_vers"});
  EXPECT_EQ(&CurrentPlatform(), &before);
}

TEST(PlatformTest, LiveHostAnswersOnThisComputer) {
  HostInfo& host = CurrentPlatform().Host();
  EXPECT_FALSE(host.HostName().empty());
  EXPECT_FALSE(host.OwnProcessName().empty());
  const auto statistics = host.VirtualMemoryStatistics();
  ASSERT_TRUE(statistics.has_value());
  EXPECT_GT(statistics->pageSize, 0u);
  EXPECT_GT(statistics->freeCount + statistics->activeCount + statistics->inactiveCount, 0u);
  bool loopbackFound = false;
  for (const auto& entry : host.InterfaceAddresses()) {
    loopbackFound = loopbackFound || (entry.family == 2 && entry.address == "127.0.0.1");
  }
  EXPECT_TRUE(loopbackFound);
}

TEST(ConsoleLogTest, LineHasTimeStampProcessNameAndOneLineEnd) {
  testing::internal::CaptureStderr();
  ConsoleLog("Caught exception in GetOutputForExecution: %s\n", "reason");
  ConsoleLog("Count:::: %d", 3);
  const std::string written = testing::internal::GetCapturedStderr();
  const std::regex expected(
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} platform_tests\\[\\d+\\] "
      "Caught exception in GetOutputForExecution: reason\n"
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} platform_tests\\[\\d+\\] Count:::: 3\n");
  EXPECT_TRUE(std::regex_match(written, expected)) << written;
}

}  // namespace
}  // namespace tarn
