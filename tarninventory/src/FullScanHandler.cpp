#include "tarninventory/src/FullScanHandler.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <utility>

#include <sys/stat.h>

#include "framework/logging/logger.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/diffdocument.h"
#include "tarninventory/src/snapshotfile.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

constexpr const char* kSaveSignature = "+[FullScanHandler SaveCurrentScanData:AtPath:]";
constexpr const char* kPrintSignature = "-[FullScanHandler Print]";

std::uint64_t Mix(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15ULL;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
  return value ^ (value >> 31);
}

// A hash of an instance's entries that does not depend on their order, as equality does not.
std::uint64_t ContentHash(const ScanData::Instance& instance) {
  const std::hash<std::string_view> hashText;
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < instance.size(); ++i) {
    const InstanceEntry entry = instance[i];
    sum += Mix(hashText(entry.key) * 31 + hashText(entry.value));
  }
  return sum;
}

// Equal instances: the same keys (in any order), each with equal text.
bool SameContent(const ScanData::Instance& instance, const ScanData::Instance& other) {
  if (other.size() != instance.size()) return false;
  for (std::size_t i = 0; i < instance.size(); ++i) {
    const InstanceEntry entry = instance[i];
    if (other.Find(entry.key) != entry.value) return false;
  }
  return true;
}

// The positions of one key's instances, in order, and how far they are used up.
struct KeyChain {
  std::vector<std::size_t> positions;  // ascending
  std::size_t head = 0;                // positions before head are all removed
};

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
    if (entry.first != kSnapshotScanDataKey) others.entries.push_back(entry);
  }
  return others;
}

// A snapshot file read: its scan data (when it has a usable one) and its other entries.
struct ReadSnapshot {
  std::optional<ScanData> scanData;
  OtherEntries others;
};

// The file in the plain shape this program writes is read directly; any other shape through
// the general property-list reader, its scan data converted once, here.
ReadSnapshot ReadSnapshotBytes(const std::string& bytes, bool wantScanData) {
  ReadSnapshot read;
  if (std::optional<PlainSnapshot> plain = ReadPlainSnapshot(bytes, wantScanData)) {
    if (plain->hasScanData) read.scanData = std::move(plain->scanData);
    return read;
  }
  const PlistPtr root = ParsePlist(bytes);
  read.others = OtherEntriesOf(root);
  const PlistPtr scanDict = read.others.rootIsDictionary && root
                                ? root->ValueForKey(kSnapshotScanDataKey)
                                : nullptr;
  if (wantScanData && scanDict) read.scanData = ScanData::FromPlist(*scanDict);
  return read;
}

}  // namespace

struct FullScanHandler::LoadedFile {
  std::string path;
  FileStamp stamp;
  OtherEntries others;
};

// One class of the snapshot while it is matched: instances by "KEY" in order and by content,
// plus marks for the matched ones. A match costs no shifting of instances.
struct FullScanHandler::ClassIndex {
  std::size_t classIndex = 0;  // in data_
  std::vector<char> removed;
  std::vector<std::uint64_t> hashes;  // ContentHash of every instance
  std::size_t remaining = 0;
  std::unordered_map<std::string_view, KeyChain> byKey;  // views into data_
  std::unordered_map<std::uint64_t, std::vector<std::size_t>> byContent;

  // The first position of the chain not removed yet; moves the chain's head past removed
  // ones, so each is stepped over once. Counts the positions looked at into visited.
  std::optional<std::size_t> FirstRemaining(KeyChain& chain, std::size_t& visited) const {
    while (chain.head < chain.positions.size() && removed[chain.positions[chain.head]]) {
      ++chain.head;
      ++visited;
    }
    ++visited;
    if (chain.head == chain.positions.size()) return std::nullopt;
    return chain.positions[chain.head];
  }
};

FullScanHandler::FullScanHandler(ScanData previous) : data_(std::move(previous)) {
  for (std::size_t c = 0; c < data_.ClassCount(); ++c) {
    const std::size_t count = data_.InstanceCount(c);
    if (count == 0) continue;
    ClassIndex& indexed = classes_[data_.ClassKey(c)];
    indexed.classIndex = c;
    indexed.removed.assign(count, 0);
    indexed.hashes.resize(count);
    indexed.remaining = count;
    for (std::size_t i = 0; i < count; ++i) {
      const ScanData::Instance instance = data_.InstanceAt(c, i);
      indexed.hashes[i] = ContentHash(instance);
      indexed.byContent[indexed.hashes[i]].push_back(i);
      if (const auto key = instance.Find(kInstanceKey)) {
        indexed.byKey[*key].positions.push_back(i);
      }
    }
  }
}

FullScanHandler::~FullScanHandler() = default;

