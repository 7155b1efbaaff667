#include "framework/logging/logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace tarn {
namespace {

namespace fs = std::filesystem;

const char* const kStamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})";

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// Replaces every date-time text with "T" so lines compare byte for byte.
std::string Normalise(const std::string& text) {
  return std::regex_replace(text, std::regex(kStamp), "T");
}

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("tarn-logger-" + std::to_string(::getpid()) + "-" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
  }
  void TearDown() override {
    StopLogging();
    DeInitLogging();
    fs::remove_all(dir_);
  }

  // Starts the engine on dir_/sub/test.log at the given level.
  void Start(std::uint8_t level, bool append = true, const std::string& sub = "logs") {
    ASSERT_EQ(InitLogging(), 1);
    const std::string directory = (dir_ / sub).string();
    ASSERT_EQ(SetLoggingParameters("test.log", directory.c_str(), 10000, 0, level), 1);
    ASSERT_EQ(append ? StartLoggingAppMode() : StartLogging(), 1);
  }

  void WriteOneOfEach() {
    UserLogMessage("user %d\n", 1);
    ErrorLogMessage("error %s\n", "two");
    DebugLogMessage("debug\n");
    TraceLogMessage("trace\n");
  }

  std::string Log(const std::string& sub = "logs") { return ReadFile(dir_ / sub / "test.log"); }

  fs::path dir_;
};

TEST_F(LoggerTest, LineFormatAtEachLevel) {
  const std::string open = "Log open time: T\n";
  const std::string close = "Log close time: T\n";
  const std::string info = "[ T ] [INFO] user 1\n";
  const std::string error = "[ T ] [ERROR] error two\n";
  const std::string debug = "[ T ] [DEBUG] debug\n";
  const std::string trace = "[ T ] [TRACE] trace\n";
  const struct {
    std::uint8_t level;
    std::string body;
  } cases[] = {
      {0, ""},
      {1, info},
      {2, info + error},
      {3, info + error + debug},
      {4, info + error + debug + trace},
      {255, info + error + debug + trace},
  };
  for (const auto& c : cases) {
    fs::remove_all(dir_);
    Start(c.level, /*append=*/false);
    WriteOneOfEach();
    StopLogging();
    EXPECT_EQ(Normalise(Log()), open + c.body + close) << "level " << int(c.level);
    DeInitLogging();
  }
  EXPECT_TRUE(std::regex_search(Log(), std::regex(std::string("^Log open time: ") + kStamp + "\n")));
}

TEST_F(LoggerTest, MessagesWithoutLineEndRunOnAndEachIsFlushed) {
  Start(3);
  UserLogMessage("no end");
  UserLogMessage("next\n");
  // Flushed per message: readable before the engine stops.
  EXPECT_EQ(Normalise(Log()), "Log open time: T\n[ T ] [INFO] no end[ T ] [INFO] next\n");
}

TEST_F(LoggerTest, AppendModeKeepsAndTruncateModeEmpties) {
  Start(3);
  UserLogMessage("first run\n");
  StopLogging();
  DeInitLogging();
  Start(3);
  UserLogMessage("second run\n");
  StopLogging();
  const std::string both = Normalise(Log());
  EXPECT_NE(both.find("first run"), std::string::npos);
  EXPECT_NE(both.find("second run"), std::string::npos);
  DeInitLogging();

  Start(3, /*append=*/false);
  StopLogging();
  EXPECT_EQ(Normalise(Log()), "Log open time: T\nLog close time: T\n");
}

TEST_F(LoggerTest, SecondStartKeepsTheOpenFileAndMissingParentsAreCreated) {
  Start(4, true, "a/b/c");
  EXPECT_TRUE(fs::is_directory(dir_ / "a/b/c"));
  EXPECT_EQ(*GetLogFilePath(), (dir_ / "a/b/c/test.log").string());
  const std::string other = (dir_ / "other").string();
  SetLogDirectory(other.c_str());
  EXPECT_EQ(StartLoggingAppMode(), 1);
  EXPECT_FALSE(fs::exists(dir_ / "other"));
  EXPECT_NE(Normalise(Log("a/b/c")).find("[ T ] [TRACE] gv_logFilePtr already Set\n"),
            std::string::npos);
}

