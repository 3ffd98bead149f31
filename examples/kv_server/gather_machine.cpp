#include "gather_machine.h"

#include <signal.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>

#include "gateway.h"
#include "log.h"
#include "reply.h"
#include "zelk_variable.h"

namespace {

const int DONE = 1;  // tells the caller of DoNext to remove the machine

uint64_t NumberOfBulk(std::string_view strReply) {
  return strtoull(std::string(BulkOfReply(strReply)).c_str(), nullptr, 10);
}

std::string ErrorText(const char* pError) {
  std::string strReply;
  AppendError(strReply, pError);
  return strReply;
}

}  // namespace

void GatherMachine::RegisterStates() {
  StateMachine::SetGlobalStateList(MACHINE_GATHER, GATHER_WAITING, OnAnswer);
  StateMachine::SetGlobalStateName(MACHINE_GATHER, GATHER_WAITING, "waiting");
}

GatherMachine::GatherMachine(Gateway& stGateway, CommandId_t eCommand, const ReplyTarget_t& stAsker)
    : m_stGateway(stGateway), m_eCommand(eCommand), m_stAsker(stAsker) {
  m_iState = GATHER_WAITING;
}

uint32_t GatherMachine::AddPart(std::vector<uint32_t> vecPlaces) {
  m_vecParts.push_back({std::move(vecPlaces), std::string(), false});
  ++m_iOpenParts;
  return static_cast<uint32_t>(m_vecParts.size()) - 1;
}

int GatherMachine::OnAnswer(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  auto* pGather = static_cast<GatherMachine*>(pMachine);
  return pGather->Take(*static_cast<GatewayEvent_t*>(pMessage)) ? DONE : 0;
}

// True when it was the last piece.
bool GatherMachine::Take(const GatewayEvent_t& stEvent) {
  Part_t& stPart = m_vecParts[stEvent.iSlot];
  if (stEvent.eType == GatewayEvent_t::LOST) {
    stPart.strReply = ErrorText(WORKER_LOST_ERROR);
    stPart.bDone = true;
  } else {
    m_iBytes += stEvent.pPiece->strBytes.size();
    if (m_iBytes <= m_stGateway.Settings().iMaxOutput) {
      stPart.strReply.append(stEvent.pPiece->strBytes);
    }
    stPart.bDone = !stEvent.pPiece->bGoesOn;
  }
  m_iOpenParts -= stPart.bDone ? 1 : 0;
  if (m_iOpenParts > 0) {
    return false;
  }
  Reply(Join());
  return true;
}

std::string GatherMachine::Join() const {
  std::string strReply;
  if (m_iBytes > m_stGateway.Settings().iMaxOutput) {
    AppendReplyTooLong(strReply, m_stGateway.Settings().iMaxOutput);
    return strReply;
  }
  if (m_eCommand == CMD_BGSAVE) {
    return JoinStarted();
  }
  for (const Part_t& stPart : m_vecParts) {
    if (IsErrorReply(stPart.strReply)) {
      return stPart.strReply;
    }
  }
  switch (m_eCommand) {
    case CMD_MGET:
      return JoinElements();
    case CMD_KEYS:
      return JoinLists();
    case CMD_RANDOMKEY:
      return DrawKey();
    case CMD_MSET:
    case CMD_FLUSHALL:
    case CMD_FLUSHDB:
      AppendStatus(strReply, "OK");
      break;
    case CMD_INFO:
      AppendBulk(strReply, m_stGateway.InfoText(m_iSections, SumStat()));
      break;
    case CMD_SHUTDOWN:
      kill(m_stGateway.Master(), SIGTERM);
      break;  // answered by the end of the connection
    case CMD_LASTSAVE:
      AppendInteger(strReply, Least());
      break;
    default:
      AppendInteger(strReply, Sum());
  }
  return strReply;
}

// A save is under way when one worker has started its own.
std::string GatherMachine::JoinStarted() const {
  for (const Part_t& stPart : m_vecParts) {
    if (!IsErrorReply(stPart.strReply)) {
      return stPart.strReply;
    }
  }
  return m_vecParts.front().strReply;
}

int64_t GatherMachine::Least() const {
  int64_t iLeast = INT64_MAX;
  for (const Part_t& stPart : m_vecParts) {
    iLeast = std::min(iLeast, IntegerOfReply(stPart.strReply));
  }
  return iLeast;
}

int64_t GatherMachine::Sum() const {
  int64_t iSum = 0;
  for (const Part_t& stPart : m_vecParts) {
    iSum += IntegerOfReply(stPart.strReply);
  }
  return iSum;
}

