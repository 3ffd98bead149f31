#ifndef KV_SERVER_MEMORY_TRACKING_H
#define KV_SERVER_MEMORY_TRACKING_H

#include <cstddef>
#include <string>

// The search for leaks, in builds with ZELK_KV_MEMORY_TRACK; in others all of this is nothing.
//
// KV_NEW instead of new records what it allocates with the source line. KV_TRACK records a block
// that somebody else has allocated with new and left to us, such as what a queue or a listener
// hands out. Every delete of the process forgets its block, wherever it stands. One thread.
//
// Containers and strings are not recorded: they leak only inside an object that does.

#ifdef ZELK_KV_MEMORY_TRACK

// Records blocks for as long as it lives. At its end it writes those that are left to
// memory-NAME.txt in the directory, a line for each: an empty file says that there are none, and
// no file that the process was killed. Blanks in the name become "-". One at a time; in a forked
// child a new one takes the place of the parent's.
class MemoryReport {
 public:
  MemoryReport(const std::string& strDirectory, std::string strName);
  ~MemoryReport();
  MemoryReport(const MemoryReport&) = delete;
  MemoryReport& operator=(const MemoryReport&) = delete;

 private:
  std::string m_strFile;
};

void* operator new(size_t iSize, const char* pFile, unsigned int iLine);
void operator delete(void* pBlock, const char* pFile, unsigned int iLine) noexcept;
void TrackBlock(void* pBlock, size_t iSize, const char* pFile, unsigned int iLine);

#define KV_NEW new (__FILE__, __LINE__)
#define KV_TRACK(pBlock, iSize) TrackBlock(pBlock, iSize, __FILE__, __LINE__)

#else

class MemoryReport {
 public:
  MemoryReport(const std::string& /*strDirectory*/, const std::string& /*strName*/) {}
};

#define KV_NEW new
#define KV_TRACK(pBlock, iSize) static_cast<void>(0)

#endif

#endif
