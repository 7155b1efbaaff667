// Where the server finds the class catalogue when none is named on its command line. An
// installed server looks beside itself (BINDIR/../share/tarninventory/Mac_InvClasses.xml,
// however the installed folder was moved); a server run from its build tree falls back to
// the source tree's data/Mac_InvClasses.xml.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tarn::refserver {

// The path of the running program's file: /proc/self/exe on Linux, _NSGetExecutablePath on
// macOS, links resolved. Nothing when it cannot be read.
std::optional<std::filesystem::path> RunningExecutable();

// The first catalogue that exists: executable's folder / installedRelative, then
// sourceFallback. sourceFallback when neither exists (so an error names it), and when the
// executable is not known.
std::string FindCatalogue(const std::optional<std::filesystem::path>& executable,
                          const std::string& installedRelative, const std::string& sourceFallback);

// FindCatalogue for this program, with the relative path the build installs it at.
std::string DefaultCataloguePath(const std::string& sourceFallback);

}  // namespace tarn::refserver
