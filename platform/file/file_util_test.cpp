#include "platform/file/file_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace tarn {
namespace {

namespace fs = std::filesystem;

class OwnFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = fs::temp_directory_path() / ("file_util_test_" + std::to_string(::getpid()));
    fs::remove_all(directory_);
    fs::create_directories(directory_);
  }
  void TearDown() override { fs::remove_all(directory_); }
  std::string PathOf(const std::string& name) const { return (directory_ / name).string(); }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(PathOf(name)) << text;
  }

  fs::path directory_;
};

TEST_F(OwnFileTest, PlantedObjectsAreRefusedAndLeftAsTheyWere) {
  Write("precious", "keep me");
  fs::create_symlink(PathOf("precious"), PathOf("link.log"));
  fs::create_symlink(PathOf("nowhere"), PathOf("dangling.log"));
  fs::create_hard_link(PathOf("precious"), PathOf("hard.log"));
  fs::create_directory(PathOf("folder.log"));
  ASSERT_EQ(::mkfifo(PathOf("fifo.log").c_str(), 0600), 0);

  for (const char* name : {"link.log", "dangling.log", "hard.log", "folder.log", "fifo.log"}) {
    SCOPED_TRACE(name);
    for (const int flags : {O_WRONLY | O_APPEND | O_CREAT, O_WRONLY | O_CREAT | O_TRUNC, O_RDWR}) {
      EXPECT_FALSE(OpenOwnFile(PathOf(name), flags).valid());
    }
    EXPECT_EQ(OpenOwnStream(PathOf(name), O_WRONLY | O_APPEND, "a"), nullptr);
  }
  EXPECT_EQ(ReadWholeFile(PathOf("precious")), "keep me");
  EXPECT_FALSE(fs::exists(PathOf("nowhere")));
}

TEST_F(OwnFileTest, CreatesOwnerOnlyTruncatesOnlyWhenAskedAndClosesOnExec) {
  const std::string path = PathOf("scan.log");
  {
    const UniqueFd fd = OpenOwnFile(path, O_WRONLY | O_APPEND | O_CREAT);
    ASSERT_TRUE(fd.valid());
    EXPECT_TRUE(WriteAll(fd.get(), "first\n"));
    EXPECT_NE(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(::fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
  }
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  {
    const FilePtr stream = OpenOwnStream(path, O_WRONLY | O_APPEND, "a");
    ASSERT_NE(stream, nullptr);
    std::fputs("second\n", stream.get());
  }
  EXPECT_EQ(ReadWholeFile(path), "first\nsecond\n");
  EXPECT_FALSE(OpenOwnFile(PathOf("missing"), O_WRONLY | O_APPEND).valid());
  EXPECT_TRUE(OpenOwnFile(path, O_WRONLY | O_TRUNC).valid());
  EXPECT_EQ(ReadWholeFile(path), "");
}

TEST_F(OwnFileTest, OneLockHolderAtATime) {
  const std::string path = PathOf("tarninventory.lock");
  UniqueFd first;
  ASSERT_EQ(LockOwnFile(path, first), LockResult::kTaken);
  UniqueFd second;
  EXPECT_EQ(LockOwnFile(path, second), LockResult::kHeld);
  EXPECT_FALSE(second.valid());
  first.Close();
  EXPECT_EQ(LockOwnFile(path, second), LockResult::kTaken);

  UniqueFd other;
  EXPECT_EQ(LockOwnFile(PathOf("missing/tarninventory.lock"), other), LockResult::kUnavailable);
  fs::create_symlink(PathOf("target"), PathOf("planted.lock"));
  EXPECT_EQ(LockOwnFile(PathOf("planted.lock"), other), LockResult::kUnavailable);
  EXPECT_FALSE(fs::exists(PathOf("target")));
}

TEST_F(OwnFileTest, FolderStates) {
  const auto folder = directory_ / "logs";
  EXPECT_EQ(CheckOwnFolder(folder.string()), FolderState::kMissing);
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms::owner_all);
  EXPECT_EQ(CheckOwnFolder(folder.string()), FolderState::kPrivate);
  fs::permissions(folder, fs::perms::owner_all | fs::perms::group_read | fs::perms::others_exec);
  EXPECT_EQ(CheckOwnFolder(folder.string()), FolderState::kPrivate);
  for (const fs::perms writable : {fs::perms::group_write, fs::perms::others_write}) {
    fs::permissions(folder, fs::perms::owner_all | writable);
    EXPECT_EQ(CheckOwnFolder(folder.string()), FolderState::kExposed);
  }
  Write("file", "x");
  EXPECT_EQ(CheckOwnFolder(PathOf("file")), FolderState::kExposed);
  // A link is never followed: to a private folder or to nothing at all.
  fs::permissions(folder, fs::perms::owner_all);
  fs::create_directory_symlink(folder, PathOf("linked"));
  fs::create_symlink(PathOf("nowhere"), PathOf("dangling"));
  EXPECT_EQ(CheckOwnFolder(PathOf("linked")), FolderState::kLink);
  EXPECT_EQ(CheckOwnFolder(PathOf("dangling")), FolderState::kLink);
}

// The id of a process that has ended.
pid_t EndedProcessId() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ::waitpid(child, nullptr, 0);
  return child;
}

