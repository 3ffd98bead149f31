#include "dump_file.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

const char MAGIC[8] = {'K', 'V', 'D', 'U', 'M', 'P', '2', '\n'};
const size_t BUFFER_SIZE = 1 << 20;

struct CloseFile {
  void operator()(FILE* pFile) const { fclose(pFile); }
};

std::string UnfinishedName(const std::string& strPath) { return strPath + ".new"; }

DumpEntry_t EntryOf(std::string_view strKey, const Value_t& stValue) {
  return {static_cast<uint32_t>(strKey.size()), static_cast<uint32_t>(stValue.strBytes.size()),
          stValue.iExpireAt};
}

// A file read or written from its start, with the checksum of what has passed.
class DumpStream {
 public:
  DumpStream(const std::string& strPath, const char* pMode)
      : m_strPath(strPath), m_pFile(fopen(strPath.c_str(), pMode)) {
    if (m_pFile != nullptr) {
      setvbuf(m_pFile.get(), nullptr, _IOFBF, BUFFER_SIZE);
    }
  }

  bool IsOpen() const { return m_pFile != nullptr; }
  uint64_t Bytes() const { return m_iBytes; }
  uint32_t Checksum() const { return m_iChecksum; }
  bool AtEnd() { return fgetc(m_pFile.get()) == EOF; }

  bool Write(const void* pData, size_t iSize) {
    Count(pData, iSize);
    return fwrite(pData, 1, iSize, m_pFile.get()) == iSize;
  }
  bool Read(void* pData, size_t iSize) {
    if (fread(pData, 1, iSize, m_pFile.get()) != iSize) {
      return false;
    }
    Count(pData, iSize);
    return true;
  }
  bool Sync() { return fflush(m_pFile.get()) == 0 && fsync(fileno(m_pFile.get())) == 0; }

 private:
  void Count(const void* pData, size_t iSize) {
    m_iBytes += iSize;
    m_iChecksum = static_cast<uint32_t>(
        crc32_z(m_iChecksum, static_cast<const unsigned char*>(pData), iSize));
  }

  const std::string m_strPath;
  std::unique_ptr<FILE, CloseFile> m_pFile;
  uint64_t m_iBytes = 0;
  uint32_t m_iChecksum = 0;
};

bool WriteEntries(DumpStream& stFile, const KeySource_t& fnSource, const DumpOrigin_t& stOrigin,
                  DumpStat_t& stStat) {
  DumpHead_t stHead{{},
                    stOrigin.stMark.iWorker,
                    stOrigin.stMark.iWorkers,
                    stOrigin.iSavedAt,
                    stOrigin.iGeneration};
  memcpy(stHead.szMagic, MAGIC, sizeof(MAGIC));
  bool bGood = stFile.Write(&stHead, sizeof(stHead));
  int iError = errno;  // the source goes on after a failure, and may spoil errno
  const bool bWhole = fnSource([&](std::string_view strKey, const Value_t& stValue) {
    const DumpEntry_t stEntry = EntryOf(strKey, stValue);
    if (bGood) {
      bGood = stFile.Write(&stEntry, sizeof(stEntry)) &&
              stFile.Write(strKey.data(), strKey.size()) &&
              stFile.Write(stValue.strBytes.data(), stValue.strBytes.size());
      iError = errno;
    }
    ++stStat.iKeys;
  });
  if (!bGood) {
    errno = iError;
    return false;
  }
  const DumpEntry_t stEnd{DUMP_END, stFile.Checksum(), static_cast<int64_t>(stStat.iKeys)};
  bGood = bWhole && stFile.Write(&stEnd, sizeof(stEnd)) && stFile.Sync();
  stStat.iBytes = stFile.Bytes();
  return bGood;
}

// The entry in front of which the checksum was iBefore.
std::string CheckEnd(DumpStream& stFile, const DumpEntry_t& stEnd, uint32_t iBefore,
                     uint64_t iEntries) {
  if (stEnd.iValueSize != iBefore || stEnd.iExpireAt != static_cast<int64_t>(iEntries)) {
    return "its checksum is wrong";
  }
  return stFile.AtEnd() ? "" : "something follows its end";
}

std::string ReadEntries(DumpStream& stFile, const DumpVisitor_t& fnVisit, uint64_t& iEntries) {
  std::string strKey;
  std::string strValue;
  for (iEntries = 0;; ++iEntries) {
    DumpEntry_t stEntry{};
    const uint32_t iBefore = stFile.Checksum();
    if (!stFile.Read(&stEntry, sizeof(stEntry))) {
      return "it is cut off";
    }
    if (stEntry.iKeySize == DUMP_END) {
      return CheckEnd(stFile, stEntry, iBefore, iEntries);
    }
    if (!FitsBlock(stEntry.iKeySize, stEntry.iValueSize)) {
      return "an entry has an impossible size";
    }
    strKey.resize(stEntry.iKeySize);
    strValue.resize(stEntry.iValueSize);
    if (!stFile.Read(strKey.data(), strKey.size()) ||
        !stFile.Read(strValue.data(), strValue.size())) {
      return "it is cut off";
    }
    std::string strFault = fnVisit(strKey, {strValue, stEntry.iExpireAt});
    if (!strFault.empty()) {
      return strFault;
    }
  }
}

