#include "tarninventory/src/scandata.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <stdexcept>

namespace tarn {

std::string ClassKey(std::int32_t classId) { return std::to_string(classId); }

std::int32_t IdOf(const std::string& text) {
  const long value = std::strtol(text.c_str(), nullptr, 10);
  return static_cast<std::int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

TextBuffer::Ref TextBuffer::Add(std::string_view text) {
  constexpr std::size_t kLimit = std::numeric_limits<std::uint32_t>::max();
  if (text.size() > kLimit - buffer_.size()) throw std::length_error("scan data too large");
  const Ref ref{static_cast<std::uint32_t>(buffer_.size()),
                static_cast<std::uint32_t>(text.size())};
  buffer_.append(text);
  return ref;
}

void TextBuffer::Clear() { std::string().swap(buffer_); }

// ---- PendingInstance.

void PendingInstance::Set(std::int32_t propertyId, std::string_view value) {
  for (Slot& slot : entries_) {
    if (slot.propertyId == propertyId) {
      slot.value = texts_.Add(value);
      return;
    }
  }
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, propertyId).ptr;
  const std::string_view key(digits, static_cast<std::size_t>(end - digits));
  const TextBuffer::Ref keyRef = texts_.Add(key);
  entries_.push_back({propertyId, keyRef, texts_.Add(value)});
}

InstanceEntry PendingInstance::operator[](std::size_t i) const {
  return {texts_.View(entries_[i].key), texts_.View(entries_[i].value)};
}

std::optional<std::string_view> PendingInstance::Find(std::string_view key) const {
  for (const Slot& slot : entries_) {
    if (texts_.View(slot.key) == key) return texts_.View(slot.value);
  }
  return std::nullopt;
}

void PendingInstance::Clear() {
  // The storage is kept: the next instance is gathered in the same place.
  entries_.clear();
  texts_.Reset();
}

// ---- ScanData::Instance.

InstanceEntry ScanData::Instance::operator[](std::size_t i) const {
  const Entry& entry = data_->entries_[begin_ + i];
  return {data_->texts_.View(entry.key), data_->texts_.View(entry.value)};
}

std::optional<std::string_view> ScanData::Instance::Find(std::string_view key,
                                                         std::size_t hint) const {
  if (hint < count_) {
    const InstanceEntry entry = (*this)[hint];
    if (entry.key == key) return entry.value;
  }
  for (std::size_t i = 0; i < count_; ++i) {
    const InstanceEntry entry = (*this)[i];
    if (entry.key == key) return entry.value;
  }
  return std::nullopt;
}

std::string ScanData::Instance::Description() const {
  // PlistValue::Description of a dictionary of texts at depth 0.
  std::string text;
  std::size_t size = 2;
  for (std::size_t i = 0; i < count_; ++i) {
    const InstanceEntry entry = (*this)[i];
    size += entry.key.size() + entry.value.size() + 16;  // indent, " = ", ";\n", quotes
  }
  text.reserve(size);
  text = "{\n";
  for (std::size_t i = 0; i < count_; ++i) {
    const InstanceEntry entry = (*this)[i];
    text += "    ";
    AppendDescriptionText(text, entry.key);
    text += " = ";
    AppendDescriptionText(text, entry.value);
    text += ";\n";
  }
  text += '}';
  return text;
}

PlistPtr ScanData::Instance::ToPlist() const {
  PlistPtr dictionary = PlistValue::MakeDictionary();
  for (std::size_t i = 0; i < count_; ++i) {
    const InstanceEntry entry = (*this)[i];
    dictionary->SetValueForKey(entry.key, PlistValue::MakeString(std::string(entry.value)));
  }
  return dictionary;
}

// ---- ScanData.

void ScanData::AddClass(std::string_view classKey) {
  for (const Class& existing : classes_) {
    if (existing.key == classKey) return;
  }
  classes_.push_back({std::string(classKey), {}});
}

void ScanData::AddInstance(std::string_view classKey, std::span<const InstanceEntry> entries) {
  Class* target = nullptr;
  // Instances of one class come in runs: the class filed last is the likely one.
  for (auto it = classes_.rbegin(); it != classes_.rend(); ++it) {
    if (it->key == classKey) {
      target = &*it;
      break;
    }
  }
  if (target == nullptr) {
    classes_.push_back({std::string(classKey), {}});
    target = &classes_.back();
  }
  const auto begin = static_cast<std::uint32_t>(entries_.size());
  for (const InstanceEntry& entry : entries) {
    const TextBuffer::Ref key = texts_.Add(entry.key);
    entries_.push_back({key, texts_.Add(entry.value)});
  }
  last_ = {begin, static_cast<std::uint32_t>(entries.size())};
  target->instances.push_back(last_);
}

ScanData::Instance ScanData::InstanceAt(std::size_t classIndex, std::size_t i) const {
  const Span span = classes_[classIndex].instances[i];
  return Instance(this, span.begin, span.count);
}

ScanData::Instance ScanData::LastFiled() const { return Instance(this, last_.begin, last_.count); }

PlistPtr ScanData::ToPlist() const {
  PlistPtr scanData = PlistValue::MakeDictionary();
  for (std::size_t c = 0; c < classes_.size(); ++c) {
    PlistPtr instances = PlistValue::MakeArray();
    for (std::size_t i = 0; i < InstanceCount(c); ++i) instances->Append(InstanceAt(c, i).ToPlist());
    scanData->SetValueForKey(classes_[c].key, std::move(instances));
  }
  return scanData;
}

std::optional<ScanData> ScanData::FromPlist(const PlistValue& scanData) {
  if (!scanData.IsDictionary()) return std::nullopt;
  ScanData result;
  std::vector<InstanceEntry> entries;
  for (const auto& [classKey, instances] : scanData.Entries()) {
    if (!instances->IsArray()) return std::nullopt;
    for (const PlistPtr& instance : instances->Elements()) {
      if (!instance->IsDictionary()) return std::nullopt;
      entries.clear();
      for (const auto& [key, value] : instance->Entries()) {
        if (!value->IsString()) return std::nullopt;
        entries.push_back({key, value->String()});
      }
      result.AddInstance(classKey, entries);
    }
    // A class with no instances still has its key.
    if (instances->Count() == 0) result.AddClass(classKey);
  }
  return result;
}

void ScanData::Clear() { *this = ScanData(); }

}  // namespace tarn
