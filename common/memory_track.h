#ifndef ZELK_COMMON_MEMORY_TRACK_H
#define ZELK_COMMON_MEMORY_TRACK_H

#include <map>
#include <string>

// A debugging aid for leaks: who allocates records the block with its source line, who frees
// removes the record, and the report at any time lists the blocks that are left. Nothing records
// itself; a program calls this from its allocation wrappers:
//
//   AddTrack(pBlock, iSize, __FILE__, __LINE__);
//
// The records own nothing, and a freed block whose record stays is reported. They are allocated
// with new themselves, so a replaced operator new must not record those. Not locked: one thread, or
// callers that take turns. A forked child has its own copy.

// A recorded block.
struct MemoryTrack_t {
  void* pAddr = nullptr;
  unsigned int iSize = 0;  // bytes
  std::string strFile;
  unsigned int iLine = 0;
};

// The records by address. Made when the library is loaded and destroyed at exit, after the static
// objects of the program that is linked to it.
extern std::map<void*, MemoryTrack_t> g_mapMemoryTrack;

// Records a block. A record of a live address is deliberately kept: the later one is dropped.
void AddTrack(void* pAddr, unsigned int iSize, const char* pFile, unsigned int iLine);

// Forgets a block; an unknown address is ignored.
void RemoveTrack(void* pAddr);

// One line for each record, by ascending address: "<file>:<line> allocate <size> bytes\n".
std::string DumpUnfreed();

#endif
