// Host facts on Linux: /proc for memory and processes, getifaddrs for addresses.
#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "platform/host/interface_addresses.h"
#include "platform/host/live_host_info.h"

namespace tarn {
namespace {

std::string FirstLineOf(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// "MemFree:  123 kB" lines of /proc/meminfo as byte counts by name.
std::map<std::string, std::uint64_t> ReadMemInfo() {
  std::map<std::string, std::uint64_t> bytesByName;
  std::ifstream file("/proc/meminfo");
  std::string line;
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    std::string name;
    std::uint64_t kilobytes = 0;
    if (fields >> name >> kilobytes && !name.empty() && name.back() == ':') {
      name.pop_back();
      bytesByName[name] = kilobytes * 1024;
    }
  }
  return bytesByName;
}

bool IsAllDigits(const char* text) {
  if (*text == '\0') return false;
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return false;
  }
  return true;
}

// The effective user id from a process's "Uid:" status line (real, effective, saved, file
// system); nothing when it cannot be read.
std::optional<unsigned> EffectiveUserId(const std::string& processDirectory) {
  std::ifstream file(processDirectory + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.rfind("Uid:", 0) != 0) continue;
    std::istringstream fields(line.substr(4));
    unsigned real = 0;
    unsigned effective = 0;
    if (fields >> real >> effective) return effective;
    return std::nullopt;
  }
  return std::nullopt;
}

struct DirClose {
  void operator()(DIR* directory) const { closedir(directory); }
};

class LinuxHostInfo final : public HostInfo {
 public:
  std::string HostName() override { return ReadHostName(); }

  // Linux has no separate user-visible computer name; systemd keeps an optional "pretty"
  // host name, and the host name stands in without it.
  std::string LocalizedName() override {
    std::ifstream file("/etc/machine-info");
    std::string line;
    const std::string prefix = "PRETTY_HOSTNAME=";
    while (std::getline(file, line)) {
      if (line.rfind(prefix, 0) != 0) continue;
      std::string value = line.substr(prefix.size());
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      if (!value.empty()) return value;
    }
    return HostName();
  }

  std::vector<InterfaceAddress> InterfaceAddresses() override { return ReadInterfaceAddresses(); }

  // Linux keeps no "wired" count; memory the kernel cannot page out (unevictable and locked
  // pages, unreclaimable slab, kernel stacks, page tables) stands in for it.
  std::optional<VmStatistics> VirtualMemoryStatistics() override {
    const long pageSize = sysconf(_SC_PAGESIZE);
    const auto memInfo = ReadMemInfo();
    if (pageSize <= 0 || !memInfo.contains("MemFree")) return std::nullopt;
    const auto pages = [&](std::initializer_list<const char*> names) {
      std::uint64_t bytes = 0;
      for (const char* name : names) {
        const auto found = memInfo.find(name);
        if (found != memInfo.end()) bytes += found->second;
      }
      return bytes / static_cast<std::uint64_t>(pageSize);
    };
    VmStatistics statistics;
    statistics.pageSize = static_cast<std::uint64_t>(pageSize);
    statistics.freeCount = pages({"MemFree"});
    statistics.activeCount = pages({"Active"});
    statistics.inactiveCount = pages({"Inactive"});
    statistics.wireCount = pages({"Unevictable", "SUnreclaim", "KernelStack", "PageTables"});
    return statistics;
  }

  // A process that has ended but is not reaped yet (a zombie, say the helper task of a killed
  // process that its new parent never waits for) runs nothing: it is not in the table.
  static bool HasEnded(const std::string& directory) {
    const std::string stat = FirstLineOf(directory + "/stat");
    const auto nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos || nameEnd + 2 >= stat.size()) return false;
    const char state = stat[nameEnd + 2];
    return state == 'Z' || state == 'X';
  }

  std::vector<ProcessEntry> ProcessTable() override {
    const std::unique_ptr<DIR, DirClose> proc(opendir("/proc"));
    if (!proc) return {};
    std::vector<ProcessEntry> processes;
    while (const dirent* entry = readdir(proc.get())) {
      if (!IsAllDigits(entry->d_name)) continue;
      // A process that ended since the listing has no comm or status any more; skip it.
      const std::string directory = std::string("/proc/") + entry->d_name;
      std::string name = FirstLineOf(directory + "/comm");
      const std::optional<unsigned> uid = EffectiveUserId(directory);
      if (name.empty() || !uid || HasEnded(directory)) continue;
      processes.push_back({std::atoi(entry->d_name), std::move(name), *uid});
    }
    return processes;
  }

  // The kernel's short name, the same source as ProcessTable, so the two compare.
  std::string OwnProcessName() override { return FirstLineOf("/proc/self/comm"); }

  int OwnProcessId() override { return static_cast<int>(getpid()); }

  unsigned OwnUserId() override { return static_cast<unsigned>(geteuid()); }
};

}  // namespace

std::unique_ptr<HostInfo> MakeLiveHostInfo() { return std::make_unique<LinuxHostInfo>(); }

std::string ExecutableShortName() {
  const char* name = program_invocation_short_name;
  return name != nullptr && *name != '\0' ? name : "unknown";
}

}  // namespace tarn
