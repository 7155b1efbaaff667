// An agent folder in a temporary directory (BASE/bin, BASE/data, BASE/logs)
// holding the shipped data files, and a way to run the built scanner in it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace tarn::testing {

inline std::string ReadFileText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

inline void WriteFileText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
}

struct ScannerResult {
  int exitCode = -1;  // -1 when ended by a signal, -2 when killed for not ending in time
  std::string standardOutput;
  std::string standardError;  // what it wrote before the scan log took standard error over
};

class AgentFolder {
 public:
  // scannerName: the scanner's name here; by default one of its own (see below).
  explicit AgentFolder(const std::string& name, const std::string& scannerName = "")
      : base_(std::filesystem::temp_directory_path() /
              ("tarn-e2e-" + name + "-" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(base_);
    std::filesystem::create_directories(base_ / "bin");
    std::filesystem::create_directories(base_ / "data");
    // The scanner refuses a data folder others may write, whatever the test's umask.
    std::filesystem::permissions(base_ / "data", std::filesystem::perms::owner_all |
                                                     std::filesystem::perms::group_read |
                                                     std::filesystem::perms::group_exec |
                                                     std::filesystem::perms::others_read |
                                                     std::filesystem::perms::others_exec);
    for (const char* file :
         {"data-dictionary.xml", "data-dictionary-inv.xml", "data-dictionary-framework.xml",
          "data-dictionary-onpremise.xml", "Mac_InvClasses.xml", "agent-conf.plist"}) {
      std::filesystem::copy_file(std::filesystem::path(TARN_SOURCE_DIR) / "data" / file,
                                 data() / file);
    }
    // The scanner runs under a name of its own, so that no other scan on this computer trips
    // its single-instance guard (process names are cut to 15 characters).
    static int runs = 0;
    scannerName_ = !scannerName.empty()
                       ? scannerName
                       : "tn" + std::to_string(::getpid() % 100000) + "_" + std::to_string(++runs);
    std::filesystem::create_symlink(TARN_SCANNER_BINARY, base_ / "bin" / scannerName_);
    // Until a test names its server: one loopback address where nothing listens.
    ServeAt(1);
  }
  ~AgentFolder() { std::filesystem::remove_all(base_); }
  AgentFolder(const AgentFolder&) = delete;
  AgentFolder& operator=(const AgentFolder&) = delete;

  std::filesystem::path base() const { return base_; }
  std::filesystem::path data() const { return base_ / "data"; }
  std::filesystem::path logs() const { return base_ / "logs"; }
  std::string AccessLog() const { return ReadFileText(logs() / "tarndevicescanaccess.log"); }
  std::string ScanLog() const { return ReadFileText(logs() / "tarndevicescan.log"); }

  // Gives the computer a resource id, so a run does not need the server for one.
  void WriteResourceId(const std::string& id) const {
    WritePlist(data() / "resource.plist",
               "\t<key>RESOURCEID</key>\n\t<string>" + id + "</string>\n");
  }

  struct RecordedOutput {
    std::string launchPath;
    std::vector<std::string> arguments;
    std::string output;
  };

  // Replays a machine recorded here: the given tool outputs, the host name
  // "test-mac.local" and fixed memory statistics (folder BASE/data/machine).
  void ReplayMachine(const std::vector<RecordedOutput>& outputs) const {
    const auto folder = data() / "machine";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    std::string commands;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      const std::string file = "output-" + std::to_string(i);
      WriteFileText(folder / file, outputs[i].output);
      commands += "\t\t<dict><key>launchPath</key><string>" + outputs[i].launchPath +
                  "</string><key>arguments</key><array>";
      for (const std::string& argument : outputs[i].arguments) {
        commands += "<string>" + argument + "</string>";
      }
      commands += "</array><key>output</key><string>" + file + "</string></dict>\n";
    }
    WritePlist(folder / "manifest.plist",
               "\t<key>commands</key>\n\t<array>\n" + commands +
                   "\t</array>\n\t<key>host</key>\n\t<dict><key>hostName</key>"
                   "<string>test-mac.local</string><key>vmStatistics</key><dict>"
                   "<key>pageSize</key><integer>4096</integer><key>free</key><integer>1000"
                   "</integer><key>active</key><integer>2000</integer><key>inactive</key>"
                   "<integer>3000</integer><key>wired</key><integer>4000</integer></dict>"
                   "</dict>\n");
    WritePlist(data() / "agent-conf.plist",
               "\t<key>Loglevel</key><integer>3</integer>\n"
               "\t<key>TOOL_REPLAY_DIRECTORY</key><string>machine</string>\n");
  }

  // Replays a recorded machine that knows only its OS version, through
  // "TOOL_REPLAY_DIRECTORY" of agent-conf.plist (a folder relative to BASE/data).
  void ReplayMachineWithOsVersion(const std::string& version) const {
    std::filesystem::create_directories(data() / "machine");
    WriteFileText(data() / "machine" / "version.txt", version + "\n");
    WritePlist(data() / "machine" / "manifest.plist",
               "\t<key>commands</key>\n\t<array><dict>\n"
               "\t\t<key>launchPath</key><string>/usr/bin/sw_vers</string>\n"
               "\t\t<key>arguments</key><array><string>-productVersion</string></array>\n"
               "\t\t<key>output</key><string>version.txt</string>\n"
               "\t</dict></array>\n");
    WritePlist(data() / "agent-conf.plist",
               "\t<key>Loglevel</key><integer>3</integer>\n"
               "\t<key>TOOL_REPLAY_DIRECTORY</key><string>machine</string>\n");
  }

