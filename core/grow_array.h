// The agent's growable arrays: they start at 2 elements, double, and never shrink.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// Elements are zero-filled when allocated, used and released in place. Each element type defines
// `bool InUse(const T&)`. A plain record, so that the state that holds it can be zero at start.
template <class T>
struct GrowArray {
  T* Items;               // null while Capacity is 0
  std::int32_t Capacity;  // elements allocated, used or not
  T* begin() const { return Items; }
  T* end() const { return Items + Capacity; }
};

// The first element that is not in use, or null.
template <class T>
T* FirstFree(const GrowArray<T>& array) {
  for (T& item : array) {
    if (!InUse(item)) return &item;
  }
  return nullptr;
}

// The next element in use after `prev`, from the start when `prev` is null; null at the end.
template <class T>
T* NextInUse(const GrowArray<T>& array, T* prev) {
  for (T* item = prev ? prev + 1 : array.begin(); item != array.end(); ++item) {
    if (InUse(*item)) return item;
  }
  return nullptr;
}

// Doubles the array (0 becomes 2), carrying over at most `keep` bytes of the old elements. Returns
// the first new element, or null when memory ran out: the array is then as it was.
template <class T>
T* Grow(GrowArray<T>& array, std::size_t keep = SIZE_MAX) {
  const std::size_t old = static_cast<std::size_t>(array.Capacity);
  const std::size_t capacity = old ? 2 * old : 2;
  T* const items = static_cast<T*>(std::calloc(capacity, sizeof(T)));
  if (!items) return nullptr;
  if (old) std::memcpy(static_cast<void*>(items), array.Items, std::min(keep, old * sizeof(T)));
  std::free(array.Items);
  array = {items, static_cast<std::int32_t>(capacity)};
  return items + old;
}

// Frees the elements; the array is empty afterwards.
template <class T>
void Free(GrowArray<T>& array) {
  std::free(array.Items);
  array = {nullptr, 0};
}
