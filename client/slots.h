// Bookkeeping beside a growable array of requests: which elements are in use, and lists of them, so
// that neither a free element nor those of one owner are searched for among thousands.
#pragma once
#include <cstdint>

#include "link/record.h"

struct SlotNote {
  std::int32_t Next, Previous;  // in its owner's list; element + 1, 0: none
  std::uint32_t Serial;         // of the use of the element
};

struct Slots {
  std::uint64_t* Used;  // a bit for each element
  SlotNote* Notes;
  std::int32_t Capacity;
  std::int32_t InUse;
  std::int32_t FirstWord;  // in the words of Used before it no bit is clear
};

// Makes room for so many elements; the caller sets Capacity when it has the elements themselves.
// False: memory ran out, nothing has changed.
bool ReserveSlots(Slots& slots, std::int32_t capacity);
void FreeSlots(Slots& slots);

// The first element that is not in use, or -1.
std::int32_t FirstFreeSlot(Slots& slots);
// The first element in use that is not before `from`, or -1.
std::int32_t NextUsedSlot(const Slots& slots, std::int32_t from);

// An element comes into use, last of its owner's list, or goes out of use.
void EnterSlot(Slots& slots, SlotList& owner, std::int32_t slot);
void LeaveSlot(Slots& slots, SlotList& owner, std::int32_t slot);

// An element in use changes its owner; it becomes the last of the list.
void MoveSlot(Slots& slots, SlotList& from, SlotList& to, std::int32_t slot);
