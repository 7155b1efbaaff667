// The tarn-refserver program itself: its command line, a port already in use, and a
// report whose texts came from agents.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tarn_version.h"
#include "tools/refserver/testutil.h"

extern char** environ;

namespace tarn::refserver::testing {
namespace {

struct Outcome {
  int exitCode = -1;  // -1 when it had to be killed
  std::string out;
  std::string err;
};

std::string FileText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs tarn-refserver with the arguments, standard output and error into files of dir;
// killed after a few seconds (a server that should have refused to start).
Outcome RunServer(const TempDir& dir, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), TARN_REFSERVER_BINARY);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const auto out = dir.path() / "stdout.txt";
  const auto err = dir.path() / "stderr.txt";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t child = 0;
  const int spawned = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  Outcome outcome;
  if (spawned != 0) return outcome;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      status = -1;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (status != -1 && WIFEXITED(status)) outcome.exitCode = WEXITSTATUS(status);
  outcome.out = FileText(out);
  outcome.err = FileText(err);
  return outcome;
}

TEST(RefServerProgram, HelpAndVersionGoToStandardOutputBadCommandLinesFail) {
  TempDir dir;
  const Outcome help = RunServer(dir, {"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const char* option : {"--db", "--port", "--bind", "--cert", "--key", "--catalogue",
                             "--report", "--version"}) {
    EXPECT_NE(help.out.find(option), std::string::npos) << option << "\n" << help.out;
  }
  EXPECT_EQ(help.err, "");

  const Outcome version = RunServer(dir, {"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out,
            std::string("tarn-refserver ") + TARN_VERSION + " (commit " + TARN_COMMIT + ")\n");

  const std::string db = (dir.path() / "db.sqlite").string();
  const std::vector<std::vector<std::string>> bad = {
      {"--port", "8080"},                      // no database
      {"--db", db},                            // neither a port nor --report
      {"--db", db, "--port", "65536"},         // out of range
      {"--db", db, "--port", "x"},             // not a number
      {"--db", db, "--port", "0", "--cert", "c.pem"},  // a certificate without its key
      {"--db", db, "--port", "0", "--bogus"}};
  for (const auto& arguments : bad) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const Outcome outcome = RunServer(dir, arguments);
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.err.rfind("tarn-refserver: ", 0), 0u) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
}

TEST(RefServerProgram, APortInUseEndsTheStartWithItsReason) {
  TempDir dir;
  RunningServer running(dir.path() / "first.sqlite");
  const Outcome second = RunServer(dir, {"--db", (dir.path() / "second.sqlite").string(),
                                         "--port", std::to_string(running.port())});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(second.err, "tarn-refserver: cannot listen on 127.0.0.1:" +
                            std::to_string(running.port()) + ": the port is in use\n");
}

TEST(RefServerProgram, TheReportEscapesWhatAgentsSent) {
  TempDir dir;
  const std::string db = (dir.path() / "db.sqlite").string();
  {
    Store store(db);
    UploadQuery query;
    query.computer = "evil\x1b]0;owned\x07\x1b[2J";
    query.domain = "macosgroup";
    query.customerId = "1";
    query.currentScanTime = "1700000000";
    FullUpload upload;
    upload.inventory[18][1] = {{1801, "App\x1b[31m"}, {1812, "/Applications/App.app"}};
    upload.inventory[20][1] = {{2002, "line\nbreak"}};
    store.StoreFull(query, upload, 100);
  }
  const Outcome report = RunServer(dir, {"--db", db, "--report"});
  EXPECT_EQ(report.exitCode, 0) << report.err;
  EXPECT_NE(report.out.find("evil\\x1b]0;owned\\x07\\x1b[2J"), std::string::npos) << report.out;
  EXPECT_EQ(report.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(report.out.find('\x07'), std::string::npos);
  EXPECT_EQ(report.out.find("line\nbreak"), std::string::npos);
}

}  // namespace
}  // namespace tarn::refserver::testing
