// System utilities of the agent: names and addresses of this computer, the
// operating system's texts, the logged-on users, the single-instance guard,
// date and time texts, small file operations and the tool runners. Facts
// come from the installed platform (CurrentPlatform()); nothing here raises.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace tarn {

using DWORD = std::uint32_t;

// Lower-case host name with every ".local" removed.
std::string GetComputerFullName();
// The full name up to its first ".".
std::string GetComputerName();

// This computer's IPv4 addresses joined with ",", loopback excluded, in the
// platform's interface order; at most 254 characters.
std::string getIPAddress();
std::string GetLocalIPAddress();

// The first DNS domain of a network service with IPv4 addresses in the
// network report, without a trailing "."; nothing when there is none.
std::optional<std::string> getDNSDomainName();

// Logged-on user names joined with "," (a "DOMAIN\\user" piece keeps "user");
// nothing when the users tool gives no name.
std::optional<std::string> GetLoggedOnUsers();

// The cleaned output of sw_vers -productVersion / -productName.
std::optional<std::string> GetOSVersion();
std::optional<std::string> GetOSName();
// "<product name> - <release name>" and "Mac OS X - <release name> <version>".
std::string GetOSNameString();
std::string GetOS_SPName();

// True when the running version reaches minimum, comparing the components
// one by one (a greater earlier component does not decide; see the code).
bool checkOSCompatibility(const std::string& minimum);
// The same rule on explicit version texts.
bool IsVersionAtLeast(const std::string& running, const std::string& minimum);

// The single-instance guard: true when another process of this process's name runs under the
// same effective user, wherever it was started from. A program of that name that another user
// starts cannot stop the scan. Reads the process table only: writes no file.
bool CheckIfCurrentProcessAlreadyRunning();

// The second guard, for a run the process table cannot tell from others (a copy of the
// scanner under another name in the same agent folder): an exclusive lock on the owner-only
// file "tarninventory.lock" in the data folder, kept until the process exits. False when
// another run holds it; true when this run took it, and when no lock can be had (no data
// folder, something other than this user's regular file at the path), where the first guard
// alone decides. It creates the file: call it once the data folder is known to be this
// user's.
bool TakeInstanceLock(const std::string& dataDirectory);

// Gives back the instance lock (for tests: a run keeps it until it exits).
void ReleaseInstanceLock();

// The name of the lock file in the data folder.
inline constexpr const char* kInstanceLockFileName = "tarninventory.lock";

// Removes the scratch folders earlier runs of this user left in the folder (a run killed
// while a tool wrote its output leaves its private folder behind), logging each one; see
// RemoveStaleScratchDirectories.
void RemoveStaleScratchFolders(const std::string& folder);

// Local time "HH:mm:ss" and local date "dd-MM-yyyy".
std::string GetCurrTime();
std::string GetCurrDateString();
// Seconds since 1970-01-01 UTC, as a number and as "%ld" text.
long GetLocalTimeInLong();
std::string GetLocalTimeInLongStr();

// True when anything, a dangling link included, is at the path.
bool isFileExists(const std::string& path);
// 0 when the file was created (mode 0600, no link followed: OpenOwnFile) or something
// already is at the path, which is left as it is; 1 on failure.
DWORD CreateFile(const std::string& path);
// Removes "<folder>/<name>" (or name). 0 when removed or absent, 1 on failure.
DWORD RemoveFile(const std::string& name, const std::optional<std::string>& folder = std::nullopt);
// Creates the folder with its missing parents, mode 0700. 0 on success or when it exists, 1
// on failure.
DWORD CreateDirectory(const std::string& path);
// Copies a file or folder. A regular file is copied without following a link at either end
// (CopyRegularFile). 0 on success, 1 on failure (see the messages).
DWORD CopyFileFolder(const std::string& source, const std::string& destination, bool replace);

// Runs a tool with the bounded wait (terminated after its 30th one-second
// step, partial output kept). Nothing when it could not run or its output is
// not UTF-8.
std::optional<std::string> GetOutputForExecution(const std::string& launchPath,
                                                 const std::vector<std::string>& arguments);

// The agent utility's own runner: waits for the tool without a limit.
class TarnUtil {
 public:
  std::optional<std::string> GetOutputForExecution(const std::string& launchPath,
                                                   const std::vector<std::string>& arguments);
};

}  // namespace tarn
