#include "tarnutils/src/TarnSystemutil_mac.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "framework/logging/logger.h"
#include "framework/utils/agentutils.h"
#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/platform.h"
#include "platform/plist/plist_io.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnStringutil.h"

namespace tarn {
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kNameBufferLimit = 254;  // 255-byte zeroed buffers
constexpr int kIPv4Family = 2;

void RemoveAll(std::string& text, const std::string& piece) {
  for (auto at = text.find(piece); at != std::string::npos; at = text.find(piece, at)) {
    text.erase(at, piece.size());
  }
}

bool IsLoopback(const std::string& interfaceName) {
  // "lo0" on macOS, "lo" on Linux.
  return interfaceName == "lo0" || interfaceName == "lo";
}

std::tm LocalNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local;
}

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

// Another process of this name under the same effective user: a program of the same name
// that another user starts cannot stop the scan.
bool IsOtherInstance(const ProcessEntry& process, const std::string& ownName, int ownId,
                     unsigned ownUid) {
  return process.name == ownName && process.pid != ownId && process.uid == ownUid;
}

bool AnotherProcessOfThisNameRuns() {
  HostInfo& host = CurrentPlatform().Host();
  const std::string ownName = host.OwnProcessName();
  const int ownId = host.OwnProcessId();
  const unsigned ownUid = host.OwnUserId();
  ConsoleLog("CheckIfCurrentProcessAlreadyRunning :CurrentProcessName :%s:currentProcessPID :%d",
             ownName.c_str(), ownId);
  for (const ProcessEntry& process : host.ProcessTable()) {
    if (IsOtherInstance(process, ownName, ownId, ownUid)) {
      ConsoleLog("CheckIfCurrentProcessAlreadyRunning : Running PID :%d", process.pid);
      return true;
    }
  }
  ConsoleLog("CheckIfCurrentProcessAlreadyRunning : NotRunning");
  return false;
}

// The descriptor that holds the instance lock for the rest of the run.
UniqueFd& InstanceLock() {
  static UniqueFd lock;
  return lock;
}

}  // namespace

std::string GetComputerFullName() {
  std::string name = CurrentPlatform().Host().HostName();
  if (name.size() > kNameBufferLimit) {
    name.resize(kNameBufferLimit);
  }
  ConsoleLog("hostname from gethostname:%s, return code: %i\n", name.c_str(),
             name.empty() ? -1 : 0);
  RemoveAll(name, ".local");
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return name;
}

std::string GetComputerName() {
  static const char* const kSignature = "NSString* GetComputerName()";
  const std::string fullName = GetComputerFullName();
  std::string flatName = fullName;
  const auto dot = fullName.find('.');
  if (dot != std::string::npos) {
    flatName = fullName.substr(0, dot);
    ConsoleWhere(kSignature, __LINE__, "computer flat name: %s\n", flatName.c_str());
  } else {
    ConsoleWhere(kSignature, __LINE__, "computer flat name found is: %s\n", flatName.c_str());
  }
  try {
    const std::string localized = CurrentPlatform().Host().LocalizedName();
    ConsoleLog(
        "\n GetComputerName: GetComputerName:For Debug ::: LocalComputer Name(localizedName) : %s "
        "\n",
        localized.c_str());
  } catch (const PlatformException& e) {
    ConsoleLog("GetComputerName:Caught exception getting localizedName name%s: reason:%s\n",
               e.name().c_str(), e.reason().c_str());
  }
  return flatName;
}

std::string getIPAddress() {
  std::string addresses;
  for (const InterfaceAddress& entry : CurrentPlatform().Host().InterfaceAddresses()) {
    if (entry.family != kIPv4Family || IsLoopback(entry.name)) {
      continue;
    }
    std::printf("interface name: %s\n", entry.name.c_str());
    std::printf("interface ip address is: %s\n", entry.address.c_str());
    const std::string piece = addresses.empty() ? entry.address : "," + entry.address;
    if (addresses.size() + piece.size() <= kNameBufferLimit) {
      addresses += piece;
    }
  }
  std::printf("computer ip address is: %s\n", addresses.c_str());
  std::fflush(stdout);
  return addresses;
}

