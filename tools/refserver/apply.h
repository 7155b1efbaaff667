// Applying a difference upload to a stored inventory.
//
// Instances are matched by their key (Catalogue::InstanceKey), the rule the scanner
// matches its own snapshot with. Per class, deletions go first (among instances of
// the same key, the one whose values equal the deleted instance's is preferred), then
// modifications (each replaces one instance of its key not yet touched by this
// upload), then additions (new instance numbers after the highest in use; an addition
// whose key is already held replaces that instance, so applying one difference twice
// leaves what applying it once left). An empty
// instance carries nothing a full inventory could hold and is skipped.
//
// A deleted instance that is not in the inventory is counted as unmatched; a
// modified one that is not there is counted as unmatched and added, so the inventory
// still ends as the scanner describes the computer.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/inventory.h"
#include "tools/refserver/upload.h"

namespace tarn::refserver {

struct ClassChanges {
  int added = 0;
  int deleted = 0;
  int modified = 0;
  int unmatched = 0;
};

// One changed instance as a person reads it.
struct ChangedItem {
  int classId = 0;
  Change change = Change::kAdded;
  std::string label;
};

struct AppliedDifference {
  std::map<int, ClassChanges> classes;
  std::vector<ChangedItem> items;
};

AppliedDifference ApplyDifference(Inventory& inventory, const std::vector<InstanceChange>& changes,
                                  const Catalogue& catalogue);

// How an instance is named in the history: software as "name version" (the OS row
// too), any other class by its primary-key values joined with ", ", or by its class
// name when it has none.
std::string InstanceLabel(int classId, const Instance& instance, const Catalogue& catalogue);

}  // namespace tarn::refserver
