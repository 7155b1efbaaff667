#include "platform/plist/plist_value.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

#include "platform/exception/platform_exception.h"

namespace tarn {
namespace {

const char* TypeWord(PlistType type) {
  switch (type) {
    case PlistType::kDictionary:
      return "dictionary";
    case PlistType::kArray:
      return "array";
    case PlistType::kString:
      return "string";
    case PlistType::kInteger:
      return "integer";
    case PlistType::kReal:
      return "real";
    case PlistType::kBoolean:
      return "Boolean";
    case PlistType::kDate:
      return "date";
    case PlistType::kData:
      return "data";
  }
  return "value";
}


[[noreturn]] void RaiseAbsent(const char* operation) {
  throw PlatformException(kInvalidArgumentException,
                          std::string(operation) + ": the value is absent (nil)");
}


// The bytes a description writes without quotes: letters, digits and "_.$/:-".
constexpr std::array<bool, 256> kPlainDescriptionBytes = [] {
  std::array<bool, 256> plain{};
  for (int c = 0; c < 256; ++c) {
    plain[c] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '.' || c == '$' || c == '/' || c == ':' || c == '-';
  }
  return plain;
}();

// The escape a quoted description writes for a byte, or null for a byte written as it is.
const char* DescriptionEscape(char c) {
  switch (c) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    default:
      return nullptr;
  }
}

[[noreturn]] void RaiseWrongKind(PlistType actual, const char* operation) {
  throw PlatformException(kInvalidArgumentException,
                          std::string(operation) + " sent to a " + TypeWord(actual) + " value");
}

[[noreturn]] void RaiseOutOfRange(std::size_t index, std::size_t count) {
  throw PlatformException(kRangeException, "index " + std::to_string(index) +
                                               " beyond bounds for an array of " +
                                               std::to_string(count) + " elements");
}

}  // namespace

void AppendDescriptionText(std::string& out, std::string_view text) {
  // The plain bytes before the first other one hold nothing to escape either.
  std::size_t plainPrefix = 0;
  while (plainPrefix < text.size() &&
         kPlainDescriptionBytes[static_cast<unsigned char>(text[plainPrefix])]) {
    ++plainPrefix;
  }
  if (!text.empty() && plainPrefix == text.size()) {
    out += text;
    return;
  }
  out += '"';
  std::size_t runStart = 0;
  for (std::size_t i = plainPrefix; i < text.size(); ++i) {
    const char* escape = DescriptionEscape(text[i]);
    if (escape == nullptr) continue;
    out.append(text, runStart, i - runStart);
    out += escape;
    runStart = i + 1;
  }
  out.append(text, runStart);
  out += '"';
}

