#include "tarninventory/src/FullScanHandler.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "framework/logging/logger.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/scanrun.h"
#include "tarninventory/src/snapshotfile.h"
#include "tarninventory/src/tarninventoryutil.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

constexpr const char* kSnapshotKey = "INVDatadict";
constexpr const char* kInstanceKey = "KEY";

constexpr const char* kSaveSignature = "+[FullScanHandler SaveCurrentScanData:AtPath:]";
constexpr const char* kGetClassDataSignature = "-[FullScanHandler GetClassData:]";
constexpr const char* kAddArraySignature = "-[FullScanHandler AddArrayObjectToClass:array:]";
constexpr const char* kWritetoDiffDataSignature = "-[FullScanHandler WritetoDiffData]";
constexpr const char* kPrintSignature = "-[FullScanHandler Print]";

std::string ClassKey(std::int32_t classId) { return std::to_string(classId); }

// A class key read as an integer: leading digits after an optional sign, 0
// without any, clamped to the 32-bit range.
std::int32_t ClassIdOf(const std::string& text) {
  const long value = std::strtol(text.c_str(), nullptr, 10);
  return static_cast<std::int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

std::uint64_t Mix(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15ULL;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
  return value ^ (value >> 31);
}

// A hash that agrees with PlistValue's equality: a dictionary's entries are
// combined without regard to their order (equality ignores it), and only text
// values contribute their content.
std::uint64_t ContentHash(const PlistValue& value) {
  if (!value.IsDictionary()) return Mix(static_cast<std::uint64_t>(value.type()));
  const std::hash<std::string> hashText;
  std::uint64_t sum = 0;
  for (const auto& [key, entry] : value.Entries()) {
    const std::uint64_t entryHash = entry->IsString()
                                        ? hashText(entry->String())
                                        : Mix(static_cast<std::uint64_t>(entry->type()) + 1);
    sum += Mix(hashText(key) * 31 + entryHash);
  }
  return sum;
}

// ContentHash of the dictionary a compact instance stands for (all its values are text).
std::uint64_t ContentHash(const ScanData::Instance& instance) {
  const std::hash<std::string_view> hashText;
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < instance.size(); ++i) {
    const InstanceEntry entry = instance[i];
    sum += Mix(hashText(entry.key) * 31 + hashText(entry.value));
  }
  return sum;
}

// PlistValue's equality between two compact instances: the same keys (in any order), each
// with equal text.
bool SameContent(const ScanData::Instance& instance, const ScanData::Instance& other) {
  if (other.size() != instance.size()) return false;
  for (std::size_t i = 0; i < instance.size(); ++i) {
    const InstanceEntry entry = instance[i];
    if (other.Find(entry.key) != entry.value) return false;
  }
  return true;
}

// PlistValue's equality between a dictionary and a compact instance: the same keys (in any
// order), each with equal text.
bool SameContent(const ScanData::Instance& instance, const PlistValue& value) {
  if (!value.IsDictionary() || value.Count() != instance.size()) return false;
  for (std::size_t i = 0; i < instance.size(); ++i) {
    const InstanceEntry entry = instance[i];
    const PlistPtr other = value.ValueForKey(entry.key);
    if (!other || !other->IsString() || other->String() != entry.value) return false;
  }
  return true;
}

// The positions of one key's instances, in array order, and how far they are used up.
struct KeyChain {
  std::vector<std::size_t> positions;  // ascending
  std::size_t head = 0;                // positions before head are all removed
};

// The first position of the chain not removed yet; moves the chain's head past removed
// ones, so each is stepped over once.
std::optional<std::size_t> FirstRemaining(KeyChain& chain, const std::vector<char>& removed) {
  while (chain.head < chain.positions.size() && removed[chain.positions[chain.head]]) {
    ++chain.head;
  }
  if (chain.head == chain.positions.size()) return std::nullopt;
  return chain.positions[chain.head];
}

// What a snapshot file holds besides the scan data, which a save keeps.
struct OtherEntries {
  bool rootIsDictionary = true;
  std::vector<PlistValue::Entry> entries;
};

// The other entries of a snapshot file read as a general property list: none for an
// unreadable file (the store starts empty), none of any use for a root that is not a
// dictionary.
OtherEntries OtherEntriesOf(const PlistPtr& root) {
  OtherEntries others;
  if (!root) return others;
  if (!root->IsDictionary()) {
    others.rootIsDictionary = false;
    return others;
  }
  for (const auto& entry : root->Entries()) {
    if (entry.first != kSnapshotKey) others.entries.push_back(entry);
  }
  return others;
}

