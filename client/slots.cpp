#include "client/slots.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::int32_t kWordBits = 64;

std::int32_t WordsFor(std::int32_t elements) { return (elements + kWordBits - 1) / kWordBits; }

std::uint64_t BitOf(std::int32_t slot) { return std::uint64_t{1} << (slot % kWordBits); }

template <class T>
bool Enlarge(T*& items, std::int32_t old, std::int32_t count) {
  void* const memory = std::realloc(items, static_cast<std::size_t>(count) * sizeof(T));
  if (!memory) return false;
  items = static_cast<T*>(memory);
  std::memset(static_cast<void*>(items + old), 0,
              static_cast<std::size_t>(count - old) * sizeof(T));
  return true;
}

void Append(Slots& slots, SlotList& list, std::int32_t slot) {
  SlotNote& note = slots.Notes[slot];
  note.Next = 0;
  note.Previous = list.Last;
  if (list.Last != 0)
    slots.Notes[list.Last - 1].Next = slot + 1;
  else
    list.First = slot + 1;
  list.Last = slot + 1;
  ++list.Count;
}

void Remove(Slots& slots, SlotList& list, std::int32_t slot) {
  const SlotNote& note = slots.Notes[slot];
  (note.Previous != 0 ? slots.Notes[note.Previous - 1].Next : list.First) = note.Next;
  (note.Next != 0 ? slots.Notes[note.Next - 1].Previous : list.Last) = note.Previous;
  --list.Count;
}

}  // namespace

bool ReserveSlots(Slots& slots, std::int32_t capacity) {
  const std::int32_t words = WordsFor(slots.Capacity), wanted = WordsFor(capacity);
  if (wanted > words && !Enlarge(slots.Used, words, wanted)) return false;
  return Enlarge(slots.Notes, slots.Capacity, capacity);
}

void FreeSlots(Slots& slots) {
  std::free(slots.Used);
  std::free(slots.Notes);
  slots = {};
}

std::int32_t FirstFreeSlot(Slots& slots) {
  const std::int32_t words = WordsFor(slots.Capacity);
  while (slots.FirstWord < words && ~slots.Used[slots.FirstWord] == 0) ++slots.FirstWord;
  if (slots.FirstWord == words) return -1;
  const std::int32_t slot =
      slots.FirstWord * kWordBits + std::countr_one(slots.Used[slots.FirstWord]);
  return slot < slots.Capacity ? slot : -1;
}

std::int32_t NextUsedSlot(const Slots& slots, std::int32_t from) {
  for (std::int32_t word = from / kWordBits; from < slots.Capacity; from = ++word * kWordBits) {
    const std::uint64_t rest = slots.Used[word] & (~std::uint64_t{0} << (from % kWordBits));
    if (rest != 0) return word * kWordBits + std::countr_zero(rest);
  }
  return -1;
}

void EnterSlot(Slots& slots, SlotList& owner, std::int32_t slot) {
  static std::uint32_t lastSerial;
  if (++lastSerial == 0) ++lastSerial;
  slots.Used[slot / kWordBits] |= BitOf(slot);
  slots.Notes[slot].Serial = lastSerial;
  Append(slots, owner, slot);
  ++slots.InUse;
}

void LeaveSlot(Slots& slots, SlotList& owner, std::int32_t slot) {
  slots.Used[slot / kWordBits] &= ~BitOf(slot);
  slots.FirstWord = std::min(slots.FirstWord, slot / kWordBits);
  Remove(slots, owner, slot);
  --slots.InUse;
}

void MoveSlot(Slots& slots, SlotList& from, SlotList& to, std::int32_t slot) {
  Remove(slots, from, slot);
  Append(slots, to, slot);
}
