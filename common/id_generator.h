#ifndef ZELK_COMMON_ID_GENERATOR_H
#define ZELK_COMMON_ID_GENERATOR_H

#include <queue>

#include "object.h"

// Hands out the numbers of a range, each once, and again those that were given back.
//
// Numbers given back wait behind the fresh ones that are queued already, so one is not reused
// soon after it was freed. At most 100,999 numbers (400 kB) are queued, or as many as were freed.
// Per process, for one thread.
class IdGenerator : public Object {
 public:
  // The range is 100 to 999,999,999.
  IdGenerator();

  // Goes on with the numbers from iBegin up to iEnd - 1 (none when iEnd is not larger). What is
  // queued from the range before is kept and handed out first.
  void SetRange(unsigned int iBegin, unsigned int iEnd);

  // The next number; 0xFFFFFFFF when the range is used up and none was freed.
  unsigned int GetId();

  // Gives a number back. Not checked: one that was never handed out, or is given back twice, will
  // be handed out all the same.
  void FreeId(unsigned int iId);

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  std::queue<unsigned int> m_queueFreeIds;  // ready to hand out, in this order
  unsigned int m_iCurrentEnd = 0;           // first number never queued
  unsigned int m_iBegin = 0;
  unsigned int m_iEnd = 0;  // one past the last

 private:
  void Refill();
};

#endif
