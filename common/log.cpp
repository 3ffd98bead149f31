#include "log.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include "filesystem_util.h"
#include "time_util.h"

// DESIGN
// Every line first looks at its file, so that look decides what a line costs: one statx() of the
// name. Its inode tells whether the name still stands for the open file, and when it does, its
// size is the open file's. Then the line, newline included, goes out in one write(). A descriptor
// that foreign code has closed costs no look of its own: the write() fails with EBADF, the file
// is opened anew and the line written again.

namespace {

const unsigned int DEFAULT_LINE_BUFFER_SIZE = 1024;
const mode_t DIRECTORY_MODE = 0750;
const mode_t FILE_MODE = 0640;
const size_t FILE_NAME_SIZE = 512;

// A dump's row: label, 16 times two digits, 16 characters.
const unsigned int COLUMNS = 16;
const unsigned int HEX_BEGIN = 5;
const unsigned int CHARACTER_BEGIN = 54;
const unsigned int ROW_SIZE = CHARACTER_BEGIN + COLUMNS + 1;  // with the newline
const char DUMP_HEADER[] = "     00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F";

bool IsFixedNamePath(const std::string& strPath) {
  return strPath == "/var/log/zelk" || strPath == "/data/log/zelk";
}

// The file in the fixed-name regime, "" in the other one.
std::string FixedFile(const std::string& strPath, const std::string& strPrefix,
                      const std::string& strSuffix) {
  if (!IsFixedNamePath(strPath)) {
    return "";
  }
  return strPath + "/" + strPrefix + strSuffix;
}

// Inode and size only: asking for times makes the next write to the file dearer.
bool Look(int iDirectoryFD, const char* pName, int iFlags, struct statx& stFile) {
  return statx(iDirectoryFD, pName, iFlags, STATX_INO | STATX_SIZE, &stFile) == 0;
}

bool LookAtName(const char* pName, struct statx& stFile) {
  return Look(AT_FDCWD, pName, 0, stFile);
}

bool LookAtDescriptor(int iFD, struct statx& stFile) {
  return Look(iFD, "", AT_EMPTY_PATH, stFile);
}

uint64_t DeviceOf(const struct statx& stFile) {
  return makedev(stFile.stx_dev_major, stFile.stx_dev_minor);
}

std::string Today() {
  const time_t iNow = time(nullptr);
  tm stLocal{};
  char szDay[32];
  localtime_r(&iNow, &stLocal);
  return std::string(szDay, strftime(szDay, sizeof(szDay), "%Y%m%d", &stLocal));
}

// One write(), and more only when that is interrupted or a part is taken.
bool WriteAll(int iFD, const char* pData, size_t iSize) {
  while (iSize != 0) {
    const ssize_t iWritten = write(iFD, pData, iSize);
    if (iWritten > 0) {
      pData += iWritten;
      iSize -= static_cast<size_t>(iWritten);
    } else if (iWritten == 0 || errno != EINTR) {
      return iWritten == 0;
    }
  }
  return true;
}

// Copies what fits before pLast; returns the end of it.
char* Append(char* pTo, const char* pLast, const char* pText) {
  return std::copy_n(pText, std::min(strlen(pText), static_cast<size_t>(pLast - pTo)), pTo);
}

void PutHex(char* pTo, unsigned char cByte) {
  static const char DIGITS[] = "0123456789ABCDEF";
  pTo[0] = DIGITS[cByte / 16];
  pTo[1] = DIGITS[cByte % 16];
}

// A label beyond FFFF is longer than its four places; the first byte is then written over its end.
void BeginRow(char* pRow, unsigned int iRow) {
  const auto iLabelSize = static_cast<size_t>(snprintf(pRow, ROW_SIZE, "%04X ", iRow));
  memset(pRow + iLabelSize, ' ', ROW_SIZE - iLabelSize);
}

}  // namespace

const Log::LevelName Log::LEVEL_NAME_MAPPING[7] = {
    {LL_NET, "NET"},     {LL_DEBUG, "DEBUG"}, {LL_INFO, "INFORMATION"}, {LL_WARNING, "WARNING"},
    {LL_ERROR, "ERROR"}, {LL_STAT, "STAT"},   {LL_NONE, "NONE"},
};

const char* Log::LogLevelConvert(LOG_LEVEL eLevel) {
  for (const LevelName& stLevel : LEVEL_NAME_MAPPING) {
    if (stLevel.eLevel == eLevel) {
      return stLevel.pName;
    }
  }
  return nullptr;
}

Log::LOG_LEVEL Log::LogLevelConvert(const char* pName) {
  for (const LevelName& stLevel : LEVEL_NAME_MAPPING) {
    if (strcasecmp(stLevel.pName, pName) == 0) {
      return stLevel.eLevel;
    }
  }
  return LL_NONE;
}

Log::Log() {
  SetLineBufferSize(DEFAULT_LINE_BUFFER_SIZE);
  UpdateFixedFile();
}

Log::~Log() { CloseFile(); }

