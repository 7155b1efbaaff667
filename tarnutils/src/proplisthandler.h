#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/plist/plist_value.h"

namespace tarn {

// A small key/value store kept in one property-list file: the file's root dictionary is
// loaded once, read and changed in memory, and written back whole as an XML property list.
// Every operation is forgiving: a missing or damaged file gives an empty store, a missing key
// gives absent, failures give 0; nothing raises. Messages go to the console log.
class Proplisthandler {
 public:
  // Opens the store on the file. An absent path gives a store with no dictionary. A file that
  // is missing, empty or not a property list gives an empty dictionary, silently. A root of
  // another kind (an array) is kept as it is; key operations on it then fail softly.
  static std::unique_ptr<Proplisthandler> InitwithFile(std::optional<std::string> path);
  explicit Proplisthandler(std::optional<std::string> path);

  // The value for the key, or absent (also when the root is not a dictionary).
  PlistPtr GetValueForKey(std::string_view key) const;
  // Removes the key, then sets it to the value; an absent value leaves it removed. 1, or 0
  // when the root is not a dictionary. A store opened without a path has nothing to change
  // and still answers 1. In memory only until WriteToProplist.
  int SetValueForKey(std::string_view key, PlistPtr value);
  // 1 when the key is gone afterwards (also when it was never there); 0 when the store or the
  // key is absent or the root is not a dictionary.
  int RemoveFromProplist(std::optional<std::string_view> key);
  // Writes the whole root as an XML property list to the path (the stored path when absent),
  // atomically. 0 when there is no dictionary, no path at all, or the value cannot be written
  // as XML; a failed file write is only logged and still gives 1.
  int WriteToProplist(const std::optional<std::string>& path = std::nullopt);
  // Writes the document serialize gives to target with the rules of WriteToProplist: 0 after
  // logging when serialize raises PlatformException or there is no target; a failed file
  // write is only logged and still gives 1. For stores written without a tree of their own.
  static int WriteDocument(const std::function<std::string()>& serialize,
                           const std::optional<std::string>& target);
  // Number of top-level entries (elements for an array root); 0 without a dictionary.
  int GetDataCount() const;
  // Logs the contents.
  void PrintPlistData() const;
  // A copy of the path the store was opened on.
  std::optional<std::string> GetFilePath() const;
  // The root itself, shared: changes through it are written by the next WriteToProplist.
  PlistPtr GetPropertyDict() const;

 private:
  PlistPtr plistDict;
  std::optional<std::string> plistfilepath;
};

}  // namespace tarn
