#include "platform/exception/platform_exception.h"
#include "platform/process/posix_tool_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/file/file_util.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;

// The shell is only the tool under test here: it plays a reporting tool that behaves badly.
const std::string kShell = "/bin/sh";

std::optional<std::string> RunScript(PosixToolRunner& runner, const std::string& script,
                                     WaitPolicy wait = WaitPolicy::kBounded) {
  return runner.Run(kShell, {"-c", script}, wait);
}

bool NoChildLeft() {
  errno = 0;
  return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

PosixToolRunner ShortStepRunner() {
  return PosixToolRunner(PosixToolRunner::Timing{milliseconds(50), 30, milliseconds(500)});
}

TEST(PosixToolRunnerTest, CapturesOutputAndPassesArgumentsWithoutAShell) {
  PosixToolRunner runner;
  // The argument with a blank and a quote arrives as one word, untouched.
  EXPECT_EQ(
      runner.Run(kShell, {"-c", "printf '%s|' \"$@\"", "sh", " ", "a 'b'"}, WaitPolicy::kBounded),
      " |a 'b'|");
  EXPECT_EQ(RunScript(runner, "true"), "");
  // A failing tool's output still counts: only launch failures and bad text give nothing.
  EXPECT_EQ(RunScript(runner, "echo partial; exit 3"), "partial\n");
  // Standard input is not this process's.
  EXPECT_EQ(RunScript(runner, "cat"), "");
  EXPECT_TRUE(NoChildLeft());
}

TEST(PosixToolRunnerTest, LargeOutputDoesNotStallInEitherMode) {
  PosixToolRunner runner = ShortStepRunner();
  const std::string script = "head -c 1048576 /dev/zero | tr '\\0' a";
  for (WaitPolicy wait : {WaitPolicy::kBounded, WaitPolicy::kUnbounded}) {
    const auto output = RunScript(runner, script, wait);
    ASSERT_TRUE(output.has_value());
    EXPECT_EQ(output->size(), 1048576u);
    EXPECT_EQ(output->find_first_not_of('a'), std::string::npos);
  }
  EXPECT_TRUE(NoChildLeft());
}

TEST(PosixToolRunnerTest, HangingToolIsTerminatedAfterTheLastStepAndKeepsItsOutput) {
  PosixToolRunner runner = ShortStepRunner();
  const auto started = std::chrono::steady_clock::now();
  const auto output = RunScript(runner, "echo partial; exec sleep 60");
  EXPECT_EQ(output, "partial\n");
  EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(31 * 50));

  // A tool that ignores SIGTERM is killed after the grace period.
  EXPECT_EQ(RunScript(runner, "trap '' TERM; echo stubborn; while :; do sleep 1; done"),
            "stubborn\n");

  // A process the tool leaves behind holding the pipe open does not keep the runner waiting.
  // It is still running when the runner returns, so the runner did not wait for it.
  const auto leftBehind = RunScript(runner, "sleep 60 & echo $!");
  ASSERT_TRUE(leftBehind.has_value());
  const pid_t orphan = static_cast<pid_t>(std::stol(*leftBehind));
  EXPECT_EQ(::kill(orphan, 0), 0);
  ::kill(orphan, SIGKILL);
  EXPECT_TRUE(NoChildLeft());
}

TEST(PosixToolRunnerTest, InvalidUtf8GivesNothingAndAMissingExecutableRaises) {
  PosixToolRunner runner;
  EXPECT_EQ(RunScript(runner, "printf 'caf\\351'"), std::nullopt);
  EXPECT_EQ(RunScript(runner, "printf 'caf\\303\\251'"), "caf\xC3\xA9");
  // A tool that cannot be launched raises, with the cause in the reason.
  try {
    runner.Run("/nonexistent/tool", {}, WaitPolicy::kBounded);
    ADD_FAILURE() << "a missing tool ran";
  } catch (const PlatformException& failure) {
    EXPECT_EQ(failure.name(), "NSInvalidArgumentException");
    EXPECT_EQ(failure.reason(),
              "launch path not accessible: /nonexistent/tool: No such file or directory");
  }
  EXPECT_THROW(runner.Run("/etc/passwd", {}, WaitPolicy::kBounded), PlatformException);
  EXPECT_EQ(runner.RunToFile("/nonexistent/tool", {}, "/dev/null/x"), kShellOutputFailed);
  EXPECT_TRUE(NoChildLeft());
}