std::unique_ptr<FullScanHandler> FullScanHandler::InitWithScanDataFile(const std::string& path) {
  const std::optional<FileStamp> before = StampOf(path);
  const std::optional<std::string> bytes = ReadWholeFile(path);
  ReadSnapshot read;
  if (bytes) read = ReadSnapshotBytes(*bytes, /*wantScanData=*/true);
  if (!read.scanData) {
    UserLogMessage("InitWithScanDataFile : File doesnt have valid scan data \n");
    return nullptr;
  }
  auto handler = std::make_unique<FullScanHandler>(std::move(*read.scanData));
  if (before && StampOf(path) == before) {
    handler->loadedFile_ =
        std::make_unique<LoadedFile>(LoadedFile{path, *before, std::move(read.others)});
  }
  return handler;
}

void FullScanHandler::SaveCurrentScanData(const ScanData& scanData, const std::string& path,
                                          const FullScanHandler* loaded) {
  DebugLogMessage(" Inside SaveCurrentScanData method \n");
  try {
    OtherEntries others;
    const LoadedFile* file = loaded ? loaded->loadedFile_.get() : nullptr;
    if (file && file->path == path && StampOf(path) == file->stamp) {
      others = file->others;
    } else if (const std::optional<std::string> bytes = ReadWholeFile(path)) {
      others = ReadSnapshotBytes(*bytes, /*wantScanData=*/false).others;
    }
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

const FullScanHandler::ClassIndex* FullScanHandler::Find(std::int32_t classId) const {
  const auto found = classes_.find(ClassKey(classId));
  return found == classes_.end() ? nullptr : &found->second;
}

std::optional<FullScanHandler::Match> FullScanHandler::FindFirstByKey(std::int32_t classId,
                                                                      std::string_view key) {
  const auto found = classes_.find(ClassKey(classId));
  if (found == classes_.end()) return std::nullopt;
  ClassIndex& indexed = found->second;
  const auto chain = indexed.byKey.find(key);
  if (chain == indexed.byKey.end()) return std::nullopt;
  const std::optional<std::size_t> position = indexed.FirstRemaining(chain->second, visited_);
  if (!position) return std::nullopt;
  return Match{data_.InstanceAt(indexed.classIndex, *position), *position};
}

void FullScanHandler::RemoveMatched(std::int32_t classId, const Match& match) {
  const auto found = classes_.find(ClassKey(classId));
  if (found == classes_.end()) return;
  ClassIndex& indexed = found->second;
  if (match.position >= indexed.removed.size()) return;
  const auto group = indexed.byContent.find(indexed.hashes[match.position]);
  if (group == indexed.byContent.end()) return;
  std::vector<std::size_t> kept;
  for (const std::size_t position : group->second) {
    ++visited_;
    if (indexed.removed[position]) continue;
    if (position == match.position ||
        SameContent(data_.InstanceAt(indexed.classIndex, position), match.instance)) {
      indexed.removed[position] = 1;
      --indexed.remaining;
    } else {
      kept.push_back(position);
    }
  }
  if (kept.empty()) {
    indexed.byContent.erase(group);
  } else {
    group->second = std::move(kept);
  }
  if (indexed.remaining == 0) classes_.erase(found);
}

std::size_t FullScanHandler::RemainingCount(std::int32_t classId) const {
  const ClassIndex* indexed = Find(classId);
  return indexed ? indexed->remaining : 0;
}

void FullScanHandler::WritetoDiffData() const {
  for (std::size_t c = 0; c < data_.ClassCount(); ++c) {
    const auto found = classes_.find(data_.ClassKey(c));
    if (found == classes_.end()) continue;
    const std::int32_t classId = IdOf(data_.ClassKey(c));
    for (std::size_t i = 0; i < found->second.removed.size(); ++i) {
      if (!found->second.removed[i]) {
        AddtoDiffData(kStatusDeleted, classId, data_.InstanceAt(c, i));
      }
    }
  }
}

PlistPtr FullScanHandler::RemainingPlist() const {
  PlistPtr remaining = PlistValue::MakeDictionary();
  for (std::size_t c = 0; c < data_.ClassCount(); ++c) {
    const auto found = classes_.find(data_.ClassKey(c));
    // A class without instances keeps its (empty) place, as the file has it.
    if (found == classes_.end() && data_.InstanceCount(c) > 0) continue;
    PlistPtr instances = PlistValue::MakeArray();
    for (std::size_t i = 0; i < data_.InstanceCount(c); ++i) {
      if (!found->second.removed[i]) instances->Append(data_.InstanceAt(c, i).ToPlist());
    }
    remaining->SetValueForKey(data_.ClassKey(c), std::move(instances));
  }
  return remaining;
}

void FullScanHandler::Print() const {
  ConsoleWhere(kPrintSignature, __LINE__, "Prev fullScanDict : %s",
               RemainingPlist()->Description().c_str());
}

}  // namespace tarn
