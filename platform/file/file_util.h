#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace tarn {

// Owns one file descriptor and closes it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Close();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Close(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  // Gives up ownership without closing.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

struct FileCloser {
  void operator()(std::FILE* file) const {
    if (file != nullptr) std::fclose(file);
  }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Opens a file this process writes, in a way no link or foreign file planted at the path can
// redirect: the last component is never followed (O_NOFOLLOW), the descriptor is
// close-on-exec, and a file created here gets mode 0600. flags are open's access mode with
// O_APPEND, O_CREAT and O_TRUNC as wanted. The object opened must be a regular file with one
// link, owned by this process's effective user; anything else (a link, a folder, a pipe, a
// hard link to another file, someone else's file) is closed untouched and gives an invalid
// descriptor. O_TRUNC empties the file only after these checks.
UniqueFd OpenOwnFile(const std::string& path, int flags);

// OpenOwnFile as a stream with the fdopen mode ("a", "r+", "w"); null on failure.
FilePtr OpenOwnStream(const std::string& path, int flags, const char* streamMode);

// Outcome of LockOwnFile.
enum class LockResult {
  kTaken,        // the lock is held through the descriptor given back
  kHeld,         // another open of the file holds the lock
  kUnavailable,  // the file could not be opened (missing folder, link, not ours) or locked
};

// Takes an exclusive advisory lock (flock, not waiting) on the file at path, created through
// OpenOwnFile when missing. The lock lasts as long as holder stays open; the file is left in
// place afterwards, so every run locks the same file.
LockResult LockOwnFile(const std::string& path, UniqueFd& holder);

// What a folder the run writes into looks like. The last component is never followed: a link
// there, even a dangling one, is refused, since whoever can change where it leads could
// change where the run writes.
enum class FolderState {
  kMissing,  // nothing at the path
  kPrivate,  // a folder of this process's effective user, writable by neither group nor
             // others
  kLink,     // a symbolic link
  kExposed,  // anything else: not a folder, another owner, or writable by group or others
};
FolderState CheckOwnFolder(const std::string& path);

// Copies the regular file at source (opened without following a link at its last
// component) to a file created afresh at target (CreateFreshOutputFile). The error of the
// step that failed, or none.
std::error_code CopyRegularFile(const std::string& source, const std::string& target);
// Copies what is left of the open file `from` to the open file `to`; false on a failed read
// or write.
bool CopyContents(int from, int to);

// True for a name that stays inside the folder it is joined to: not empty, no "/", not "."
// or "..".
bool IsPlainFileName(std::string_view name);

// Creates the file afresh for writing, mode 0600, in a way no planted link can redirect: an
// existing regular file is removed first; a link, folder or anything else at the path makes
// the exclusive create fail. Invalid descriptor on failure. The descriptor is close-on-exec
// and above the three standard descriptors.
UniqueFd CreateFreshOutputFile(const std::string& path);

// Moves a descriptor above the standard three, so that installing it as a child's standard
// output is always a real dup2 (which clears close-on-exec), even in a process started with
// its own standard output closed.
UniqueFd AboveStandardDescriptors(UniqueFd fd);

// A private folder for temporary files: made with mode 0700 (mkdtemp) inside parent, or
// inside the system's temporary folder when parent is empty or that fails, and removed with
// everything in it when the object goes. path() is empty when no folder could be made. Its
// name is "tarninventory-<process id>-XXXXXX", so that a folder left by a killed run can be
// told from one of a run still alive (RemoveStaleScratchDirectories).
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::string& parent);
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  bool valid() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  // "<folder>/<name>"
  std::string FilePath(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Removes from parent the scratch folders that runs of this user left behind: folders
// (never links) owned by this process's effective user, named as ScratchDirectory names them
// with the id of a process that no longer exists, or with no id at all (the earlier form,
// "tarninventory-XXXXXX"). Their content is removed through descriptors opened without
// following links, so nothing outside them is touched. The names removed, in no order.
std::vector<std::string> RemoveStaleScratchDirectories(const std::string& parent);

// The whole content of the file; nothing when it cannot be opened or read.
std::optional<std::string> ReadWholeFile(const std::string& path);

// Writes all bytes, retrying short writes; false on failure.
bool WriteAll(int fd, std::string_view bytes);

}  // namespace tarn
