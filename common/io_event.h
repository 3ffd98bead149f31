#ifndef ZELK_COMMON_IO_EVENT_H
#define ZELK_COMMON_IO_EVENT_H

#include <map>

#include "object.h"

// The interface of an event loop's descriptor set. It only fixes the signatures: nothing is watched
// yet, every operation does nothing and returns 0.
class IoEvent : public Object {
 public:
  // Return 0.
  int AddFd(int iFD, int iEvents);
  int RemoveFd(int iFD);
  int Wait(int iTimeout, int* pFDs, int iCount);

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  std::map<int, int> m_mapEvents;
};

#endif
