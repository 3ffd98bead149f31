#include "conversation.h"

#include "log.h"
#include "zelk_variable.h"

namespace {

CommandRunner* g_pRunner = nullptr;
ReplyOutbox* g_pOutbox = nullptr;

}  // namespace

void Conversation::Configure(CommandRunner* pRunner, ReplyOutbox* pOutbox) {
  g_pRunner = pRunner;
  g_pOutbox = pOutbox;
}

void Conversation::RegisterStates() {
  StateMachine::SetGlobalStateList(MACHINE_CONVERSATION, CONVERSATION_SERVING, OnBatch);
  StateMachine::SetGlobalStateName(MACHINE_CONVERSATION, CONVERSATION_SERVING, "serving");
}

int Conversation::OnBatch(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  auto* pThis = static_cast<Conversation*>(pMachine);
  const auto& stBatch = *static_cast<BatchMessage_t*>(pMessage);
  RecordReader stReader(stBatch.strRuns);
  size_t iNextValue = 0;
  g_pOutbox->BeginBatch(stBatch.stHead.iLife, stBatch.stHead.iNumber);
  for (uint32_t iRun = 0; iRun < stBatch.stHead.iRuns; ++iRun) {
    const auto stRun = stReader.Take<RunHead_t>();
    g_pOutbox->BeginRun();
    for (uint32_t i = 0; i < stRun.iCommands; ++i) {
      if (!pThis->RunCommand(stReader, stBatch.vecValues, iNextValue)) {
        g_pLog->Error("worker %d: a batch is damaged", *g_pWorkerIndex);
        break;
      }
      g_pOutbox->EndCommand();
    }
    g_pOutbox->EndRun();
  }
  g_pOutbox->EndBatch();
  return 0;
}

bool Conversation::RunCommand(RecordReader& stReader, const Arguments_t& vecValues,
                              size_t& iNextValue) {
  const auto stHead = stReader.Take<CommandHead_t>();
  const uint32_t iInline = stHead.iArguments - (stHead.iValueFollows != 0 ? 1 : 0);
  RecordReader stLengths(stReader.TakeBytes(stHead.iArguments * sizeof(uint32_t)));
  m_vecArguments.clear();
  for (uint32_t i = 0; i < iInline && stReader.Good() && stLengths.Good(); ++i) {
    m_vecArguments.push_back(stReader.TakeBytes(stLengths.Take<uint32_t>()));
  }
  if (stHead.iValueFollows != 0 && iNextValue < vecValues.size()) {
    m_vecArguments.push_back(vecValues[iNextValue++]);
  }
  if (!stReader.Good() || m_vecArguments.size() != stHead.iArguments) {
    return false;
  }
  g_pRunner->Run(static_cast<CommandId_t>(stHead.iCommand), m_vecArguments, g_pOutbox->Reply());
  return true;
}
