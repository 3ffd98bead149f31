#include "journal_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

// DESIGN
//
// What may be torn and what is damage: records are written front to back, so a writer that was
// killed, or a machine that died, leaves a file that ends inside a record, or a last one whose
// bytes are not all there. That is cut off: its change was not acknowledged, or the machine died
// within the time that journal.sync allows. A bad record with others behind it was once good.
// Cutting there would throw away changes that somebody relies on, so it is refused and left to the
// operator.

namespace {

const char MAGIC[8] = {'K', 'V', 'J', 'R', 'N', 'L', '1', '\n'};

uint32_t Checksum(uint32_t iSeed, const void* pData, size_t iSize) {
  return static_cast<uint32_t>(crc32_z(iSeed, static_cast<const unsigned char*>(pData), iSize));
}

// Of a record's head, without its own checksum.
uint32_t HeadSum(uint32_t iSeed, const JournalRecord_t& stRecord) {
  return Checksum(iSeed, &stRecord.iBodySum,
                  sizeof(stRecord) - offsetof(JournalRecord_t, iBodySum));
}

// A file's bytes.
class MappedFile {
 public:
  explicit MappedFile(const std::string& strPath) {
    const int iFD = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat stStat {};
    m_bGood =
        iFD != -1 && fstat(iFD, &stStat) == 0 && Map(iFD, static_cast<size_t>(stStat.st_size));
    const int iError = errno;
    if (iFD != -1) {
      close(iFD);
    }
    errno = iError;
  }
  ~MappedFile() {
    if (m_pBytes != nullptr) {
      munmap(m_pBytes, m_iSize);
    }
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  bool Good() const { return m_bGood; }
  std::string_view Bytes() const { return {static_cast<const char*>(m_pBytes), m_iSize}; }

 private:
  bool Map(int iFD, size_t iSize) {
    if (iSize == 0) {
      return true;
    }
    void* pBytes = mmap(nullptr, iSize, PROT_READ, MAP_PRIVATE, iFD, 0);
    if (pBytes == MAP_FAILED) {
      return false;
    }
    m_pBytes = pBytes;
    m_iSize = iSize;
    return true;
  }

  void* m_pBytes = nullptr;
  size_t m_iSize = 0;
  bool m_bGood = false;
};

// Goes through the records of a file.
class JournalReader {
 public:
  JournalReader(KeyStore& stStore, std::string_view strBytes, const JournalHead_t& stHead)
      : m_stStore(stStore), m_strBytes(strBytes), m_iSeed(Checksum(0, &stHead, sizeof(stHead))) {}

  // Empty, or what is wrong; then Offset() is where.
  std::string Run() {
    while (m_iOffset < m_strBytes.size()) {
      std::string strFault = Next();
      if (!strFault.empty() || m_bTorn) {
        return strFault;
      }
    }
    return "";
  }

  size_t Offset() const { return m_iOffset; }
  uint64_t Records() const { return m_iRecords; }

 private:
  std::string Next();
  std::string Apply(const JournalRecord_t& stRecord, std::string_view strKey,
                    std::string_view strValue);
  std::string Torn() { return m_bTorn = true, ""; }

