#include "tools/refserver/catalogue_path.h"

#include <system_error>

#if defined(__APPLE__)
#include <mach-o/dyld.h>

#include <cstdint>
#include <vector>
#endif

#ifndef TARN_REFSERVER_CATALOGUE_FROM_BIN
#define TARN_REFSERVER_CATALOGUE_FROM_BIN "../share/tarninventory/Mac_InvClasses.xml"
#endif

namespace tarn::refserver {

std::optional<std::filesystem::path> RunningExecutable() {
  std::error_code error;
#if defined(__APPLE__)
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::vector<char> buffer(size + 1, '\0');
  if (_NSGetExecutablePath(buffer.data(), &size) != 0) return std::nullopt;
  std::filesystem::path path = std::filesystem::canonical(buffer.data(), error);
#else
  std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
#endif
  if (error || path.empty()) return std::nullopt;
  return path;
}

std::string FindCatalogue(const std::optional<std::filesystem::path>& executable,
                          const std::string& installedRelative, const std::string& sourceFallback) {
  if (executable) {
    const std::filesystem::path installed =
        (executable->parent_path() / installedRelative).lexically_normal();
    std::error_code error;
    if (std::filesystem::is_regular_file(installed, error)) return installed.string();
  }
  return sourceFallback;
}

std::string DefaultCataloguePath(const std::string& sourceFallback) {
  return FindCatalogue(RunningExecutable(), TARN_REFSERVER_CATALOGUE_FROM_BIN, sourceFallback);
}

}  // namespace tarn::refserver