// In the setters all that may throw comes first: then nothing has changed.
void Log::SetPath(const std::string& strPath) {
  std::string strNew = strPath;
  m_strFixedFile = FixedFile(strNew, m_strPrefix, m_strSuffix);
  m_strPath.swap(strNew);
}

void Log::SetPrefix(const std::string& strPrefix) {
  std::string strNew = strPrefix;
  m_strFixedFile = FixedFile(m_strPath, strNew, m_strSuffix);
  m_strPrefix.swap(strNew);
}

void Log::SetSuffix(const std::string& strSuffix) {
  std::string strNew = strSuffix;
  m_strFixedFile = FixedFile(m_strPath, m_strPrefix, strNew);
  m_strSuffix.swap(strNew);
}

void Log::UpdateFixedFile() { m_strFixedFile = FixedFile(m_strPath, m_strPrefix, m_strSuffix); }

void Log::SetLineBufferSize(unsigned int iSize) {
  const unsigned int iLineBufferSize = std::max(iSize, 1U);
  m_pBuffer.reset(new char[std::max(iLineBufferSize, ROW_SIZE)]);  // may throw: then all stays
  m_iLineBufferSize = iLineBufferSize;
}

// The file under a name, false when there is none. Where the name may not be looked up (the
// process has dropped its rights), it is taken to stand for the open file still.
bool Log::LookAtFile(const std::string& strFile, struct statx& stFile) const {
  if (LookAtName(strFile.c_str(), stFile)) {
    return true;
  }
  return errno != ENOENT && errno != ENOTDIR && LookAtDescriptor(m_iFD, stFile);
}

bool Log::IsOpenFile(const struct statx& stFile) const {
  return stFile.stx_ino == m_iInode && DeviceOf(stFile) == m_iDevice;
}

// stNamed is what was seen under the current name, which may be another file by now.
uint64_t Log::OpenFileSize(const struct statx& stNamed) const {
  struct statx stOpen {};
  if (IsOpenFile(stNamed)) {
    return stNamed.stx_size;
  }
  return LookAtDescriptor(m_iFD, stOpen) ? stOpen.stx_size : 0;
}

void Log::CheckFileHandle() {
  if (m_strFixedFile.empty()) {
    CheckFileHandle1();
    return;
  }
  struct statx stNamed;
  if (m_iFD != -1 && !(LookAtFile(m_strFixedFile, stNamed) && IsOpenFile(stNamed))) {
    CloseFile();
  }
  if (m_iFD == -1) {
    OpenFile(m_strFixedFile);
  }
}

void Log::CheckFileHandle1() {
  struct statx stNamed {};
  if (m_iFD != -1 && !m_strCurrentFile.empty() && !LookAtFile(m_strCurrentFile, stNamed)) {
    CloseFile();
  }
  if (m_iFD != -1) {
    if (OpenFileSize(stNamed) <= m_iMaxSize) {
      return;  // also on a new day, deliberately
    }
    CloseFile();
  }
  m_strCurrentDay = Today();
  m_strCurrentFile = ChooseFile();
  OpenFile(m_strCurrentFile);
}

// The first name of the day that is free or whose file has room.
std::string Log::ChooseFile() {
  char szName[FILE_NAME_SIZE];
  uint64_t iTotal = 0;
  for (int i = 0;; ++i) {
    const int iLength =
        snprintf(szName, sizeof(szName), "%s/%s%s%03d%s", m_strPath.c_str(), m_strPrefix.c_str(),
                 m_strCurrentDay.c_str(), i, m_strSuffix.c_str());
    struct statx stFile;
    if (iLength >= static_cast<int>(sizeof(szName)) || !LookAtName(szName, stFile)) {
      break;  // a name that was cut is used as it is: its number may be gone
    }
    iTotal += stFile.stx_size;
    if (stFile.stx_size <= m_iMaxSize) {
      break;
    }
  }
  if (iTotal >= m_iMaxLogSize) {
    DeleteOldFile();
  }
  return szName;
}

// Empty on purpose: the limit is looked at, but nobody's log file is deleted.
void Log::DeleteOldFile() {}

void Log::OpenFile(const std::string& strFile) {
  MakeDir(m_strPath.c_str(), DIRECTORY_MODE);
  m_iFD = open(strFile.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, FILE_MODE);
  struct statx stFile {};
  LookAtDescriptor(m_iFD, stFile);
  m_iDevice = DeviceOf(stFile);
  m_iInode = stFile.stx_ino;
}

void Log::CloseFile() {
  if (m_iFD != -1) {
    close(m_iFD);
    m_iFD = -1;
  }
}

// Writes the first iLength bytes of the buffer, which has room for one more, and a newline.
void Log::WriteLine(size_t iLength) {
  m_pBuffer[iLength] = '\n';
  if (WriteAll(m_iFD, m_pBuffer.get(), iLength + 1) || errno != EBADF) {
    return;
  }
  m_iFD = -1;  // not ours any more, so not closed
  CheckFileHandle();
  WriteAll(m_iFD, m_pBuffer.get(), iLength + 1);  // failed again: it is dropped
}