TEST_F(OwnFileTest, StaleScratchFoldersAreRemovedWithoutFollowingLinks) {
  const std::string dead = std::to_string(EndedProcessId());
  const std::string alive = std::to_string(::getppid());
  Write("precious", "keep me");
  fs::create_directory(PathOf("outside"));
  Write("outside/kept", "x");
  const std::vector<std::string> stale = {"tarninventory-" + dead + "-a1B2c3",
                                          "tarninventory-Zz09Aa"};
  for (const std::string& name : stale) {
    fs::create_directories(PathOf(name + "/inner/deeper"));
    Write(name + "/SPApplicationsDataType.xml", "partial");
    Write(name + "/inner/deeper/x", "y");
    fs::create_symlink(PathOf("precious"), PathOf(name + "/link"));
    fs::create_directory_symlink(PathOf("outside"), PathOf(name + "/inner/folder-link"));
  }
  const std::vector<std::string> kept = {
      "tarninventory-" + alive + "-a1B2c3",                  // a run still alive
      "tarninventory-" + std::to_string(::getpid()) + "-q",  // not the pattern
      "tarninventory-" + dead + "a1B2c3",                    // no dash before the suffix
      "tarninventory-x" + dead + "-a1B2c3",                  // no process id
      "tarninventory-a1B2c",                                 // suffix too short
      "other-" + dead + "-a1B2c3"};
  for (const std::string& name : kept) fs::create_directory(PathOf(name));
  // A link named like a stale folder is not a folder of ours: left, and not followed.
  fs::create_directory_symlink(PathOf("outside"), PathOf("tarninventory-" + dead + "-linkdd"));
  // So is a file.
  Write("tarninventory-" + dead + "-filexx", "x");

  std::vector<std::string> removed = RemoveStaleScratchDirectories(directory_.string());
  std::sort(removed.begin(), removed.end());
  std::vector<std::string> expected = stale;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(removed, expected);
  for (const std::string& name : stale) EXPECT_FALSE(fs::exists(PathOf(name))) << name;
  for (const std::string& name : kept) EXPECT_TRUE(fs::is_directory(PathOf(name))) << name;
  EXPECT_TRUE(fs::is_symlink(PathOf("tarninventory-" + dead + "-linkdd")));
  EXPECT_TRUE(fs::exists(PathOf("tarninventory-" + dead + "-filexx")));
  std::ifstream precious(PathOf("precious"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(precious), {}), "keep me");
  EXPECT_TRUE(fs::exists(PathOf("outside/kept")));
  // Another user's folder of the same pattern is left to that user.
  if (::geteuid() == 0) {
    const std::string foreign = PathOf("tarninventory-" + dead + "-other1");
    fs::create_directory(foreign);
    ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_TRUE(RemoveStaleScratchDirectories(directory_.string()).empty());
    EXPECT_TRUE(fs::exists(foreign));
  }
}

TEST_F(OwnFileTest, ScratchFolderNamesCarryTheProcessId) {
  std::string path;
  {
    const ScratchDirectory scratch(directory_.string());
    ASSERT_TRUE(scratch.valid());
    path = scratch.path();
    EXPECT_EQ(fs::path(path).filename().string().rfind(
                  "tarninventory-" + std::to_string(::getpid()) + "-", 0),
              0u)
        << path;
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_all);
    // A run's own folder is never stale.
    EXPECT_TRUE(RemoveStaleScratchDirectories(directory_.string()).empty());
    EXPECT_TRUE(fs::is_directory(path));
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(OwnFileTest, CopyTakesRegularFilesOnlyAndNeverWritesThroughALink) {
  Write("source.log", "generation");
  ASSERT_FALSE(CopyRegularFile(PathOf("source.log"), PathOf("copy1.log")));
  EXPECT_EQ(ReadWholeFile(PathOf("copy1.log")), "generation");

  Write("precious", "keep me");
  fs::create_symlink(PathOf("precious"), PathOf("copy2.log"));
  EXPECT_TRUE(CopyRegularFile(PathOf("source.log"), PathOf("copy2.log")));
  fs::create_symlink(PathOf("precious"), PathOf("linked-source.log"));
  EXPECT_TRUE(CopyRegularFile(PathOf("linked-source.log"), PathOf("copy3.log")));
  EXPECT_FALSE(fs::exists(PathOf("copy3.log")));
  EXPECT_TRUE(CopyRegularFile(PathOf("absent.log"), PathOf("copy4.log")));
  EXPECT_EQ(ReadWholeFile(PathOf("precious")), "keep me");
}

TEST(PlainFileName, NamesStayInTheirFolder) {
  for (const char* name : {"settings.xml", "a", "..x", "x..", ".hidden", "a b"}) {
    EXPECT_TRUE(IsPlainFileName(name)) << name;
  }
  for (const char* name : {"", ".", "..", "../x.xml", "a/b", "/etc/passwd", "x/"}) {
    EXPECT_FALSE(IsPlainFileName(name)) << name;
  }
}

}  // namespace
}  // namespace tarn
