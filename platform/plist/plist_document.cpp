#include "platform/plist/plist_document.h"

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "platform/plist/plist_nesting.h"
#include "platform/plist/plist_xml_reader.h"
#include "platform/text/utf8.h"

namespace tarn {
namespace {

struct CFree {
  void operator()(void* memory) const { std::free(memory); }
};
using MallocText = std::unique_ptr<char, CFree>;

constexpr std::string_view kUtf8ByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBinaryMagic = "bplist00";

// ---- libplist tree -> PlistValue. Gives absent for anything that has no faithful reading.

PlistPtr FromNode(plist_t node, int depth);

PlistPtr DictionaryFromNode(plist_t node, int depth) {
  auto dictionary = PlistValue::MakeDictionary();
  plist_dict_iter rawIterator = nullptr;
  plist_dict_new_iter(node, &rawIterator);
  const std::unique_ptr<void, CFree> iterator(rawIterator);
  for (;;) {
    char* rawKey = nullptr;
    plist_t child = nullptr;
    plist_dict_next_item(node, iterator.get(), &rawKey, &child);
    const MallocText key(rawKey);
    if (child == nullptr) break;
    if (!key || !IsValidUtf8(key.get())) return nullptr;
    PlistPtr value = FromNode(child, depth + 1);
    if (!value) return nullptr;
    dictionary->SetValueForKey(key.get(), std::move(value));
  }
  return dictionary;
}

PlistPtr ArrayFromNode(plist_t node, int depth) {
  auto array = PlistValue::MakeArray();
  const std::uint32_t size = plist_array_get_size(node);
  for (std::uint32_t i = 0; i < size; ++i) {
    PlistPtr element = FromNode(plist_array_get_item(node, i), depth + 1);
    if (!element) return nullptr;
    array->Append(std::move(element));
  }
  return array;
}

PlistPtr StringFromNode(plist_t node) {
  char* raw = nullptr;
  plist_get_string_val(node, &raw);
  const MallocText text(raw);
  if (!text || !IsValidUtf8(text.get())) return nullptr;
  return PlistValue::MakeString(text.get());
}

PlistPtr DataFromNode(plist_t node) {
  std::uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(node, &length);
  if (bytes == nullptr || length == 0) return PlistValue::MakeData({});
  const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
  return PlistValue::MakeData(std::vector<std::uint8_t>(begin, begin + length));
}

PlistPtr FromNode(plist_t node, int depth) {
  if (node == nullptr || depth > kMaxPlistDepth) return nullptr;
  switch (plist_get_node_type(node)) {
    case PLIST_DICT:
      return DictionaryFromNode(node, depth);
    case PLIST_ARRAY:
      return ArrayFromNode(node, depth);
    case PLIST_STRING:
      return StringFromNode(node);
    case PLIST_DATA:
      return DataFromNode(node);
    case PLIST_BOOLEAN: {
      std::uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return PlistValue::MakeBoolean(flag != 0);
    }
    case PLIST_UINT: {
      std::uint64_t bits = 0;
      plist_get_uint_val(node, &bits);
      return PlistValue::MakeInteger(static_cast<std::int64_t>(bits));
    }
    case PLIST_REAL: {
      double real = 0;
      plist_get_real_val(node, &real);
      return PlistValue::MakeReal(real);
    }
    case PLIST_DATE: {
      std::int32_t seconds = 0;
      std::int32_t microseconds = 0;
      plist_get_date_val(node, &seconds, &microseconds);
      return PlistValue::MakeDate(static_cast<double>(seconds) + microseconds / 1e6);
    }
    default:
      return nullptr;  // keys out of place, UIDs, unknown kinds
  }
}

// ---- Checking a tree in place: true exactly when FromNode would give a value.

bool HasPlistValueKind(plist_type type) {
  switch (type) {
    case PLIST_DICT:
    case PLIST_ARRAY:
    case PLIST_STRING:
    case PLIST_DATA:
    case PLIST_BOOLEAN:
    case PLIST_UINT:
    case PLIST_REAL:
    case PLIST_DATE:
      return true;
    default:
      return false;
  }
}

// The text of a string node up to its first NUL, as plist_get_string_val copies it.
std::string_view StringOf(plist_t node) {
  const char* text = plist_get_string_ptr(node, nullptr);
  return text == nullptr ? std::string_view() : std::string_view(text);
}

// Walks the tree with an explicit stack. With checkText, keys and strings must be UTF-8 (the
// caller skips that when the input cannot hold anything else).
bool Convertible(plist_t root, bool checkText) {
  std::vector<std::pair<plist_t, int>> pending = {{root, 1}};
  while (!pending.empty()) {
    const auto [node, depth] = pending.back();
    pending.pop_back();
    if (node == nullptr || depth > kMaxPlistDepth) return false;
    const plist_type type = plist_get_node_type(node);
    if (!HasPlistValueKind(type)) return false;
    if (type == PLIST_STRING && checkText && !IsValidUtf8(StringOf(node))) return false;
    if (type == PLIST_ARRAY) {
      const std::uint32_t size = plist_array_get_size(node);
      for (std::uint32_t i = 0; i < size; ++i) {
        pending.emplace_back(plist_array_get_item(node, i), depth + 1);
      }
    } else if (type == PLIST_DICT) {
      plist_dict_iter rawIterator = nullptr;
      plist_dict_new_iter(node, &rawIterator);
      const std::unique_ptr<void, CFree> iterator(rawIterator);
      for (;;) {
        char* rawKey = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, iterator.get(), checkText ? &rawKey : nullptr, &child);
        const MallocText key(rawKey);
        if (child == nullptr) break;
        if (checkText && (!key || !IsValidUtf8(key.get()))) return false;
        pending.emplace_back(child, depth + 1);
      }
    }
  }
  return true;
}

// What a binary property list of that size may expand to. Values: about what the bytes
// could hold without shared containers (every reference takes at least one byte). String
// and data content: sixteen times the size and a mebibyte, far beyond any tool's report.
BinaryPlistLimits BinaryLimitsFor(std::size_t size) {
  return {kMaxPlistDepth, 2 * std::uint64_t{size} + 1024, 16 * std::uint64_t{size} + (1U << 20)};
}

plist_t ParseWithLibplist(std::string_view bytes) {
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  plist_t root = nullptr;
  const auto length = static_cast<std::uint32_t>(bytes.size());
  if (bytes.starts_with(kBinaryMagic)) {
    if (!BinaryNestingWithin(bytes, BinaryLimitsFor(bytes.size()))) {
      return nullptr;
    }
    plist_from_bin(bytes.data(), length, &root);
  } else {
    // A NUL byte is not XML; libplist asserts on one inside a text.
    if (!IsValidUtf8(bytes) || bytes.find('\0') != std::string_view::npos) return nullptr;
    root = static_cast<plist_t>(ReadXmlPlist(bytes, kMaxPlistDepth));
  }
  return root;
}

PlistType KindOf(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_DICT:
      return PlistType::kDictionary;
    case PLIST_ARRAY:
      return PlistType::kArray;
    case PLIST_STRING:
      return PlistType::kString;
    case PLIST_UINT:
      return PlistType::kInteger;
    case PLIST_REAL:
      return PlistType::kReal;
    case PLIST_BOOLEAN:
      return PlistType::kBoolean;
    case PLIST_DATE:
      return PlistType::kDate;
    default:
      return PlistType::kData;
  }
}

}  // namespace

