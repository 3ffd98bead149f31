// Commands on keys, whatever their values.

#include "command_runner.h"
#include "glob_match.h"
#include "reply.h"

namespace {

const uint64_t DEFAULT_SCAN_COUNT = 10;

// The words behind the cursor of SCAN.
struct ScanOptions_t {
  std::string_view strPattern = "*";
  uint64_t iCount = DEFAULT_SCAN_COUNT;
  bool bStrings = true;  // the only type there is
};

// Empty, or what is wrong.
std::string ParseScanOptions(const Arguments_t& vecArguments, ScanOptions_t& stOptions) {
  for (size_t i = 1; i < vecArguments.size(); i += 2) {
    const std::string_view strWord = vecArguments[i];
    if (i + 1 == vecArguments.size()) {
      return SYNTAX_ERROR;
    }
    const std::string_view strValue = vecArguments[i + 1];
    int64_t iCount = 0;
    if (EqualsIgnoringCase(strWord, "match")) {
      stOptions.strPattern = strValue;
    } else if (EqualsIgnoringCase(strWord, "type")) {
      stOptions.bStrings = EqualsIgnoringCase(strValue, "string");
      // NOLINTNEXTLINE(bugprone-branch-clone): in the order in which the faults are told
    } else if (!EqualsIgnoringCase(strWord, "count")) {
      return SYNTAX_ERROR;
    } else if (!ParseInteger(strValue, iCount)) {
      return NOT_AN_INTEGER;
    } else if (iCount < 1) {
      return SYNTAX_ERROR;
    } else {
      stOptions.iCount = static_cast<uint64_t>(iCount);
    }
  }
  return "";
}

}  // namespace

void CommandRunner::Del(const Arguments_t& vecArguments, std::string& strOut) {
  int64_t iCount = 0;
  for (const std::string_view strKey : vecArguments) {
    iCount += m_stStore.Remove(strKey) ? 1 : 0;
  }
  AppendInteger(strOut, iCount);
}

void CommandRunner::Exists(const Arguments_t& vecArguments, std::string& strOut) {
  int64_t iCount = 0;
  for (const std::string_view strKey : vecArguments) {
    iCount += m_stStore.Get(strKey) ? 1 : 0;
  }
  AppendInteger(strOut, iCount);
}

void CommandRunner::Type(const Arguments_t& vecArguments, std::string& strOut) {
  AppendStatus(strOut, m_stStore.Get(vecArguments[0]) ? "string" : "none");
}

void CommandRunner::Keys(const Arguments_t& vecArguments, std::string& strOut) {
  const size_t iStart = strOut.size();
  const std::string_view strPattern = vecArguments[0];
  std::string strKeys;
  size_t iCount = 0;
  m_stStore.Scan(0, UINT64_MAX, [&](std::string_view strKey, const Value_t& /*stValue*/) {
    if (strKeys.size() <= m_stPlace.iMaxReply && GlobMatch(strPattern, strKey)) {
      AppendBulk(strKeys, strKey);
      ++iCount;
    }
  });
  AppendArrayHead(strOut, iCount);
  strOut.append(strKeys);
  LimitReply(strOut, iStart);
}

// A cursor at this worker's end leads to the next one's start.
void CommandRunner::Scan(const Arguments_t& vecArguments, std::string& strOut) {
  const size_t iStart = strOut.size();
  ScanCursor_t stCursor{};
  ScanOptions_t stOptions;
  ParseCursor(vecArguments[0], stCursor);
  const std::string strError = ParseScanOptions(vecArguments, stOptions);
  if (!strError.empty()) {
    return AppendError(strOut, strError);
  }
  std::string strKeys;
  size_t iCount = 0;
  const uint64_t iNext = m_stStore.Scan(
      stCursor.iBucket, stOptions.iCount, [&](std::string_view strKey, const Value_t& /*stValue*/) {
        if (strKeys.size() <= m_stPlace.iMaxReply && stOptions.bStrings &&
            GlobMatch(stOptions.strPattern, strKey)) {
          AppendBulk(strKeys, strKey);
          ++iCount;
        }
      });
  stCursor = {iNext, m_stPlace.iWorker};
  if (iNext == 0) {
    stCursor.iWorker = m_stPlace.iWorker + 1 < m_stPlace.iWorkers ? m_stPlace.iWorker + 1 : 0;
  }
  AppendArrayHead(strOut, 2);
  AppendBulk(strOut, CursorText(stCursor));
  AppendArrayHead(strOut, iCount);
  strOut.append(strKeys);
  LimitReply(strOut, iStart);
}

// How many keys there are, and one of them: the gateway draws among the workers.
void CommandRunner::RandomKey(const Arguments_t& /*vecArguments*/, std::string& strOut) {
  std::string strKey;
  const bool bFound = m_stStore.RandomKey(strKey);
  AppendArrayHead(strOut, 2);
  AppendBulk(strOut, std::to_string(bFound ? m_stStore.Count() : 0));
  AppendBulk(strOut, strKey);
}

void CommandRunner::DbSize(const Arguments_t& /*vecArguments*/, std::string& strOut) {
  AppendInteger(strOut, static_cast<int64_t>(m_stStore.Count()));
}

void CommandRunner::FlushAll(const Arguments_t& /*vecArguments*/, std::string& strOut) {
  m_stStore.Clear();
  AppendStatus(strOut, "OK");
}

// The figures of WorkerStat_t in their order: the gateway adds them up and makes the text.
void CommandRunner::Info(const Arguments_t& /*vecArguments*/, std::string& strOut) {
  const StoreStat_t stStat = m_stStore.Stat();
  const SaveStat_t stSave = m_stSaver.Stat();
  const JournalStat_t stJournal = m_stSaver.TheJournal().Stat();
  AppendArrayHead(strOut, 16);
  for (const uint64_t iFigure :
       {stStat.iKeys, stStat.iExpiring, static_cast<uint64_t>(stStat.iAverageTtl),
        stStat.iUsedBytes, stStat.iBytes, stStat.iUncarved, stSave.iChanges, stSave.iRunning,
        stSave.iLastSave, stSave.iLastGood, stJournal.iOn, stJournal.iGood, stJournal.iWhole,
        stJournal.iBytes, stJournal.iPending, stJournal.iSyncs}) {
    AppendBulk(strOut, std::to_string(iFigure));
  }
}