// The keys of all workers.
std::string GatherMachine::JoinLists() const {
  size_t iCount = 0;
  std::string strElements;
  for (const Part_t& stPart : m_vecParts) {
    for (const std::string_view strElement : ElementsOfReply(stPart.strReply)) {
      strElements.append(strElement);
      ++iCount;
    }
  }
  std::string strReply;
  AppendArrayHead(strReply, iCount);
  return strReply + strElements;
}

// Each worker has drawn a key; a worker is drawn by how many it has.
std::string GatherMachine::DrawKey() const {
  static std::mt19937_64 stRandom{std::random_device()()};
  std::string strReply;
  uint64_t iSum = 0;
  for (const Part_t& stPart : m_vecParts) {
    const auto vecOwn = ElementsOfReply(stPart.strReply);
    const uint64_t iKeys = NumberOfBulk(vecOwn[0]);
    iSum += iKeys;
    if (iKeys > 0 && stRandom() % iSum < iKeys) {
      strReply = vecOwn[1];
    }
  }
  if (iSum == 0) {
    AppendNull(strReply);
  }
  return strReply;
}

// Of the saves, the oldest and the worst outcome.
WorkerStat_t GatherMachine::SumStat() const {
  WorkerStat_t stSum{{}, {0, 0, UINT64_MAX, 1}, {0, 1, 1, 0, 0, 0}};
  StoreStat_t& stStore = stSum.stStore;
  SaveStat_t& stSave = stSum.stSave;
  JournalStat_t& stJournal = stSum.stJournal;
  uint64_t iTtlSum = 0;
  for (const Part_t& stPart : m_vecParts) {
    std::vector<uint64_t> vecFigures;
    for (const std::string_view strElement : ElementsOfReply(stPart.strReply)) {
      vecFigures.push_back(NumberOfBulk(strElement));
    }
    vecFigures.resize(16);
    stStore.iKeys += vecFigures[0];
    stStore.iExpiring += vecFigures[1];
    iTtlSum += vecFigures[1] * vecFigures[2];
    stStore.iUsedBytes += vecFigures[3];
    stStore.iBytes += vecFigures[4];
    stStore.iUncarved += vecFigures[5];
    stSave.iChanges += vecFigures[6];
    stSave.iRunning = std::max(stSave.iRunning, vecFigures[7]);
    stSave.iLastSave = std::min(stSave.iLastSave, vecFigures[8]);
    stSave.iLastGood = std::min(stSave.iLastGood, vecFigures[9]);
    stJournal.iOn = std::max(stJournal.iOn, vecFigures[10]);
    stJournal.iGood = std::min(stJournal.iGood, vecFigures[11]);
    stJournal.iWhole = std::min(stJournal.iWhole, vecFigures[12]);
    stJournal.iBytes += vecFigures[13];
    stJournal.iPending = std::max(stJournal.iPending, vecFigures[14]);
    stJournal.iSyncs += vecFigures[15];
  }
  stStore.iAverageTtl =
      static_cast<int64_t>(stStore.iExpiring == 0 ? 0 : iTtlSum / stStore.iExpiring);
  return stSum;
}

// Puts each part's elements at the places of their keys.
std::string GatherMachine::JoinElements() const {
  std::vector<std::string_view> vecElements;
  for (const Part_t& stPart : m_vecParts) {
    const auto vecOwn = ElementsOfReply(stPart.strReply);
    for (size_t i = 0; i < vecOwn.size() && i < stPart.vecPlaces.size(); ++i) {
      vecElements.resize(std::max<size_t>(vecElements.size(), stPart.vecPlaces[i] + 1));
      vecElements[stPart.vecPlaces[i]] = vecOwn[i];
    }
  }
  std::string strReply;
  AppendArrayHead(strReply, vecElements.size());
  for (const std::string_view strElement : vecElements) {
    strReply.append(strElement);
  }
  return strReply;
}

int GatherMachine::Timeout(bool /*bMachine*/) {
  g_pLog->Warning("gateway: a command over several workers is given up after %llu s",
                  static_cast<unsigned long long>(m_stGateway.Settings().iGatherTimeout));
  Reply(
      ErrorText("ERR workers did not answer in time (timeout.gather), "
                "the command may or may not have run"));
  return DONE;  // late answers find no machine and are dropped
}

void GatherMachine::Reply(const std::string& strReply) {
  m_stGateway.OnPiece(m_stAsker, {strReply, 1, false, false});
}
