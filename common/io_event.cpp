#include "io_event.h"

int IoEvent::AddFd(int /*iFD*/, int /*iEvents*/) { return 0; }

int IoEvent::RemoveFd(int /*iFD*/) { return 0; }

int IoEvent::Wait(int /*iTimeout*/, int* /*pFDs*/, int /*iCount*/) { return 0; }

void IoEvent::Dump(int /*iFD*/) {}
