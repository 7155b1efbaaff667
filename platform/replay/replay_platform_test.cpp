#include "platform/exception/platform_exception.h"
#include "platform/replay/replay_platform.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <vector>
#include <fstream>
#include <string>

#include "platform/file/file_util.h"
#include "platform/plist/plist_io.h"

namespace tarn {
namespace {

const std::string kSampleMachine =
    std::string(TARN_SOURCE_DIR) + "/testdata/machines/macbook-sample";

class ReplayPlatformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = std::filesystem::temp_directory_path() /
                 ("replay_platform_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  void WriteFile(const std::string& name, const std::string& content) const {
    std::ofstream(directory_ / name, std::ios::binary) << content;
  }
  std::string PathOf(const std::string& name) const { return (directory_ / name).string(); }

  std::filesystem::path directory_;
};

TEST_F(ReplayPlatformTest, AnswersRecordedCommandsExactlyAndNothingElse) {
  const auto platform = MakeReplayPlatform(kSampleMachine);
  ASSERT_NE(platform, nullptr);
  ToolRunner& tools = platform->Tools();
  EXPECT_EQ(tools.Run("/usr/bin/sw_vers", {"-productVersion"}, WaitPolicy::kUnbounded), "14.4.1\n");
  EXPECT_EQ(tools.Run("/usr/bin/users", {" "}, WaitPolicy::kUnbounded), "alice\n");

  const auto hardware =
      tools.Run("/usr/sbin/system_profiler", {"-xml", "SPHardwareDataType"}, WaitPolicy::kBounded);
  ASSERT_TRUE(hardware.has_value());
  const PlistPtr item =
      ObjectAtIndex(ValueForKey(ObjectAtIndex(ParsePlist(*hardware), 0), "_items"), 0);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->ValueForKey("serial_number")->String(), "C02TEST0MD6T");

  // Different arguments, argument order or launch path: not recorded, so not launched.
  EXPECT_THROW(tools.Run("/usr/bin/sw_vers", {"-productversion"}, WaitPolicy::kBounded),
               PlatformException);
  EXPECT_THROW(
      tools.Run("/usr/sbin/system_profiler", {"SPHardwareDataType", "-xml"}, WaitPolicy::kBounded),
      PlatformException);
  EXPECT_THROW(tools.Run("/usr/bin/users", {}, WaitPolicy::kBounded), PlatformException);
  try {
    tools.Run("/bin/sh", {"-c", "echo live"}, WaitPolicy::kBounded);
    ADD_FAILURE() << "an unrecorded command ran";
  } catch (const PlatformException& failure) {
    EXPECT_EQ(failure.reason(), "launch path not accessible: /bin/sh: not recorded on this machine");
  }

  const std::string copy = PathOf("inv-hardware.plist");
  EXPECT_EQ(tools.RunToFile("/usr/sbin/system_profiler", {"-xml", "SPHardwareDataType"}, copy), 0);
  EXPECT_EQ(ReadWholeFile(copy), hardware);
  EXPECT_EQ(tools.RunToFile("/usr/sbin/diskutil", {"list", "-plist"}, PathOf("volumes.plist")),
            kShellCannotLaunch);
}

TEST_F(ReplayPlatformTest, HostFactsComeFromTheRecordingButProcessesStayLive) {
  const auto platform = MakeReplayPlatform(kSampleMachine);
  ASSERT_NE(platform, nullptr);
  HostInfo& host = platform->Host();
  EXPECT_EQ(host.HostName(), "Office-Mac.local");
  EXPECT_EQ(host.LocalizedName(), "Alice\xE2\x80\x99s MacBook Pro");
  const auto interfaces = host.InterfaceAddresses();
  ASSERT_EQ(interfaces.size(), 3u);
  EXPECT_EQ(interfaces[2].name, "en0");
  EXPECT_EQ(interfaces[2].family, 2);
  EXPECT_EQ(interfaces[2].address, "192.168.1.23");
  const auto statistics = host.VirtualMemoryStatistics();
  ASSERT_TRUE(statistics.has_value());
  EXPECT_EQ(statistics->pageSize, 4096u);
  EXPECT_EQ(statistics->freeCount, 392411u);
  EXPECT_EQ(statistics->wireCount, 611287u);

  EXPECT_EQ(host.OwnProcessId(), ::getpid());
  bool foundSelf = false;
  for (const auto& process : host.ProcessTable()) {
    foundSelf = foundSelf || (process.pid == ::getpid() && process.name == host.OwnProcessName());
  }
  EXPECT_TRUE(foundSelf);

  // A child that has ended but is not reaped yet is not a running process.
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_GT(child, 0);
  std::string state;
  for (int i = 0; i < 1000 && state != "Z"; ++i) {
    std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto end = line.rfind(')');
    state = end != std::string::npos && end + 2 < line.size() ? line.substr(end + 2, 1) : "";
    if (state != "Z") ::usleep(1000);
  }
  ASSERT_EQ(state, "Z");
  bool foundChild = false;
  for (const auto& process : host.ProcessTable()) foundChild = foundChild || process.pid == child;
  EXPECT_FALSE(foundChild);
  ::waitpid(child, nullptr, 0);
}

