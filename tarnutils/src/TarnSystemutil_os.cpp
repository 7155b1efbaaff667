// The operating system's version and release names, and the users logged on.
#include "tarnutils/src/TarnSystemutil_mac.h"

#include <cctype>
#include <string>
#include <cstdlib>

#include "framework/logging/logger.h"
#include "framework/utils/agentutils.h"
#include "platform/console_log.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnStringutil.h"

namespace tarn {

namespace {

// The cleaned first line of a sw_vers query.
std::optional<std::string> SwVers(const char* option, const char* signature, int line,
                                  const char* gettingLabel, const char* modifiedLabel) {
  TarnUtil util;
  const auto output = util.GetOutputForExecution("/usr/bin/sw_vers", {option});
  ConsoleWhere(signature, line, "%s%s\n", gettingLabel, Describe(output));
  if (!output) {
    return std::nullopt;
  }
  auto cleaned = alterChars(output->c_str());
  StderrWhere(signature, line + 1, "%s%s\n", modifiedLabel, cleaned->c_str());
  return cleaned;
}

struct Release {
  const char* prefix;
  const char* name;
  const char* found;
};

constexpr Release kReleases[] = {
    {"10.6", "Snow Leopard", "OS Snow Leopard found"},
    {"10.7", "Lion", "OS Lion found"},
    {"10.8", "Mountain Lion", "OS Mountain Lion found"},
    {"10.9", "Mavericks", "OS Mavericks found"},
    {"10.10", "Yosemite", "OS Yosemite found"},
    {"10.11", "El Capitan", "OS El Capitan found"},
    {"10.12", "Sierra", "macOS Sierra found"},
};

const Release* FindRelease(const std::optional<std::string>& version) {
  if (!version) {
    return nullptr;
  }
  for (const Release& release : kReleases) {
    if (version->rfind(release.prefix, 0) == 0) {
      return &release;
    }
  }
  return nullptr;
}

bool IsSierra(const Release* release) { return release == &kReleases[6]; }

}  // namespace

std::optional<std::string> GetLoggedOnUsers() {
  TarnUtil util;
  const auto output = util.GetOutputForExecution("/usr/bin/users", {" "});
  if (!output || output->size() <= 1) {
    return std::nullopt;
  }
  ConsoleLog("Users names list: %s\n", output->c_str());
  std::string users;
  bool first = true;
  for (std::string piece : SplitText(*output, " ")) {
    std::erase(piece, '\n');
    ConsoleLog("Detected user name: %s", piece.c_str());
    const auto backslash = piece.find('\\');
    if (backslash != std::string::npos) {
      piece = piece.substr(backslash + 1);
    }
    users += first ? piece : "," + piece;
    first = false;
  }
  return users;
}

std::optional<std::string> GetOSVersion() {
  return SwVers("-productVersion", "char* GetOSVersion()", __LINE__,
                "Getting OS version: ", "modified os version: ");
}

std::optional<std::string> GetOSName() {
  return SwVers("-productName", "char* GetOSName()", __LINE__,
                "Getting OS Name string: ", "modified os name: ");
}

std::string GetOSNameString() {
  static const char* const kSignature = "char* GetOSNameString()";
  const auto version = GetOSVersion();
  const auto product = GetOSName();
  ConsoleWhere(kSignature, __LINE__, "GetOSNameString: os version is: %s", Describe(version));
  const Release* release = FindRelease(version);
  if (release == nullptr) {
    ConsoleWhere(kSignature, __LINE__, "GetOSNameString: Could not get any os name\n");
    return std::string(Describe(product)) + " - Unknown";
  }
  ConsoleWhere(kSignature, __LINE__, "%s", release->found);
  return std::string(Describe(product)) + " - " + release->name;
}

std::string GetOS_SPName() {
  static const char* const kSignature = "char* GetOS_SPName()";
  const auto version = GetOSVersion();
  ConsoleWhere(kSignature, __LINE__, "GetOS_SPName: os version is: %s", Describe(version));
  const Release* release = FindRelease(version);
  if (release == nullptr) {
    ConsoleWhere(kSignature, __LINE__, "GetOS_SPName: Could not get any os name \n");
    return std::string(Describe(version)) + " - Unknown";
  }
  ConsoleWhere(kSignature, __LINE__, "%s", release->found);
  if (IsSierra(release)) {
    return GetOSNameString() + " " + *version;
  }
  return std::string("Mac OS X - ") + release->name + " " + *version;
}

bool IsVersionAtLeast(const std::string& running, const std::string& minimum) {
  const auto have = SplitText(running, ".");
  const auto need = SplitText(minimum, ".");
  for (std::size_t i = 0;; ++i) {
    if (i == need.size() || i >= have.size()) {
      return true;
    }
    if (AlphaToInt(need[i].c_str()) > AlphaToInt(have[i].c_str())) {
      return false;
    }
  }
}

bool checkOSCompatibility(const std::string& minimum) {
  // Without a version there are no running components: the walk ends at once
  // with true, as for a running version shorter than the minimum.
  const auto running = GetOSVersion();
  return running ? IsVersionAtLeast(*running, minimum) : true;
}

}  // namespace tarn