// Which file a path led to, and in which state: equal stamps mean the file was not replaced
// or changed in between.
struct FileStamp {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modifiedNanoseconds = 0;
  bool operator==(const FileStamp&) const = default;
};

std::optional<FileStamp> StampOf(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return FileStamp{info.st_dev, info.st_ino, info.st_size,
                   std::int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec};
}

// The other entries of the snapshot file last loaded, so that saving over the same file
// does not read it again.
struct LoadedSnapshotFile {
  std::string path;
  FileStamp stamp;
  OtherEntries others;
};

std::optional<LoadedSnapshotFile>& LastLoadedFile() {
  static std::optional<LoadedSnapshotFile> loaded;
  return loaded;
}

// The snapshot file's other entries, as they are now.
OtherEntries CurrentOtherEntries(const std::string& path) {
  const std::optional<LoadedSnapshotFile>& loaded = LastLoadedFile();
  if (loaded && loaded->path == path && StampOf(path) == loaded->stamp) return loaded->others;
  const std::optional<std::string> bytes = ReadWholeFile(path);
  if (!bytes || ReadPlainSnapshot(*bytes, /*buildScanData=*/false)) return {};
  return OtherEntriesOf(ParsePlist(*bytes));
}

}  // namespace

// Per class, the previous instances as they stood when the class was indexed:
// instances by "KEY" in array order and by content, plus tombstones for the
// matched ones. While a class is indexed the index holds its instances and its
// array is empty; they are written back when the class is read. So a match
// costs no shifting of the array, and a matched instance is released at once.
struct FullScanHandler::Index {
  struct ClassIndex {
    PlistPtr array;
    std::vector<PlistPtr> elements;
    std::vector<char> removed;
    std::size_t remaining = 0;
    // The elements a walk in order could not read: not a dictionary, or a
    // "KEY" that is not text. FindFirstByKey never answers with them.
    KeyChain unreadable;
    std::unordered_map<std::string, KeyChain> byKey;
    std::unordered_map<std::uint64_t, std::vector<std::size_t>> byContent;

    std::optional<std::size_t> FirstRemaining(KeyChain& chain) const {
      return tarn::FirstRemaining(chain, removed);
    }
  };

  // Takes the array's instances into the index (the array stays empty until WriteBack), so
  // that a matched instance is freed at once.
  static ClassIndex Build(const PlistPtr& array) {
    ClassIndex index;
    index.array = array;
    index.elements = array->Elements();
    while (array->Count() > 0) array->RemoveAtIndex(array->Count() - 1);
    index.removed.assign(index.elements.size(), 0);
    index.remaining = index.elements.size();
    for (std::size_t i = 0; i < index.elements.size(); ++i) {
      const PlistValue& element = *index.elements[i];
      index.byContent[ContentHash(element)].push_back(i);
      const PlistPtr key = element.IsDictionary() ? element.ValueForKey(kInstanceKey) : nullptr;
      const bool readable = element.IsDictionary() && (key == nullptr || key->IsString());
      if (!readable) {
        index.unreadable.positions.push_back(i);
      } else if (key != nullptr) {
        index.byKey[key->String()].positions.push_back(i);
      }
    }
    return index;
  }

  // The index of the class, built when missing or when the class's array was
  // replaced; null when the class has no instances. Raises when the class's
  // value is not an array, as a walk over it would.
  ClassIndex* For(PlistValue& scanDict, const std::string& classKey) {
    const PlistPtr array = scanDict.ValueForKey(classKey);
    if (!array) {
      classes.erase(classKey);
      return nullptr;
    }
    const auto found = classes.find(classKey);
    if (found != classes.end()) {
      if (found->second.array == array) return &found->second;
      WriteBack(found->second);  // the replaced array gets its instances back
    }
    if (!array->IsArray()) {
      throw PlatformException(kInvalidArgumentException,
                              "the snapshot of class " + classKey + " is not an array");
    }
    return &(classes[classKey] = Build(array));
  }

  // Writes the class's remaining instances back into its live array (in
  // place, so whoever holds the array sees them) and forgets the index.
  static void WriteBack(ClassIndex& index) {
    for (std::size_t i = 0; i < index.elements.size(); ++i) {
      if (!index.removed[i]) index.array->Append(index.elements[i]);
    }
  }

