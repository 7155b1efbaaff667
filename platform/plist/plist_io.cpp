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
#include <random>

#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/plist/plist_binary_reader.h"
#include "platform/plist/plist_xml_reader.h"
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

constexpr const char* kWriteError = "PlistWriteException";
constexpr std::string_view kUtf8ByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBinaryMagic = "bplist00";

// ---- PlistValue -> libplist tree. Raises where the value cannot be written faithfully.

plist_t NewNode(const PlistValue& value, int depth);

plist_t NewDictionaryNode(const PlistValue& value, int depth) {
  OwnedPlist node(plist_new_dict());
  for (const auto& [key, child] : value.Entries()) {
    RequirePlistWritableText(key);
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
      RequirePlistWritableText(value.String());
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

void RequirePlistWritableText(std::string_view text) {
  if (!IsValidUtf8(text)) throw PlatformException(kWriteError, "text is not valid UTF-8");
  if (text.find('\0') != std::string_view::npos) {
    throw PlatformException(kWriteError, "text holds a NUL character");
  }
}

PlistPtr ParsePlist(std::string_view bytes) {
  if (bytes.starts_with(kUtf8ByteOrderMark)) bytes.remove_prefix(kUtf8ByteOrderMark.size());
  if (bytes.empty()) return nullptr;
  if (bytes.starts_with(kBinaryMagic)) return ReadBinaryPlist(bytes);
  // A NUL byte is not XML.
  if (!IsValidUtf8(bytes) || bytes.find('\0') != std::string_view::npos) return nullptr;
  return ReadXmlPlist(bytes, kMaxPlistDepth);
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

// A new file beside path with a random suffix, created exclusively (so no link is followed)
// with mode 0600; its name goes to temporary.
UniqueFd CreateTemporaryBeside(const std::string& path, std::string& temporary) {
  static constexpr char kLetters[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  std::uniform_int_distribution<std::size_t> pick(0, sizeof kLetters - 2);
  for (int attempt = 0; attempt < 100; ++attempt) {
    temporary = path + ".";
    for (int i = 0; i < 6; ++i) temporary += kLetters[pick(random)];
    UniqueFd fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.valid() || errno != EEXIST) return fd;
  }
  return UniqueFd();
}

}  // namespace

bool WriteFileAtomically(const std::string& path, std::string_view bytes) {
  std::string temporary;
  UniqueFd fd = CreateTemporaryBeside(path, temporary);
  if (!fd.valid()) return false;
  const bool written = WriteAll(fd.get(), bytes) && ::fsync(fd.get()) == 0;
  const bool closed = ::close(fd.Release()) == 0;
  // rename replaces whatever is at path, a link included, and never writes through it.
  if (!written || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace tarn
