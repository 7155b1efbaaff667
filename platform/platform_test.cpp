#include "platform/exception/platform_exception.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "platform/console_log.h"
#include "platform/fake/fake_platform.h"

namespace tarn {
namespace {

TEST(PlatformTest, ScopedPlatformInstallsAFakeAndPutsThePreviousOneBack) {
  Platform& before = CurrentPlatform();
  auto runner = std::make_unique<FakeToolRunner>();
  FakeToolRunner& fake = *runner;
  fake.Answer("/usr/bin/sw_vers", {"-productVersion"}, "14.4.1\n");
  {
    ScopedPlatform scope(std::make_unique<Platform>(std::move(runner), nullptr, nullptr));
    EXPECT_NE(&CurrentPlatform(), &before);
    ToolRunner& tools = CurrentPlatform().Tools();
    EXPECT_EQ(tools.Run("/usr/bin/sw_vers", {"-productVersion"}, WaitPolicy::kBounded), "14.4.1\n");
    EXPECT_THROW(tools.Run("/usr/bin/sw_vers", {"-productName"}, WaitPolicy::kBounded),
                 PlatformException);
    ASSERT_EQ(fake.calls().size(), 2u);
    EXPECT_EQ(fake.calls()[1].arguments, std::vector<std::string>{"-productName"});
    // Parts left out are stand-ins that fail quietly.
    EXPECT_EQ(CurrentPlatform().Host().HostName(), "");
    EXPECT_FALSE(CurrentPlatform().Host().VirtualMemoryStatistics().has_value());
    const HttpResult result = CurrentPlatform().Http().Send(HttpRequest{});
    EXPECT_FALSE(result.response.has_value());
    ASSERT_TRUE(result.error.has_value());
  }
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

TEST(PlatformTest, PinnedKeysAreSha256HashesOnly) {
  const std::string key = "sha256//47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=";
  const std::string other = "sha256//YhKJKSzoTt2b5FP18fvpHo7fJYqQCjAa3HWY3tvRMwE=";
  for (const std::string& good : {key, key + ";" + other}) {
    EXPECT_TRUE(IsPinnedPublicKeyList(good)) << good;
  }
  for (const std::string& bad :
       {std::string(), std::string("/etc/ssl/server.pem"), key + ";", ";" + key, key + ";;" + other,
        std::string("sha256//") + "47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuF==",
        std::string("sha1//") + key.substr(8), key.substr(0, key.size() - 1),
        std::string("sha256//47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3h*uFU="), key + " "}) {
    EXPECT_FALSE(IsPinnedPublicKeyList(bad)) << bad;
  }
}

TEST(ConsoleLogTest, ValuesWithControlCharactersStayOnTheirLine) {
  testing::internal::CaptureStderr();
  ConsoleLog("Users names list: %s\n", "alice\n[ERROR] forged");
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_NE(written.find("] Users names list: alice\\x0A[ERROR] forged\n"), std::string::npos)
      << written;
  EXPECT_EQ(written.find('\n'), written.size() - 1);
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