  void Compact(const std::string& classKey) {
    const auto found = classes.find(classKey);
    if (found == classes.end()) return;
    WriteBack(found->second);
    classes.erase(found);
  }

  void CompactAll() {
    std::vector<std::string> classKeys;
    classKeys.reserve(classes.size());
    for (const auto& entry : classes) classKeys.push_back(entry.first);
    for (const std::string& classKey : classKeys) Compact(classKey);
  }

  std::unordered_map<std::string, ClassIndex> classes;
};

// The classes of a snapshot read in the plain shape, kept compact while only matched: a
// class's array in the snapshot dictionary stays empty until the class is read as a whole
// (GetClassData, AddArrayObjectToClass, WritetoDiffData, Print), when its remaining
// instances are written into it. Matching needs only the one matched instance as a
// dictionary, so a difference scan never builds the whole previous snapshot.
struct FullScanHandler::Compact {
  struct Class {
    std::size_t classIndex = 0;  // in data
    std::vector<char> removed;
    std::vector<std::uint64_t> hashes;  // ContentHash of every instance
    std::size_t remaining = 0;
    std::unordered_map<std::string_view, KeyChain> byKey;  // views into data
    std::unordered_map<std::uint64_t, std::vector<std::size_t>> byContent;
  };

  explicit Compact(ScanData previous) : data(std::move(previous)) {
    for (std::size_t c = 0; c < data.ClassCount(); ++c) {
      const std::size_t count = data.InstanceCount(c);
      if (count == 0) continue;
      Class& indexed = classes[data.ClassKey(c)];
      indexed.classIndex = c;
      indexed.removed.assign(count, 0);
      indexed.hashes.resize(count);
      indexed.remaining = count;
      for (std::size_t i = 0; i < count; ++i) {
        const ScanData::Instance instance = data.InstanceAt(c, i);
        indexed.hashes[i] = ContentHash(instance);
        indexed.byContent[indexed.hashes[i]].push_back(i);
        if (const auto key = instance.Find(kInstanceKey)) {
          indexed.byKey[*key].positions.push_back(i);
        }
      }
    }
  }

  Class* Find(const std::string& classKey) {
    const auto found = classes.find(classKey);
    return found == classes.end() ? nullptr : &found->second;
  }

  // Writes the class's remaining instances into its array and stops keeping it compact.
  void WriteOut(const std::string& classKey, PlistValue& scanDict) {
    const auto found = classes.find(classKey);
    if (found == classes.end()) return;
    const Class& indexed = found->second;
    const PlistPtr array = scanDict.ValueForKey(classKey);
    if (array && array->IsArray()) {
      for (std::size_t i = 0; i < indexed.removed.size(); ++i) {
        if (!indexed.removed[i]) array->Append(data.InstanceAt(indexed.classIndex, i).ToPlist());
      }
    }
    classes.erase(found);
  }

  void WriteOutAll(PlistValue& scanDict) {
    for (std::size_t c = 0; c < data.ClassCount(); ++c) WriteOut(data.ClassKey(c), scanDict);
  }

  // Removes every remaining instance of the class equal to instance (a dictionary, or the
  // class's own instance at `self`); drops the class from the dictionary when none is left.
  template <typename Instance>
  void RemoveMatched(const std::string& classKey, Class& compact, const Instance& instance,
                     PlistValue& scanDict, std::optional<std::size_t> self = std::nullopt) {
    const auto group =
        compact.byContent.find(self ? compact.hashes[*self] : ContentHash(instance));
    if (group == compact.byContent.end()) return;
    std::vector<std::size_t> kept;
    for (const std::size_t position : group->second) {
      if (compact.removed[position]) continue;
      if (position == self ||
          SameContent(data.InstanceAt(compact.classIndex, position), instance)) {
        compact.removed[position] = 1;
        --compact.remaining;
      } else {
        kept.push_back(position);
      }
    }
    if (kept.empty()) {
      compact.byContent.erase(group);
    } else {
      group->second = std::move(kept);
    }
    if (compact.remaining == 0) {
      scanDict.RemoveKey(classKey);
      classes.erase(classKey);
    }
  }

  ScanData data;
  std::unordered_map<std::string, Class> classes;
};

FullScanHandler::FullScanHandler(PlistPtr scanDict)
    : fullScanDict(scanDict && scanDict->IsDictionary() ? std::move(scanDict)
                                                        : PlistValue::MakeDictionary()),
      index_(std::make_unique<Index>()) {}

