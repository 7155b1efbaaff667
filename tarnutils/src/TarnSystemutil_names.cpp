// The computer's names and addresses: host name, flat name, IPv4 address, DNS domain.
#include "tarnutils/src/TarnSystemutil_mac.h"

#include <algorithm>
#include <cctype>

#include "framework/logging/logger.h"
#include "framework/utils/agentutils.h"
#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/platform.h"
#include "platform/plist/plist_io.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnStringutil.h"

namespace tarn {

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

}  // namespace tarn
