#include "platform/host/interface_addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace tarn {
namespace {

struct IfaddrsFree {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

std::string AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  const void* raw =
      address->sa_family == AF_INET
          ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(address)->sin_addr)
          : static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
  if (inet_ntop(address->sa_family, raw, text, sizeof text) == nullptr) return {};
  return text;
}

}  // namespace

std::vector<InterfaceAddress> ReadInterfaceAddresses() {
  ifaddrs* raw = nullptr;
  if (getifaddrs(&raw) != 0) return {};
  const std::unique_ptr<ifaddrs, IfaddrsFree> list(raw);
  std::vector<InterfaceAddress> addresses;
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    const int family = entry->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    addresses.push_back({entry->ifa_name, family, AddressText(entry->ifa_addr)});
  }
  return addresses;
}

std::string ReadHostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

}  // namespace tarn
