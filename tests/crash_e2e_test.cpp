// What a scan leaves behind when it does not end normally after the server accepted its
// upload: killed at any moment of the save phase, or unable to write the snapshot. The state
// store and the snapshot must always be whole files, and the next run must never compare
// against a snapshot the store does not vouch for.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/agent_folder.h"
#include "tests/inventory_server.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kSnapshot = "invFullData";
constexpr const char* kStore = "tarninventory_data.plist";

std::string ModificationTime(const fs::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? std::to_string(info.st_mtime) : "(none)";
}

// The text value of a key of the state store, as the scanner writes it.
std::optional<std::string> StoreValue(const std::string& store, const std::string& key) {
  std::smatch match;
  const std::regex entry("<key>" + key + "</key>\\s*<string>([^<]*)</string>");
  if (!std::regex_search(store, match, entry)) return std::nullopt;
  return match[1].str();
}

// A whole XML property list as the scanner writes one (an atomic write leaves nothing else).
bool WholePlist(const std::string& text) {
  return text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n") &&
         text.ends_with("</dict>\n</plist>\n");
}

// The snapshot and the state store of an agent folder, their modification times kept.
struct SavedState {
  std::string snapshot;
  std::string store;
  fs::file_time_type snapshotTime;
  fs::file_time_type storeTime;
};

SavedState Save(const AgentFolder& agent) {
  return {ReadFileText(agent.data() / kSnapshot), ReadFileText(agent.data() / kStore),
          fs::last_write_time(agent.data() / kSnapshot), fs::last_write_time(agent.data() / kStore)};
}

void Restore(const AgentFolder& agent, const SavedState& state) {
  WriteFileText(agent.data() / kSnapshot, state.snapshot);
  WriteFileText(agent.data() / kStore, state.store);
  fs::last_write_time(agent.data() / kSnapshot, state.snapshotTime);
  fs::last_write_time(agent.data() / kStore, state.storeTime);
}

bool EndedWith(const AgentFolder& agent, const std::string& mode, const std::string& status) {
  return std::regex_search(agent.AccessLog(),
                           std::regex(mode + "\\s+" + status + "\\s+\\d\\d:\\d\\d:\\d\\d\\s*$"));
}

// Starts the scanner and waits until the server has its upload in hand (the answer follows
// at once); the scanner's process id, or nothing when no upload came within a minute.
std::optional<pid_t> StartUntilUploaded(const AgentFolder& agent, const InventoryServer& server,
                                        const std::string& scanType) {
  const std::size_t before = server.UploadCount();
  const pid_t child = agent.Start({scanType});
  const auto deadline = Clock::now() + std::chrono::minutes(1);
  // Counted, not copied: copying every upload body so far would take longer than the save.
  while (server.UploadCount() == before) {
    if (Clock::now() > deadline) {
      agent.Wait(child, std::chrono::seconds(0));
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return child;
}

// Waits for the scanner with the precision of a tenth of a millisecond: true when it ended
// by itself (rather than by a signal).
bool EndedByItself(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, WNOHANG) == 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return WIFEXITED(status);
}

// An agent whose last full scan of imac-fusion the server accepted; its next scheduled scan
// of imac-fusion-changed is a difference scan that rewrites both files.
class CrashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    agent_.WriteResourceId("42");
    agent_.ServeAt(server_.port());
    agent_.UseMachine("imac-fusion");
    ASSERT_EQ(agent_.Run({"assetscan"}).exitCode, 0);
    ASSERT_TRUE(EndedWith(agent_, "FullData", "Success")) << agent_.AccessLog();
    accepted_ = Save(agent_);
    // A second apart, so that a snapshot written now gets another modification time.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    agent_.UseMachine("imac-fusion-changed");
  }

  AgentFolder agent_{"crash"};
  InventoryServer server_;
  SavedState accepted_;
};

