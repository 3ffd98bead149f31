#ifndef ZELK_COMMON_BINLOG_H
#define ZELK_COMMON_BINLOG_H

#include <stdint.h>

#include <string>

// One record.
struct binlog_item_t {
  int iSize;
  char* pContent;
};

// The interface of a log of binary records in a file. It only fixes the signatures: no file is
// opened yet, both operations do nothing and return 0.
class Binlog {
 public:
  Binlog() = default;
  virtual ~Binlog();

  // Return 0.
  int Write(const char* pData, int iSize);
  int Read(binlog_item_t* pItems, int iCount);

 protected:
  std::string m_strFilename;
  uint64_t m_iBinlogSize = 0;
  bool m_bPreallocate = false;
  int m_iFD = -1;
};

#endif