TEST_F(ReplayPlatformTest, MissingFactsAndDamagedEntriesReadAsFailures) {
  WriteFile("manifest.plist",
            "<plist><dict><key>commands</key><array>"
            "<dict><key>launchPath</key><string>/usr/bin/a</string>"
            "<key>output</key><string>../escape.txt</string></dict>"
            "<dict><key>launchPath</key><string>/usr/bin/b</string>"
            "<key>output</key><string>gone.txt</string></dict>"
            "<dict><key>launchPath</key><string>/usr/bin/c</string>"
            "<key>output</key><string>latin1.txt</string></dict>"
            "<dict><key>launchPath</key><string>/usr/bin/d</string>"
            "<key>output</key><string>d.txt</string><key>exitCode</key><integer>1</integer></dict>"
            "<string>not an entry</string>"
            "</array><key>host</key><dict><key>hostName</key><string>build01.lan</string>"
            "<key>vmStatistics</key><dict><key>pageSize</key><integer>4096</integer></dict>"
            "</dict></dict></plist>");
  WriteFile("latin1.txt", "caf\xE9");
  WriteFile("d.txt", "recorded despite failing\n");
  const auto platform = MakeReplayPlatform(directory_.string());
  ASSERT_NE(platform, nullptr);
  ToolRunner& tools = platform->Tools();
  EXPECT_THROW(tools.Run("/usr/bin/a", {}, WaitPolicy::kBounded), PlatformException);
  EXPECT_THROW(tools.Run("/usr/bin/b", {}, WaitPolicy::kBounded), PlatformException);
  EXPECT_EQ(tools.Run("/usr/bin/c", {}, WaitPolicy::kBounded), std::nullopt);
  EXPECT_EQ(tools.Run("/usr/bin/d", {}, WaitPolicy::kBounded), "recorded despite failing\n");
  EXPECT_NE(tools.RunToFile("/usr/bin/d", {}, PathOf("d-copy.txt")), 0);
  EXPECT_EQ(ReadWholeFile(PathOf("d-copy.txt")), "recorded despite failing\n");

  HostInfo& host = platform->Host();
  EXPECT_EQ(host.HostName(), "build01.lan");
  EXPECT_EQ(host.LocalizedName(), "");
  EXPECT_TRUE(host.InterfaceAddresses().empty());
  EXPECT_FALSE(host.VirtualMemoryStatistics().has_value());  // incomplete statistics

  EXPECT_EQ(MakeReplayPlatform(PathOf("no-such-machine")), nullptr);
  std::filesystem::create_directories(directory_ / "array");
  WriteFile("array/manifest.plist", "<plist><array/></plist>");
  EXPECT_EQ(MakeReplayPlatform(PathOf("array")), nullptr);
}

TEST_F(ReplayPlatformTest, RecordedDurationsAreTakenOnlyWhenAsked) {
  WriteFile("slow.txt", "slow\n");
  WriteFile("quick.txt", "quick\n");
  WriteFile("manifest.plist",
            "<plist version=\"1.0\"><dict><key>commands</key><array>"
            "<dict><key>launchPath</key><string>/usr/sbin/slow</string><key>arguments</key>"
            "<array/><key>output</key><string>slow.txt</string>"
            "<key>seconds</key><real>40.5</real></dict>"
            "<dict><key>launchPath</key><string>/usr/sbin/quick</string><key>arguments</key>"
            "<array/><key>output</key><string>quick.txt</string>"
            "<key>seconds</key><integer>2</integer></dict>"
            "<dict><key>launchPath</key><string>/usr/sbin/untimed</string><key>arguments</key>"
            "<array/><key>output</key><string>quick.txt</string></dict>"
            "</array></dict></plist>");
  std::vector<std::chrono::microseconds> waits;
  ReplayOptions options;
  options.timing = true;
  options.sleep = [&](std::chrono::microseconds length) { waits.push_back(length); };
  const auto timed = MakeReplayPlatform(directory_.string(), options);
  ASSERT_NE(timed, nullptr);
  ToolRunner& tools = timed->Tools();
  // A bounded run of a tool that outlasted the bound answers after the bound, with what the
  // tool printed; an unbounded one and a run into a file take the whole recorded time.
  EXPECT_EQ(tools.Run("/usr/sbin/slow", {}, WaitPolicy::kBounded), "slow\n");
  EXPECT_EQ(tools.Run("/usr/sbin/slow", {}, WaitPolicy::kUnbounded), "slow\n");
  EXPECT_EQ(tools.RunToFile("/usr/sbin/quick", {}, PathOf("out.txt")), 0);
  EXPECT_EQ(tools.Run("/usr/sbin/untimed", {}, WaitPolicy::kBounded), "quick\n");
  using std::chrono::microseconds;
  EXPECT_EQ(waits, (std::vector<microseconds>{microseconds(31000000), microseconds(40500000),
                                               microseconds(2000000)}));

  // Off (the default): no waits.
  options.timing = false;
  waits.clear();
  const auto untimed = MakeReplayPlatform(directory_.string(), options);
  EXPECT_EQ(untimed->Tools().Run("/usr/sbin/slow", {}, WaitPolicy::kUnbounded), "slow\n");
  EXPECT_TRUE(waits.empty());
}

}  // namespace
}  // namespace tarn