std::string GetLocalIPAddress() { return getIPAddress(); }

std::optional<std::string> getDNSDomainName() {
  static const char* const kSignature = "NSString* getDNSDomainName()";
  try {
    const auto output =
        GetOutputForExecution("/usr/sbin/system_profiler", {"-xml", "SPNetworkDataType"});
    if (!output) {
      return std::nullopt;
    }
    const PlistPtr report = ParsePlist(*output);
    const PlistPtr services = ValueForKey(ObjectAtIndex(report, 0), "_items");
    for (std::size_t i = 0; i < Count(services); ++i) {
      const PlistPtr service = ObjectAtIndex(services, i);
      if (!ValueForKey(ValueForKey(service, "IPv4"), "Addresses")) {
        continue;
      }
      DebugLogMessage("getDNSDomainName : Fetch ethernet card information\n");
      const PlistPtr name = ValueForKey(service, "_name");
      DebugLogMessage("getDNSDomainName : Network adaptor name: %s\n",
                      name ? name->Description().c_str() : "(null)");
      const PlistPtr mac = ValueForKey(ValueForKey(service, "Ethernet"), "MAC Address");
      DebugLogMessage("getDNSDomainName : Network adaptor MAC Addr: %s\n",
                      mac ? mac->Description().c_str() : "(null)");
      const PlistPtr domain = ValueForKey(ValueForKey(service, "DNS"), "DomainName");
      if (domain && domain->IsString()) {
        std::string text = domain->String();
        UserLogMessage("getDNSDomainName : DNS domain name: %s\n", text.c_str());
        if (!text.empty() && text.back() == '.') {
          text.pop_back();
        }
        return text;
      }
    }
  } catch (const PlatformException& e) {
    ConsoleWhere(kSignature, __LINE__, "getDNSDomainName : Caught exception ----:%s",
                 e.description().c_str());
  }
  return std::nullopt;
}

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
    RemoveAll(piece, "\n");
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

bool CheckIfCurrentProcessAlreadyRunning() { return AnotherProcessOfThisNameRuns(); }

bool TakeInstanceLock(const std::string& dataDirectory) {
  const std::string path = dataDirectory + "/" + kInstanceLockFileName;
  switch (LockOwnFile(path, InstanceLock())) {
    case LockResult::kTaken:
      return true;
    case LockResult::kHeld:
      ConsoleLog("CheckIfCurrentProcessAlreadyRunning : Running, %s is locked", path.c_str());
      return false;
    case LockResult::kUnavailable:
      break;
  }
  ConsoleLog("CheckIfCurrentProcessAlreadyRunning : no lock at %s, the process table decided",
             path.c_str());
  return true;
}

void ReleaseInstanceLock() { InstanceLock().Close(); }

void RemoveStaleScratchFolders(const std::string& folder) {
  for (const std::string& name : RemoveStaleScratchDirectories(folder)) {
    UserLogMessage("Removed the scratch folder %s/%s left by an earlier run\n", folder.c_str(),
                   name.c_str());
  }
}

std::string GetCurrTime() {
  const std::tm now = LocalNow();
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", now.tm_hour, now.tm_min, now.tm_sec);
  return text;
}

std::string GetCurrDateString() {
  const std::tm now = LocalNow();
  char text[32];
  std::snprintf(text, sizeof text, "%02d-%02d-%04d", now.tm_mday, now.tm_mon + 1,
                now.tm_year + 1900);
  return text;
}

long GetLocalTimeInLong() { return static_cast<long>(std::time(nullptr)); }

std::string GetLocalTimeInLongStr() { return std::to_string(GetLocalTimeInLong()); }

