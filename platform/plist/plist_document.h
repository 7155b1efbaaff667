// Property lists kept as libplist trees (the XML form read by plist_xml_reader.h, the binary
// form by libplist), for documents that are read once and are large
// (the applications report): reading them in place saves building a second tree. Every
// answer and every raise is the one the PlistValue of the same document gives, so code
// written against the free functions below reads both alike.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/plist/plist_io.h"
#include "platform/plist/plist_value.h"

namespace tarn {

class PlistDocument;

// A node of a PlistDocument, or absent. Valid while its document lives.
class PlistNode {
 public:
  PlistNode() = default;
  explicit operator bool() const noexcept { return node_ != nullptr; }
  // The node's kind; the node must be present.
  PlistType type() const;
  // The node and everything below it as a PlistValue tree; absent for an absent node.
  PlistPtr ToValue() const;

 private:
  friend class PlistDocument;
  friend PlistNode ValueForKey(const PlistNode& dictionary, std::string_view key);
  friend void ValuesForKeys(const PlistNode& dictionary, std::span<const char* const> keys,
                            std::span<PlistNode> values);
  friend PlistNode ObjectAtIndex(const PlistNode& array, std::size_t index);
  friend std::size_t Count(const PlistNode& container);
  friend std::optional<std::string> TextOf(const PlistNode& value);
  explicit PlistNode(void* node) : node_(node) {}
  void* node_ = nullptr;
};

// The readers of plist_value.h for nodes: a missing key or absent input gives absent, a
// value of the wrong kind and an index past the end raise PlatformException.
PlistNode ValueForKey(const PlistNode& dictionary, std::string_view key);
// ValueForKey for several keys in one walk of the dictionary: values[i] is the value of
// keys[i] (the spans are of equal length).
void ValuesForKeys(const PlistNode& dictionary, std::span<const char* const> keys,
                   std::span<PlistNode> values);
PlistNode ObjectAtIndex(const PlistNode& array, std::size_t index);
std::size_t Count(const PlistNode& container);
std::optional<std::string> TextOf(const PlistNode& value);

class PlistDocument {
 public:
  // Parses the bytes with every check of ParsePlist: absent exactly when ParsePlist gives
  // absent, and otherwise a document that reads as ParsePlist's tree.
  static std::unique_ptr<PlistDocument> Parse(std::string_view bytes);
  ~PlistDocument();
  PlistDocument(const PlistDocument&) = delete;
  PlistDocument& operator=(const PlistDocument&) = delete;

  PlistNode Root() const { return PlistNode(root_); }

 private:
  friend PlistPtr ParsePlist(std::string_view bytes);
  explicit PlistDocument(void* root) : root_(root) {}
  // The libplist tree after ParsePlist's checks of the bytes, its values not yet checked.
  static std::unique_ptr<PlistDocument> ParseUnchecked(std::string_view bytes);
  void* root_;
};

}  // namespace tarn
