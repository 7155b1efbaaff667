#include "platform/plist/plist_io.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>

#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/plist/plist_nesting.h"
#include "platform/text/utf8.h"

namespace tarn {
namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using OwnedPlist = std::unique_ptr<void, PlistFree>;

struct CFree {
  void operator()(void* memory) const { std::free(memory); }
};
using MallocText = std::unique_ptr<char, CFree>;

constexpr std::string_view kUtf8ByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBinaryMagic = "bplist00";
constexpr const char* kWriteError = "PlistWriteException";

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

OwnedPlist ParseWithLibplist(std::string_view bytes) {
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  plist_t root = nullptr;
  const auto length = static_cast<std::uint32_t>(bytes.size());
  if (bytes.starts_with(kBinaryMagic)) {
    if (!BinaryNestingWithin(bytes, kMaxPlistDepth)) return nullptr;
    plist_from_bin(bytes.data(), length, &root);
  } else {
    if (!IsValidUtf8(bytes) || !XmlNestingWithin(bytes, kMaxPlistDepth)) return nullptr;
    plist_from_xml(bytes.data(), length, &root);
  }
  return OwnedPlist(root);
}

// ---- PlistValue -> libplist tree. Raises where the value cannot be written faithfully.

plist_t NewNode(const PlistValue& value, int depth);

void RequireWritableText(const std::string& text) {
  if (!IsValidUtf8(text)) throw PlatformException(kWriteError, "text is not valid UTF-8");
  if (text.find('\0') != std::string::npos) {
    throw PlatformException(kWriteError, "text holds a NUL character");
  }
}

plist_t NewDictionaryNode(const PlistValue& value, int depth) {
  OwnedPlist node(plist_new_dict());
  for (const auto& [key, child] : value.Entries()) {
    RequireWritableText(key);
    plist_dict_set_item(node.get(), key.c_str(), NewNode(*child, depth + 1));
  }
  return node.release();
}

plist_t NewArrayNode(const PlistValue& value, int depth) {
  OwnedPlist node(plist_new_array());
  for (const auto& child : value.Elements())
    plist_array_append_item(node.get(), NewNode(*child, depth + 1));
  return node.release();
}

plist_t NewIntegerNode(const PlistValue& value) {
  // libplist prints every integer as signed; an unsigned value above INT64_MAX would come out
  // negative.
  if (value.IsUnsignedInteger() && *value.AsUnsigned() > static_cast<std::uint64_t>(INT64_MAX)) {
    throw PlatformException(kWriteError, "unsigned integer above INT64_MAX");
  }
  return plist_new_uint(*value.AsUnsigned());
}

plist_t NewDateNode(const PlistValue& value) {
  const double seconds = *value.AsDate();
  const double whole = std::floor(seconds);
  if (!(whole >= std::numeric_limits<std::int32_t>::min() &&
        whole <= std::numeric_limits<std::int32_t>::max())) {
    throw PlatformException(kWriteError, "date outside the range of the property-list writer");
  }
  auto microseconds = static_cast<std::int32_t>(std::lround((seconds - whole) * 1e6));
  if (microseconds >= 1000000) microseconds = 999999;
  return plist_new_date(static_cast<std::int32_t>(whole), microseconds);
}

plist_t NewNode(const PlistValue& value, int depth) {
  if (depth > kMaxPlistDepth) throw PlatformException(kWriteError, "nesting too deep");
  switch (value.type()) {
    case PlistType::kDictionary:
      return NewDictionaryNode(value, depth);
    case PlistType::kArray:
      return NewArrayNode(value, depth);
    case PlistType::kString:
      RequireWritableText(value.String());
      return plist_new_string(value.String().c_str());
    case PlistType::kInteger:
      return NewIntegerNode(value);
    case PlistType::kReal:
      return plist_new_real(*value.AsReal());
    case PlistType::kBoolean:
      return plist_new_bool(*value.AsBoolean() ? 1 : 0);
    case PlistType::kDate:
      return NewDateNode(value);
    case PlistType::kData: {
      const auto& bytes = value.Data();
      return plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
  }
  throw PlatformException(kWriteError, "unknown value kind");
}

}  // namespace

PlistPtr ParsePlist(std::string_view bytes) {
  if (bytes.starts_with(kUtf8ByteOrderMark)) bytes.remove_prefix(kUtf8ByteOrderMark.size());
  if (bytes.empty()) return nullptr;
  const OwnedPlist root = ParseWithLibplist(bytes);
  if (!root) return nullptr;
  return FromNode(root.get(), 1);
}

PlistPtr ReadPlistFile(const std::string& path) {
  const auto content = ReadWholeFile(path);
  if (!content) return nullptr;
  return ParsePlist(*content);
}

std::string ToXmlPlist(const PlistValue& value) {
  const OwnedPlist root(NewNode(value, 1));
  char* rawXml = nullptr;  // libplist writes nothing unless this is null on entry
  std::uint32_t length = 0;
  plist_to_xml(root.get(), &rawXml, &length);
  const MallocText xml(rawXml);
  if (!xml) throw PlatformException(kWriteError, "libplist produced no XML");
  return std::string(xml.get(), length);
}

namespace {

// umask can only be read by setting it; the process is single-threaded.
mode_t CurrentFileCreationMask() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, std::string_view bytes) {
  std::string temporary = path + ".XXXXXX";
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) return false;
  // mkstemp creates the file 0600; give it the mode a plain create would, so the
  // process's file-creation mask decides (the scanner runs with 077).
  const bool written =
      ::fchmod(fd, 0666 & ~CurrentFileCreationMask()) == 0 && WriteAll(fd, bytes) && ::fsync(fd) == 0;
  const bool closed = ::close(fd) == 0;
  if (!written || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace tarn
