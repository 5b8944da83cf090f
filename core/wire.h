// Typed access to bytes at an offset. From the first counted string of a message on, nothing is
// aligned: values are moved, never pointed at. All integers are in host byte order.
#pragma once
#include <cstddef>
#include <cstring>
#include <type_traits>

// A field at no fixed alignment: its type and its offset, declared once.
template <class T>
struct WireField {
  std::size_t Offset;
};

template <class T>
T Get(const unsigned char* base, WireField<T> field) {
  T value;
  std::memcpy(&value, base + field.Offset, sizeof value);
  return value;
}

template <class T>
void Put(unsigned char* base, WireField<T> field, std::type_identity_t<T> value) {
  std::memcpy(base + field.Offset, &value, sizeof value);
}
