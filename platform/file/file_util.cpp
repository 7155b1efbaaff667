#include "platform/file/file_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tarn {

UniqueFd AboveStandardDescriptors(UniqueFd fd) {
  if (!fd.valid() || fd.get() > STDERR_FILENO) return fd;
  return UniqueFd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

UniqueFd CreateFreshOutputFile(const std::string& path) {
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
    if (::unlink(path.c_str()) != 0) return UniqueFd();
  }
  return AboveStandardDescriptors(
      UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)));
}

namespace {

// A regular file with one link, owned by this process's effective user.
bool IsOwnRegularFile(int fd) {
  struct stat info {};
  return ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 &&
         info.st_uid == ::geteuid();
}

}  // namespace

UniqueFd OpenOwnFile(const std::string& path, int flags) {
  // Not blocking, so that a pipe planted at the path cannot hold the open; O_TRUNC waits for
  // the checks.
  UniqueFd fd(::open(path.c_str(), (flags & ~O_TRUNC) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
  if (!fd.valid()) return fd;
  if (!IsOwnRegularFile(fd.get())) {
    errno = EPERM;
    return UniqueFd();
  }
  const int status = ::fcntl(fd.get(), F_GETFL);
  if (status < 0 || ::fcntl(fd.get(), F_SETFL, status & ~O_NONBLOCK) != 0) return UniqueFd();
  if ((flags & O_TRUNC) != 0 && ::ftruncate(fd.get(), 0) != 0) return UniqueFd();
  return fd;
}

FilePtr OpenOwnStream(const std::string& path, int flags, const char* streamMode) {
  UniqueFd fd = OpenOwnFile(path, flags);
  if (!fd.valid()) return nullptr;
  FilePtr stream(::fdopen(fd.get(), streamMode));
  if (stream) (void)fd.Release();
  return stream;
}

LockResult LockOwnFile(const std::string& path, UniqueFd& holder) {
  UniqueFd fd = OpenOwnFile(path, O_RDWR | O_CREAT);
  if (!fd.valid()) return LockResult::kUnavailable;
  int locked;
  do {
    locked = ::flock(fd.get(), LOCK_EX | LOCK_NB);
  } while (locked != 0 && errno == EINTR);
  if (locked != 0) return errno == EWOULDBLOCK ? LockResult::kHeld : LockResult::kUnavailable;
  holder = std::move(fd);
  return LockResult::kTaken;
}

FolderState CheckOwnFolder(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) {
    return errno == ENOENT ? FolderState::kMissing : FolderState::kExposed;
  }
  if (S_ISLNK(info.st_mode)) return FolderState::kLink;
  const bool isPrivate = S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() &&
                         (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return isPrivate ? FolderState::kPrivate : FolderState::kExposed;
}

std::error_code CopyRegularFile(const std::string& source, const std::string& target) {
  const auto lastError = [] { return std::error_code(errno, std::system_category()); };
  const UniqueFd from(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!from.valid()) return lastError();
  struct stat info {};
  if (::fstat(from.get(), &info) != 0) return lastError();
  if (!S_ISREG(info.st_mode)) return std::make_error_code(std::errc::invalid_argument);
  const UniqueFd to = CreateFreshOutputFile(target);
  if (!to.valid()) return lastError();
  if (!CopyContents(from.get(), to.get())) return lastError();
  return {};
}

bool CopyContents(int from, int to) {
#if defined(__linux__)
  // In the kernel, without passing the bytes through this process; a file system that cannot
  // copy this way is copied by reading and writing.
  for (;;) {
    const ssize_t copied = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
    if (copied == 0) return true;
    if (copied > 0) continue;
    if (errno == EINTR) continue;
    if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) {
      return false;
    }
    break;
  }
#endif
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(from, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    if (!WriteAll(to, std::string_view(buffer, static_cast<std::size_t>(got)))) return false;
  }
}

bool IsPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return std::nullopt;
  std::string content;
  // A regular file's size is known: the text is allocated once (it may still grow).
  struct stat info {};
  if (::fstat(fd.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
    content.reserve(static_cast<std::size_t>(info.st_size) + 1);
  }
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) return content;
    content.append(buffer, static_cast<std::size_t>(got));
  }
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