namespace {

void AppendIndent(std::string& out, int depth) {
  out.append(static_cast<std::size_t>(depth) * 4, ' ');
}

std::string ShortestReal(double value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string DateText(double secondsSinceReferenceDate) {
  const double unixSeconds = std::floor(secondsSinceReferenceDate + kSecondsFrom1970To2001);
  if (!(std::fabs(unixSeconds) < 1e15)) return "(invalid date)";
  const auto seconds = static_cast<std::time_t>(unixSeconds);
  std::tm parts{};
  if (gmtime_r(&seconds, &parts) == nullptr) return "(invalid date)";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d +0000", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return buffer;
}

}  // namespace

PlistValue::PlistValue(PrivateTag, PlistType type) : type_(type) {
  switch (type) {
    case PlistType::kDictionary:
      storage_ = Dictionary{};
      break;
    case PlistType::kArray:
      storage_ = std::vector<PlistPtr>{};
      break;
    case PlistType::kString:
      storage_ = std::string{};
      break;
    case PlistType::kInteger:
      storage_ = Integer{};
      break;
    case PlistType::kReal:
      storage_ = 0.0;
      break;
    case PlistType::kBoolean:
      storage_ = false;
      break;
    case PlistType::kDate:
      storage_ = DateSeconds{};
      break;
    case PlistType::kData:
      storage_ = std::vector<std::uint8_t>{};
      break;
  }
}

PlistPtr PlistValue::MakeDictionary() {
  return std::make_shared<PlistValue>(PrivateTag{}, PlistType::kDictionary);
}

PlistPtr PlistValue::MakeArray() {
  return std::make_shared<PlistValue>(PrivateTag{}, PlistType::kArray);
}

PlistPtr PlistValue::MakeArray(std::vector<PlistPtr> elements) {
  auto array = MakeArray();
  for (auto& element : elements) array->Append(std::move(element));
  return array;
}

PlistPtr PlistValue::MakeString(std::string text) {
  auto value = std::make_shared<PlistValue>(PrivateTag{}, PlistType::kString);
  value->storage_ = std::move(text);
  return value;
}

PlistPtr PlistValue::MakeInteger(std::int64_t number) {
  auto value = std::make_shared<PlistValue>(PrivateTag{}, PlistType::kInteger);
  value->storage_ = Integer{static_cast<std::uint64_t>(number), false};
  return value;
}

PlistPtr PlistValue::MakeUnsigned(std::uint64_t number) {
  auto value = std::make_shared<PlistValue>(PrivateTag{}, PlistType::kInteger);
  value->storage_ = Integer{number, true};
  return value;
}

PlistPtr PlistValue::MakeReal(double number) {
  auto value = std::make_shared<PlistValue>(PrivateTag{}, PlistType::kReal);
  value->storage_ = number;
  return value;
}

PlistPtr PlistValue::MakeBoolean(bool flag) {
  auto value = std::make_shared<PlistValue>(PrivateTag{}, PlistType::kBoolean);
  value->storage_ = flag;
  return value;
}

PlistPtr PlistValue::MakeDate(double secondsSinceReferenceDate) {
  auto value = std::make_shared<PlistValue>(PrivateTag{}, PlistType::kDate);
  value->storage_ = DateSeconds{secondsSinceReferenceDate};
  return value;
}

PlistPtr PlistValue::MakeData(std::vector<std::uint8_t> bytes) {
  auto value = std::make_shared<PlistValue>(PrivateTag{}, PlistType::kData);
  value->storage_ = std::move(bytes);
  return value;
}

bool PlistValue::IsUnsignedInteger() const noexcept {
  return IsInteger() && std::get<Integer>(storage_).isUnsigned;
}

std::optional<std::string> PlistValue::AsString() const {
  if (!IsString()) return std::nullopt;
  return std::get<std::string>(storage_);
}

std::optional<std::int64_t> PlistValue::AsInteger() const {
  if (IsInteger()) return static_cast<std::int64_t>(std::get<Integer>(storage_).bits);
  if (IsReal()) {
    const double real = std::get<double>(storage_);
    // Only values inside the range convert; anything else has no integer reading.
    if (real >= -9.2233720368547758e18 && real < 9.2233720368547758e18) {
      return static_cast<std::int64_t>(real);
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> PlistValue::AsUnsigned() const {
  if (IsInteger()) return std::get<Integer>(storage_).bits;
  if (IsReal()) {
    const double real = std::get<double>(storage_);
    if (real >= 0 && real < 1.8446744073709552e19) return static_cast<std::uint64_t>(real);
  }
  return std::nullopt;
}

std::optional<double> PlistValue::AsReal() const {
  if (IsReal()) return std::get<double>(storage_);
  if (IsInteger()) {
    const Integer& integer = std::get<Integer>(storage_);
    return integer.isUnsigned ? static_cast<double>(integer.bits)
                              : static_cast<double>(static_cast<std::int64_t>(integer.bits));
  }
  return std::nullopt;
}

std::optional<bool> PlistValue::AsBoolean() const {
  if (!IsBoolean()) return std::nullopt;
  return std::get<bool>(storage_);
}

std::optional<double> PlistValue::AsDate() const {
  if (!IsDate()) return std::nullopt;
  return std::get<DateSeconds>(storage_).sinceReferenceDate;
}

const std::string& PlistValue::String() const {
  if (!IsString()) RaiseWrongKind(type_, "String");
  return std::get<std::string>(storage_);
}

const std::vector<std::uint8_t>& PlistValue::Data() const {
  if (!IsData()) RaiseWrongKind(type_, "Data");
  return std::get<std::vector<std::uint8_t>>(storage_);
}

std::size_t PlistValue::Count() const {
  if (IsDictionary()) return DictionaryStorage().entries.size();
  if (IsArray()) return ArrayStorage().size();
  RaiseWrongKind(type_, "count");
}

PlistValue::Dictionary& PlistValue::MutableDictionary() {
  if (!IsDictionary()) RaiseWrongKind(type_, "setValue:forKey:");
  return std::get<Dictionary>(storage_);
}

const PlistValue::Dictionary& PlistValue::DictionaryStorage() const {
  if (!IsDictionary()) RaiseWrongKind(type_, "objectForKey:");
  return std::get<Dictionary>(storage_);
}

std::vector<PlistPtr>& PlistValue::MutableArray() {
  if (!IsArray()) RaiseWrongKind(type_, "addObject:");
  return std::get<std::vector<PlistPtr>>(storage_);
}

const std::vector<PlistPtr>& PlistValue::ArrayStorage() const {
  if (!IsArray()) RaiseWrongKind(type_, "objectAtIndex:");
  return std::get<std::vector<PlistPtr>>(storage_);
}

std::optional<std::size_t> PlistValue::Dictionary::Find(std::string_view key) const {
  if (positions) {
    const auto found = positions->find(key);
    if (found == positions->end()) return std::nullopt;
    return found->second;
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].first == key) return i;
  }
  return std::nullopt;
}

void PlistValue::Dictionary::Append(std::string_view key, PlistPtr value) {
  const bool entriesMove = entries.size() == entries.capacity();
  entries.emplace_back(std::string(key), std::move(value));
  if (positions && !entriesMove) {
    positions->emplace(entries.back().first, entries.size() - 1);
  } else if (positions || entries.size() >= kIndexedEntries) {
    Reindex();
  }
}

void PlistValue::Dictionary::Erase(std::size_t position) {
  entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position));
  if (positions) Reindex();
}

