#pragma once

#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

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

 private:
  int fd_ = -1;
};

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
// inside the system's temporary folder when parent is empty or that fails, and removed with everything in it
// when the object goes. path() is empty when no folder could be made.
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

// The whole content of the file; nothing when it cannot be opened or read.
std::optional<std::string> ReadWholeFile(const std::string& path);

// Writes all bytes, retrying short writes; false on failure.
bool WriteAll(int fd, std::string_view bytes);

}  // namespace tarn
