#include "platform/process/side_by_side_runner.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "platform/exception/platform_exception.h"
#include "platform/process/posix_tool_runner.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;

// Holds every run until the test opens the gate, counting runs per command and the most
// runs at once. Thread-safe: the side-by-side runner calls it from its workers.
class GatedRunner final : public ToolRunner {
 public:
  std::optional<std::string> Run(const std::string& launchPath,
                                 const std::vector<std::string>& arguments, WaitPolicy) override {
    std::unique_lock lock(mutex_);
    ++runs_[launchPath + " " + (arguments.empty() ? "" : arguments[0])];
    ++running_;
    mostAtOnce_ = std::max(mostAtOnce_, running_);
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    --running_;
    if (launchPath == "/fails") RaiseLaunchFailure(launchPath, "no such tool");
    return launchPath + " output";
  }
  int RunToFile(const std::string&, const std::vector<std::string>&, const std::string&) override {
    return kShellCannotLaunch;
  }

  void WaitUntilRunning(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return running_ == count; });
  }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  std::map<std::string, int> Runs() {
    const std::lock_guard lock(mutex_);
    return runs_;
  }
  int MostAtOnce() {
    const std::lock_guard lock(mutex_);
    return mostAtOnce_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  int running_ = 0;
  int mostAtOnce_ = 0;
  std::map<std::string, int> runs_;
};

PlannedCommand Command(const std::string& launchPath, const std::string& argument = "") {
  return {launchPath,
          argument.empty() ? std::vector<std::string>{} : std::vector<std::string>{argument}, false,
          WaitPolicy::kBounded, nullptr};
}

TEST(SideBySideToolRunner, RunsFourAtOnceEachCommandOnceAndFollowUpsWhenKnown) {
  auto gated = std::make_unique<GatedRunner>();
  GatedRunner& inner = *gated;
  SideBySideToolRunner runner(std::move(gated), "");
  PlannedCommand list = Command("/list");
  list.then = [](std::string_view output) {
    // What the follow-up learns from the output names the next command.
    return std::vector<PlannedCommand>{Command("/info", std::string(output))};
  };
  std::vector<PlannedCommand> plan;
  for (int i = 0; i < 7; ++i) plan.push_back(Command("/tool", std::to_string(i)));
  plan.push_back(std::move(list));
  plan.push_back(Command("/fails"));
  plan.push_back(Command("/tool", "0"));  // planned twice: runs once
  runner.Plan(std::move(plan));
  inner.WaitUntilRunning(4);
  inner.Open();

  // Asked for in another order than planned, some twice, and one command never planned.
  EXPECT_EQ(runner.Run("/tool", {"6"}, WaitPolicy::kUnbounded), "/tool output");
  EXPECT_EQ(runner.Run("/tool", {"6"}, WaitPolicy::kBounded), "/tool output");
  EXPECT_EQ(runner.Run("/list", {}, WaitPolicy::kBounded), "/list output");
  EXPECT_EQ(runner.Run("/info", {"/list output"}, WaitPolicy::kBounded), "/info output");
  for (int round = 0; round < 2; ++round) {
    try {
      runner.Run("/fails", {}, WaitPolicy::kBounded);
      ADD_FAILURE() << "a launch failure is raised to every request";
    } catch (const PlatformException& failure) {
      EXPECT_EQ(failure.reason(), "launch path not accessible: /fails: no such tool");
    }
  }
  EXPECT_EQ(runner.Run("/unplanned", {"x"}, WaitPolicy::kBounded), "/unplanned output");
  EXPECT_EQ(runner.Run("/unplanned", {"x"}, WaitPolicy::kBounded), "/unplanned output");
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(runner.Run("/tool", {std::to_string(i)}, WaitPolicy::kBounded), "/tool output");
  }
  const std::unique_ptr<ToolRunner> stopped = runner.Finish();  // inner stays alive

  EXPECT_EQ(inner.MostAtOnce(), 4);
  std::map<std::string, int> expected{
      {"/list ", 1}, {"/info /list output", 1}, {"/fails ", 1}, {"/unplanned x", 2}};
  for (int i = 0; i < 7; ++i) expected["/tool " + std::to_string(i)] = 1;
  EXPECT_EQ(inner.Runs(), expected);
}