TEST_F(LoggerTest, InitLoggingDefaultsAndUnopenableFile) {
  ASSERT_EQ(InitLogging(), 1);
  EXPECT_EQ(GetLogLevelValue(), kDefaultLogLevel);
  fs::create_directories(dir_);
  const std::string blocker = (dir_ / "file").string();
  std::ofstream(blocker) << "x";
  // The log directory is a regular file: the open fails and logging stays off.
  SetLoggingParameters("test.log", blocker.c_str(), 10000, 0, 3);
  EXPECT_EQ(StartLoggingAppMode(), 0);
  UserLogMessage("dropped\n");
  EXPECT_EQ(ReadFile(blocker), "x");
  EXPECT_EQ(SetLogFileName(nullptr), 0);
  EXPECT_EQ(SetLogDirectory(nullptr), 0);
}

TEST_F(LoggerTest, RootDirectoryIsUsedWithoutLogDirectory) {
  ASSERT_EQ(InitLogging(), 1);
  const std::string root = dir_.string();
  fs::create_directories(dir_);
  SetLogRootDirectory(root.c_str());
  SetLogFileName("root.log");
  ASSERT_EQ(StartLogging(), 1);
  EXPECT_TRUE(fs::exists(dir_ / "logs/root.log"));
}

TEST_F(LoggerTest, InsertedValuesCannotStartALineButFixedTextsAreWrittenAsTheyStand) {
  Start(3);
  UserLogMessage("resource id %s \n", "42\n[ 2024-01-01 00:00:00 ] [ERROR] forged");
  ErrorLogMessage("\n%s\n failure", "line1\r\nline2\tcol\x1B]0;title\x07");
  UserLogText("scanType : Manual\n");
  ErrorLogText("\nDescription tag ambiguity \n");
  EXPECT_EQ(Normalise(Log()),
            "Log open time: T\n"
            "[ T ] [INFO] resource id 42\\x0A[ T ] [ERROR] forged \n"
            "[ T ] [ERROR] \nline1\\x0D\\x0Aline2\tcol\\x1B]0;title\\x07\n failure"
            "[ T ] [INFO] scanType : Manual\n"
            "[ T ] [ERROR] \nDescription tag ambiguity \n");
  StopLogging();
  DeInitLogging();
  Start(1);
  ErrorLogText("not at level 1\n");
  EXPECT_EQ(Log().find("not at level 1"), std::string::npos);
}

TEST_F(LoggerTest, APlantedLinkOrHardLinkIsNeverWrittenThrough) {
  fs::create_directories(dir_ / "logs");
  const fs::path target = dir_ / "precious";
  std::ofstream(target) << "keep me";
  for (const bool hard : {false, true}) {
    SCOPED_TRACE(hard ? "hard link" : "symbolic link");
    fs::remove(dir_ / "logs/test.log");
    if (hard) {
      fs::create_hard_link(target, dir_ / "logs/test.log");
    } else {
      fs::create_symlink(target, dir_ / "logs/test.log");
    }
    for (const bool append : {true, false}) {
      ASSERT_EQ(InitLogging(), 1);
      const std::string directory = (dir_ / "logs").string();
      SetLoggingParameters("test.log", directory.c_str(), 10000, 0, 3);
      EXPECT_EQ(append ? StartLoggingAppMode() : StartLogging(), 0);
      UserLogMessage("dropped\n");
      EXPECT_EQ(RedirectStandardErrorToLog(), 0);
      DeInitLogging();
    }
    EXPECT_EQ(ReadFile(target), "keep me");
  }
}

TEST_F(LoggerTest, NewFoldersAndFilesAreOwnerOnly) {
  const mode_t previous = ::umask(0);
  Start(3, true, "a/b");
  ::umask(previous);
  for (const fs::path& path : {dir_ / "a", dir_ / "a/b", dir_ / "a/b/test.log"}) {
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0) << path;
    EXPECT_EQ(info.st_mode & 077, 0u) << path;
  }
}

TEST_F(LoggerTest, StandardErrorSharesTheLogFile) {
  // Descriptor 2 is replaced, so the check runs in a child process.
  const fs::path log = dir_ / "logs/test.log";
  EXPECT_EXIT(
      {
        Start(3);
        UserLogMessage("before\n");
        if (RedirectStandardErrorToLog() != 1) std::exit(1);
        std::fputs("from stderr\n", stderr);
        UserLogMessage("after\n");
        StopLogging();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(Normalise(ReadFile(log)),
            "Log open time: T\n[ T ] [INFO] before\nfrom stderr\n[ T ] [INFO] after\n"
            "Log close time: T\n");
}

}  // namespace
}  // namespace tarn
