#include "platform/plist/plist_binary_reader.h"

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "platform/plist/plist_io.h"
#include "platform/plist/plist_nesting.h"
#include "platform/text/utf8.h"

namespace tarn {
namespace {

struct CFree {
  void operator()(void* memory) const { std::free(memory); }
};
using MallocText = std::unique_ptr<char, CFree>;

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using OwnedPlist = std::unique_ptr<void, PlistFree>;

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

// What a binary property list of that size may expand to. Values: about what the bytes
// could hold without shared containers (every reference takes at least one byte). String
// and data content: sixteen times the size and a mebibyte, far beyond any tool's report.
BinaryPlistLimits BinaryLimitsFor(std::size_t size) {
  return {kMaxPlistDepth, 2 * std::uint64_t{size} + 1024, 16 * std::uint64_t{size} + (1U << 20)};
}

}  // namespace

PlistPtr ReadBinaryPlist(std::string_view bytes) {
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  if (!BinaryNestingWithin(bytes, BinaryLimitsFor(bytes.size()))) return nullptr;
  plist_t raw = nullptr;
  plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
  const OwnedPlist root(raw);
  return PlistFromLibplistTree(root.get());
}

PlistPtr PlistFromLibplistTree(void* root) {
  return FromNode(static_cast<plist_t>(root), 1);
}

}  // namespace tarn
