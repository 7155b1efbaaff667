// This scan's instances (invScanData) and the instance being gathered (propertyDict), in a
// compact form: every text of an instance lives in one shared buffer and an entry is a pair
// of offsets, so recording a value costs no allocation of its own and the whole scan is
// released at once. Both read as the property-list dictionaries they stand for: class id
// text to the array of instance dictionaries (property id text to value text, then "KEY").
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/plist/plist_value.h"

namespace tarn {

// The entry of a filed instance that holds its difference key.
inline constexpr std::string_view kInstanceKey = "KEY";

// The installed-software class, whose difference entries are grouped.
inline constexpr std::int32_t kSoftwareClassId = 18;

// A class id as the scan data names it: decimal text.
std::string ClassKey(std::int32_t classId);

// An id text (class or property) read as an integer: leading digits after an optional sign,
// 0 without any, clamped to the 32-bit range.
std::int32_t IdOf(const std::string& text);

// One dictionary entry of an instance: key text and value text.
struct InstanceEntry {
  std::string_view key;
  std::string_view value;
};

// Texts kept one after the other in one buffer; a text is named by where it starts and how
// long it is, which stays true when the buffer grows.
class TextBuffer {
 public:
  struct Ref {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
  };
  // Raises std::length_error past 4 GiB of text.
  Ref Add(std::string_view text);
  std::string_view View(Ref ref) const { return {buffer_.data() + ref.offset, ref.length}; }
  // Forgets every text, keeping the storage.
  void Reset() { buffer_.clear(); }
  // Forgets every text and releases the storage.
  void Clear();

 private:
  std::string buffer_;
};

// The instance being gathered: property ids in the order first recorded, each with its
// latest value.
class PendingInstance {
 public:
  // Sets the property's value; a property recorded again keeps its place.
  void Set(std::int32_t propertyId, std::string_view value);
  std::size_t size() const { return entries_.size(); }
  InstanceEntry operator[](std::size_t i) const;
  std::optional<std::string_view> Find(std::string_view key) const;
  // Empties it; the storage is kept for the next instance.
  void Clear();

 private:
  struct Slot {
    std::int32_t propertyId;
    TextBuffer::Ref key;
    TextBuffer::Ref value;
  };
  TextBuffer texts_;
  std::vector<Slot> entries_;
};

class ScanData {
 public:
  // A filed instance. It views the scan data: valid until its next change.
  class Instance {
   public:
    std::size_t size() const { return count_; }
    InstanceEntry operator[](std::size_t i) const;
    // The value of the key, or nothing. The entry at `hint` is looked at first (instances of
    // one class list their keys in the same order).
    std::optional<std::string_view> Find(std::string_view key, std::size_t hint = 0) const;
    // The dictionary's text as PlistValue::Description writes it.
    std::string Description() const;
    // The same instance as a new property-list dictionary.
    PlistPtr ToPlist() const;

   private:
    friend class ScanData;
    Instance(const ScanData* data, std::uint32_t begin, std::uint32_t count)
        : data_(data), begin_(begin), count_(count) {}
    const ScanData* data_;
    std::uint32_t begin_;
    std::uint32_t count_;
  };

  // Appends an instance to the class (a class first filed goes after the others). The texts
  // are copied.
  void AddInstance(std::string_view classKey, std::span<const InstanceEntry> entries);
  // Appends a class without instances (nothing when the class is there already).
  void AddClass(std::string_view classKey);

  std::size_t ClassCount() const { return classes_.size(); }
  const std::string& ClassKey(std::size_t classIndex) const { return classes_[classIndex].key; }
  std::size_t InstanceCount(std::size_t classIndex) const {
    return classes_[classIndex].instances.size();
  }
  Instance InstanceAt(std::size_t classIndex, std::size_t i) const;
  // The instance filed last; the scan data must not be empty.
  Instance LastFiled() const;

  // The scan data as a property-list dictionary (class id text to array of instances).
  PlistPtr ToPlist() const;
  // The instances of a dictionary of arrays of text dictionaries; nothing for any other shape.
  static std::optional<ScanData> FromPlist(const PlistValue& scanData);

  // Releases everything.
  void Clear();

 private:
  struct Span {
    std::uint32_t begin;
    std::uint32_t count;
  };
  struct Class {
    std::string key;
    std::vector<Span> instances;
  };
  struct Entry {
    TextBuffer::Ref key;
    TextBuffer::Ref value;
  };

  TextBuffer texts_;
  std::vector<Entry> entries_;
  std::vector<Class> classes_;
  Span last_{0, 0};
};

}  // namespace tarn
