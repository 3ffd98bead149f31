#ifndef ZELK_COMMON_INTERNAL_SHARED_WORD_H
#define ZELK_COMMON_INTERNAL_SHARED_WORD_H

#include <atomic>
#include <cstring>

// Words of a shared-memory segment that other processes read while this one writes, and that must
// make sense when this process is killed before its next instruction. On x86-64 each is one plain
// move; the fences bind the compiler. The address need not be aligned.

// Stores a word after all that is written above the call and before all that is written below it.
// Pairs with AcquireWord() in another process.
template <typename T>
inline void PublishWord(void* pWord, T tValue) {
  std::atomic_thread_fence(std::memory_order_release);
  memcpy(pWord, &tValue, sizeof(T));
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

// Loads a word before all that is read below the call. Pairs with PublishWord().
template <typename T>
inline T AcquireWord(const void* pWord) {
  T tValue;
  memcpy(&tValue, pWord, sizeof(T));
  std::atomic_thread_fence(std::memory_order_acquire);
  return tValue;
}

#endif
