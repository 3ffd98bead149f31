// A table of latencies for the statistics log, and the blocks that nobody freed.
#include <cstdio>
#include <cstdlib>

#include "delay_stat.h"
#include "memory_track.h"

void* Allocate(unsigned int iSize, const char* pFile, unsigned int iLine) {
  void* pBlock = malloc(iSize);
  AddTrack(pBlock, iSize, pFile, iLine);
  return pBlock;
}

void Free(void* pBlock) {
  RemoveTrack(pBlock);
  free(pBlock);
}

int main() {
  DelayStat stLatencies;
  stLatencies.SetInterval(100, 50, 0);  // buckets [0, 50), [50, 100), and 100 ms and above
  for (const unsigned int iMilliseconds : {3u, 4u, 61u, 700u}) {
    stLatencies.PushData("lookup", iMilliseconds);
  }
  timeval tvBegin{1000, 0};
  timeval tvEnd{1000, 20000};
  stLatencies.BeginData("save", "request 17", &tvBegin);  // null would be: now
  stLatencies.EndData("request 17", &tvEnd);
  printf("%s", stLatencies.GenerateStatTable().c_str());
  stLatencies.Clear();  // the next period

  void* pKept = Allocate(100, "cache.cpp", 17);
  Free(Allocate(200, "cache.cpp", 18));
  printf("%s", DumpUnfreed().c_str());
  Free(pKept);
}