// ---- PlistDocument.

std::unique_ptr<PlistDocument> PlistDocument::ParseUnchecked(std::string_view bytes) {
  if (bytes.starts_with(kUtf8ByteOrderMark)) bytes.remove_prefix(kUtf8ByteOrderMark.size());
  if (bytes.empty()) return nullptr;
  plist_t root = ParseWithLibplist(bytes);
  if (root == nullptr) return nullptr;
  return std::unique_ptr<PlistDocument>(new PlistDocument(root));
}

std::unique_ptr<PlistDocument> PlistDocument::Parse(std::string_view bytes) {
  std::unique_ptr<PlistDocument> document = ParseUnchecked(bytes);
  if (!document) return nullptr;
  // XML that passed the UTF-8 check yields UTF-8 texts, unless a numeric character
  // reference makes one (a lone surrogate, say); binary texts are converted by libplist.
  if (bytes.starts_with(kUtf8ByteOrderMark)) bytes.remove_prefix(kUtf8ByteOrderMark.size());
  const bool checkText =
      bytes.starts_with(kBinaryMagic) || bytes.find("&#") != std::string_view::npos;
  if (!Convertible(static_cast<plist_t>(document->root_), checkText)) return nullptr;
  return document;
}

PlistDocument::~PlistDocument() { plist_free(static_cast<plist_t>(root_)); }