FullScanHandler::FullScanHandler(ScanData previous)
    : fullScanDict(PlistValue::MakeDictionary()), index_(std::make_unique<Index>()) {
  // Every class keeps its place in the dictionary, its instances held compact for now.
  for (std::size_t c = 0; c < previous.ClassCount(); ++c) {
    fullScanDict->SetValueForKey(previous.ClassKey(c), PlistValue::MakeArray());
  }
  compact_ = std::make_unique<Compact>(std::move(previous));
}

void FullScanHandler::WriteOutCompact(const std::string& classKey) {
  if (compact_) compact_->WriteOut(classKey, *fullScanDict);
}

FullScanHandler::~FullScanHandler() = default;

std::unique_ptr<FullScanHandler> FullScanHandler::InitWithScanDataFile(const std::string& path) {
  // The file is read as the property-list store would read it; a file in the plain shape
  // this program writes is read directly.
  const std::optional<FileStamp> before = StampOf(path);
  const std::optional<std::string> bytes = ReadWholeFile(path);
  PlistPtr scanDict;
  std::optional<PlainSnapshot> plain;
  OtherEntries others;
  if (bytes) {
    plain = ReadPlainSnapshot(*bytes);
    if (!plain) {
      const PlistPtr root = ParsePlist(*bytes);
      others = OtherEntriesOf(root);
      if (others.rootIsDictionary && root) scanDict = root->ValueForKey(kSnapshotKey);
    }
  }
  LastLoadedFile().reset();
  if (before && StampOf(path) == before) {
    LastLoadedFile() = LoadedSnapshotFile{path, *before, std::move(others)};
  }
  if (plain && plain->hasScanData) {
    return std::make_unique<FullScanHandler>(std::move(plain->scanData));
  }
  if (!scanDict || !scanDict->IsDictionary()) {
    UserLogMessage("InitWithScanDataFile : File doesnt have valid scan data \n");
    CurrentScanRun().scanType = kFullScanType;
    return nullptr;
  }
  return std::make_unique<FullScanHandler>(std::move(scanDict));
}

void FullScanHandler::SaveCurrentScanData(const ScanData& scanData, const std::string& path) {
  DebugLogMessage(" Inside SaveCurrentScanData method \n");
  try {
    const OtherEntries others = CurrentOtherEntries(path);
    if (!others.rootIsDictionary) {
      throw PlatformException(kInvalidArgumentException, "the snapshot file is not a dictionary");
    }
    const auto serialize = [&] { return SnapshotXml(others.entries, scanData); };
    if (Proplisthandler::WriteDocument(serialize, path) != 1) {
      throw PlatformException(kInvalidArgumentException, "the snapshot could not be written");
    }
    DebugLogMessage("SaveCurrentScanData : done successfully \n");
  } catch (const std::exception& failure) {
    ConsoleWhere(kSaveSignature, __LINE__, "SaveCurrentScanData :Caught exception>>>>>>>>>>>:%s",
                 failure.what());
  }
  DebugLogMessage(" End of  SaveCurrentScanData method \n");
}

PlistPtr FullScanHandler::GetClassData(std::int32_t classId) {
  try {
    const std::string classKey = ClassKey(classId);
    // The caller may change the array it gets, so the class is indexed afresh
    // at its next match.
    WriteOutCompact(classKey);
    index_->Compact(classKey);
    return fullScanDict->ValueForKey(classKey);
  } catch (const std::exception& failure) {
    ConsoleWhere(kGetClassDataSignature, __LINE__, "GetClassData :Caught exception>>>>>>>>>>>:%s",
                 failure.what());
    return nullptr;
  }
}

void FullScanHandler::AddArrayObjectToClass(std::int32_t classId, const PlistPtr& array) {
  try {
    addObjectToClass(classId, array);
  } catch (const std::exception& failure) {
    ConsoleWhere(kAddArraySignature, __LINE__,
                 "AddArrayObjectToClass :Caught exception>>>>>>>>>>>:%s", failure.what());
  }
}

void FullScanHandler::addObjectToClass(std::int32_t classId, const PlistPtr& array) {
  const std::string classKey = ClassKey(classId);
  WriteOutCompact(classKey);
  index_->Compact(classKey);
  if (Count(array) > 0) {
    fullScanDict->SetObjectForKey(classKey, array);
  } else {
    fullScanDict->RemoveKey(classKey);
  }
}