void Log::WriteText(LOG_LEVEL eLevel, int iError, const char* pFormat, va_list sAp) {
  const char* pName = LogLevelConvert(eLevel);
  char* pBuffer = m_pBuffer.get();
  char* pLast = pBuffer + m_iLineBufferSize - 1;
  char* pEnd = Append(pBuffer, pLast, GenerateTimeString());
  pEnd = Append(pEnd, pLast, "[");
  pEnd = Append(pEnd, pLast, pName != nullptr ? pName : "(null)");
  pEnd = Append(pEnd, pLast, "] ");
  errno = iError;  // for "%m": even the time, by a zone without a file, may have changed it
  vsnprintf(pEnd, static_cast<size_t>(pLast - pEnd) + 1, pFormat, sAp);
  WriteLine(static_cast<size_t>(pEnd - pBuffer) + strlen(pEnd));  // a message ends at its first NUL
}

void Log::WriteDump(const char* pData, unsigned int iSize) {
  char* pRow = m_pBuffer.get();
  memcpy(pRow, DUMP_HEADER, sizeof(DUMP_HEADER));
  WriteLine(sizeof(DUMP_HEADER) - 1);
  for (unsigned int iRow = 0; iRow <= (iSize - 1) / COLUMNS; ++iRow) {
    const unsigned int iBegin = iRow * COLUMNS;
    const unsigned int iCount = std::min(COLUMNS, iSize - iBegin);
    BeginRow(pRow, iRow);
    for (size_t i = 0; i < iCount; ++i) {
      const auto cByte = static_cast<unsigned char>(pData[iBegin + i]);
      PutHex(pRow + HEX_BEGIN + 3 * i, cByte);
      pRow[CHARACTER_BEGIN + i] = cByte >= 32 && cByte <= 126 ? pData[iBegin + i] : '.';
    }
    WriteLine(CHARACTER_BEGIN + iCount);
  }
}

// Out of line: each of the writers above it is then a comparison and a call.
__attribute__((noinline)) void Log::WriteEntry(LOG_LEVEL eLevel, const char* pData,
                                               unsigned int iSize, const char* pFormat,
                                               va_list sAp) {
  const int iError = errno;
  try {
    CheckFileHandle();
    if (m_iFD != -1) {
      WriteText(eLevel, iError, pFormat, sAp);
      if (iSize != 0 && pData != nullptr) {
        WriteDump(pData, iSize);
      }
    }
  } catch (const std::bad_alloc&) {
    // Dropped like any other line: who logs that memory is lacking shall not have it once more.
  }
  errno = iError;
}

void Log::vBinaryLog(LOG_LEVEL eLevel, const char* pData, unsigned int iSize, const char* pFormat,
                     va_list sAp) {
  if (eLevel >= m_eLevel) {
    WriteEntry(eLevel, pData, iSize, pFormat, sAp);
  }
}

void Log::BinaryLog(LOG_LEVEL eLevel, const char* pData, unsigned int iSize, const char* pFormat,
                    ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  vBinaryLog(eLevel, pData, iSize, pFormat, sAp);
  va_end(sAp);
}

void Log::vWriteLog(LOG_LEVEL eLevel, const char* pFormat, va_list sAp) {
  vBinaryLog(eLevel, nullptr, 0, pFormat, sAp);
}

void Log::WriteLog(LOG_LEVEL eLevel, const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  vWriteLog(eLevel, pFormat, sAp);
  va_end(sAp);
}

void Log::vDebug(const char* pFormat, va_list sAp) { vWriteLog(LL_DEBUG, pFormat, sAp); }
void Log::vInfo(const char* pFormat, va_list sAp) { vWriteLog(LL_INFO, pFormat, sAp); }
void Log::vWarning(const char* pFormat, va_list sAp) { vWriteLog(LL_WARNING, pFormat, sAp); }
void Log::vError(const char* pFormat, va_list sAp) { vWriteLog(LL_ERROR, pFormat, sAp); }
void Log::vStat(const char* pFormat, va_list sAp) { vWriteLog(LL_STAT, pFormat, sAp); }

void Log::Debug(const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  vDebug(pFormat, sAp);
  va_end(sAp);
}

void Log::Info(const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  vInfo(pFormat, sAp);
  va_end(sAp);
}

void Log::Warning(const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  vWarning(pFormat, sAp);
  va_end(sAp);
}

void Log::Error(const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  vError(pFormat, sAp);
  va_end(sAp);
}

void Log::Stat(const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  vStat(pFormat, sAp);
  va_end(sAp);
}

void Log::Dump(int iFD) {
  dprintf(iFD, "m_strPath.c_str()=\"%s\"\n", m_strPath.c_str());
  dprintf(iFD, "m_strPrefix.c_str()=\"%s\"\n", m_strPrefix.c_str());
  dprintf(iFD, "m_strSuffix.c_str()=\"%s\"\n", m_strSuffix.c_str());
  dprintf(iFD, "m_iMaxSize=\"%llu\"\n", static_cast<unsigned long long>(m_iMaxSize));
  dprintf(iFD, "m_iFD=\"%d\"\n", m_iFD);
  dprintf(iFD, "LogLevelConvert(m_eLevel)=\"%s\"\n", LogLevelConvert(m_eLevel));
}
