#include "worker.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log.h"
#include "machine_factory.h"
#include "machine_pool.h"
#include "memory_tracking.h"
#include "process_signals.h"
#include "table_set.h"
#include "zelk_variable.h"

namespace {

const unsigned int POP_COUNT = 64;
const int IDLE_WAIT_MS = 1000;

int64_t WallMilliseconds() {
  timespec stNow{};
  clock_gettime(CLOCK_REALTIME, &stNow);
  return stNow.tv_sec * 1000 + stNow.tv_nsec / 1000000;
}

}  // namespace

Worker::Worker(const Settings_t& stSettings, const QueueNames_t& stNames,
               const TableName_t& stTable)
    : m_stSettings(stSettings),
      m_stNames(stNames),
      m_stTable(stTable),
      m_iIndex(static_cast<int>(stTable.stMark.iWorker)),
      m_stSaver(m_stSettings, m_stStore, stTable.stMark, m_stIds),
      m_stRunner(m_stStore, m_stSaver,
                 {stSettings.iMaxValue, stSettings.iMaxOutput, stTable.stMark.iWorker,
                  stTable.stMark.iWorkers}),
      m_stOutbox(m_stOut, stSettings.iQueueBytes, static_cast<int>(stSettings.iStopTimeout)) {}

int Worker::Run() {
  const int iExit = AttachTable();
  if (iExit != 0) {
    return iExit;
  }
  if (!Start()) {
    g_pLog->Error("worker %d: can not attach its queues: %s", m_iIndex, strerror(errno));
    return 1;
  }
  while (g_bRunFlag) {
    Turn();
    if (m_stIn.CanReadSize() > 0) {
      continue;
    }
    m_stIn.ClearFifo();
    if (m_stIn.CanReadSize() == 0) {  // what came before the clearing is seen here
      int iPause = m_stSaver.Turn(m_stStore.Sweep(IDLE_WAIT_MS));
      iPause = m_stSaver.TheJournal().Turn(iPause);
      WaitReadable({m_stIn.FifoFD(), m_stSaver.WaitFD(), m_stSaver.TheJournal().WaitFD()}, iPause);
    }
  }
  Turn();
  m_stSaver.Finish();
  EndConversation();
  g_pLog->Info("worker %d: stopped after %llu commands, %zu keys", m_iIndex,
               static_cast<unsigned long long>(m_stRunner.CommandsRun()), m_stStore.Count());
  return 0;
}

bool Worker::Start() {
  g_pWorkerIndex = &m_iIndex;
  Conversation::Configure(&m_stRunner, &m_stOutbox);
  Conversation::RegisterStates();
  MachineFactory::Instance().AddMachine(MACHINE_CONVERSATION, Conversation::Create);
  const auto iBytes = static_cast<unsigned int>(m_stSettings.iQueueBytes);
  if (m_stIn.AttachWithKey(m_stNames.stIn.strFifo.c_str(), m_stNames.stIn.iKey, iBytes) != 0 ||
      m_stOut.AttachWithKey(m_stNames.stOut.strFifo.c_str(), m_stNames.stOut.iKey, iBytes) != 0) {
    return false;
  }
  m_stOutbox.SetBarrier([this] { CommitOrEnd(); });
  g_pLog->Info("worker %d: started", m_iIndex);
  m_stOutbox.Hello();
  return m_stOutbox.Publish();
}

// Changes that the journal could not take are in the table, and nobody must hear that they are
// safe. When this worker ends here, its clients hear that they may or may not have been made.
void Worker::CommitOrEnd() {
  if (!m_stSaver.TheJournal().Commit()) {
    g_pLog->Error("worker %d: ends without answering what the journal has not got", m_iIndex);
    _exit(EXIT_JOURNAL);
  }
}

int Worker::AttachTable() {
  m_stStore.SetTime(WallMilliseconds());
  const std::string strError = m_stStore.Attach(m_stTable);
  if (!strError.empty()) {
    const std::string strTable = TableSet::Describe(m_stTable);
    fprintf(stderr, "kv_server: %s %s\n", strTable.c_str(), strError.c_str());
    g_pLog->Error("worker %d: %s %s", m_iIndex, strTable.c_str(), strError.c_str());
    return EXIT_TABLE;
  }
  g_pLog->Info("worker %d: %zu keys, %llu lost blocks given back, %s", m_iIndex, m_stStore.Count(),
               static_cast<unsigned long long>(m_stStore.Reclaimed()),
               m_stStore.Replayed() ? "a change finished" : "no change to finish");
  return LoadTable();
}

