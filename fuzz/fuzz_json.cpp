// The JSON encoder on trees built from the input: the bytes are a little program that opens
// and closes containers and adds scalars, so nesting of any depth and every value kind
// occur. The same bytes read as a property list give a second tree.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/plist/plist_io.h"
#include "tarnutils/src/JsonEncoder.h"

namespace {

using tarn::PlistPtr;
using tarn::PlistValue;

class TreeBuilder {
 public:
  TreeBuilder(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  PlistPtr Build() {
    PlistPtr root = PlistValue::MakeArray();
    std::vector<PlistPtr> open = {root};
    while (at_ < size_) {
      const std::uint8_t op = data_[at_++];
      switch (op % 10) {
        case 0:
        case 1: {  // open an array or a dictionary
          PlistPtr container = op % 10 == 0 ? PlistValue::MakeArray() : PlistValue::MakeDictionary();
          Add(open.back(), container);
          open.push_back(container);
          break;
        }
        case 2:  // close
          if (open.size() > 1) open.pop_back();
          break;
        case 3:
          Add(open.back(), PlistValue::MakeString(Text()));
          break;
        case 4:
          Add(open.back(), PlistValue::MakeInteger(static_cast<std::int64_t>(Number())));
          break;
        case 5:
          Add(open.back(), PlistValue::MakeUnsigned(Number()));
          break;
        case 6: {
          const std::uint64_t bits = Number();
          double real;
          std::memcpy(&real, &bits, sizeof real);
          Add(open.back(), PlistValue::MakeReal(real));
          break;
        }
        case 7:
          Add(open.back(), PlistValue::MakeBoolean((op & 0x10) != 0));
          break;
        case 8:
          Add(open.back(), PlistValue::MakeDate(static_cast<double>(Number() % 100000)));
          break;
        default:
          Add(open.back(), PlistValue::MakeData({op}));
      }
    }
    return root;
  }

 private:
  void Add(const PlistPtr& container, PlistPtr value) {
    if (container->IsArray()) {
      container->Append(std::move(value));
    } else {
      container->SetValueForKey(Text(), std::move(value));
    }
  }
  std::string Text() {
    const std::size_t length = at_ < size_ ? data_[at_++] % 16 : 0;
    std::string text;
    for (std::size_t i = 0; i < length && at_ < size_; ++i) text += static_cast<char>(data_[at_++]);
    return text;
  }
  std::uint64_t Number() {
    std::uint64_t value = 0;
    for (int i = 0; i < 8 && at_ < size_; ++i) value = (value << 8) | data_[at_++];
    return value;
  }

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// Takes a tree apart from the outside in, so that freeing a deep one does not recurse.
void Dismantle(PlistPtr root) {
  std::vector<PlistPtr> pending = {std::move(root)};
  while (!pending.empty()) {
    PlistPtr value = std::move(pending.back());
    pending.pop_back();
    if (value.use_count() > 1) continue;  // still held elsewhere
    if (value->IsArray()) {
      while (value->Count() > 0) {
        pending.push_back(value->ObjectAtIndex(value->Count() - 1));
        value->RemoveAtIndex(value->Count() - 1);
      }
    } else if (value->IsDictionary()) {
      for (const std::string& key : value->Keys()) {
        pending.push_back(value->ValueForKey(key));
        value->RemoveKey(key);
      }
    }
  }
}

void Encode(const PlistPtr& tree) {
  for (const unsigned options : {0u, tarn::kJsonPrettyPrint,
                                 tarn::kJsonPrettyPrint | tarn::kJsonEscapeUnicode |
                                     tarn::kJsonEscapeForwardSlashes}) {
    tarn::JsonEncoderError error;
    tarn::EncodeJson(tree, options, &error);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PlistPtr built = TreeBuilder(data, size).Build();
  Encode(built);
  Dismantle(std::move(built));
  Encode(tarn::ParsePlist(std::string(reinterpret_cast<const char*>(data), size)));
  return 0;
}
