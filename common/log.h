#ifndef ZELK_COMMON_LOG_H
#define ZELK_COMMON_LOG_H

#include <sys/types.h>

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

#include "object.h"

struct statx;

// Writes levelled text lines, if asked with a hex dump behind them, to a file that it opens,
// reopens and rotates by itself before every line:
//
//   [2024-01-02 15:04:05,678][INFORMATION] the message
//
// The directory chooses between two regimes:
// - Exactly "/var/log/zelk" or "/data/log/zelk": one file, <path>/<prefix><suffix>, for an outside
//   rotation. It is opened anew when it was deleted, renamed or replaced.
// - Any other directory: numbered files of a day, <path>/<prefix><YYYYMMDD><NNN><suffix>, local
//   time, from 000 on, past 999 with more digits. A file larger than the maximum is left for the
//   next number; one of exactly that size is still appended to. Opened anew when it was deleted
//   or renamed. A new day, path, prefix or suffix takes effect when the next file is opened: on
//   purpose it does not close the open one. Old files are never deleted.
//
// Directories are made as needed, with mode 0750; files have mode 0640.
//
// One thread of one process owns an object. Several processes, also forked children with their
// copy of the object, may write the same files: every line is one write(2) in append mode, so
// lines of different writers never mix.
//
// Errors are not reported: a line that can not be written, for lack of memory to open its file
// among others, is dropped, the next one tries again. A write() that was interrupted is repeated,
// and one that took a part is completed; when the disk is full meanwhile, the beginning of the line
// stays and the next line follows on it.
// errno is left alone, and "%m" in a message shows it as the caller left it. A process that gave
// up the right to see its file goes on writing to it. A descriptor that foreign code closed is
// opened anew, unless its number already belongs to something writable: do not close FD().
//
// Crashes: a line is in the file when the call returns and survives the process's death, though
// not the machine's.
class Log : public Object {
 public:
  // By urgency; a log writes its own level and those above it.
  enum LOG_LEVEL : int {
    LL_NET = 0,
    LL_DEBUG = 1,
    LL_INFO = 2,
    LL_WARNING = 3,
    LL_ERROR = 4,
    LL_STAT = 5,
    LL_NONE = 6
  };

  // The level as it stands in a line.
  struct LevelName {
    LOG_LEVEL eLevel;
    const char* pName;
  };
  static const LevelName LEVEL_NAME_MAPPING[7];

  // The full name ("INFORMATION"); null for a value that is no level.
  static const char* LogLevelConvert(LOG_LEVEL eLevel);
  // The level of a full name in any case; LL_NONE for every other text, also "INFO".
  static LOG_LEVEL LogLevelConvert(const char* pName);

  // Opens nothing; the first line does.
  Log();
  ~Log() override;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  void SetPath(const std::string& strPath);  // default "/var/log/zelk"
  const std::string& GetPath() const { return m_strPath; }
  void SetPrefix(const std::string& strPrefix);  // default "undefined_"
  const std::string& GetPrefix() const { return m_strPrefix; }
  void SetSuffix(const std::string& strSuffix);  // default ".log"
  const std::string& GetSuffix() const { return m_strSuffix; }

  // Bytes beyond which a numbered file is left for the next; default 100 MiB.
  void SetMaxSize(unsigned long long iMaxSize) { m_iMaxSize = iMaxSize; }

  // Lines below this level do nothing at all, not even make the directory; default LL_DEBUG.
  // LL_NONE, which an unknown name stands for, silences all but lines written at LL_NONE itself.
  void SetLevel(LOG_LEVEL eLevel) { m_eLevel = eLevel; }
  void SetLevel(const char* pName) { m_eLevel = LogLevelConvert(pName); }
  LOG_LEVEL GetLevel() const { return m_eLevel; }

  // The descriptor of the open file, -1 when there is none. It stays the log's.
  int FD() const { return m_iFD; }