bool isFileExists(const std::string& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

DWORD CreateFile(const std::string& path) {
  std::error_code error;
  if (isFileExists(path) && !fs::is_directory(fs::symlink_status(path, error))) {
    UserLogMessage("CreateFile : File already exists : %s\n", path.c_str());
    return 0;
  }
  const UniqueFd file = OpenOwnFile(path, O_WRONLY | O_CREAT);
  if (!file.valid()) {
    UserLogMessage("CreateFile :File creation failure \n");
    return 1;
  }
  UserLogMessage("CreateFile :File creation success : %s\n", path.c_str());
  return 0;
}

DWORD RemoveFile(const std::string& name, const std::optional<std::string>& folder) {
  const std::string path = folder ? *folder + "/" + name : name;
  if (!isFileExists(path)) {
    UserLogMessage("RemoveFile : File doesn't exists %s\n", path.c_str());
    return 0;
  }
  std::error_code error;
  if (!fs::remove(path, error)) {
    UserLogMessage("RemoveFile : File deletion failed: Reason:: %s\n", error.message().c_str());
    return 1;
  }
  UserLogMessage("RemoveFile : File deleted : %s\n", path.c_str());
  return 0;
}

DWORD CreateDirectory(const std::string& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) {
    UserLogMessage("CreateDirectory : Folder already exists : %s\n", path.c_str());
    return 0;
  }
  const int made = MakeDirectory(path);
  if (made != 1 || !fs::is_directory(path, error)) {
    const std::string reason = made != 1 ? std::system_category().message(made) : "not a directory";
    UserLogMessage("CreateDirectory :Folder creation failure : %s\n", reason.c_str());
    return 1;
  }
  UserLogMessage("CreateDirectory :Folder creation success : %s\n", path.c_str());
  return 0;
}

DWORD CopyFileFolder(const std::string& source, const std::string& destination, bool replace) {
  const fs::path parent = fs::path(destination).parent_path();
  std::error_code error;
  if (!parent.empty() && !fs::is_directory(parent, error) &&
      CreateDirectory(parent.string()) != 0) {
    return 1;
  }
  if (isFileExists(destination)) {
    if (!replace) {
      UserLogMessage("CopyFileFolder : file exists at path \n");
      return 1;
    }
    UserLogMessage("CopyFileFolder : file exists at path ,going to replace \n");
    if (fs::remove_all(destination, error) == static_cast<std::uintmax_t>(-1) || error) {
      UserLogMessage("CopyFileFolder : can't delete existing file: reason: %s\n",
                     error.message().c_str());
      return 1;
    }
  }
  if (fs::is_regular_file(fs::symlink_status(source, error))) {
    error = CopyRegularFile(source, destination);
  } else {
    fs::copy(source, destination, fs::copy_options::recursive, error);
  }
  if (error) {
    UserLogMessage("CopyFileFolder : File copy failed: Reason:: %s\n", error.message().c_str());
    return 1;
  }
  UserLogMessage("CopyFileFolder : copy success  source Path : %s  Destination Path : %s\n",
                 source.c_str(), destination.c_str());
  return 0;
}

std::optional<std::string> GetOutputForExecution(const std::string& launchPath,
                                                 const std::vector<std::string>& arguments) {
  try {
    return CurrentPlatform().Tools().Run(launchPath, arguments, WaitPolicy::kBounded);
  } catch (const PlatformException& e) {
    ConsoleLog("Caught exception in GetOutputForExecution: %s\n", e.reason().c_str());
    return std::nullopt;
  }
}

std::optional<std::string> TarnUtil::GetOutputForExecution(
    const std::string& launchPath, const std::vector<std::string>& arguments) {
  static const char* const kSignature =
      "-[TarnUtil GetOutputForExecution:(NSString*)launchPath arguments:(NSArray*)arguments]";
  try {
    ConsoleWhere(kSignature, __LINE__, "LaunchPath: %s\n", launchPath.c_str());
    auto output = CurrentPlatform().Tools().Run(launchPath, arguments, WaitPolicy::kUnbounded);
    ConsoleWhere(kSignature, __LINE__, "output the process: %s\n", Describe(output));
    return output;
  } catch (const PlatformException& e) {
    ConsoleLog("Caught exception in GetOutputForExecution: %s\n", e.reason().c_str());
    return std::nullopt;
  }
}

}  // namespace tarn