  // Points the agent at a management server on loopback, known under the single address
  // 127.0.0.1 (as the address that worked last; no IP, so the list ends there).
  void ServeAt(int port, const std::string& protocol = "http",
               const std::string& customerName = "Example Customer") const {
    WritePlist(data() / "serverinfo.plist",
               "\t<key>tarnlastaccessname</key>\n\t<string>127.0.0.1</string>\n"
               "\t<key>SERVERPROTOCOL</key>\n\t<string>" +
                   protocol +
                   "</string>\n"
                   "\t<key>SERVERPORT</key>\n\t<string>" +
                   std::to_string(port) +
                   "</string>\n"
                   "\t<key>SERVERSECUREPORT</key>\n\t<string>" +
                   std::to_string(port) +
                   "</string>\n"
                   "\t<key>CUSTOMERID</key>\n\t<string>1</string>\n"
                   "\t<key>CUSTOMERNAME</key>\n\t<string>" +
                   customerName +
                   "</string>\n"
                   "\t<key>MSPNAME</key>\n\t<string>Example MSP</string>\n"
                   "\t<key>REMOTEOFFICEID</key>\n\t<string>301</string>\n"
                   "\t<key>MAC_DOMAIN</key>\n\t<string>macosgroup</string>\n");
    std::filesystem::remove(data() / "dupserverinfo.plist");
  }

  // Replays the recorded machine testdata/machines/NAME; moreKeys are further entries of
  // agent-conf.plist (property-list text).
  void UseMachine(const std::string& name, const std::string& moreKeys = "") const {
    WritePlist(data() / "agent-conf.plist",
               "\t<key>Loglevel</key><integer>3</integer>\n"
               "\t<key>TOOL_REPLAY_DIRECTORY</key><string>" +
                   std::string(TARN_SOURCE_DIR) + "/testdata/machines/" + name + "</string>\n" +
                   moreKeys);
  }

  static void WritePlist(const std::filesystem::path& path, const std::string& dictionaryBody) {
    WriteFileText(path,
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" +
                      dictionaryBody + "</dict>\n</plist>\n");
  }

  // Runs the scanner with its working directory at BASE/bin; standard output
  // and standard error (before the scan log takes it) are captured.
  // A scanner still running after timeout is killed.
  ScannerResult Run(const std::vector<std::string>& arguments,
                    std::chrono::seconds timeout = std::chrono::seconds(60)) const {
    return Wait(Start(arguments), timeout);
  }

  // Run in two steps, for a test that acts while the scanner runs: Start gives its process
  // id, Wait its result (killing it after timeout). Standard output and error go to
  // BASE/stdout.txt and BASE/stderr.txt, so only one scanner of a folder is started at a time
  // unless the files' content does not matter.
  pid_t Start(const std::vector<std::string>& arguments) const {
    // Everything the child needs is made before the fork: the test process has server
    // threads, and a child of a threaded process may only make async-signal-safe calls
    // (an allocation there can wait forever for a lock another thread held at the fork).
    ScannerLaunch launch(base_, scannerName_, arguments);
    const pid_t child = ::fork();
    if (child == 0) launch.Exec();
    return child;
  }
  ScannerResult Wait(pid_t child, std::chrono::seconds timeout = std::chrono::seconds(60)) const {
    ScannerResult result;
    result.exitCode = WaitFor(child, timeout);
    result.standardOutput = ReadFileText(base_ / "stdout.txt");
    result.standardError = ReadFileText(base_ / "stderr.txt");
    if (result.exitCode == kKilledAfterTimeout) {
      // The folder goes with the test: say here how far the scanner got.
      std::fprintf(stderr, "scanner killed after %llds; its log ends with:\n%s\n",
                   static_cast<long long>(timeout.count()), LastLines(ScanLog(), 20).c_str());
    }
    return result;
  }

  // The scanner's file name in BASE/bin, which is also its process name.
  const std::string& scannerName() const { return scannerName_; }

 private:
  static constexpr int kKilledAfterTimeout = -2;

  // The scanner's command line and files, ready for a child that only opens, duplicates,
  // changes directory and executes.
  class ScannerLaunch {
   public:
    ScannerLaunch(const std::filesystem::path& base, const std::string& scannerName,
                  const std::vector<std::string>& arguments)
        : output_((base / "stdout.txt").string()),
          errors_((base / "stderr.txt").string()),
          folder_((base / "bin").string()),
          strings_{(base / "bin" / scannerName).string()} {
      strings_.insert(strings_.end(), arguments.begin(), arguments.end());
      for (std::string& text : strings_) argv_.push_back(text.data());
      argv_.push_back(nullptr);
    }
    // argv_ points into strings_: never copied or moved.
    ScannerLaunch(const ScannerLaunch&) = delete;
    ScannerLaunch& operator=(const ScannerLaunch&) = delete;
    [[noreturn]] void Exec() const {
      const int out = ::open(output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = ::open(errors_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (out < 0 || err < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0 ||
          ::chdir(folder_.c_str()) != 0) {
        ::_exit(127);
      }
      ::execv(argv_[0], argv_.data());
      ::_exit(127);
    }

   private:
    std::string output_;
    std::string errors_;
    std::string folder_;
    std::vector<std::string> strings_;
    std::vector<char*> argv_;
  };

  static std::string LastLines(const std::string& text, std::size_t count) {
    // The line end before the last `count` lines (the text's own last line end included).
    std::size_t start = text.size();
    for (std::size_t seen = 0; seen <= count && start != 0; ++seen) {
      const std::size_t lineEnd = text.rfind('\n', start - 1);
      start = lineEnd == std::string::npos ? 0 : lineEnd;
    }
    return text.substr(start == 0 ? 0 : start + 1);
  }

  static int WaitFor(pid_t child, std::chrono::seconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        return kKilledAfterTimeout;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::filesystem::path base_;
  std::string scannerName_;
};

}  // namespace tarn::testing