// The map's keys view the entries' own strings, so it is rebuilt whenever entries move.
void PlistValue::Dictionary::Reindex() {
  if (entries.size() < kIndexedEntries) {
    positions.reset();
    return;
  }
  auto index = std::make_unique<std::unordered_map<std::string_view, std::size_t>>();
  index->reserve(entries.size() * 2);
  for (std::size_t i = 0; i < entries.size(); ++i) index->emplace(entries[i].first, i);
  positions = std::move(index);
}

PlistPtr PlistValue::ValueForKey(std::string_view key) const {
  const Dictionary& dictionary = DictionaryStorage();
  const auto found = dictionary.Find(key);
  if (!found) return nullptr;
  return dictionary.entries[*found].second;
}

void PlistValue::SetValueForKey(std::string_view key, PlistPtr value) {
  Dictionary& dictionary = MutableDictionary();
  if (!value) {
    RemoveKey(key);
    return;
  }
  if (const auto found = dictionary.Find(key)) {
    dictionary.entries[*found].second = std::move(value);
    return;
  }
  dictionary.Append(key, std::move(value));
}

void PlistValue::SetObjectForKey(std::string_view key, PlistPtr value) {
  MutableDictionary();  // the receiver's kind is checked first, as the platform does
  if (!value) RaiseAbsent("setObject:forKey:");
  SetValueForKey(key, std::move(value));
}

bool PlistValue::RemoveKey(std::string_view key) {
  Dictionary& dictionary = MutableDictionary();
  const auto found = dictionary.Find(key);
  if (!found) return false;
  dictionary.Erase(*found);
  return true;
}

const std::vector<PlistValue::Entry>& PlistValue::Entries() const {
  return DictionaryStorage().entries;
}

std::vector<std::string> PlistValue::Keys() const {
  std::vector<std::string> keys;
  for (const auto& entry : Entries()) keys.push_back(entry.first);
  return keys;
}

PlistPtr PlistValue::ObjectAtIndex(std::size_t index) const {
  const auto& elements = ArrayStorage();
  if (index >= elements.size()) RaiseOutOfRange(index, elements.size());
  return elements[index];
}

void PlistValue::Append(PlistPtr element) {
  auto& elements = MutableArray();
  if (!element) RaiseAbsent("addObject:");
  elements.push_back(std::move(element));
}

void PlistValue::RemoveAtIndex(std::size_t index) {
  auto& elements = MutableArray();
  if (index >= elements.size()) RaiseOutOfRange(index, elements.size());
  elements.erase(elements.begin() + static_cast<std::ptrdiff_t>(index));
}

const std::vector<PlistPtr>& PlistValue::Elements() const { return ArrayStorage(); }

bool PlistValue::ContainsEqual(const PlistValue& value) const {
  for (const auto& element : ArrayStorage()) {
    if (*element == value) return true;
  }
  return false;
}

PlistPtr PlistValue::Clone() const {
  if (IsDictionary()) {
    auto copy = MakeDictionary();
    for (const auto& [key, value] : Entries()) copy->SetValueForKey(key, value->Clone());
    return copy;
  }
  if (IsArray()) {
    auto copy = MakeArray();
    for (const auto& element : Elements()) copy->Append(element->Clone());
    return copy;
  }
  auto copy = std::make_shared<PlistValue>(PrivateTag{}, type_);
  copy->storage_ = storage_;
  return copy;
}