TEST(PosixToolRunnerTest, ToolsInheritOnlyTheStandardDescriptors) {
  if (!std::filesystem::exists("/proc/self/fd")) GTEST_SKIP() << "needs /proc";
  // A descriptor opened without close-on-exec, as a library might leave one.
  const UniqueFd stray(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(stray.valid());
  const std::string probe = "for n in 0 1 2 " + std::to_string(stray.get()) +
                            "; do [ -e /proc/$$/fd/$n ] && printf o || printf -; done";
  PosixToolRunner runner;
  EXPECT_EQ(RunScript(runner, probe), "ooo-");
  EXPECT_EQ(RunScript(runner, probe, WaitPolicy::kUnbounded), "ooo-");
}

TEST(PosixToolRunnerTest, StandardErrorComesBackAsEscapedLinesNamingTheTool) {
  PosixToolRunner runner;
  ::testing::internal::CaptureStderr();
  const auto output = RunScript(
      runner,
      "printf out; printf 'warn\\033[2J\\n[ 2024-01-01 00:00:00 ] [ERROR] forged\\nlast' >&2");
  const std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(output, "out");
  EXPECT_NE(console.find("] /bin/sh: warn\\x1B[2J\n"), std::string::npos) << console;
  EXPECT_NE(console.find("] /bin/sh: [ 2024-01-01 00:00:00 ] [ERROR] forged\n"), std::string::npos)
      << console;
  EXPECT_NE(console.find("] /bin/sh: last\n"), std::string::npos) << console;
  // Every line is a console line of this process; none starts as a log line would.
  EXPECT_EQ(console.find("\n["), std::string::npos) << console;
  EXPECT_NE(console.front(), '[');
}

TEST(PosixToolRunnerTest, AFloodOnStandardErrorIsCutAndDoesNotStallTheTool) {
  PosixToolRunner runner = ShortStepRunner();
  ::testing::internal::CaptureStderr();
  const auto output =
      RunScript(runner, "head -c 1048576 /dev/zero | tr '\\0' e >&2; echo finished");
  const std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(output, "finished\n");
  EXPECT_LT(console.size(), 80u * 1024);
  EXPECT_NE(console.find("/bin/sh: (further standard error not logged)"), std::string::npos);
}

class RunToFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ =
        std::filesystem::temp_directory_path() / ("tool_runner_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  std::string PathOf(const std::string& name) const { return (directory_ / name).string(); }

  std::filesystem::path directory_;
  PosixToolRunner runner_;
};

TEST_F(RunToFileTest, WritesAFreshPrivateFileAndReplacesAnOldOne) {
  const std::string output = PathOf("inv-apps.plist");
  { std::ofstream(output) << "stale content that is longer than the new one"; }
  ASSERT_EQ(runner_.RunToFile(kShell, {"-c", "echo fresh"}, output), 0);
  EXPECT_EQ(ReadWholeFile(output), "fresh\n");
  struct stat info {};
  ASSERT_EQ(::stat(output.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);

  // Failures give the status a shell reports: exit code times 256, signals as 128 + signal.
  EXPECT_EQ(runner_.RunToFile(kShell, {"-c", "echo failing; exit 3"}, output), 3 * 256);
  EXPECT_EQ(ReadWholeFile(output), "failing\n");
  EXPECT_EQ(runner_.RunToFile(kShell, {"-c", "kill -TERM $$"}, output), (128 + SIGTERM) * 256);
  EXPECT_EQ(runner_.RunToFile("/nonexistent/tool", {}, output), kShellCannotLaunch);

  ::testing::internal::CaptureStderr();
  EXPECT_EQ(runner_.RunToFile(kShell, {"-c", "echo kept; echo 'noise\ra' >&2"}, output), 0);
  const std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(ReadWholeFile(output), "kept\n");
  EXPECT_NE(console.find("] /bin/sh: noise\\x0Da\n"), std::string::npos) << console;
  EXPECT_TRUE(NoChildLeft());
}

TEST_F(RunToFileTest, RefusesAPlantedLinkAndLeavesItsTargetAlone) {
  const std::string target = PathOf("precious");
  { std::ofstream(target) << "keep me"; }
  const std::string output = PathOf("volumes.plist");
  std::filesystem::create_symlink(target, output);

  EXPECT_EQ(runner_.RunToFile(kShell, {"-c", "echo overwritten"}, output), kShellOutputFailed);
  EXPECT_EQ(ReadWholeFile(target), "keep me");
  EXPECT_TRUE(std::filesystem::is_symlink(output));

  // A dangling link is refused too: following it would create the file elsewhere.
  const std::string dangling = PathOf("disk0s2.plist");
  std::filesystem::create_symlink(PathOf("elsewhere"), dangling);
  EXPECT_EQ(runner_.RunToFile(kShell, {"-c", "echo x"}, dangling), kShellOutputFailed);
  EXPECT_FALSE(std::filesystem::exists(PathOf("elsewhere")));
}

}  // namespace
}  // namespace tarn
