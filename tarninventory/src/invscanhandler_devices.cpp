// Network adapters, printers, the optical drive and the video controller.
#include <cstdlib>

#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "platform/text/utf8.h"
#include "tarninventory/src/invscanhandler.h"
#include "tarninventory/src/tarninventoryutil.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnStringutil.h"

namespace tarn {
namespace {

constexpr std::int32_t kVideoClass = 7;
constexpr std::int32_t kOpticalClass = 12;
constexpr std::int32_t kNetworkClass = 22;
constexpr std::int32_t kPrinterClass = 25;

constexpr const char* kNetworkSignature = "-[ProplistXMLParser FetchNetworkAdapterinfo]";
constexpr const char* kPrinterSignature = "-[ProplistXMLParser FetchPrinterInfo]";
constexpr const char* kCDSignature = "-[ProplistXMLParser FetchCDDriveInfo]";
constexpr const char* kVideoSignature = "-[ProplistXMLParser FetchVideoControllerInfo]";

// The addresses joined with ",": a comma goes before an address only when the text built
// so far is longer than one character.
std::string JoinAddresses(const PlistPtr& addresses) {
  std::string joined;
  for (std::size_t i = 0; i < Count(addresses); ++i) {
    if (joined.size() > 1) joined += ",";
    joined += TextOf(ObjectAtIndex(addresses, i)).value_or("");
  }
  return joined;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The text with its percent-escapes decoded; absent when an escape is malformed or the
// decoded bytes are not UTF-8.
OptText RemovingPercentEncoding(const std::string& text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = HexDigit(text[i + 1]);
    const int low = HexDigit(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  if (!IsValidUtf8(decoded)) return std::nullopt;
  return decoded;
}

}  // namespace

// ---- Network adapters.

void ProplistXMLParser::FetchNetworkAdapterinfo() {
  try {
    RecordRowsOf([&](Rows& rows) {
      ParseNetworkAdapters(
          GetItemsArrayfromPropertylist({"-xml", "SPNetworkDataType"}),
          [&] { return GetOutputForExecution(kSysctl, {"kern.hostname"}); }, rows);
    });
  } catch (const PlatformException& failure) {
    ConsoleWhere(kNetworkSignature, __LINE__, "Caught exception ----:%s",
                 failure.description().c_str());
  }
}

void ParseNetworkAdapters(const PlistPtr& items, const std::function<OptText()>& hostNameOutput,
                          Rows& rows) {
  std::int32_t instance = 1;
  for (std::size_t i = 0; i < Count(items); ++i) {
    const PlistPtr service = ObjectAtIndex(items, i);
    const PlistPtr ipv4 = ValueForKey(service, "IPv4");
    const PlistPtr addresses = ValueForKey(ipv4, "Addresses");
    if (Count(addresses) == 0) continue;
    ConsoleWhere(kNetworkSignature, __LINE__, "Fetch ethernet card information\n");

    const OptText name = TextAt(service, "_name");
    ConsoleWhere(kNetworkSignature, __LINE__, "Network adaptor name: %s\n", Describe(name));
    AddRow(rows, 2201, kNetworkClass, instance, name);
    const OptText mac = TextAt(ValueForKey(service, "Ethernet"), "MAC Address");
    ConsoleWhere(kNetworkSignature, __LINE__, "Network adaptor MAC Addr: %s\n", Describe(mac));
    AddRow(rows, 2202, kNetworkClass, instance, mac);

    const OptText domain = TextAt(ValueForKey(service, "DNS"), "DomainName");
    if (domain) {
      ConsoleWhere(kNetworkSignature, __LINE__, "DNS domain name: %s\n", domain->c_str());
    } else {
      ConsoleWhere(kNetworkSignature, __LINE__, "DNS domain name is not found\n");
    }
    AddRow(rows, 2203, kNetworkClass, instance, domain ? *domain : kFiller);

    // The tool's line end stays on the host name; recording ends the value there.
    const OptText hostOutput = hostNameOutput();
    const OptText hostName = hostOutput ? OptText(TextAfterColon(*hostOutput)) : std::nullopt;
    ConsoleWhere(kNetworkSignature, __LINE__, "DNS host name: %s\n", Describe(hostName));
    AddRow(rows, 2204, kNetworkClass, instance, hostName);

    const std::string joined = JoinAddresses(addresses);
    ConsoleWhere(kNetworkSignature, __LINE__, "Network adaptor ip Addr: %s\n", joined.c_str());
    AddRow(rows, 2209, kNetworkClass, instance, joined);

    const OptText method = TextAt(ipv4, "ConfigMethod");
    ConsoleWhere(kNetworkSignature, __LINE__, "IP addr config method: %s\n", Describe(method));
    const bool dhcp = method == "DHCP";
    AddRow(rows, 2205, kNetworkClass, instance, dhcp ? "TRUE" : "FALSE");

    const OptText router = TextAt(ipv4, "Router");
    if (router) {
      ConsoleWhere(kNetworkSignature, __LINE__, "default gate way: %s\n", router->c_str());
    } else {
      ConsoleWhere(kNetworkSignature, __LINE__, "default gate way is found\n");
    }
    AddRow(rows, 2210, kNetworkClass, instance, router ? *router : kFiller);

    const PlistPtr masks = ValueForKey(ipv4, "SubnetMasks");
    const OptText mask = Count(masks) > 0 ? TextOf(ObjectAtIndex(masks, 0)) : OptText(kFiller);
    ConsoleWhere(kNetworkSignature, __LINE__, "subnet mask: %s\n", Describe(mask));
    AddRow(rows, 2212, kNetworkClass, instance, mask);

    if (dhcp) {
      const OptText server = TextAt(ValueForKey(service, "dhcp"), "dhcp_server_identifier");
      ConsoleWhere(kNetworkSignature, __LINE__, "DHCP Server: %s\n", Describe(server));
      AddRow(rows, 2208, kNetworkClass, instance, server);
    } else {
      ConsoleWhere(kNetworkSignature, __LINE__, "DHCP Server: -\n");
      AddRow(rows, 2208, kNetworkClass, instance, kFiller);
    }
    AddFillers(rows, kNetworkClass, instance,
               {2206, 2207, 2211, 2213, 2214, 2215, 2216, 2217, 2218});
    ++instance;
  }
}

// ---- Printers.

void ProplistXMLParser::FetchPrinterInfo() {
  try {
    RecordRowsOf([&](Rows& rows) {
      ParsePrinters(GetItemsArrayfromPropertylist({"-xml", "SPPrintersDataType"}), rows);
    });
  } catch (const PlatformException& failure) {
    ConsoleWhere(kPrinterSignature, __LINE__, "Caught exception***************:%s",
                 failure.description().c_str());
  }
}

void ParsePrinters(const PlistPtr& items, Rows& rows) {
  std::int32_t instance = 1;
  for (std::size_t i = 0; i < Count(items); ++i) {
    const PlistPtr printer = ObjectAtIndex(items, i);
    if (Count(printer) < 3) continue;  // placeholders such as "no printers" have fewer keys
    const OptText name = TextAt(printer, "_name");
    ConsoleWhere(kPrinterSignature, __LINE__, "Printer name: %s\n", Describe(name));
    AddRow(rows, 2501, kPrinterClass, instance, name);
    const OptText status = TextAt(printer, "status");
    ConsoleWhere(kPrinterSignature, __LINE__, "Printer status: %s\n", Describe(status));
    AddRow(rows, 2511, kPrinterClass, instance, status);
    const OptText uri = TextAt(printer, "uri");
    AddRow(rows, 2510, kPrinterClass, instance,
           uri ? RemovingPercentEncoding(*uri) : OptText(kFiller));
    AddFillers(rows, kPrinterClass, instance,
               {2502, 2503, 2504, 2505, 2506, 2507, 2508, 2509, 2512, 2513, 2514, 2515, 2516});
    ++instance;
  }
}

// ---- Optical drive.

void ProplistXMLParser::FetchCDDriveInfo() {
  try {
    const OptText output =
        GetOutputForExecution(kSystemProfiler, {"-xml", "SPDiscBurningDataType"});
    if (!output) {
      ConsoleLog("Command execution output for cddevice information: %s\n", "(null)");
      return;
    }
    RecordRowsOf([&](Rows& rows) { ParseCDDrive(ParsePlist(*output), rows); });
  } catch (const PlatformException& failure) {
    ConsoleWhere(kCDSignature, __LINE__, "Caught exception ----:%s", failure.description().c_str());
  }
}

void ParseCDDrive(const PlistPtr& report, Rows& rows) {
  if (Count(report) == 0) {
    ConsoleWhere(kCDSignature, __LINE__, "CD/DVD information is not available\n");
    return;
  }
  const PlistPtr items = ValueForKey(ObjectAtIndex(report, 0), "_items");
  if (Count(items) == 0) {
    ConsoleWhere(kCDSignature, __LINE__, "CD or DVD information is not available\n");
    return;
  }
  const OptText name = TextAt(ObjectAtIndex(items, 0), "_name");
  ConsoleLog("CD Device name: %s\n", Describe(name));
  AddRow(rows, 1201, kOpticalClass, 1, name);
  AddFillers(rows, kOpticalClass, 1, {1202, 1203, 1204, 1205, 1206});
}

// ---- Video controller.

void ProplistXMLParser::FetchVideoControllerInfo() {
  try {
    const OptText output = GetOutputForExecution(kSystemProfiler, {"-xml", "SPDisplaysDataType"});
    if (!output) {
      ConsoleLog("Command execution output for videocontrollerinfo: %s\n", "(null)");
      return;
    }
    RecordRowsOf([&](Rows& rows) {
      ParseVideoController(ValueForKey(ObjectAtIndex(ParsePlist(*output), 0), "_items"), rows);
    });
  } catch (const PlatformException& failure) {
    ConsoleWhere(kVideoSignature, __LINE__, "Caught exception ----:%s",
                 failure.description().c_str());
  }
}

void ParseVideoController(const PlistPtr& items, Rows& rows) {
  const PlistPtr card = ObjectAtIndex(items, 0);
  const OptText model = TextAt(card, "sppci_model");
  ConsoleLog("Video card model name: %s\n", Describe(model));
  AddRow(rows, 701, kVideoClass, 1, model);

  // "1024 MB" in bytes, kept in 32 bits: 4096 MB wraps to 0.
  const OptText vram = TextAt(card, "spdisplays_vram");
  if (PieceOf(vram, " ", 1) == "MB") {
    const auto megabytes = static_cast<std::uint32_t>(std::atoi(PieceOf(vram, " ", 0)->c_str()));
    const std::string bytes = std::to_string(static_cast<std::uint32_t>(megabytes << 20));
    ConsoleLog("Video card RAM size: %s\n", bytes.c_str());
    AddRow(rows, 703, kVideoClass, 1, bytes);
  } else {
    ConsoleLog("Video card RAM size: -\n");
    AddRow(rows, 703, kVideoClass, 1, kFiller);
  }

  // The second card drives the screens when the first has none.
  PlistPtr displays = ValueForKey(card, "spdisplays_ndrvs");
  if (Count(displays) == 0 && Count(items) >= 2) {
    displays = ValueForKey(ObjectAtIndex(items, 1), "spdisplays_ndrvs");
  }
  OptText horizontal = kZero;
  OptText vertical = kZero;
  if (displays) {
    const OptText resolution = TextAt(ObjectAtIndex(displays, 0), "spdisplays_resolution");
    const std::vector<std::string> pieces =
        resolution ? SplitText(*resolution, " x ") : std::vector<std::string>{};
    if (pieces.size() == 2) {
      horizontal = pieces[0];
      vertical = SplitText(pieces[1], " ")[0];
      ConsoleLog("Video card hz resolution: %s\n", horizontal->c_str());
      ConsoleLog("Video card vt resolution: %s\n", vertical->c_str());
    } else {
      StderrWhere(kVideoSignature, __LINE__, "Cound n't video card resolution information \n");
    }
  } else {
    StderrWhere(kVideoSignature, __LINE__, "Cound n't video card resolution information1 \n");
  }
  AddRow(rows, 704, kVideoClass, 1, horizontal);
  AddRow(rows, 705, kVideoClass, 1, vertical);
  AddFillers(rows, kVideoClass, 1, {702, 706, 707, 708, 709, 710});
}

}  // namespace tarn
