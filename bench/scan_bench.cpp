// The scan benchmark: for each machine size, in one run on one computer, the whole-process wall
// time and peak memory of replayed full and difference scans against a loopback server, and
// the floor (libplist alone parsing the same recorded outputs). Prints a table with the
// ratios scan/floor and largest/5,000 and writes it as CSV.
//
// Usage: tarn_bench --scanner [NAME=]BIN... --floor BIN --source REPO [--work DIR]
//                   [--sizes 1000,5000,...] [--runs 5] [--csv FILE] [--keep DIR] [--wrap CMD]
//                   [--log-level N]
// --keep DIR keeps, for each scanner and size, what one full scan of the base machine and one
// difference scan of the changed machine produced (the body the server received, snapshot,
// state store, logs) in DIR/NAME/SIZE/{full,diff}, for comparing builds (bench/same_outputs.sh).
// --wrap "CMD ARGS" runs every scan under a measuring tool (bench/heap.sh: heaptrack); the
// times and memory the table shows are then the tool's too. --log-level N sets the scanner's
// log level (default 3, the agents' default).
// Several --scanner options time several builds in one run (e.g. before=... after=...), their
// runs alternating.
#include <httplib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/machine_generator.h"

namespace fs = std::filesystem;

namespace tarn::bench {
namespace {

// A scanner binary to time, under the name the table shows.
struct Scanner {
  std::string name;
  fs::path path;
};

struct Options {
  std::vector<Scanner> scanners;
  fs::path floor;
  fs::path source;
  fs::path work = fs::temp_directory_path() / "tarn-bench";
  std::vector<int> sizes = {1000, 5000, 20000};
  int runs = 5;
  fs::path csv = "bench-results.csv";
  fs::path keep;
  std::string wrap;
  int logLevel = 3;
};

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--scanner") {
      // NAME=PATH, or a path alone (named "scanner").
      const auto equals = value.find('=');
      const bool named = equals != std::string::npos && value.find('/') > equals;
      options.scanners.push_back({named ? value.substr(0, equals) : "scanner",
                                  fs::absolute(named ? value.substr(equals + 1) : value)});
    } else if (name == "--floor") {
      options.floor = fs::absolute(value);
    } else if (name == "--source") {
      options.source = fs::absolute(value);
    } else if (name == "--work") {
      options.work = fs::absolute(value);
    } else if (name == "--runs") {
      options.runs = std::max(1, std::atoi(value.c_str()));
    } else if (name == "--log-level") {
      options.logLevel = std::atoi(value.c_str());
    } else if (name == "--wrap") {
      options.wrap = value;
    } else if (name == "--keep") {
      options.keep = fs::absolute(value);
    } else if (name == "--csv") {
      options.csv = value;
    } else if (name == "--sizes") {
      options.sizes.clear();
      std::stringstream list(value);
      for (std::string size; std::getline(list, size, ',');) {
        options.sizes.push_back(std::atoi(size.c_str()));
      }
    } else {
      return false;
    }
  }
  return argc % 2 == 1 && !options.scanners.empty() && !options.floor.empty() &&
         !options.source.empty() && !options.sizes.empty();
}