// Real tools through the live runner with a short bound: their standard error lines, a time
// out and a launch failure reach the console log when each result is asked for, in the order
// asked, exactly as when each runs at that moment.
class SideBySideRealToolsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = std::filesystem::temp_directory_path() /
              ("side_by_side_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder_);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  static std::unique_ptr<ToolRunner> Live() {
    return std::make_unique<PosixToolRunner>(
        PosixToolRunner::Timing{milliseconds(20), 2, milliseconds(200)});
  }

  static std::vector<std::string> Shell(const std::string& script) { return {"-c", script}; }

  // Asks in this order: the tool that hangs past its bound, the failing one, two quick ones
  // (which end long before the hanging one), one into a file, twice. The log as the runs left it,
  // time stamps masked.
  std::string AskAll(ToolRunner& runner, std::vector<std::string>& answers) {
    ::testing::internal::CaptureStderr();
    answers.push_back(runner.Run("/bin/sh", Shell(kHangs), WaitPolicy::kBounded).value_or("-"));
    try {
      runner.Run("/nonexistent/tool", {}, WaitPolicy::kBounded);
    } catch (const PlatformException& failure) {
      answers.push_back(failure.reason());
    }
    answers.push_back(runner.Run("/bin/sh", Shell(kQuick), WaitPolicy::kBounded).value_or("-"));
    answers.push_back(runner.Run("/bin/sh", Shell(kQuick), WaitPolicy::kBounded).value_or("-"));
    const std::string report = (folder_ / "report.txt").string();
    answers.push_back(std::to_string(runner.RunToFile("/bin/sh", Shell(kReport), report)));
    answers.push_back(ReadWholeFile(report).value_or("no file"));
    struct stat info {};
    answers.push_back(::stat(report.c_str(), &info) == 0 ? std::to_string(info.st_mode & 0777)
                                                         : "no mode");
    std::filesystem::remove(report);
    // Asked again: the report is made again (the first was handed over, not shared).
    answers.push_back(std::to_string(runner.RunToFile("/bin/sh", Shell(kReport), report)));
    answers.push_back(ReadWholeFile(report).value_or("no file"));
    std::filesystem::remove(report);
    return std::regex_replace(::testing::internal::GetCapturedStderr(),
                              std::regex(R"(^\S+ \S+ \S+\[\d+\] )", std::regex::multiline), "");
  }

  std::vector<PlannedCommand> Plan() const {
    return {{"/bin/sh", Shell(kHangs), false, WaitPolicy::kBounded, nullptr},
            {"/nonexistent/tool", {}, false, WaitPolicy::kBounded, nullptr},
            {"/bin/sh", Shell(kQuick), false, WaitPolicy::kBounded, nullptr},
            {"/bin/sh", Shell(kReport), true, WaitPolicy::kUnbounded, nullptr}};
  }

  static constexpr const char* kHangs = "echo partial; echo hang-warning >&2; exec sleep 30";
  static constexpr const char* kQuick = "echo quick; echo quick-warning >&2";
  static constexpr const char* kReport = "echo report-line >&2; printf report; exit 3";
  std::filesystem::path folder_;
};

TEST_F(SideBySideRealToolsTest, LogAndResultsAreThoseOfASerialRun) {
  std::vector<std::string> serialAnswers;
  const auto serialRunner = Live();
  const std::string serialLog = AskAll(*serialRunner, serialAnswers);
  EXPECT_EQ(
      serialAnswers,
      (std::vector<std::string>{
          "partial\n", "launch path not accessible: /nonexistent/tool: No such file or directory",
          "quick\n", "quick\n", std::to_string(3 << 8), "report", "384", std::to_string(3 << 8),
          "report"}));
  EXPECT_EQ(serialLog,
            "/bin/sh: hang-warning\n/bin/sh: quick-warning\n/bin/sh: quick-warning\n"
            "/bin/sh: report-line\n/bin/sh: report-line\n");

  SideBySideToolRunner runner(Live(), folder_.string());
  runner.Plan(Plan());
  std::vector<std::string> answers;
  EXPECT_EQ(AskAll(runner, answers), serialLog);
  EXPECT_EQ(answers, serialAnswers);
}

TEST_F(SideBySideRealToolsTest, AFileIsNeverHandedOverThroughALink) {
  SideBySideToolRunner runner(Live(), folder_.string());
  runner.Plan({{"/bin/sh", Shell(kReport), true, WaitPolicy::kUnbounded, nullptr}});
  const std::filesystem::path target = folder_ / "precious";
  WriteAll(CreateFreshOutputFile(target.string()).get(), "kept");
  std::filesystem::create_symlink(target, folder_ / "link");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(runner.RunToFile("/bin/sh", Shell(kReport), (folder_ / "link").string()),
            kShellOutputFailed);
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(ReadWholeFile(target.string()), "kept");
}

}  // namespace
}  // namespace tarn