PlistPtr FullScanHandler::FindFirstByKey(std::int32_t classId, const std::string& key) {
  if (const CompactMatch compact = FindFirstCompact(classId, key); compact.held) {
    return compact.instance ? compact.instance->ToPlist() : nullptr;
  }
  Index::ClassIndex* index = index_->For(*fullScanDict, ClassKey(classId));
  if (index == nullptr) return nullptr;
  std::optional<std::size_t> match;
  const auto chain = index->byKey.find(key);
  if (chain != index->byKey.end()) match = index->FirstRemaining(chain->second);
  // A walk in order would fail on an unreadable instance before reaching the match.
  const std::optional<std::size_t> unreadable = index->FirstRemaining(index->unreadable);
  if (unreadable && (!match || *unreadable < *match)) {
    throw PlatformException(kInvalidArgumentException, "a previous instance of class " +
                                                           std::to_string(classId) +
                                                           " is not a dictionary with a text KEY");
  }
  return match ? index->elements[*match] : nullptr;
}

void FullScanHandler::RemoveMatched(std::int32_t classId, const PlistPtr& instance) {
  if (!instance) return;
  const std::string classKey = ClassKey(classId);
  if (Compact::Class* compact = compact_ ? compact_->Find(classKey) : nullptr) {
    compact_->RemoveMatched(classKey, *compact, *instance, *fullScanDict);
    return;
  }
  Index::ClassIndex* index = index_->For(*fullScanDict, classKey);
  if (index == nullptr) return;
  const auto group = index->byContent.find(ContentHash(*instance));
  if (group == index->byContent.end()) return;
  std::vector<std::size_t> kept;
  for (const std::size_t position : group->second) {
    if (index->removed[position]) continue;
    if (*index->elements[position] == *instance) {
      index->removed[position] = 1;
      index->elements[position].reset();
      --index->remaining;
    } else {
      kept.push_back(position);
    }
  }
  if (kept.empty()) {
    index->byContent.erase(group);
  } else {
    group->second = std::move(kept);
  }
  if (index->remaining == 0) {
    fullScanDict->RemoveKey(classKey);
    index_->classes.erase(classKey);
  }
}

FullScanHandler::CompactMatch FullScanHandler::FindFirstCompact(std::int32_t classId,
                                                               const std::string& key) {
  CompactMatch answer;
  Compact::Class* compact = compact_ ? compact_->Find(ClassKey(classId)) : nullptr;
  if (compact == nullptr) return answer;
  answer.held = true;
  const auto chain = compact->byKey.find(key);
  if (chain == compact->byKey.end()) return answer;
  if (const auto position = FirstRemaining(chain->second, compact->removed)) {
    answer.instance = compact_->data.InstanceAt(compact->classIndex, *position);
    answer.position = *position;
  }
  return answer;
}

void FullScanHandler::RemoveMatchedCompact(std::int32_t classId, const CompactMatch& match) {
  const std::string classKey = ClassKey(classId);
  Compact::Class* compact = compact_ ? compact_->Find(classKey) : nullptr;
  if (compact != nullptr && match.instance) {
    compact_->RemoveMatched(classKey, *compact, *match.instance, *fullScanDict, match.position);
  }
}

void FullScanHandler::WritetoDiffData() {
  if (compact_) compact_->WriteOutAll(*fullScanDict);
  index_->CompactAll();
  // A copy of the entries: filing must not depend on the dictionary staying put.
  const std::vector<PlistValue::Entry> classes = fullScanDict->Entries();
  for (const auto& [classKey, instances] : classes) {
    if (!instances->IsArray()) {
      ConsoleWhere(kWritetoDiffDataSignature, __LINE__,
                   "WritetoDiffData : class %s is not an array of instances", classKey.c_str());
      continue;
    }
    const std::int32_t classId = ClassIdOf(classKey);
    const std::vector<PlistPtr> elements = instances->Elements();
    for (const PlistPtr& instance : elements) AddtoDiffData(kStatusDeleted, classId, instance);
  }
}

void FullScanHandler::Print() {
  if (compact_) compact_->WriteOutAll(*fullScanDict);
  index_->CompactAll();
  ConsoleWhere(kPrintSignature, __LINE__, "Prev fullScanDict : %s",
               fullScanDict->Description().c_str());
}

}  // namespace tarn
