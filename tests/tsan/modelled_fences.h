#ifndef ZELK_TESTS_MODELLED_FENCES_H
#define ZELK_TESTS_MODELLED_FENCES_H

// Included before everything else in the sources of the library that ThreadSanitizer watches. It
// does not know fences, so each becomes what it does understand: a release or an acquire of one
// object that stands for all fences. That is as strict as the real ones, except that an acquire
// fence need not have seen the store behind the release fence; what is written after the release
// fence, or read before the acquire fence, is a race to it as it is in truth.

#include <atomic>

void ModelFence(std::memory_order eOrder);

namespace std {
inline void modelled_fence(memory_order eOrder) { ModelFence(eOrder); }
}  // namespace std

#define atomic_thread_fence modelled_fence

#endif