TEST_F(CrashTest, AKillAtAnyMomentOfTheSavePhaseLeavesOldOrNewFiles) {
  // The undisturbed run: the new snapshot, and how long saving takes after the upload.
  const std::optional<pid_t> reference = StartUntilUploaded(agent_, server_, "scheduled");
  ASSERT_TRUE(reference);
  const auto uploaded = Clock::now();
  ASSERT_TRUE(EndedByItself(*reference));
  const auto saveWindow = std::chrono::duration_cast<std::chrono::microseconds>(
      Clock::now() - uploaded);
  ASSERT_TRUE(EndedWith(agent_, "DiffData", "Success")) << agent_.AccessLog();
  const std::string newSnapshot = ReadFileText(agent_.data() / kSnapshot);
  ASSERT_NE(newSnapshot, accepted_.snapshot);
  const std::string oldTrusted = StoreValue(accepted_.store, "INV_FULL_DATA_LAST_MODIFIED").value();

  std::mt19937 random(20260611);
  // Kill delays are drawn from the time the reference run took after its upload; a scanner
  // that ended before its kill narrows the range (runs vary with the computer's load).
  long window = saveWindow.count();
  // Rounds go on until enough kills have hit a running scanner: a kill that comes after the
  // scanner ended proves little.
  constexpr int kKills = 12;
  constexpr int kMostRounds = 60;
  int killedWhileRunning = 0;
  int newSnapshotLeft = 0;
  int nothingVouched = 0;
  int round = 0;
  for (; round < kMostRounds && killedWhileRunning < kKills; ++round) {
    const long killAfter = std::uniform_int_distribution<long>(0, window)(random);
    SCOPED_TRACE("round " + std::to_string(round) + ", killed " + std::to_string(killAfter) +
                 " us after the upload");
    Restore(agent_, accepted_);
    const std::optional<pid_t> child = StartUntilUploaded(agent_, server_, "scheduled");
    ASSERT_TRUE(child);
    std::this_thread::sleep_for(std::chrono::microseconds(killAfter));
    ::kill(*child, SIGKILL);
    if (EndedByItself(*child)) {
      window = window * 3 / 4;
    } else {
      ++killedWhileRunning;
    }

    // Both files are whole: the snapshot is the old or the new one, the store a complete
    // property list that vouches for the old snapshot, the file there now, or nothing ("0").
    const std::string snapshot = ReadFileText(agent_.data() / kSnapshot);
    EXPECT_TRUE(snapshot == accepted_.snapshot || snapshot == newSnapshot);
    const std::string store = ReadFileText(agent_.data() / kStore);
    ASSERT_TRUE(WholePlist(store)) << store;
    const std::optional<std::string> trusted = StoreValue(store, "INV_FULL_DATA_LAST_MODIFIED");
    ASSERT_TRUE(trusted);
    const std::string snapshotTime = ModificationTime(agent_.data() / kSnapshot);
    EXPECT_TRUE(*trusted == oldTrusted || *trusted == "0" || *trusted == snapshotTime)
        << *trusted;
    // The old snapshot is only trusted while it is still there.
    if (snapshot == newSnapshot && *trusted == oldTrusted) {
      EXPECT_NE(snapshotTime, oldTrusted);
    }

    // The next run reads what was left: a difference scan only against a vouched snapshot.
    const bool vouched = *trusted == snapshotTime;
    newSnapshotLeft += snapshot == newSnapshot ? 1 : 0;
    nothingVouched += vouched ? 0 : 1;
    // (Under the sanitizers a killed scanner can leave a helper task as a zombie under its
    // name; the single-instance guard does not count ended processes.)
    const ScannerResult next = agent_.Run({"scheduled"});
    ASSERT_EQ(next.exitCode, 0) << next.standardError;
    EXPECT_TRUE(EndedWith(agent_, vouched ? "DiffData" : "FullData", "Success"))
        << agent_.AccessLog();
  }
  std::printf("[ MEASURE  ] save phase %ld us; %d of %d kills hit the running scanner; %d left "
              "the new snapshot, %d a snapshot the store did not vouch for\n",
              static_cast<long>(saveWindow.count()), killedWhileRunning, round, newSnapshotLeft,
              nothingVouched);
  EXPECT_EQ(killedWhileRunning, kKills);
}

