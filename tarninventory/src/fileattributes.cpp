#include "tarninventory/src/fileattributes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "tarnutils/src/TarnDiagnostics.h"

namespace tarn {
namespace {

// The file's status, or nothing after the console line "<label> : Error description <error> ".
std::optional<struct stat> StatOrReport(const std::string& path, const char* signature, int line,
                                        const char* label) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    ConsoleWhere(signature, line, "%s : Error description %s ", label, std::strerror(error));
    return std::nullopt;
  }
  return status;
}

// A stored time is whole seconds rounded down plus a fraction; the text keeps the time truncated
// toward zero, which differs only for a time before 1970 with a fraction.
std::string TruncatedSeconds(std::time_t seconds, long nanoseconds) {
  long long whole = static_cast<long long>(seconds);
  if (whole < 0 && nanoseconds > 0) {
    ++whole;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%ld", static_cast<long>(whole));
  return text;
}

// The time fields have different names per system; the ones present are picked at compile time
// (the POSIX st_mtim/st_ctim, or the BSD st_mtimespec/st_birthtimespec) without preprocessor
// switches.
template <typename Status>
std::string ModificationTime(const Status& status) {
  if constexpr (requires { status.st_mtim.tv_nsec; }) {
    return TruncatedSeconds(status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
  } else if constexpr (requires { status.st_mtimespec.tv_nsec; }) {
    return TruncatedSeconds(status.st_mtimespec.tv_sec, status.st_mtimespec.tv_nsec);
  } else {
    return TruncatedSeconds(status.st_mtime, 0);
  }
}

// The birth time where the status carries one (macOS); else the status-change time, which is
// the creation time of a file not changed since it was written (Linux keeps its birth time
// out of stat).
template <typename Status>
std::string CreationTime(const Status& status) {
  if constexpr (requires { status.st_birthtimespec.tv_nsec; }) {
    return TruncatedSeconds(status.st_birthtimespec.tv_sec, status.st_birthtimespec.tv_nsec);
  } else if constexpr (requires { status.st_ctim.tv_nsec; }) {
    return TruncatedSeconds(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
  } else {
    return TruncatedSeconds(status.st_ctime, 0);
  }
}

}  // namespace

std::optional<std::string> FileSize(const std::string& path) {
  const auto status = StatOrReport(path, "NSString* FileSize(NSString*)", __LINE__, "FileSize");
  if (!status) {
    return std::nullopt;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%lld", static_cast<long long>(status->st_size));
  return text;
}

std::optional<std::string> FileCreatedTime(const std::string& path) {
  const auto status =
      StatOrReport(path, "NSString* FileCreatedTime(NSString*)", __LINE__, "FileCreatedTime");
  if (!status) {
    return std::nullopt;
  }
  return CreationTime(*status);
}

std::optional<std::string> FileLastModifiedTime(const std::string& path) {
  const auto status = StatOrReport(path, "NSString* FileLastModifiedTime(NSString*)", __LINE__,
                                   "FileLastModifiedTime");
  if (!status) {
    return std::nullopt;
  }
  return ModificationTime(*status);
}

}  // namespace tarn