std::string ReadText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void WriteText(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string PlistWith(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" + body +
         "</dict>\n</plist>\n";
}

fs::path SelfPath() { return fs::read_symlink("/proc/self/exe"); }

// The measuring end of Agent::Run, in a small fresh process: runs ./tnbench with the scan
// type (under the words of TARN_BENCH_WRAP, when set), its output discarded, and prints its exit code, wall time (ms) and peak resident
// memory (KiB).
int RunScanner(const std::string& scanType) {
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = ::fork();
  if (child == 0) {
    const int null = ::open("/dev/null", O_WRONLY);
    if (null < 0 || ::dup2(null, 1) < 0 || ::dup2(null, 2) < 0) ::_exit(127);
    std::vector<std::string> words;
    std::istringstream wrap(std::getenv("TARN_BENCH_WRAP") ? std::getenv("TARN_BENCH_WRAP") : "");
    for (std::string word; wrap >> word;) words.push_back(word);
    words.push_back("./tnbench");
    words.push_back(scanType);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
  }
  int status = 0;
  rusage usage{};
  if (child < 0 || ::wait4(child, &status, 0, &usage) != child) return 1;
  const double wallMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::printf("%d %.3f %ld\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1, wallMs,
              usage.ru_maxrss);
  return 0;
}

// The management server: answers every upload with 200 and the server's header, and keeps
// the last body it received.
class LoopbackServer {
 public:
  LoopbackServer() {
    server_.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        lastBody_ = request.body;
      }
      response.set_header("X-Tarn-Header", "tarn-bench");
      response.set_content("OK", "text/plain");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~LoopbackServer() {
    server_.stop();
    thread_.join();
  }
  int port() const { return port_; }
  std::string LastBody() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lastBody_;
  }

 private:
  mutable std::mutex mutex_;
  std::string lastBody_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

struct Measurement {
  double wallMs = 0;
  double peakMb = 0;
  int exitCode = -1;
};

// An agent folder (BASE/bin, BASE/data, BASE/logs) whose scanner talks to the server.
class Agent {
 public:
  Agent(const Options& options, const fs::path& scanner, int port)
      : logLevel_(options.logLevel),
        base_(options.work / ("agent-" + scanner.filename().string() + "-" +
                              std::to_string(std::hash<std::string>{}(scanner.string())))) {
    fs::remove_all(base_);
    fs::create_directories(base_ / "bin");
    fs::create_directories(data());
    for (const auto& entry : fs::directory_iterator(options.source / "data")) {
      if (entry.path().extension() == ".xml") {
        fs::copy_file(entry.path(), data() / entry.path().filename());
      }
    }
    // A name of its own, so that no other scan on this computer trips the single-instance guard.
    fs::create_symlink(scanner, base_ / "bin" / "tnbench");
    WriteText(data() / "resource.plist",
              PlistWith("\t<key>RESOURCEID</key>\n\t<string>42</string>\n"));
    const std::string portText = std::to_string(port);
    WriteText(data() / "serverinfo.plist",
              PlistWith("\t<key>tarnlastaccessname</key><string>127.0.0.1</string>\n"
                        "\t<key>SERVERPROTOCOL</key><string>http</string>\n"
                        "\t<key>SERVERPORT</key><string>" + portText + "</string>\n"
                        "\t<key>SERVERSECUREPORT</key><string>" + portText + "</string>\n"
                        "\t<key>CUSTOMERID</key><string>1</string>\n"
                        "\t<key>CUSTOMERNAME</key><string>Bench Customer</string>\n"
                        "\t<key>MSPNAME</key><string>Bench MSP</string>\n"
                        "\t<key>REMOTEOFFICEID</key><string>301</string>\n"
                        "\t<key>MAC_DOMAIN</key><string>macosgroup</string>\n"));
  }
  ~Agent() { fs::remove_all(base_); }

  fs::path data() const { return base_ / "data"; }

  // Replays the machine at the benchmark's log level.
  void UseMachine(const fs::path& machine) const {
    WriteText(data() / "agent-conf.plist",
              PlistWith("\t<key>Loglevel</key><integer>" + std::to_string(logLevel_) +
                        "</integer>\n"
                        "\t<key>TOOL_REPLAY_DIRECTORY</key><string>" + machine.string() +
                        "</string>\n"));
  }

  // Forgets every earlier scan: no snapshot, no state store, no logs.
  void Forget() const {
    fs::remove(data() / "invFullData");
    fs::remove(data() / "tarninventory_data.plist");
    fs::remove_all(base_ / "logs");
  }

  // Keeps the state an accepted scan left (snapshot with its modification time, state store).
  void SaveState(const fs::path& to) const {
    fs::remove_all(to);
    fs::create_directories(to);
    for (const char* name : {"invFullData", "tarninventory_data.plist"}) {
      fs::copy_file(data() / name, to / name);
      fs::last_write_time(to / name, fs::last_write_time(data() / name));
    }
  }
  void RestoreState(const fs::path& from) const {
    Forget();
    for (const char* name : {"invFullData", "tarninventory_data.plist"}) {
      fs::copy_file(from / name, data() / name);
      fs::last_write_time(data() / name, fs::last_write_time(from / name));
    }
  }

  // Copies what the last scan left into the folder: the body the server received, the
  // snapshot, the state store and the logs.
  void Keep(const fs::path& to, const std::string& body) const {
    fs::remove_all(to);
    fs::create_directories(to / "logs");
    WriteText(to / "body", body);
    for (const char* name : {"invFullData", "tarninventory_data.plist"}) {
      if (fs::exists(data() / name)) fs::copy_file(data() / name, to / name);
    }
    for (const auto& entry : fs::directory_iterator(base_ / "logs")) {
      fs::copy_file(entry.path(), to / "logs" / entry.path().filename());
    }
  }

  // The last access-log line's mode and status columns, e.g. "FullData Success".
  std::string LastOutcome() const {
    std::istringstream log(ReadText(base_ / "logs" / "tarndevicescanaccess.log"));
    std::string line;
    std::string last;
    while (std::getline(log, line)) {
      if (!line.empty()) last = line;
    }
    std::istringstream columns(last);
    std::vector<std::string> words;
    for (std::string word; columns >> word;) words.push_back(word);
    return words.size() >= 6 ? words[3] + " " + words[4] : "(no line)";
  }

  // Runs the scanner through a fresh copy of this program (see RunScanner): a child forked
  // from this process would count the benchmark's own memory as the scanner's.
  Measurement Run(const std::string& scanType) const {
    const std::string command = "cd '" + (base_ / "bin").string() + "' && '" +
                                SelfPath().string() + "' --run-scanner " + scanType;
    Measurement result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    long peakKb = 0;
    if (std::fscanf(pipe, "%d %lf %ld", &result.exitCode, &result.wallMs, &peakKb) != 3) {
      result.exitCode = -1;
    }
    ::pclose(pipe);
    result.peakMb = static_cast<double>(peakKb) / 1024.0;
    return result;
  }

 private:
  int logLevel_;
  fs::path base_;
};

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// The floor of a machine: libplist alone parsing its recorded property-list outputs.
double FloorMs(const Options& options, const fs::path& machine) {
  std::string command = options.floor.string() + " " + std::to_string(std::max(options.runs, 5));
  for (const auto& entry : fs::directory_iterator(machine)) {
    const auto extension = entry.path().extension();
    if ((extension == ".xml" || extension == ".plist") && entry.path().filename() != "manifest.plist") {
      command += " '" + entry.path().string() + "'";
    }
  }
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return 0;
  char line[64] = {};
  const bool read = std::fgets(line, sizeof line, pipe) != nullptr;
  ::pclose(pipe);
  return read ? std::atof(line) : 0;
}

struct Cell {
  std::string scanner;
  int applications = 0;
  double floorMs = 0;
  double fullMs = 0;
  double fullMb = 0;
  double diffMs = 0;
  double diffMb = 0;
  bool ok = true;
};

struct Samples {
  std::vector<double> fullMs, fullMb, diffMs, diffMb;
  bool ok = true;
};

// One full scan of the base machine and one difference scan of the changed machine against
// the snapshot the base machine left; false when either did not end as accepted.
bool MeasureOnce(const Agent& agent, const fs::path& base, const fs::path& changed,
                 const fs::path& accepted, Samples& samples) {
  agent.Forget();
  agent.UseMachine(base);
  const Measurement full = agent.Run("assetscan");
  const std::string fullOutcome = agent.LastOutcome();
  agent.RestoreState(accepted);
  agent.UseMachine(changed);
  const Measurement diff = agent.Run("scheduled");
  const std::string diffOutcome = agent.LastOutcome();
  samples.fullMs.push_back(full.wallMs);
  samples.fullMb.push_back(full.peakMb);
  samples.diffMs.push_back(diff.wallMs);
  samples.diffMb.push_back(diff.peakMb);
  const bool ok = full.exitCode == 0 && fullOutcome == "FullData Success" && diff.exitCode == 0 &&
                  diffOutcome == "DiffData Success";
  if (!ok) {
    std::cerr << "full scan exit " << full.exitCode << " (" << fullOutcome
              << "), difference scan exit " << diff.exitCode << " (" << diffOutcome << ")\n";
  }
  return ok;
}

// Every scanner at one machine size; the runs of the scanners alternate, so that a slower
// stretch of the computer falls on all of them alike.
// Keeps one full scan of the base machine and one difference scan of the changed machine.
void KeepOutputs(const Options& options, const std::string& name, int applications,
                 const Agent& agent, const fs::path& base, const fs::path& changed,
                 const fs::path& accepted, const LoopbackServer& server) {
  const fs::path to = options.keep / name / std::to_string(applications);
  agent.Forget();
  agent.UseMachine(base);
  agent.Run("assetscan");
  agent.Keep(to / "full", server.LastBody());
  // The difference scan compares the snapshot's modification time with the one recorded, to
  // the second: it starts in a later second than the accepted scan, as a real schedule does.
  const std::time_t second = std::time(nullptr);
  while (std::time(nullptr) == second) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  agent.RestoreState(accepted);
  agent.UseMachine(changed);
  agent.Run("scheduled");
  agent.Keep(to / "diff", server.LastBody());
}

std::vector<Cell> MeasureSize(const Options& options, int applications,
                              const LoopbackServer& server) {
  const int port = server.port();
  const fs::path machines = options.work / "machines";
  MachineShape shape;
  shape.applications = applications;
  const fs::path base = machines / (std::to_string(applications) + "-base");
  const fs::path changed = machines / (std::to_string(applications) + "-changed");
  GenerateMachine(base, shape);
  shape.changed = true;
  GenerateMachine(changed, shape);
  const double floorMs = FloorMs(options, base);

  std::vector<std::unique_ptr<Agent>> agents;
  std::vector<fs::path> accepted;
  for (std::size_t i = 0; i < options.scanners.size(); ++i) {
    auto agent = std::make_unique<Agent>(options, options.scanners[i].path, port);
    accepted.push_back(options.work / ("accepted-" + std::to_string(i)));
    agent->Forget();
    agent->UseMachine(base);
    agent->Run("assetscan");  // warms the file cache; its state seeds the difference scans
    agent->SaveState(accepted.back());
    if (!options.keep.empty()) {
      KeepOutputs(options, options.scanners[i].name, applications, *agent, base, changed,
                  accepted.back(), server);
    }
    agents.push_back(std::move(agent));
  }
  std::vector<Samples> samples(options.scanners.size());
  for (int run = 0; run < options.runs; ++run) {
    for (std::size_t i = 0; i < agents.size(); ++i) {
      if (!MeasureOnce(*agents[i], base, changed, accepted[i], samples[i])) {
        std::cerr << options.scanners[i].name << ", " << applications << " applications, run "
                  << run + 1 << " failed\n";
        samples[i].ok = false;
      }
    }
  }
  std::vector<Cell> cells;
  for (std::size_t i = 0; i < agents.size(); ++i) {
    cells.push_back({options.scanners[i].name, applications, floorMs, Median(samples[i].fullMs),
                     Median(samples[i].fullMb), Median(samples[i].diffMs),
                     Median(samples[i].diffMb), samples[i].ok});
  }
  return cells;
}

std::string Fixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

void Report(const Options& options, const std::vector<Cell>& cells) {
  std::ostringstream table;
  std::ostringstream csv;
  csv << "scanner,applications,floor_ms,full_ms,full_over_floor,full_peak_mb,diff_ms,"
         "diff_over_floor,diff_peak_mb,full_over_5000,diff_over_5000\n";
  char line[256];
  std::snprintf(line, sizeof line, "%-10s %7s %8s %8s %7s %8s %8s %7s %8s %8s %8s\n", "scanner",
                "apps", "floor ms", "full ms", "x floor", "full MB", "diff ms", "x floor",
                "diff MB", "full/5k", "diff/5k");
  table << line;
  for (const Cell& c : cells) {
    const auto reference = std::find_if(cells.begin(), cells.end(), [&c](const Cell& r) {
      return r.applications == 5000 && r.scanner == c.scanner;
    });
    const bool scaled = reference != cells.end() && reference->fullMs > 0;
    const std::string fullScale = scaled ? Fixed(c.fullMs / reference->fullMs, 2) : "-";
    const std::string diffScale = scaled ? Fixed(c.diffMs / reference->diffMs, 2) : "-";
    std::snprintf(line, sizeof line,
                  "%-10s %7d %8.1f %8.1f %7.2f %8.1f %8.1f %7.2f %8.1f %8s %8s%s\n",
                  c.scanner.c_str(), c.applications, c.floorMs, c.fullMs, c.fullMs / c.floorMs,
                  c.fullMb, c.diffMs, c.diffMs / c.floorMs, c.diffMb, fullScale.c_str(),
                  diffScale.c_str(), c.ok ? "" : "  (a run failed)");
    table << line;
    csv << c.scanner << ',' << c.applications << ',' << Fixed(c.floorMs, 2) << ','
        << Fixed(c.fullMs, 2) << ',' << Fixed(c.fullMs / c.floorMs, 3) << ','
        << Fixed(c.fullMb, 1) << ',' << Fixed(c.diffMs, 2) << ','
        << Fixed(c.diffMs / c.floorMs, 3) << ',' << Fixed(c.diffMb, 1) << ',' << fullScale
        << ',' << diffScale << '\n';
  }
  std::cout << "Median of " << options.runs << " runs per cell; wall time and peak memory of "
            << "the whole scanner process (log level 3); floor: libplist alone parsing the "
               "machine's recorded outputs.\n"
            << table.str();
  WriteText(options.csv, csv.str());
  std::cout << "CSV: " << fs::absolute(options.csv).string() << '\n';
}

}  // namespace
}  // namespace tarn::bench

