// The snapshot of the last scan the server accepted ("invFullData").
//
// The file is a property list whose root dictionary holds "INVDatadict": class id text to the
// array of that class's instance dictionaries (property id text to value text, plus "KEY"),
// exactly as invScanData was when it was saved. A difference scan loads it into the one form
// of recorded instances (ScanData), matches every new instance against it by "KEY" (each
// previous instance is matched at most once and removed when matched), and reports what is
// left as deleted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/plist/plist_value.h"
#include "tarninventory/src/scandata.h"

namespace tarn {

class FullScanHandler {
 public:
  // What a snapshot file held besides the scan data, as it was when it was loaded; a save over
  // the same unchanged file keeps it without reading the file again.
  struct LoadedFile;

  explicit FullScanHandler(ScanData previous);
  ~FullScanHandler();

  // Loads the snapshot file. Null, after logging "File doesnt have valid scan data", when the
  // file is missing, unreadable, has no "INVDatadict" or holds scan data of another shape;
  // the caller then runs a full scan.
  static std::unique_ptr<FullScanHandler> InitWithScanDataFile(const std::string& path);

  // Writes scanData under "INVDatadict" into the property list at path, keeping the file's
  // other top-level keys as the file holds them now (taken from `loaded` when that handler
  // loaded this very file and it did not change since). Nothing is written when the file's
  // root is not a dictionary. Failures are logged only.
  static void SaveCurrentScanData(const ScanData& scanData, const std::string& path,
                                  const FullScanHandler* loaded = nullptr);

  // A remaining previous instance, viewed in place: valid while this handler lives.
  struct Match {
    ScanData::Instance instance;
    std::size_t position;  // of the instance in its class
  };
  // The first remaining previous instance of the class whose "KEY" equals key, or nothing.
  // Answers from an index, not by a walk.
  std::optional<Match> FindFirstByKey(std::int32_t classId, std::string_view key);
  // Removes every remaining previous instance of the class equal to the match (the same keys
  // with the same texts, in any order); a class with nothing left is dropped.
  void RemoveMatched(std::int32_t classId, const Match& match);
  // How many previous instances of the class remain.
  std::size_t RemainingCount(std::int32_t classId) const;
  // The instances looked at by the lookups and removals so far: a measure of the matching's
  // cost that does not depend on the machine's speed.
  std::size_t InstancesVisited() const { return visited_; }

  // Files every remaining previous instance as deleted ("1") in the difference document,
  // class by class in the snapshot's order.
  void WritetoDiffData() const;

  // Logs the remaining snapshot.
  void Print() const;

 private:
  struct ClassIndex;
  const ClassIndex* Find(std::int32_t classId) const;
  // The remaining instances as the dictionary they stand for.
  PlistPtr RemainingPlist() const;

  ScanData data_;
  std::unordered_map<std::string, ClassIndex> classes_;  // classes with instances remaining
  std::unique_ptr<LoadedFile> loadedFile_;
  std::size_t visited_ = 0;
};

}  // namespace tarn
