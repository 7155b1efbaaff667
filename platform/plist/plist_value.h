#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace tarn {

class PlistValue;

// A property-list node is shared, as the platform's own containers are: a dictionary taken
// out of a parent and changed is changed in the parent too. "Absent" is a null pointer.
// Containers must not be made to hold themselves (directly or through children).
using PlistPtr = std::shared_ptr<PlistValue>;

enum class PlistType { kDictionary, kArray, kString, kInteger, kReal, kBoolean, kDate, kData };

// One value of a property list: dictionary (text keys in insertion order), array, UTF-8 text,
// signed or unsigned 64-bit integer, real, Boolean, date, or data.
//
// Container operations on a value of another kind raise PlatformException (the platform's
// "unrecognized selector"), as do reads of an array past its end and putting an absent value
// where the container forbids it. Reading a missing key is not an error: it gives absent.
class PlistValue {
 public:
  using Entry = std::pair<std::string, PlistPtr>;

  static PlistPtr MakeDictionary();
  static PlistPtr MakeArray();
  static PlistPtr MakeArray(std::vector<PlistPtr> elements);  // raises on an absent element
  static PlistPtr MakeString(std::string text);
  static PlistPtr MakeInteger(std::int64_t value);
  static PlistPtr MakeUnsigned(std::uint64_t value);
  static PlistPtr MakeReal(double value);
  static PlistPtr MakeBoolean(bool value);
  // A date as seconds since 2001-01-01 00:00:00 UTC (the property-list reference date).
  static PlistPtr MakeDate(double secondsSinceReferenceDate);
  static PlistPtr MakeData(std::vector<std::uint8_t> bytes);

  PlistType type() const noexcept { return type_; }
  bool IsDictionary() const noexcept { return type_ == PlistType::kDictionary; }
  bool IsArray() const noexcept { return type_ == PlistType::kArray; }
  bool IsString() const noexcept { return type_ == PlistType::kString; }
  bool IsInteger() const noexcept { return type_ == PlistType::kInteger; }
  bool IsReal() const noexcept { return type_ == PlistType::kReal; }
  bool IsBoolean() const noexcept { return type_ == PlistType::kBoolean; }
  bool IsDate() const noexcept { return type_ == PlistType::kDate; }
  bool IsData() const noexcept { return type_ == PlistType::kData; }
  // True for an integer made unsigned (MakeUnsigned); such values print without a sign.
  bool IsUnsignedInteger() const noexcept;

  // ---- Scalars. The As* readers give nothing for a value of another kind.
  std::optional<std::string> AsString() const;
  // Integers as signed (an unsigned value above INT64_MAX wraps) and reals truncated.
  std::optional<std::int64_t> AsInteger() const;
  // Integers as unsigned (a negative value wraps) and non-negative reals truncated.
  std::optional<std::uint64_t> AsUnsigned() const;
  // Integers and reals as double.
  std::optional<double> AsReal() const;
  std::optional<bool> AsBoolean() const;
  std::optional<double> AsDate() const;  // seconds since 2001-01-01 UTC
  // The text of a string value; raises for any other kind.
  const std::string& String() const;
  // The bytes of a data value; raises for any other kind.
  const std::vector<std::uint8_t>& Data() const;

  // ---- Both containers.
  // Number of entries of a dictionary or elements of an array; raises for scalars.
  std::size_t Count() const;

  // ---- Dictionary.
  // The value for the key, or absent when the key is not there.
  PlistPtr ValueForKey(std::string_view key) const;
  // Puts the value under the key; an absent value removes the key instead. A new key goes to
  // the end; an existing key keeps its place.
  void SetValueForKey(std::string_view key, PlistPtr value);
  // Like SetValueForKey, but an absent value raises (NSInvalidArgumentException).
  void SetObjectForKey(std::string_view key, PlistPtr value);
  // Removes the key; true when it was there.
  bool RemoveKey(std::string_view key);
  // Entries in insertion order.
  const std::vector<Entry>& Entries() const;
  std::vector<std::string> Keys() const;

  // ---- Array.
  // Element i; raises NSRangeException past the end.
  PlistPtr ObjectAtIndex(std::size_t index) const;
  // Appends the element; an absent element raises.
  void Append(PlistPtr element);
  // Removes element i; raises past the end.
  void RemoveAtIndex(std::size_t index);
  const std::vector<PlistPtr>& Elements() const;
  // True when an element equal to the value (operator==) is present.
  bool ContainsEqual(const PlistValue& value) const;

  // A deep copy: no container of the copy is shared with the original.
  PlistPtr Clone() const;

  // Deep equality. Integers compare by numeric value whatever their signedness.
  friend bool operator==(const PlistValue& left, const PlistValue& right);

  // A readable multi-line rendering for logs, in the platform's description style:
  // {\n    key = value;\n}, (\n    a,\n    b\n), texts quoted when they need it.
  std::string Description() const;

  // Use the Make* functions.
  struct PrivateTag {};
  PlistValue(PrivateTag, PlistType type);

 private:
  struct Integer {
    std::uint64_t bits = 0;
    bool isUnsigned = false;
  };
  struct DateSeconds {
    double sinceReferenceDate = 0;
  };
  // Entries in insertion order. Small dictionaries (most are: instances, settings) are
  // searched in place; from kIndexedEntries on, a map from key to position is kept as well.
  struct Dictionary {
    static constexpr std::size_t kIndexedEntries = 24;
    std::vector<Entry> entries;
    // Views the entries' own key strings: rebuilt whenever the entries move.
    std::unique_ptr<std::unordered_map<std::string_view, std::size_t>> positions;

    Dictionary() = default;
    Dictionary(const Dictionary& other) : entries(other.entries) { Reindex(); }
    Dictionary& operator=(const Dictionary& other) {
      entries = other.entries;
      Reindex();
      return *this;
    }
    Dictionary(Dictionary&&) noexcept = default;
    Dictionary& operator=(Dictionary&&) noexcept = default;

    std::optional<std::size_t> Find(std::string_view key) const;
    void Append(std::string_view key, PlistPtr value);
    void Erase(std::size_t position);
    void Reindex();
  };
  using Storage = std::variant<std::monostate, Dictionary, std::vector<PlistPtr>, std::string,
                               Integer, double, bool, DateSeconds, std::vector<std::uint8_t>>;

  Dictionary& MutableDictionary();
  const Dictionary& DictionaryStorage() const;
  std::vector<PlistPtr>& MutableArray();
  const std::vector<PlistPtr>& ArrayStorage() const;
  void DescribeInto(std::string& out, int depth) const;

  PlistType type_;
  Storage storage_;
};

// Message-to-nil helpers for reading parsed trees, as collector code reads them: an absent
// value gives absent, a value of the wrong kind raises, a missing key gives absent, and an
// index past the end raises.
PlistPtr ValueForKey(const PlistPtr& dictionary, std::string_view key);
PlistPtr ObjectAtIndex(const PlistPtr& array, std::size_t index);
// Count of a container; 0 for absent.
std::size_t Count(const PlistPtr& container);
// The text a value prints as in a message: a text as it is, an integer in decimal (unsigned
// ones without a sign), anything else in its Description; absent for absent.
std::optional<std::string> TextOf(const PlistPtr& value);

// Appends a text as Description writes one: as it is when it is made only of letters, digits
// and "_.$/:-", otherwise in double quotes with \", \\, \n and \t escaped.
void AppendDescriptionText(std::string& out, std::string_view text);

// Seconds between 1970-01-01 and 2001-01-01 (UTC).
inline constexpr double kSecondsFrom1970To2001 = 978307200.0;

}  // namespace tarn
