// The reference server under load, on loopback only: simulated agents, each a full upload of a
// recorded machine then three differences, sent over a fixed number of concurrent connections
// to one tarn-refserver process. Checks that every upload was accepted exactly once and that
// every computer ends holding what a fresh full upload of the final machine gives; prints the
// throughput (uploads per second) and the server's peak resident memory.
//
// Usage: tarn_refserver_load [--agents 200] [--connections 16] [--work DIR]
//
// The uploads are the documents the real scanner sends: it scans the recorded iMac
// (testdata/machines/imac-fusion) in full, then the changed iMac, the first again and the
// changed one again as differences, against a loopback server that keeps what it receives;
// then the changed iMac in full from a fresh agent folder.
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/agent_folder.h"
#include "tools/refserver/json.h"

extern char** environ;

namespace fs = std::filesystem;

namespace tarn::bench {
namespace {

using refserver::JsonValue;
using refserver::ParseJson;

struct Options {
  int agents = 200;
  int connections = 16;
  fs::path work = fs::temp_directory_path() / "tarn-refserver-load";
};

struct Upload {
  std::string target;  // path and query as the scanner sent them
  std::string body;
};

// A loopback server that accepts every upload and keeps it.
class CaptureServer {
 public:
  CaptureServer() {
    server_.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard lock(mutex_);
      uploads_.push_back({request.target, request.body});
      response.set_header("X-Tarn-Header", "tarn-load");
      response.set_content("OK", "text/plain");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~CaptureServer() {
    server_.stop();
    thread_.join();
  }
  int port() const { return port_; }
  std::vector<Upload> Take() {
    std::lock_guard lock(mutex_);
    return std::exchange(uploads_, {});
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::vector<Upload> uploads_;
};

// One scan of the recorded machine; the one upload it sent, or nothing.
std::optional<Upload> Scan(const testing::AgentFolder& agent, CaptureServer& capture,
                           const std::string& word, const std::string& machine) {
  agent.UseMachine(machine);
  const auto result = agent.Run({word});
  std::vector<Upload> sent = capture.Take();
  if (result.exitCode != 0 || sent.size() != 1) {
    std::cerr << "scan " << word << " of " << machine << ": exit " << result.exitCode << ", "
              << sent.size() << " uploads\n";
    return std::nullopt;
  }
  return sent.front();
}

// The scanner's uploads: one agent's full upload and three differences, and a fresh full
// upload of the final machine.
bool RecordUploads(std::vector<Upload>& agentUploads, Upload& fresh) {
  CaptureServer capture;
  {
    testing::AgentFolder agent("refserver-load");
    agent.WriteResourceId("42");
    agent.ServeAt(capture.port());
    const std::pair<const char*, const char*> scans[] = {{"assetscan", "imac-fusion"},
                                                         {"scheduled", "imac-fusion-changed"},
                                                         {"scheduled", "imac-fusion"},
                                                         {"scheduled", "imac-fusion-changed"}};
    for (const auto& [word, machine] : scans) {
      // The scanner trusts its snapshot by its modification time, in whole seconds.
      std::this_thread::sleep_for(std::chrono::milliseconds(1100));
      const auto upload = Scan(agent, capture, word, machine);
      if (!upload) return false;
      agentUploads.push_back(*upload);
    }
  }
  testing::AgentFolder freshAgent("refserver-load-fresh");
  freshAgent.WriteResourceId("43");
  freshAgent.ServeAt(capture.port());
  const auto upload = Scan(freshAgent, capture, "assetscan", "imac-fusion-changed");
  if (!upload) return false;
  fresh = *upload;
  const bool kinds = agentUploads[0].target.find("scanType=1") != std::string::npos &&
                     agentUploads[3].target.find("scanType=0") != std::string::npos;
  if (!kinds) std::cerr << "the scanner did not send a full upload then differences\n";
  return kinds;
}

std::string ForComputer(const std::string& target, const std::string& computer) {
  return std::regex_replace(target, std::regex("computer=[^&]*"), "computer=" + computer);
}

// tarn-refserver as a child process, its output in a file.
class ServerProcess {
 public:
  explicit ServerProcess(const fs::path& work) {
    const std::string database = (work / "load.sqlite").string();
    output_ = work / "server-output.txt";
    std::vector<std::string> arguments = {TARN_REFSERVER_BINARY, "--db", database, "--port", "0",
                                          "--catalogue",
                                          std::string(TARN_SOURCE_DIR) + "/data/Mac_InvClasses.xml"};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    const std::regex listening("listening on http://127\\.0\\.0\\.1:(\\d+)");
    for (int wait = 0; pid_ > 0 && wait < 1000 && port_ == 0; ++wait) {
      std::smatch match;
      const std::string text = testing::ReadFileText(output_);
      if (std::regex_search(text, match, listening)) port_ = std::stoi(match[1]);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~ServerProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  int port() const { return port_; }
  // The process's peak resident memory so far (VmHWM), in KiB.
  long PeakKiB() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  fs::path output_;
};

// A computer's inventory from its JSON page: per class, the multiset of instances' values.
using Inventory = std::map<int, std::multiset<std::map<std::string, std::string>>>;

std::optional<JsonValue> GetJson(httplib::Client& client, const std::string& path) {
  const auto answer = client.Get(path.c_str());
  if (!answer || answer->status != 200) return std::nullopt;
  return ParseJson(answer->body);
}

Inventory InventoryOf(const JsonValue& computer) {
  Inventory inventory;
  for (const JsonValue& entry : computer.at("classes")) {
    auto& instances = inventory[entry.at("id").get<int>()];
    for (const JsonValue& instance : entry.at("instances")) {
      std::map<std::string, std::string> values;
      for (const auto& value : instance.at("values").items()) {
        values[value.key()] = value.value().get<std::string>();
      }
      instances.insert(std::move(values));
    }
  }
  return inventory;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--agents") {
      options.agents = std::max(1, std::atoi(value.c_str()));
    } else if (name == "--connections") {
      options.connections = std::max(1, std::atoi(value.c_str()));
    } else if (name == "--work") {
      options.work = fs::absolute(value);
    } else {
      return false;
    }
  }
  return argc % 2 == 1;
}

int Run(const Options& options) {
  fs::remove_all(options.work);
  fs::create_directories(options.work);
  std::vector<Upload> agentUploads;
  Upload fresh;
  if (!RecordUploads(agentUploads, fresh)) return 1;

  ServerProcess server(options.work);
  if (server.port() == 0) {
    std::cerr << "tarn-refserver did not start\n";
    return 1;
  }
  const std::string url = "http://127.0.0.1:" + std::to_string(server.port());
  httplib::Client reference(url);
  reference.set_read_timeout(120, 0);
  const auto stored = reference.Post(ForComputer(fresh.target, "reference").c_str(), fresh.body,
                                     "application/xml");
  if (!stored || stored->status != 200) {
    std::cerr << "the fresh full upload was refused\n";
    return 1;
  }

  // The agents, over a fixed number of connections.
  std::atomic<int> next{0};
  std::atomic<int> accepted{0};
  std::mutex failuresMutex;
  std::vector<std::string> failures;
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> connections;
  for (int c = 0; c < options.connections; ++c) {
    connections.emplace_back([&] {
      httplib::Client client(url);
      client.set_read_timeout(120, 0);
      client.set_keep_alive(true);
      for (int agent = next++; agent < options.agents; agent = next++) {
        const std::string computer = "agent-" + std::to_string(agent);
        for (const Upload& upload : agentUploads) {
          const auto answer = client.Post(ForComputer(upload.target, computer).c_str(),
                                          upload.body, "application/xml");
          const bool once = answer && answer->status == 200 &&
                            answer->body.find("already applied") == std::string::npos;
          if (once) {
            ++accepted;
          } else {
            std::lock_guard lock(failuresMutex);
            failures.push_back(computer + ": " + (answer ? answer->body : "no answer"));
          }
        }
      }
    });
  }
  for (std::thread& thread : connections) thread.join();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const long peakKiB = server.PeakKiB();

  // What the server holds: each agent's computer equals the fresh full upload, with four
  // uploads in its history.
  int equal = 0;
  int historiesOfFour = 0;
  const auto list = GetJson(reference, "/api/computers");
  Inventory expected;
  std::map<std::string, long long> ids;
  if (list) {
    for (const JsonValue& computer : *list) {
      ids[computer.at("name").get<std::string>()] = computer.at("id").get<long long>();
    }
  }
  if (const auto page = GetJson(reference, "/computers/" + std::to_string(ids["reference"]) + ".json")) {
    expected = InventoryOf(*page);
  }
  for (int agent = 0; agent < options.agents; ++agent) {
    const auto id = ids.find("agent-" + std::to_string(agent));
    if (id == ids.end()) continue;
    const auto page = GetJson(reference, "/computers/" + std::to_string(id->second) + ".json");
    if (!page) continue;
    if (!expected.empty() && InventoryOf(*page) == expected) ++equal;
    if (page->at("uploads").size() == agentUploads.size()) ++historiesOfFour;
  }

  const int uploads = options.agents * static_cast<int>(agentUploads.size());
  std::printf("refserver load: %d agents x %zu uploads (full %zu bytes, differences %zu/%zu/%zu "
              "bytes) over %d connections\n",
              options.agents, agentUploads.size(), agentUploads[0].body.size(),
              agentUploads[1].body.size(), agentUploads[2].body.size(),
              agentUploads[3].body.size(), options.connections);
  std::printf("  accepted exactly once: %d of %d\n", accepted.load(), uploads);
  std::printf("  histories of %zu uploads: %d of %d\n", agentUploads.size(), historiesOfFour,
              options.agents);
  std::printf("  inventories equal to a fresh full upload: %d of %d\n", equal, options.agents);
  std::printf("  time %.2f s, throughput %.1f uploads/s\n", seconds, uploads / seconds);
  std::printf("  server peak memory %.1f MiB\n", static_cast<double>(peakKiB) / 1024.0);
  for (std::size_t i = 0; i < failures.size() && i < 5; ++i) {
    std::printf("  failed: %s\n", failures[i].c_str());
  }
  const bool ok = accepted == uploads && equal == options.agents &&
                  historiesOfFour == options.agents && !expected.empty();
  fs::remove_all(options.work);
  return ok ? 0 : 1;
}

}  // namespace
}  // namespace tarn::bench

int main(int argc, char** argv) {
  tarn::bench::Options options;
  if (!tarn::bench::ParseOptions(argc, argv, options)) {
    std::cerr << "usage: tarn_refserver_load [--agents N] [--connections N] [--work DIR]\n";
    return 2;
  }
  return tarn::bench::Run(options);
}
