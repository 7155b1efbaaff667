// Host facts on macOS: sysctl for the process table, Mach host statistics for memory,
// getifaddrs for addresses, SystemConfiguration for the user-visible computer name.
// Linking needs the SystemConfiguration and CoreFoundation frameworks.
#include <SystemConfiguration/SystemConfiguration.h>
#include <mach/mach.h>
#include <stdlib.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/interface_addresses.h"
#include "platform/host/live_host_info.h"

namespace tarn {
namespace {

struct CFReleaser {
  void operator()(const void* object) const { CFRelease(object); }
};

// A send right to the host port, given back when done.
class HostPort {
 public:
  HostPort() : port_(mach_host_self()) {}
  ~HostPort() { mach_port_deallocate(mach_task_self(), port_); }
  HostPort(const HostPort&) = delete;
  HostPort& operator=(const HostPort&) = delete;
  host_t get() const { return port_; }

 private:
  host_t port_;
};

std::string Utf8FromCFString(CFStringRef text) {
  if (text == nullptr) return {};
  const CFIndex capacity =
      CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
  std::string buffer(static_cast<std::size_t>(capacity), '\0');
  if (!CFStringGetCString(text, buffer.data(), capacity, kCFStringEncodingUTF8)) return {};
  buffer.resize(std::char_traits<char>::length(buffer.c_str()));
  return buffer;
}

// The kernel's process records for the query; empty on failure. The table can grow between
// asking for its size and fetching it, so a fetch that finds too little room starts over.
std::vector<kinfo_proc> KernelProcesses(int* query, u_int queryLength) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    size_t size = 0;
    if (sysctl(query, queryLength, nullptr, &size, nullptr, 0) != 0) return {};
    std::vector<kinfo_proc> processes(size / sizeof(kinfo_proc) + 16);
    size = processes.size() * sizeof(kinfo_proc);
    if (sysctl(query, queryLength, processes.data(), &size, nullptr, 0) == 0) {
      processes.resize(size / sizeof(kinfo_proc));
      return processes;
    }
    if (errno != ENOMEM) return {};
  }
  return {};
}

std::string ShortName(const kinfo_proc& process) {
  const char* name = process.kp_proc.p_comm;
  return std::string(name, strnlen(name, sizeof process.kp_proc.p_comm));
}

class DarwinHostInfo final : public HostInfo {
 public:
  std::string HostName() override { return ReadHostName(); }

  std::string LocalizedName() override {
    const std::unique_ptr<const void, CFReleaser> name(
        SCDynamicStoreCopyComputerName(nullptr, nullptr));
    return Utf8FromCFString(static_cast<CFStringRef>(name.get()));
  }

  std::vector<InterfaceAddress> InterfaceAddresses() override { return ReadInterfaceAddresses(); }

  std::optional<VmStatistics> VirtualMemoryStatistics() override {
    const HostPort host;
    vm_size_t pageSize = 0;
    if (host_page_size(host.get(), &pageSize) != KERN_SUCCESS) return std::nullopt;
    vm_statistics64_data_t counts{};
    mach_msg_type_number_t countSize = HOST_VM_INFO64_COUNT;
    if (host_statistics64(host.get(), HOST_VM_INFO64, reinterpret_cast<host_info64_t>(&counts),
                          &countSize) != KERN_SUCCESS) {
      return std::nullopt;
    }
    return VmStatistics{static_cast<std::uint64_t>(pageSize), counts.free_count,
                        counts.active_count, counts.inactive_count, counts.wire_count};
  }

  std::vector<ProcessEntry> ProcessTable() override {
    int query[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL, 0};
    std::vector<ProcessEntry> table;
    for (const auto& process : KernelProcesses(query, 3)) {
      if (process.kp_proc.p_stat == SZOMB) continue;  // ended, not reaped yet
      table.push_back({process.kp_proc.p_pid, ShortName(process),
                       static_cast<unsigned>(process.kp_eproc.e_ucred.cr_uid)});
    }
    return table;
  }

  // The kernel's short name of this process, the same source as ProcessTable.
  std::string OwnProcessName() override {
    int query[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, static_cast<int>(getpid())};
    const auto own = KernelProcesses(query, 4);
    if (!own.empty()) return ShortName(own.front());
    return ExecutableShortName();
  }

  int OwnProcessId() override { return static_cast<int>(getpid()); }

  unsigned OwnUserId() override { return static_cast<unsigned>(geteuid()); }
};

}  // namespace

std::unique_ptr<HostInfo> MakeLiveHostInfo() { return std::make_unique<DarwinHostInfo>(); }

std::string ExecutableShortName() {
  const char* name = getprogname();
  return name != nullptr && *name != '\0' ? name : "unknown";
}

}  // namespace tarn
