// The snapshot of the last scan the server accepted ("invFullData").
//
// The file is a property list whose root dictionary holds "INVDatadict": class
// id text to the array of that class's instance dictionaries (property id
// text to value text, plus "KEY"), exactly as invScanData was when it was
// saved. A difference scan loads it, matches every new instance against it by
// "KEY" (each previous instance is matched at most once and removed when
// matched), and reports what is left as deleted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/plist/plist_value.h"
#include "tarninventory/src/scandata.h"

namespace tarn {

class FullScanHandler {
 public:
  explicit FullScanHandler(PlistPtr fullScanDict);
  // The same snapshot from its compact form (as the snapshot file is read).
  explicit FullScanHandler(ScanData previous);
  ~FullScanHandler();

  // Loads the snapshot file. Null, after logging and setting the run type to
  // full, when the file is missing, unreadable or has no "INVDatadict".
  static std::unique_ptr<FullScanHandler> InitWithScanDataFile(const std::string& path);

  // Writes scanData under "INVDatadict" into the property list at path,
  // keeping the file's other top-level keys (as read when the snapshot was
  // loaded, when the file is still the one loaded; otherwise read now).
  // Nothing is written when the file's root is not a dictionary. Failures are
  // logged only.
  static void SaveCurrentScanData(const ScanData& scanData, const std::string& path);

  // The class's live array of remaining previous instances, or null. Matching
  // the class afterwards (FindFirstByKey, RemoveMatched) empties that array
  // until the class is read again (GetClassData, WritetoDiffData, Print).
  PlistPtr GetClassData(std::int32_t classId);
  // Stores the array for the class, or removes the class when it is empty.
  void AddArrayObjectToClass(std::int32_t classId, const PlistPtr& array);
  // The same effect as AddArrayObjectToClass, without its failure guard.
  void addObjectToClass(std::int32_t classId, const PlistPtr& array);

  // The first remaining previous instance of the class whose "KEY" equals
  // key, or null. Does not walk the class's instances: answers from an index.
  // Raises PlatformException where a walk in order would: when the class's
  // value is not an array, or when an element before the match (or any
  // element, without a match) is not a dictionary or has a "KEY" that is not text.
  PlistPtr FindFirstByKey(std::int32_t classId, const std::string& key);
  // Removes every remaining previous instance of the class equal to instance
  // and drops the class when none is left.
  void RemoveMatched(std::int32_t classId, const PlistPtr& instance);

  // The same two steps for a class held compact (as the snapshot file is read), with the
  // previous instance viewed in place (valid while this handler lives) instead of copied
  // into a dictionary. `held` is false when the class is not held compact: FindFirstByKey
  // and RemoveMatched answer for it.
  struct CompactMatch {
    bool held = false;
    std::optional<ScanData::Instance> instance;
    std::size_t position = 0;  // of the instance in its class
  };
  CompactMatch FindFirstCompact(std::int32_t classId, const std::string& key);
  // RemoveMatched for an instance FindFirstCompact answered with.
  void RemoveMatchedCompact(std::int32_t classId, const CompactMatch& match);

  // Files every remaining previous instance as deleted ("1") in the
  // difference document, class by class in the dictionary's key order.
  void WritetoDiffData();

  // Logs the remaining snapshot.
  void Print();

 private:
  struct Index;
  struct Compact;
  void WriteOutCompact(const std::string& classKey);

  PlistPtr fullScanDict;
  std::unique_ptr<Index> index_;
  std::unique_ptr<Compact> compact_;
};

}  // namespace tarn
