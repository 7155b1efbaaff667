// The store's string-keyed hash table. Keys are owned copies; values are held
// as given (store a pointer type for values owned elsewhere). Bucket placement
// and key order are observable: FindIndex is the table's hash and GetHashKeys
// lists keys bucket by bucket, each bucket in insertion order.
#pragma once

#include <cstdint>
#include <list>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

// Bucket of key for a table of bucketCount buckets: h = (c + 26 * h) mod
// bucketCount over the key's bytes taken as signed 8-bit values, in 32-bit
// signed arithmetic. A negative result is brought into range by adding
// bucketCount. The empty key hashes to 0.
std::int32_t FindIndex(std::string_view key, std::int32_t bucketCount);

template <typename V>
class HashTable {
 public:
  struct Node {
    std::string key;
    V value;
  };

  std::int32_t bucketCount() const { return static_cast<std::int32_t>(buckets_.size()); }
  const std::list<Node>& bucket(std::int32_t index) const { return buckets_[index]; }

  template <typename U>
  friend int InitHashTable(HashTable<U>& table, std::int32_t bucketCount);
  template <typename U>
  friend bool PutHashNode(HashTable<U>& table, std::string_view key, U value);
  template <typename U>
  friend const typename HashTable<U>::Node* GetHashNode(const HashTable<U>& table,
                                                         std::string_view key);
  template <typename U>
  friend bool DeleteHashNode(HashTable<U>& table, std::string_view key);
  template <typename U>
  friend void FreeHashTable(HashTable<U>& table);

 private:
  std::list<Node>* BucketOf(std::string_view key) {
    return buckets_.empty() ? nullptr : &buckets_[FindIndex(key, bucketCount())];
  }
  std::vector<std::list<Node>> buckets_;
};

// Empties the table with bucketCount buckets (0 means 10). Returns 1, or 0
// for a negative count or when out of memory.
template <typename V>
int InitHashTable(HashTable<V>& table, std::int32_t bucketCount) {
  if (bucketCount < 0) {
    return 0;
  }
  try {
    table.buckets_.assign(bucketCount == 0 ? 10 : bucketCount, {});
  } catch (const std::bad_alloc&) {
    table.buckets_.clear();
    return 0;
  }
  return 1;
}

// Sets key to value: an existing key (exact match) has its value replaced,
// a new key is added at the end of its bucket. False when out of memory or
// the table was never initialised.
template <typename V>
bool PutHashNode(HashTable<V>& table, std::string_view key, V value) {
  auto* bucket = table.BucketOf(key);
  if (bucket == nullptr) {
    return false;
  }
  for (auto& node : *bucket) {
    if (node.key == key) {
      node.value = std::move(value);
      return true;
    }
  }
  try {
    bucket->push_back({std::string(key), std::move(value)});
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// The node of key, or null.
template <typename V>
const typename HashTable<V>::Node* GetHashNode(const HashTable<V>& table, std::string_view key) {
  if (table.buckets_.empty()) {
    return nullptr;
  }
  for (const auto& node : table.buckets_[FindIndex(key, table.bucketCount())]) {
    if (node.key == key) {
      return &node;
    }
  }
  return nullptr;
}

// The value of key, or null.
template <typename V>
const V* GetHashNodeValue(const HashTable<V>& table, std::string_view key) {
  const auto* node = GetHashNode(table, key);
  return node == nullptr ? nullptr : &node->value;
}

// Removes key. True when it was present.
template <typename V>
bool DeleteHashNode(HashTable<V>& table, std::string_view key) {
  auto* bucket = table.BucketOf(key);
  if (bucket == nullptr) {
    return false;
  }
  for (auto it = bucket->begin(); it != bucket->end(); ++it) {
    if (it->key == key) {
      bucket->erase(it);
      return true;
    }
  }
  return false;
}

// Every key, bucket by bucket, each bucket in insertion order.
template <typename V>
std::vector<std::string> GetHashKeys(const HashTable<V>& table) {
  std::vector<std::string> keys;
  for (std::int32_t i = 0; i < table.bucketCount(); ++i) {
    for (const auto& node : table.bucket(i)) {
      keys.push_back(node.key);
    }
  }
  return keys;
}

// Removes every node and bucket; the table must be initialised again before use.
template <typename V>
void FreeHashTable(HashTable<V>& table) {
  table.buckets_.clear();
}

}  // namespace tarn
