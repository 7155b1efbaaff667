#include "platform/file/file_util.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
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

std::optional<std::string> ReadWholeFile(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return std::nullopt;
  std::string content;
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

std::string MakePrivateDirectory(const std::string& parent) {
  std::string pattern = parent + "/tarninventory-XXXXXX";
  const char* made = ::mkdtemp(pattern.data());
  return made != nullptr ? std::string(made) : std::string();
}

}  // namespace

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