namespace {

constexpr std::string_view kScratchPrefix = "tarninventory-";
constexpr std::size_t kScratchSuffixLength = 6;  // what mkdtemp puts for "XXXXXX"
// Scratch folders hold tool outputs only; anything deeper is not ours to walk.
constexpr int kMostScratchDepth = 8;

std::string MakePrivateDirectory(const std::string& parent) {
  std::string pattern =
      parent + "/" + std::string(kScratchPrefix) + std::to_string(::getpid()) + "-XXXXXX";
  const char* made = ::mkdtemp(pattern.data());
  return made != nullptr ? std::string(made) : std::string();
}

bool AllOf(std::string_view text, int (*test)(int)) {
  for (const char c : text) {
    if (test(static_cast<unsigned char>(c)) == 0) return false;
  }
  return true;
}

// The process id in a scratch folder's name: 0 for the earlier name that carries none,
// nothing for a name that is not a scratch folder's.
std::optional<pid_t> ScratchOwner(std::string_view name) {
  if (!name.starts_with(kScratchPrefix)) return std::nullopt;
  name.remove_prefix(kScratchPrefix.size());
  if (name.size() < kScratchSuffixLength ||
      !AllOf(name.substr(name.size() - kScratchSuffixLength), ::isalnum)) {
    return std::nullopt;
  }
  name.remove_suffix(kScratchSuffixLength);
  if (name.empty()) return 0;
  if (name.back() != '-') return std::nullopt;
  name.remove_suffix(1);
  pid_t pid = 0;
  if (name.empty() || !AllOf(name, ::isdigit)) return std::nullopt;
  const auto parsed = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (parsed.ec != std::errc() || pid <= 0) return std::nullopt;
  return pid;
}

bool ProcessExists(pid_t pid) { return ::kill(pid, 0) == 0 || errno == EPERM; }

// The names in the open folder but "." and ".."; nothing when it cannot be read. The whole
// listing is read before anyone acts on it: a folder changed while it is read may skip
// entries.
std::optional<std::vector<std::string>> EntryNames(int folder) {
  UniqueFd listingFd(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!listingFd.valid()) return std::nullopt;
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(::fdopendir(listingFd.get()), ::closedir);
  if (!listing) return std::nullopt;
  (void)listingFd.Release();  // closed with the listing
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

bool RemoveEntryAt(int parent, const char* name, int depth);

// Removes everything inside the open folder; false when something stayed.
bool EmptyFolderAt(int folder, int depth) {
  const std::optional<std::vector<std::string>> names = EntryNames(folder);
  if (!names) return false;
  bool emptied = true;
  for (const std::string& name : *names) {
    emptied = RemoveEntryAt(folder, name.c_str(), depth) && emptied;
  }
  return emptied;
}

// Removes the entry name of the open folder parent, a folder with its content; a link is
// removed itself, never followed.
bool RemoveEntryAt(int parent, const char* name, int depth) {
  struct stat info {};
  if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
  if (!S_ISDIR(info.st_mode)) return ::unlinkat(parent, name, 0) == 0;
  if (depth >= kMostScratchDepth) return false;
  const UniqueFd folder(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return folder.valid() && EmptyFolderAt(folder.get(), depth + 1) &&
         ::unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

// A folder of this user at name in parent, opened without following a link; invalid for
// anything else.
UniqueFd OpenOwnFolderAt(int parent, const char* name) {
  UniqueFd folder(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat info {};
  if (!folder.valid() || ::fstat(folder.get(), &info) != 0 || info.st_uid != ::geteuid()) {
    return UniqueFd();
  }
  return folder;
}

}  // namespace

std::vector<std::string> RemoveStaleScratchDirectories(const std::string& parent) {
  std::vector<std::string> removed;
  const UniqueFd folder(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) return removed;
  for (const std::string& name : EntryNames(folder.get()).value_or(std::vector<std::string>())) {
    const std::optional<pid_t> owner = ScratchOwner(name);
    if (!owner || (*owner != 0 && (*owner == ::getpid() || ProcessExists(*owner)))) continue;
    const UniqueFd scratch = OpenOwnFolderAt(folder.get(), name.c_str());
    if (scratch.valid() && EmptyFolderAt(scratch.get(), 1) &&
        ::unlinkat(folder.get(), name.c_str(), AT_REMOVEDIR) == 0) {
      removed.push_back(name);
    }
  }
  return removed;
}

ScratchDirectory::ScratchDirectory(const std::string& parent)
    : path_(parent.empty() ? std::string() : MakePrivateDirectory(parent)) {
  if (path_.empty()) {
    std::error_code error;
    const std::filesystem::path temporary = std::filesystem::temp_directory_path(error);
    if (!error) path_ = MakePrivateDirectory(temporary.string());
  }
}

ScratchDirectory::~ScratchDirectory() {
  if (path_.empty()) return;
  std::error_code ignored;  // remove_all never follows a link planted inside
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace tarn
