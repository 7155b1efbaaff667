// The store's vector: an ordered sequence of payload pointers that it never
// owns or frees. Without comparator elements are kept in insertion order; with
// one they are kept sorted and an element equal to an existing one is refused.
// Every operation except GetNthElement holds the resource lock named by the
// vector's own address.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "framework/system/rsrclockimpl.h"

namespace tarn {

template <typename T>
class Vector {
 public:
  // Negative, zero or positive as the first payload sorts before, with or after the second.
  using Comparator = std::function<int(const T*, const T*)>;

  std::int32_t count() const { return static_cast<std::int32_t>(items_.size()); }
  const std::vector<T*>& items() const { return items_; }

  template <typename U>
  friend void InitVector(Vector<U>& vector, typename Vector<U>::Comparator comparator);
  template <typename U>
  friend int AddElementByRefPtr(Vector<U>& vector, U* payload);
  template <typename U>
  friend U* ElementAt(const Vector<U>& vector, std::int32_t position);
  template <typename U>
  friend int InsertElementAt(Vector<U>& vector, U* payload, std::int32_t position);
  template <typename U>
  friend int DeleteElementAt(Vector<U>& vector, std::int32_t position);
  template <typename U>
  friend int DeleteElementByRefPtr(Vector<U>& vector, const U* payload);
  template <typename U>
  friend void FreeVector(Vector<U>& vector);

 private:
  std::vector<T*> items_;
  Comparator comparator_;
};

// Empties the vector and sets its comparator (may be empty).
template <typename T>
void InitVector(Vector<T>& vector, typename Vector<T>::Comparator comparator) {
  ResourceGuard guard(&vector);
  vector.items_.clear();
  vector.comparator_ = std::move(comparator);
}

// A new empty vector without comparator.
template <typename T>
std::unique_ptr<Vector<T>> AllocateAndInitVector() {
  return std::make_unique<Vector<T>>();
}

// Adds the payload: appended without comparator, else inserted at its sorted
// position. Returns 1 when added, 0 when the comparator finds an equal element.
template <typename T>
int AddElementByRefPtr(Vector<T>& vector, T* payload) {
  ResourceGuard guard(&vector);
  auto& items = vector.items_;
  if (!vector.comparator_) {
    items.push_back(payload);
    return 1;
  }
  const auto position = std::lower_bound(
      items.begin(), items.end(), payload,
      [&](const T* element, const T* value) { return vector.comparator_(element, value) < 0; });
  if (position != items.end() && vector.comparator_(*position, payload) == 0) {
    return 0;
  }
  items.insert(position, payload);
  return 1;
}

// The payload at position (0 = first), or null outside 0 .. count - 1.
template <typename T>
T* ElementAt(const Vector<T>& vector, std::int32_t position) {
  ResourceGuard guard(&vector);
  if (position < 0 || position >= vector.count()) {
    return nullptr;
  }
  return vector.items_[static_cast<std::size_t>(position)];
}

// The payload steps positions after start (no locking); null past the end.
template <typename T>
T* GetNthElement(const Vector<T>& vector, std::int32_t steps, std::int32_t start = 0) {
  const std::int64_t position = static_cast<std::int64_t>(start) + steps;
  if (position < 0 || position >= vector.count()) {
    return nullptr;
  }
  return vector.items()[static_cast<std::size_t>(position)];
}

// Inserts before the element at position 0 .. count (count appends). Returns
// 1, or 0 for a position outside that range.
template <typename T>
int InsertElementAt(Vector<T>& vector, T* payload, std::int32_t position) {
  ResourceGuard guard(&vector);
  if (position < 0 || position > vector.count()) {
    return 0;
  }
  vector.items_.insert(vector.items_.begin() + position, payload);
  return 1;
}

// Removes the element at position (not its payload). Returns 1, or 0 when
// there is no such position.
template <typename T>
int DeleteElementAt(Vector<T>& vector, std::int32_t position) {
  ResourceGuard guard(&vector);
  if (position < 0 || position >= vector.count()) {
    return 0;
  }
  vector.items_.erase(vector.items_.begin() + position);
  return 1;
}

// Removes the first element carrying payload. Returns 1, or 0 when absent.
template <typename T>
int DeleteElementByRefPtr(Vector<T>& vector, const T* payload) {
  ResourceGuard guard(&vector);
  auto& items = vector.items_;
  const auto found = std::find(items.begin(), items.end(), payload);
  if (found == items.end()) {
    return 0;
  }
  items.erase(found);
  return 1;
}

// Removes every element; payloads are left to their owners.
template <typename T>
void FreeVector(Vector<T>& vector) {
  ResourceGuard guard(&vector);
  vector.items_.clear();
}

}  // namespace tarn
