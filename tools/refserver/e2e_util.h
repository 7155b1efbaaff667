// The real scanner against the reference server: an agent folder (tests/agent_folder.h)
// pointed at a RunningServer, replaying the recorded machines of testdata/machines.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/agent_folder.h"
#include "tools/refserver/testutil.h"

namespace tarn::refserver::testing {

// The recorded iMac, and the same iMac a week later with applications installed,
// removed and upgraded and a volume unmounted. Its OS (10.11.6) is one on which a
// scheduled scan after an accepted full scan sends a difference.
inline constexpr const char* kMachine = "imac-fusion";
inline constexpr const char* kChangedMachine = "imac-fusion-changed";

// Runs a program (no shell) with standard output into a file and standard error
// discarded, in a process group of its own so that helper processes it starts end with
// it. The exit code, or -1 when it had to be killed after the time limit.
inline int RunProgram(std::vector<std::string> arguments, const std::filesystem::path& output,
                      std::chrono::seconds limit = std::chrono::seconds(60)) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::setpgid(0, 0);
    const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int null = ::open("/dev/null", O_WRONLY);
    if (out < 0 || null < 0 || ::dup2(out, 1) < 0 || ::dup2(null, 2) < 0) ::_exit(127);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  if (child < 0) return -1;
  ::setpgid(child, child);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (::waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(-child, SIGKILL);
      ::waitpid(child, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ::kill(-child, SIGKILL);  // helpers that outlived the program
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The last line of the agent's access log.
inline std::string LastAccessLine(const tarn::testing::AgentFolder& agent) {
  std::string log = agent.AccessLog();
  while (!log.empty() && log.back() == '\n') log.pop_back();
  return log.substr(log.rfind('\n') == std::string::npos ? 0 : log.rfind('\n') + 1);
}

// Runs one scan and checks that the server accepted it as the given kind
// ("FullData" or "DiffData").
inline void Scan(const tarn::testing::AgentFolder& agent, const std::string& word,
                 const std::string& machine, const std::string& kind) {
  agent.UseMachine(machine);
  const auto result = agent.Run({word});
  ASSERT_EQ(result.exitCode, 0) << agent.ScanLog();
  const std::string line = LastAccessLine(agent);
  EXPECT_NE(line.find(kind), std::string::npos) << line;
  ASSERT_NE(line.find("Success"), std::string::npos) << line << "\n" << agent.ScanLog();
}

// The server's only computer, as its JSON page gives it.
inline JsonValue OnlyComputer(const RunningServer& server) {
  auto client = server.Client();
  const auto list = client->Get("/api/computers");
  if (!list) throw std::runtime_error("no answer from the server");
  const JsonValue computers = ParseJson(list->body);
  if (computers.size() != 1) throw std::runtime_error("not one computer: " + list->body);
  const auto page =
      client->Get(("/computers/" + std::to_string(NumberAt(computers[0], "id")) + ".json")
                      .c_str());
  return ParseJson(page->body);
}

}  // namespace tarn::refserver::testing