bool operator==(const PlistValue& left, const PlistValue& right) {
  if (left.type_ != right.type_) return false;
  switch (left.type_) {
    case PlistType::kDictionary: {
      const auto& entries = left.Entries();
      if (entries.size() != right.Count()) return false;
      for (const auto& [key, value] : entries) {
        const PlistPtr other = right.ValueForKey(key);
        if (!other || !(*value == *other)) return false;
      }
      return true;
    }
    case PlistType::kArray: {
      const auto& a = left.Elements();
      const auto& b = right.Elements();
      if (a.size() != b.size()) return false;
      for (std::size_t i = 0; i < a.size(); ++i) {
        if (!(*a[i] == *b[i])) return false;
      }
      return true;
    }
    case PlistType::kInteger: {
      const auto& a = std::get<PlistValue::Integer>(left.storage_);
      const auto& b = std::get<PlistValue::Integer>(right.storage_);
      if (a.bits != b.bits) return false;
      // The same bits mean different numbers when exactly one side reads them as unsigned
      // and the top bit is set (2^64-1 against -1).
      const bool topBit = (a.bits >> 63) != 0;
      return !topBit || a.isUnsigned == b.isUnsigned;
    }
    case PlistType::kDate:
      return std::get<PlistValue::DateSeconds>(left.storage_).sinceReferenceDate ==
             std::get<PlistValue::DateSeconds>(right.storage_).sinceReferenceDate;
    case PlistType::kString:
      return std::get<std::string>(left.storage_) == std::get<std::string>(right.storage_);
    case PlistType::kReal:
      return std::get<double>(left.storage_) == std::get<double>(right.storage_);
    case PlistType::kBoolean:
      return std::get<bool>(left.storage_) == std::get<bool>(right.storage_);
    case PlistType::kData:
      return std::get<std::vector<std::uint8_t>>(left.storage_) ==
             std::get<std::vector<std::uint8_t>>(right.storage_);
  }
  return false;
}

std::string PlistValue::Description() const {
  std::string out;
  DescribeInto(out, 0);
  return out;
}

void PlistValue::DescribeInto(std::string& out, int depth) const {
  switch (type_) {
    case PlistType::kDictionary:
      out += "{\n";
      for (const auto& [key, value] : Entries()) {
        AppendIndent(out, depth + 1);
        AppendDescriptionText(out, key);
        out += " = ";
        value->DescribeInto(out, depth + 1);
        out += ";\n";
      }
      AppendIndent(out, depth);
      out += '}';
      return;
    case PlistType::kArray: {
      out += "(\n";
      const auto& elements = Elements();
      for (std::size_t i = 0; i < elements.size(); ++i) {
        AppendIndent(out, depth + 1);
        elements[i]->DescribeInto(out, depth + 1);
        out += i + 1 < elements.size() ? ",\n" : "\n";
      }
      AppendIndent(out, depth);
      out += ')';
      return;
    }
    case PlistType::kString:
      AppendDescriptionText(out, std::get<std::string>(storage_));
      return;
    case PlistType::kInteger: {
      const Integer& integer = std::get<Integer>(storage_);
      out += integer.isUnsigned ? std::to_string(integer.bits)
                                : std::to_string(static_cast<std::int64_t>(integer.bits));
      return;
    }
    case PlistType::kReal:
      out += ShortestReal(std::get<double>(storage_));
      return;
    case PlistType::kBoolean:
      out += std::get<bool>(storage_) ? "1" : "0";
      return;
    case PlistType::kDate:
      AppendDescriptionText(out, DateText(std::get<DateSeconds>(storage_).sinceReferenceDate));
      return;
    case PlistType::kData: {
      static constexpr char kHex[] = "0123456789abcdef";
      out += '<';
      for (std::uint8_t byte : std::get<std::vector<std::uint8_t>>(storage_)) {
        out += kHex[byte >> 4];
        out += kHex[byte & 0x0F];
      }
      out += '>';
      return;
    }
  }
}

PlistPtr ValueForKey(const PlistPtr& dictionary, std::string_view key) {
  if (!dictionary) return nullptr;
  return dictionary->ValueForKey(key);
}

PlistPtr ObjectAtIndex(const PlistPtr& array, std::size_t index) {
  if (!array) return nullptr;
  return array->ObjectAtIndex(index);
}

std::size_t Count(const PlistPtr& container) { return container ? container->Count() : 0; }

std::optional<std::string> TextOf(const PlistPtr& value) {
  if (!value) {
    return std::nullopt;
  }
  if (value->IsString()) {
    return value->String();
  }
  if (value->IsInteger()) {
    return value->IsUnsignedInteger() ? std::to_string(*value->AsUnsigned())
                                      : std::to_string(*value->AsInteger());
  }
  return value->Description();
}

}  // namespace tarn
