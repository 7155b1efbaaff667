#include "tarnutils/src/proplisthandler.h"

#include <utility>

#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"

namespace tarn {

std::unique_ptr<Proplisthandler> Proplisthandler::InitwithFile(std::optional<std::string> path) {
  return std::make_unique<Proplisthandler>(std::move(path));
}

Proplisthandler::Proplisthandler(std::optional<std::string> path) : plistfilepath(std::move(path)) {
  if (!plistfilepath) return;
  plistDict = ReadPlistFile(*plistfilepath);
  if (!plistDict) plistDict = PlistValue::MakeDictionary();
}

PlistPtr Proplisthandler::GetValueForKey(std::string_view key) const {
  try {
    return ValueForKey(plistDict, key);
  } catch (const PlatformException&) {
    return nullptr;
  }
}

int Proplisthandler::SetValueForKey(std::string_view key, PlistPtr value) {
  if (!plistDict) return 1;  // nothing to change, and nothing failed
  try {
    plistDict->RemoveKey(key);
    plistDict->SetValueForKey(key, std::move(value));
    return 1;
  } catch (const PlatformException&) {
    return 0;
  }
}

int Proplisthandler::RemoveFromProplist(std::optional<std::string_view> key) {
  if (!plistDict || !key) return 0;
  try {
    plistDict->RemoveKey(*key);
    return 1;
  } catch (const PlatformException& failure) {
    ConsoleLog("Exception occurred in RemoveFromProplist: %s\n", failure.description().c_str());
    return 0;
  }
}

int Proplisthandler::WriteToProplist(const std::optional<std::string>& path) {
  if (!plistDict) return 0;
  return WriteDocument([this] { return ToXmlPlist(*plistDict); }, path ? path : plistfilepath);
}

int Proplisthandler::WriteDocument(const std::function<std::string()>& serialize,
                                   const std::optional<std::string>& target) {
  std::string xml;
  try {
    xml = serialize();
  } catch (const PlatformException& failure) {
    ConsoleLog("Exception occurred in WriteToProplist: %s\n", failure.description().c_str());
    return 0;
  }
  if (!target) {
    ConsoleLog("plistfilepath is not initialized properly\n");
    return 0;
  }
  // A failed write is reported in the log only; callers treat the store as saved.
  if (!WriteFileAtomically(*target, xml))
    ConsoleLog("WriteToProplist:failed path , %s", target->c_str());
  return 1;
}

int Proplisthandler::GetDataCount() const {
  if (!plistDict) {
    ConsoleLog("Proplist is nil, no data to count.\n");
    return 0;
  }
  const bool container = plistDict->IsDictionary() || plistDict->IsArray();
  const int count = container ? static_cast<int>(plistDict->Count()) : 0;
  ConsoleLog("Count:::: %d", count);
  return count;
}

void Proplisthandler::PrintPlistData() const {
  if (!plistDict) {
    ConsoleLog("Proplist is nil, no data to print.\n");
    return;
  }
  ConsoleLog("Proplist Data:>> %s\n", plistDict->Description().c_str());
}

std::optional<std::string> Proplisthandler::GetFilePath() const { return plistfilepath; }

PlistPtr Proplisthandler::GetPropertyDict() const { return plistDict; }

}  // namespace tarn