// Of a table without room the master may make a larger one, and says so if it does not.
int Worker::LoadTable() {
  const std::string strError = m_stSaver.Load();
  if (strError.empty()) {
    return 0;
  }
  g_pLog->Error("worker %d: %s", m_iIndex, strError.c_str());
  if (m_stStore.WasFull()) {
    return EXIT_TABLE_FULL;
  }
  fprintf(stderr, "kv_server: %s\n", strError.c_str());
  return EXIT_TABLE;
}

// Runs everything that is in the queue and answers it. Keys expire by the time at its start.
void Worker::Turn() {
  m_stStore.SetTime(WallMilliseconds());
  while (Fetch() || !m_dqRecords.empty()) {
    while (!m_dqRecords.empty()) {
      RunFirst();
    }
    if (!m_stOutbox.Publish()) {
      g_pLog->Warning("worker %d: nobody takes its answers, they are given up", m_iIndex);
      return;
    }
  }
  m_stStore.Sweep(0);
  m_stSaver.Turn(0);
  m_stSaver.TheJournal().Turn(0);
  MachinePool::Instance().ProcessTimeout(0);
}

bool Worker::Fetch() {
  BufferVec_t astRecords[POP_COUNT];
  const int iCount = m_stIn.Pop(astRecords, POP_COUNT);
  for (int i = 0; i < iCount; ++i) {
    KV_TRACK(astRecords[i].pData, astRecords[i].iSize);
    m_dqRecords.push_back({std::unique_ptr<char[]>(astRecords[i].pData), astRecords[i].iSize});
  }
  return iCount > 0;
}

// A batch and its values were pushed together, so all of them are there.
bool Worker::FetchAtLeast(size_t iCount) {
  while (m_dqRecords.size() < iCount) {
    if (!Fetch()) {
      return false;
    }
  }
  return true;
}

// Runs the batch in front and takes it and its values off the queue of records.
void Worker::RunFirst() {
  RecordReader stReader(std::string_view(m_dqRecords[0].pData.get(), m_dqRecords[0].iSize));
  const auto stHead = stReader.Take<RequestHead_t>();
  if (!stReader.Good() || stHead.iMark != m_stNames.iMark || !FetchAtLeast(1 + stHead.iValues)) {
    g_pLog->Warning("worker %d: a value is dropped, its batch was another one's", m_iIndex);
    m_dqRecords.pop_front();
    return;
  }
  if (m_stSettings.strFollow == "yes" && m_stSettings.iWorkers == 1) {
    m_stCpuFollower.Follow(stHead.iCpu);
  }
  BatchMessage_t stBatch{stHead, {m_dqRecords[0].pData.get(), m_dqRecords[0].iSize}, {}};
  stBatch.strRuns.remove_prefix(sizeof(RequestHead_t));
  for (uint32_t i = 1; i <= stHead.iValues; ++i) {
    stBatch.vecValues.emplace_back(m_dqRecords[i].pData.get(), m_dqRecords[i].iSize);
  }
  ConversationWith(stHead.iLife)->DoNext(nullptr, &stBatch);
  m_dqRecords.erase(m_dqRecords.begin(), m_dqRecords.begin() + 1 + stHead.iValues);
}

// The machine of that gateway process; that of an earlier one ends here.
StateMachine* Worker::ConversationWith(uint64_t iLife) {
  MachinePool& stPool = MachinePool::Instance();
  if (m_iConversation != 0 && iLife == m_iLife) {
    return stPool.GetMachine(m_iConversation);
  }
  EndConversation();
  StateMachine* pMachine = MachineFactory::Instance().NewMachine(MACHINE_CONVERSATION);
  m_iConversation = m_stIds.GetId();
  pMachine->SetId(m_iConversation);
  stPool.AddMachine(pMachine);
  m_iLife = iLife;
  g_pLog->Info("worker %d: a gateway has come", m_iIndex);
  return pMachine;
}

void Worker::EndConversation() {
  const std::unique_ptr<StateMachine> pMachine(MachinePool::Instance().GetMachine(m_iConversation));
  MachinePool::Instance().RemoveMachine(m_iConversation);
}
