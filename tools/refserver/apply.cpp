#include "tools/refserver/apply.h"

#include <set>

namespace tarn::refserver {

namespace {

class ClassApplier {
 public:
  ClassApplier(int classId, ClassInstances& instances, const Catalogue& catalogue,
               ClassChanges& counts)
      : classId_(classId), instances_(instances), catalogue_(catalogue), counts_(counts) {}

  void Delete(const Instance& gone) {
    const auto match = FindUntouched(gone, true);
    if (match == instances_.end()) {
      ++counts_.unmatched;
      return;
    }
    instances_.erase(match);
    ++counts_.deleted;
  }

  void Modify(const Instance& now) {
    const auto match = FindUntouched(now, false);
    if (match == instances_.end()) {
      ++counts_.unmatched;
      Add(now);
      return;
    }
    match->second = now;
    touched_.insert(match->first);
    ++counts_.modified;
  }

  // An instance whose key is already held (not yet touched by this upload) is replaced
  // rather than added again: a difference re-sent after its answer was lost adds what
  // the first sending added. Without a key only an equal instance counts as held.
  void Add(const Instance& now) {
    const auto held = FindUntouched(now, true);
    if (held != instances_.end() &&
        (!catalogue_.InstanceKey(classId_, now).empty() || held->second == now)) {
      held->second = now;
      touched_.insert(held->first);
      ++counts_.added;
      return;
    }
    const int number = instances_.empty() ? 1 : instances_.rbegin()->first + 1;
    instances_.emplace(number, now);
    touched_.insert(number);
    ++counts_.added;
  }

 private:
  // The first instance with the same key that this upload has not touched yet; with
  // preferEqual, one whose values are all equal wins over the first.
  ClassInstances::iterator FindUntouched(const Instance& wanted, bool preferEqual) {
    const std::string key = catalogue_.InstanceKey(classId_, wanted);
    auto first = instances_.end();
    for (auto it = instances_.begin(); it != instances_.end(); ++it) {
      if (touched_.count(it->first) != 0 || catalogue_.InstanceKey(classId_, it->second) != key) {
        continue;
      }
      if (!preferEqual || it->second == wanted) return it;
      if (first == instances_.end()) first = it;
    }
    return first;
  }

  int classId_;
  ClassInstances& instances_;
  const Catalogue& catalogue_;
  ClassChanges& counts_;
  std::set<int> touched_;
};

}  // namespace

AppliedDifference ApplyDifference(Inventory& inventory, const std::vector<InstanceChange>& changes,
                                  const Catalogue& catalogue) {
  AppliedDifference result;
  std::set<int> classIds;
  for (const InstanceChange& change : changes) {
    if (!change.instance.empty()) classIds.insert(change.classId);
  }
  for (const int classId : classIds) {
    ClassApplier applier(classId, inventory[classId], catalogue, result.classes[classId]);
    for (const Change pass : {Change::kDeleted, Change::kModified, Change::kAdded}) {
      for (const InstanceChange& change : changes) {
        if (change.classId != classId || change.change != pass || change.instance.empty()) {
          continue;
        }
        if (pass == Change::kDeleted) applier.Delete(change.instance);
        if (pass == Change::kModified) applier.Modify(change.instance);
        if (pass == Change::kAdded) applier.Add(change.instance);
        result.items.push_back(
            {classId, pass, InstanceLabel(classId, change.instance, catalogue)});
      }
    }
    if (inventory[classId].empty()) inventory.erase(classId);
  }
  return result;
}

std::string InstanceLabel(int classId, const Instance& instance, const Catalogue& catalogue) {
  if (classId == kSoftwareClass) {
    const auto name = instance.find(kSoftwareNameProperty);
    const auto version = instance.find(kSoftwareVersionProperty);
    std::string label = name != instance.end() ? name->second : "(unnamed)";
    if (version != instance.end() && version->second != "-" && !version->second.empty()) {
      label += " " + version->second;
    }
    return label;
  }
  std::string label;
  if (const ClassInfo* info = catalogue.FindClass(classId)) {
    for (const int propertyId : info->primaryKeys) {
      const auto value = instance.find(propertyId);
      if (value == instance.end()) continue;
      label += (label.empty() ? "" : ", ") + value->second;
    }
  }
  return label.empty() ? catalogue.ClassName(classId) : label;
}

}  // namespace tarn::refserver