int main(int argc, char** argv) {
  using namespace tarn::bench;
  if (argc == 3 && std::string(argv[1]) == "--run-scanner") return RunScanner(argv[2]);
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::cerr << "usage: " << argv[0]
              << " --scanner [NAME=]BIN... --floor BIN --source REPO [--work DIR]"
                 " [--sizes 1000,5000,20000] [--runs 5] [--csv FILE] [--keep DIR] [--wrap CMD] [--log-level N]\n";
    return 2;
  }
  fs::create_directories(options.work);
  if (!options.wrap.empty()) ::setenv("TARN_BENCH_WRAP", options.wrap.c_str(), 1);
  const LoopbackServer server;
  std::vector<Cell> cells;
  for (const int size : options.sizes) {
    std::cerr << "measuring " << size << " applications...\n";
    for (Cell& cell : MeasureSize(options, size, server)) cells.push_back(std::move(cell));
  }
  // Grouped by scanner, sizes in the order given.
  std::stable_sort(cells.begin(), cells.end(), [&options](const Cell& a, const Cell& b) {
    const auto rank = [&options](const std::string& name) {
      return std::find_if(options.scanners.begin(), options.scanners.end(),
                          [&name](const Scanner& s) { return s.name == name; }) -
             options.scanners.begin();
    };
    return rank(a.scanner) < rank(b.scanner);
  });
  Report(options, cells);
  return std::all_of(cells.begin(), cells.end(), [](const Cell& c) { return c.ok; }) ? 0 : 1;
}
