// Sets of descriptors, word by word: what is done for the members costs nothing for the others.
#pragma once
#include <sys/select.h>

#include <bit>
#include <type_traits>

using FdWord = std::make_unsigned_t<fd_mask>;
constexpr int kFdWordBits = 8 * sizeof(FdWord);
constexpr int kFdWords = FD_SETSIZE / kFdWordBits;
static_assert(FD_SETSIZE % kFdWordBits == 0 && sizeof(fd_set) == kFdWords * sizeof(FdWord));

// The words that cover the descriptors below `limit`.
constexpr int FdWordsFor(int limit) { return (limit + kFdWordBits - 1) / kFdWordBits; }

inline FdWord WordOf(const fd_set& set, int index) {
  return static_cast<FdWord>(set.fds_bits[index]);
}
inline void SetWord(fd_set& set, int index, FdWord word) {
  set.fds_bits[index] = static_cast<fd_mask>(word);
}

// The first member that is not below `from`, or -1, of the set whose words `wordOf` tells.
template <class Words>
int NextInWords(Words wordOf, int from) {
  int index = from / kFdWordBits;
  if (index >= kFdWords) return -1;
  FdWord word = wordOf(index) & (~FdWord{0} << (from % kFdWordBits));
  while (word == 0) {
    if (++index == kFdWords) return -1;
    word = wordOf(index);
  }
  return index * kFdWordBits + std::countr_zero(word);
}
inline int NextInSet(const fd_set& set, int from) {
  return NextInWords([&set](int i) { return WordOf(set, i); }, from);
}
