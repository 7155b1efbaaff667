#pragma once

#include <string>
#include <vector>

#include "platform/platform.h"

namespace tarn {

// The IPv4 and IPv6 addresses of the network interfaces in the order getifaddrs lists them;
// empty when the list cannot be read. Shared by the POSIX hosts (Linux and macOS).
std::vector<InterfaceAddress> ReadInterfaceAddresses();

// The host name as gethostname gives it; empty on failure.
std::string ReadHostName();

}  // namespace tarn
