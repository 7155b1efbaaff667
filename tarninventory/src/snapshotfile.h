// The snapshot file ("invFullData") in the one shape this program writes, read and written
// directly instead of through a general property-list tree:
//
//   <?xml ...?> <!DOCTYPE ...> <plist version="1.0">
//   <dict> [other top-level entries] <key>INVDatadict</key>
//     <dict> <key>CLASS</key> <array> <dict> <key>ID</key> <string>VALUE</string> ... </dict>
//     ... </array> ... </dict>
//   </dict> </plist>
//
// Both directions give byte for byte what libplist gives for the same data, so the file and
// every reading of it stay as they were; input of any other shape is left to the general
// property-list reader.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/plist/plist_value.h"
#include "tarninventory/src/scandata.h"

namespace tarn {

// The root dictionary's key of the scan data in a snapshot file.
inline constexpr const char* kSnapshotScanDataKey = "INVDatadict";

// The snapshot file's text for a root dictionary holding otherEntries (in their order, as
// libplist writes them) and then "INVDatadict" holding scanData: exactly
// ToXmlPlist(root). Raises PlatformException where ToXmlPlist would (text that is not UTF-8
// or holds a NUL character, in the order ToXmlPlist meets it).
std::string SnapshotXml(const std::vector<PlistValue::Entry>& otherEntries,
                        const ScanData& scanData);

// A snapshot in the plain shape: a root dictionary holding nothing, or only "INVDatadict"
// with a dictionary of arrays of dictionaries of texts.
struct PlainSnapshot {
  // The value of "INVDatadict" in compact form (classes and instances in the file's order,
  // classes without instances included): filled only when asked for.
  ScanData scanData;
  bool hasScanData = false;
};

// Reads bytes of the plain shape, as ParsePlist would read them: the same dictionaries, in
// the same order, with the same texts (scanData.ToPlist() equals the parsed "INVDatadict").
// Nothing for bytes of any other form (another top-level key, a repeated key, comments,
// numeric character references, a byte-order mark, a binary property list, text that is not
// UTF-8 ...), which ParsePlist may or may not accept.
std::optional<PlainSnapshot> ReadPlainSnapshot(std::string_view bytes, bool buildScanData = true);

// Appends text as libplist writes it in a <key> or <string> element: "&", "<" and ">" as
// character entities, every other byte as it is.
void AppendPlistXmlText(std::string& out, std::string_view text);

}  // namespace tarn