bool ReadHead(DumpStream& stFile, const TableMark_t& stMark, DumpHead_t& stHead) {
  return stFile.Read(&stHead, sizeof(stHead)) &&
         memcmp(stHead.szMagic, MAGIC, sizeof(MAGIC)) == 0 && stHead.iWorker == stMark.iWorker &&
         stHead.iWorkers == stMark.iWorkers;
}

std::string ReadOpen(DumpStream& stFile, const TableMark_t& stMark, const std::string& strPath,
                     const DumpVisitor_t& fnVisit, uint64_t& iEntries, uint64_t& iGeneration) {
  DumpHead_t stHead{};
  if (!ReadHead(stFile, stMark, stHead)) {
    return strPath + ": it is no dump of worker " + std::to_string(stMark.iWorker) + " of " +
           std::to_string(stMark.iWorkers);
  }
  iGeneration = stHead.iGeneration;
  const std::string strError = ReadEntries(stFile, fnVisit, iEntries);
  return strError.empty() ? "" : strPath + ": " + strError;
}

}  // namespace

bool SyncDirectoryOf(const std::string& strPath) {
  const size_t iSlash = strPath.rfind('/');
  const std::string strDirectory =
      iSlash == std::string::npos ? "." : strPath.substr(0, iSlash + 1);
  const int iFD = open(strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool bSynced = iFD != -1 && fsync(iFD) == 0;
  if (iFD != -1) {
    close(iFD);
  }
  return bSynced;
}

uint64_t DumpGeneration(const TableMark_t& stMark, const std::string& strPath) {
  DumpStream stFile(strPath, "r");
  DumpHead_t stHead{};
  return stFile.IsOpen() && ReadHead(stFile, stMark, stHead) ? stHead.iGeneration : 0;
}

void AppendDumpEntry(std::string& strOut, std::string_view strKey, const Value_t& stValue) {
  const DumpEntry_t stEntry = EntryOf(strKey, stValue);
  strOut.append(reinterpret_cast<const char*>(&stEntry), sizeof(stEntry));
  strOut.append(strKey).append(stValue.strBytes);
}

std::string WriteDump(KeyStore& stStore, const TableMark_t& stMark, const std::string& strPath,
                      DumpStat_t& stStat, uint64_t iGeneration) {
  const KeySource_t fnAll = [&stStore](const KeyStore::Visitor_t& fnVisit) {
    stStore.Scan(0, UINT64_MAX, fnVisit);
    return true;
  };
  return WriteDump(fnAll, {stMark, stStore.Now(), iGeneration}, strPath, stStat);
}

std::string WriteDump(const KeySource_t& fnSource, const DumpOrigin_t& stOrigin,
                      const std::string& strPath, DumpStat_t& stStat) {
  const std::string strNew = UnfinishedName(strPath);
  stStat = {0, 0, stOrigin.iGeneration};
  bool bGood = false;
  {
    DumpStream stFile(strNew, "w");
    bGood = stFile.IsOpen() && WriteEntries(stFile, fnSource, stOrigin, stStat);
  }
  if (bGood && rename(strNew.c_str(), strPath.c_str()) == 0 && SyncDirectoryOf(strPath)) {
    return "";
  }
  std::string strError = strPath + ": " + strerror(errno);
  unlink(strNew.c_str());
  return strError;
}

void RemoveUnfinishedDump(const std::string& strPath) { unlink(UnfinishedName(strPath).c_str()); }

std::string ReadDump(const TableMark_t& stMark, const std::string& strPath,
                     const DumpVisitor_t& fnVisit, uint64_t& iEntries) {
  DumpStream stFile(strPath, "r");
  iEntries = 0;
  uint64_t iGeneration = 0;
  return stFile.IsOpen() ? ReadOpen(stFile, stMark, strPath, fnVisit, iEntries, iGeneration)
                         : strPath + ": " + strerror(errno);
}

std::string LoadDump(KeyStore& stStore, const TableMark_t& stMark, const std::string& strPath,
                     DumpStat_t& stStat) {
  DumpStream stFile(strPath, "r");
  stStat = {};
  if (!stFile.IsOpen()) {
    return errno == ENOENT ? "" : strPath + ": " + strerror(errno);
  }
  const auto Add = [&](std::string_view strKey, const Value_t& stValue) {
    if (stValue.iExpireAt != KeyStore::NEVER && stValue.iExpireAt <= stStore.Now()) {
      return "";
    }
    ++stStat.iKeys;
    return stStore.Set(strKey, stValue.strBytes, stValue.iExpireAt)
               ? ""
               : "its keys do not fit into the table (table.bytes)";
  };
  uint64_t iEntries = 0;
  std::string strError = ReadOpen(stFile, stMark, strPath, Add, iEntries, stStat.iGeneration);
  stStat.iBytes = stFile.Bytes();
  return strError;
}