  KeyStore& m_stStore;
  const std::string_view m_strBytes;
  const uint32_t m_iSeed;
  size_t m_iOffset = sizeof(JournalHead_t);
  uint64_t m_iRecords = 0;
  bool m_bTorn = false;
};

size_t ValueSize(const JournalRecord_t& stRecord) {
  return stRecord.iValueSize >= JOURNAL_CLEARED ? 0 : stRecord.iValueSize;
}

std::string JournalReader::Next() {
  const std::string_view strRest = m_strBytes.substr(m_iOffset);
  JournalRecord_t stRecord{};
  if (strRest.size() < sizeof(stRecord)) {
    return Torn();
  }
  memcpy(&stRecord, strRest.data(), sizeof(stRecord));
  if (HeadSum(m_iSeed, stRecord) != stRecord.iHeadSum) {
    // A file that grew, and whose bytes did not come before the machine died, has zeros there.
    const bool bZeros = strRest.find_first_not_of('\0') == std::string_view::npos;
    return bZeros ? Torn() : "a record is damaged";
  }
  const size_t iValue = ValueSize(stRecord);
  if (!FitsBlock(stRecord.iKeySize, iValue)) {
    return "a record has an impossible size";
  }
  const std::string_view strBody = strRest.substr(sizeof(stRecord));
  const size_t iBody = stRecord.iKeySize + iValue;
  if (strBody.size() < iBody) {
    return Torn();
  }
  if (Checksum(0, strBody.data(), iBody) != stRecord.iBodySum) {
    return strBody.size() == iBody ? Torn() : "a record is damaged";
  }
  m_iOffset += sizeof(stRecord) + iBody;
  ++m_iRecords;
  return Apply(stRecord, strBody.substr(0, stRecord.iKeySize),
               strBody.substr(stRecord.iKeySize, iValue));
}

std::string JournalReader::Apply(const JournalRecord_t& stRecord, std::string_view strKey,
                                 std::string_view strValue) {
  const bool bOver = stRecord.iExpireAt != KeyStore::NEVER && stRecord.iExpireAt <= m_stStore.Now();
  if (stRecord.iValueSize == JOURNAL_CLEARED) {
    m_stStore.Clear();
  } else if (stRecord.iValueSize == JOURNAL_REMOVED || bOver) {
    m_stStore.Remove(strKey);
  } else if (stRecord.iValueSize == JOURNAL_EXPIRES) {
    m_stStore.SetExpiry(strKey, stRecord.iExpireAt);
  } else if (!m_stStore.Set(strKey, strValue, stRecord.iExpireAt)) {
    return "its keys do not fit into the table (table.bytes)";
  }
  return "";
}

std::string FilePrefix(uint32_t iWorker) { return "journal-" + std::to_string(iWorker) + "."; }

const char FILE_SUFFIX[] = ".kv";

// 0 when it is no name of a journal of that worker.
uint64_t GenerationOf(const std::string& strName, const std::string& strPrefix) {
  uint64_t iGeneration = 0;
  if (strName.rfind(strPrefix, 0) != 0) {
    return 0;
  }
  const char* pBegin = strName.data() + strPrefix.size();
  const auto stResult = std::from_chars(pBegin, strName.data() + strName.size(), iGeneration);
  const bool bName = stResult.ec == std::errc() &&
                     strName == strPrefix + std::to_string(iGeneration) + FILE_SUFFIX;
  return bName ? iGeneration : 0;
}

}  // namespace

JournalHead_t JournalHead(const TableMark_t& stMark, uint64_t iGeneration) {
  JournalHead_t stHead{{}, stMark.iWorker, stMark.iWorkers, iGeneration};
  memcpy(stHead.szMagic, MAGIC, sizeof(MAGIC));
  return stHead;
}

JournalEncoder::JournalEncoder(const JournalHead_t& stHead)
    : m_iSeed(Checksum(0, &stHead, sizeof(stHead))) {}

void JournalEncoder::Set(std::string& strOut, std::string_view strKey, std::string_view strValue,
                         int64_t iExpireAt) const {
  Append(strOut, {0, 0, iExpireAt, 0, static_cast<uint32_t>(strValue.size())}, strKey, strValue);
}

void JournalEncoder::Other(std::string& strOut, uint32_t iWhat, std::string_view strKey,
                           int64_t iExpireAt) const {
  Append(strOut, {0, 0, iExpireAt, 0, iWhat}, strKey, {});
}

void JournalEncoder::Append(std::string& strOut, JournalRecord_t stRecord, std::string_view strKey,
                            std::string_view strValue) const {
  stRecord.iKeySize = static_cast<uint32_t>(strKey.size());
  const size_t iHead = strOut.size();
  strOut.append(sizeof(stRecord), '\0').append(strKey).append(strValue);
  const size_t iBody = iHead + sizeof(stRecord);
  stRecord.iBodySum = Checksum(0, strOut.data() + iBody, strOut.size() - iBody);
  stRecord.iHeadSum = HeadSum(m_iSeed, stRecord);
  memcpy(&strOut[iHead], &stRecord, sizeof(stRecord));
}

std::string JournalPath(const std::string& strDirectory, uint32_t iWorker, uint64_t iGeneration) {
  return strDirectory + "/" + FilePrefix(iWorker) + std::to_string(iGeneration) + FILE_SUFFIX;
}

std::vector<uint64_t> JournalGenerations(const std::string& strDirectory, uint32_t iWorker) {
  std::vector<uint64_t> vecGenerations;
  const std::unique_ptr<DIR, int (*)(DIR*)> pDirectory(opendir(strDirectory.c_str()), closedir);
  if (pDirectory == nullptr) {
    return vecGenerations;
  }
  const std::string strPrefix = FilePrefix(iWorker);
  while (const dirent* pEntry = readdir(pDirectory.get())) {
    const uint64_t iGeneration = GenerationOf(pEntry->d_name, strPrefix);
    if (iGeneration != 0) {
      vecGenerations.push_back(iGeneration);
    }
  }
  std::sort(vecGenerations.begin(), vecGenerations.end());
  return vecGenerations;
}

std::string ReplayJournal(KeyStore& stStore, const TableMark_t& stMark, uint64_t iGeneration,
                          const std::string& strPath, JournalReplay_t& stReplay) {
  stReplay = {};
  const MappedFile stFile(strPath);
  if (!stFile.Good()) {
    return strPath + ": " + strerror(errno);
  }
  const JournalHead_t stHead = JournalHead(stMark, iGeneration);
  const std::string_view strBytes = stFile.Bytes();
  if (strBytes.size() < sizeof(stHead) || memcmp(strBytes.data(), &stHead, sizeof(stHead)) != 0) {
    return strPath + ": it is no journal of worker " + std::to_string(stMark.iWorker) + " of " +
           std::to_string(stMark.iWorkers) + ", generation " + std::to_string(iGeneration);
  }
  JournalReader stReader(stStore, strBytes, stHead);
  const std::string strFault = stReader.Run();
  stReplay = {stReader.Records(), stReader.Offset(), strBytes.size() - stReader.Offset()};
  if (!strFault.empty()) {
    return strPath + ": " + strFault + ", at byte " + std::to_string(stReader.Offset());
  }
  if (stReplay.iCut > 0 && truncate(strPath.c_str(), static_cast<off_t>(stReplay.iBytes)) != 0) {
    return strPath + ": its torn end can not be cut off: " + strerror(errno);
  }
  return "";
}