// The snapshot cannot be written: the scanner runs under a file-size limit above every file
// it writes before the upload (the applications report it copies is the largest) and below
// the snapshot's size, with SIGXFSZ ignored, so the snapshot's write fails with EFBIG. Unlike
// file permissions, the limit holds for root too. The old snapshot stays, its modification
// time does not move, and the stored "0" turns the next difference request into a full scan.
TEST_F(CrashTest, ASnapshotThatCannotBeWrittenForcesTheNextRunToAFullScan) {
  const auto report = fs::path(TARN_SOURCE_DIR) / "testdata/machines/imac-fusion-changed" /
                      "system_profiler-SPApplicationsDataType.xml";
  const std::uintmax_t largestEarlierFile = fs::file_size(report);
  const std::uintmax_t snapshotSize = accepted_.snapshot.size();
  if (largestEarlierFile + 4096 >= snapshotSize) {
    GTEST_SKIP() << "the recorded report is not smaller than the snapshot";
  }
  const rlim_t limit = (largestEarlierFile + snapshotSize) / 2;

  // The limit and the ignored signal are inherited by the scanner; the test process gets its
  // own back at once.
  rlimit previous{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &previous), 0);
  rlimit lowered = previous;
  lowered.rlim_cur = limit;
  const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &lowered), 0);
  const pid_t child = agent_.Start({"scheduled"});
  ::setrlimit(RLIMIT_FSIZE, &previous);
  ::signal(SIGXFSZ, previousHandler);
  ASSERT_EQ(agent_.Wait(child).exitCode, 0);

  EXPECT_TRUE(EndedWith(agent_, "DiffData", "Success")) << agent_.AccessLog();
  EXPECT_EQ(ReadFileText(agent_.data() / kSnapshot), accepted_.snapshot);
  const std::string store = ReadFileText(agent_.data() / kStore);
  EXPECT_EQ(StoreValue(store, "INV_FULL_DATA_LAST_MODIFIED"), "0") << store;
  EXPECT_NE(StoreValue(store, "INV_DIFF_SCAN_TIME"), std::nullopt);  // the upload counted

  ASSERT_EQ(agent_.Run({"scheduled"}).exitCode, 0);
  EXPECT_TRUE(EndedWith(agent_, "FullData", "Success")) << agent_.AccessLog();
  EXPECT_NE(agent_.ScanLog().find(" is modified, Proceeding to full scan \n"), std::string::npos);
}

// The id of a process that has ended (the child only exits: safe in a threaded process).
pid_t EndedProcessId() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ::waitpid(child, nullptr, 0);
  return child;
}

// A scanner killed while a tool wrote into its private folder leaves the folder in BASE/bin;
// the next run removes it, and only what is its user's and no live run's.
TEST(CrashLeftovers, ScratchFoldersOfKilledRunsAreRemovedAtTheNextStart) {
  AgentFolder agent("crash-scratch");
  InventoryServer server;
  agent.WriteResourceId("42");
  agent.ServeAt(server.port());
  agent.UseMachine("macbook-sample");
  const fs::path bin = agent.base() / "bin";
  WriteFileText(agent.base() / "precious", "keep me");
  const std::vector<std::string> stale = {
      "tarninventory-" + std::to_string(EndedProcessId()) + "-Ab12Cd",
      "tarninventory-Xy34Zw"};  // the name earlier runs gave, without a process id
  for (const std::string& name : stale) {
    fs::create_directories(bin / name);
    fs::permissions(bin / name, fs::perms::owner_all);
    WriteFileText(bin / name / "system_profiler.xml", "<?xml version=\"1.0\"");
    fs::create_symlink(agent.base() / "precious", bin / name / "link");
  }
  const fs::path live = bin / ("tarninventory-" + std::to_string(::getpid()) + "-Ab12Cd");
  fs::create_directories(live);

  ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  EXPECT_EQ(server.Uploads().size(), 1u);
  for (const std::string& name : stale) {
    EXPECT_FALSE(fs::exists(bin / name)) << name;
    EXPECT_NE(agent.ScanLog().find("Removed the scratch folder " + bin.string() + "/" + name +
                                   " left by an earlier run\n"),
              std::string::npos);
  }
  EXPECT_TRUE(fs::is_directory(live));
  EXPECT_EQ(ReadFileText(agent.base() / "precious"), "keep me");
  // The run's own folders went with their steps: BASE/bin holds the scanner and the live one.
  EXPECT_EQ(std::distance(fs::directory_iterator(bin), fs::directory_iterator()), 2);
}

}  // namespace
}  // namespace tarn::testing