  // A line, with the bytes before the message, is cut to iSize - 1 bytes; 0 counts as 1, default
  // 1024. Rows of a dump are never cut.
  void SetLineBufferSize(unsigned int iSize);

  // One line with a printf() message. The message ends at its first NUL.
  void WriteLog(LOG_LEVEL eLevel, const char* pFormat, ...) __attribute__((format(printf, 3, 4)));
  void vWriteLog(LOG_LEVEL eLevel, const char* pFormat, va_list sAp)
      __attribute__((format(printf, 3, 0)));

  // The same, and then the iSize bytes at pData: a line of column numbers and one row for every 16
  // bytes with its number, the bytes in hexadecimal, and as characters where they are printable.
  // Rows are numbered, not addressed: the second is 0001. No bytes or a null pData: no dump.
  void BinaryLog(LOG_LEVEL eLevel, const char* pData, unsigned int iSize, const char* pFormat, ...)
      __attribute__((format(printf, 5, 6)));
  void vBinaryLog(LOG_LEVEL eLevel, const char* pData, unsigned int iSize, const char* pFormat,
                  va_list sAp) __attribute__((format(printf, 5, 0)));

  // WriteLog() at the level of that name.
  void Debug(const char* pFormat, ...) __attribute__((format(printf, 2, 3)));
  void Info(const char* pFormat, ...) __attribute__((format(printf, 2, 3)));
  void Warning(const char* pFormat, ...) __attribute__((format(printf, 2, 3)));
  void Error(const char* pFormat, ...) __attribute__((format(printf, 2, 3)));
  void Stat(const char* pFormat, ...) __attribute__((format(printf, 2, 3)));
  void vDebug(const char* pFormat, va_list sAp) __attribute__((format(printf, 2, 0)));
  void vInfo(const char* pFormat, va_list sAp) __attribute__((format(printf, 2, 0)));
  void vWarning(const char* pFormat, va_list sAp) __attribute__((format(printf, 2, 0)));
  void vError(const char* pFormat, va_list sAp) __attribute__((format(printf, 2, 0)));
  void vStat(const char* pFormat, va_list sAp) __attribute__((format(printf, 2, 0)));

  // Path, prefix, suffix, maximal size, descriptor and level.
  void Dump(int iFD) override;

 private:
  void CheckFileHandle();
  void CheckFileHandle1();  // the regime of numbered files
  void DeleteOldFile();

  void UpdateFixedFile();
  bool LookAtFile(const std::string& strFile, struct statx& stFile) const;
  bool IsOpenFile(const struct statx& stFile) const;
  uint64_t OpenFileSize(const struct statx& stNamed) const;
  std::string ChooseFile();
  void OpenFile(const std::string& strFile);
  void CloseFile();
  void WriteEntry(LOG_LEVEL eLevel, const char* pData, unsigned int iSize, const char* pFormat,
                  va_list sAp) __attribute__((format(printf, 5, 0)));
  void WriteText(LOG_LEVEL eLevel, int iError, const char* pFormat, va_list sAp)
      __attribute__((format(printf, 4, 0)));
  void WriteDump(const char* pData, unsigned int iSize);
  void WriteLine(size_t iLength);

  std::string m_strPrefix = "undefined_";
  std::string m_strSuffix = ".log";
  std::string m_strPath = "/var/log/zelk";
  uint64_t m_iMaxSize = 100ULL << 20;
  uint64_t m_iMaxLogSize = 20ULL << 30;  // of a day's files together
  int m_iFD = -1;
  LOG_LEVEL m_eLevel = LL_DEBUG;
  std::string m_strCurrentDay;   // of the numbered file opened last
  std::string m_strCurrentFile;  // the numbered file opened last
  unsigned int m_iLineBufferSize = 0;

  std::string m_strFixedFile;  // the whole name; empty in the regime of numbered files
  uint64_t m_iDevice = 0;      // with m_iInode: which file m_iFD was opened on
  uint64_t m_iInode = 0;
  std::unique_ptr<char[]> m_pBuffer;  // one line or row
};

#endif