// ---- PlistNode.

PlistType PlistNode::type() const { return KindOf(static_cast<plist_t>(node_)); }

PlistPtr PlistNode::ToValue() const {
  return node_ == nullptr ? nullptr : FromNode(static_cast<plist_t>(node_), 1);
}

PlistNode ValueForKey(const PlistNode& dictionary, std::string_view key) {
  PlistNode value;
  const std::string wanted(key);
  const char* const keys[] = {wanted.c_str()};
  ValuesForKeys(dictionary, keys, std::span(&value, 1));
  return value;
}

void ValuesForKeys(const PlistNode& dictionary, std::span<const char* const> keys,
                   std::span<PlistNode> values) {
  for (PlistNode& value : values) value = PlistNode();
  if (!dictionary) return;
  const auto node = static_cast<plist_t>(dictionary.node_);
  if (plist_get_node_type(node) != PLIST_DICT) RaiseWrongKind(dictionary.type(), "objectForKey:");
  // The last of repeated keys, as a dictionary built entry by entry keeps it.
  plist_dict_iter rawIterator = nullptr;
  plist_dict_new_iter(node, &rawIterator);
  const std::unique_ptr<void, CFree> iterator(rawIterator);
  for (;;) {
    plist_t child = nullptr;
    plist_dict_next_item(node, iterator.get(), nullptr, &child);
    if (child == nullptr) break;
    const plist_t entryKey = plist_dict_item_get_key(child);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (plist_key_val_compare(entryKey, keys[i]) == 0) values[i] = PlistNode(child);
    }
  }
}

PlistNode ObjectAtIndex(const PlistNode& array, std::size_t index) {
  if (!array) return PlistNode();
  const auto node = static_cast<plist_t>(array.node_);
  if (plist_get_node_type(node) != PLIST_ARRAY) RaiseWrongKind(array.type(), "objectAtIndex:");
  const std::size_t size = plist_array_get_size(node);
  if (index >= size) RaiseOutOfRange(index, size);
  return PlistNode(plist_array_get_item(node, static_cast<std::uint32_t>(index)));
}

std::size_t Count(const PlistNode& container) {
  if (!container) return 0;
  const auto node = static_cast<plist_t>(container.node_);
  switch (plist_get_node_type(node)) {
    case PLIST_DICT:
      return plist_dict_get_size(node);
    case PLIST_ARRAY:
      return plist_array_get_size(node);
    default:
      RaiseWrongKind(container.type(), "count");
  }
}

std::optional<std::string> TextOf(const PlistNode& value) {
  if (!value) return std::nullopt;
  const auto node = static_cast<plist_t>(value.node_);
  switch (plist_get_node_type(node)) {
    case PLIST_STRING:
      return std::string(StringOf(node));
    case PLIST_UINT: {
      std::uint64_t bits = 0;
      plist_get_uint_val(node, &bits);
      return std::to_string(static_cast<std::int64_t>(bits));
    }
    default:
      return TextOf(value.ToValue());
  }
}

}  // namespace tarn
