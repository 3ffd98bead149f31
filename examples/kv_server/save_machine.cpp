#include "save_machine.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "gateway_event.h"
#include "log.h"
#include "machine_pool.h"
#include "save_actions.h"
#include "saver.h"
#include "string_util.h"
#include "zelk_variable.h"

namespace {

const int GOES_ON = 0;
const int DONE = 1;  // tells the caller of DoNext to remove the machine

// What the child was told to write, or why it did not; a child that was killed has written nothing.
std::string OutcomeOf(const std::string& strText, LongActionMethod& stResult) {
  const std::string strBytes = LongActionMethod::Decode(strText);
  if (!stResult.ParseResult(strBytes.data(), static_cast<unsigned int>(strBytes.size()))) {
    return "its child was cut short";
  }
  const std::string& strState = stResult.Param("state", 0);
  return strState.empty() ? "its child was killed" : strState;
}

}  // namespace

void SaveMachine::RegisterStates() {
  StateMachine::SetGlobalStateList(MACHINE_SAVE, SAVE_WRITING, OnWritten);
  StateMachine::SetGlobalStateList(MACHINE_SAVE, SAVE_MIRROR, OnMirrorEnded);
  StateMachine::SetGlobalStateList(MACHINE_SAVE, SAVE_HOOK, OnHookEnded);
  StateMachine::SetGlobalStateName(MACHINE_SAVE, SAVE_WRITING, "writing");
  StateMachine::SetGlobalStateName(MACHINE_SAVE, SAVE_MIRROR, "mirror");
  StateMachine::SetGlobalStateName(MACHINE_SAVE, SAVE_HOOK, "hook");
}

SaveMachine::SaveMachine(Saver& stSaver, uint32_t iId)
    : m_stSaver(stSaver), m_iChanges(stSaver.m_stStore.Changes()) {
  SetId(iId);
}

int SaveMachine::StateMachineType() { return MACHINE_SAVE; }

// The child prints what stdio still holds, so that is written first.
bool SaveMachine::Begin() {
  m_strError = m_stSaver.m_stJournal.Rotate(m_iGeneration);
  if (!m_strError.empty()) {
    return false;
  }
  KeyStore& stStore = m_stSaver.m_stStore;
  auto pFeed = std::make_unique<SaveFeed>(stStore);
  SaveAction stAction(*pFeed, {m_stSaver.m_stMark, stStore.Now(), m_iGeneration},
                      m_stSaver.m_strPath);
  fflush(nullptr);
  if (!pFeed->Good() || LongActionUtil::Instance().Perform(&stAction, GetId(), 0) != 0) {
    m_strError = strerror(errno);
    return false;
  }
  pFeed->StartSending();
  m_stSaver.m_pFeed = std::move(pFeed);
  Enter(SAVE_WRITING);
  return true;
}

void SaveMachine::Enter(SaveState_t eState) {
  m_iState = eState;
  m_stSaver.m_iOutput = 0;
  m_stSaver.m_bChildKilled = false;
  SetStateTimeout(static_cast<unsigned int>(m_stSaver.m_stSettings.iSaveTimeout));
  SetStateBeginTime(time(nullptr));
  MachinePool::Instance().ConfigStateTimeout(this);
}

int SaveMachine::OnWritten(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  return static_cast<SaveMachine*>(pMachine)->OnDump(
      *static_cast<long_action_response_t*>(pMessage));
}

int SaveMachine::OnDump(const long_action_response_t& stResponse) {
  LongActionMethod stResult;
  const std::string strOutcome = OutcomeOf(stResponse.strStdOut, stResult);
  const bool bGood = strOutcome == SAVED;
  m_stSaver.m_pFeed.reset();
  if (bGood) {
    g_pLog->Info("worker %d: saved %s keys, %s bytes", *g_pWorkerIndex,
                 stResult.Param("keys", 0).c_str(), stResult.Param("bytes", 0).c_str());
  } else {
    g_pLog->Error("worker %d: the save has failed: %s %s", *g_pWorkerIndex, strOutcome.c_str(),
                  stResponse.strStdError.c_str());
  }
  m_stSaver.OnSaved(bGood, m_iChanges, m_iGeneration);
  if (!bGood) {
    return DONE;
  }
  m_bSaved = true;
  // The mirror first: the hook may take the dump away.
  return m_stSaver.HasMirror() && BeginMirror() ? GOES_ON : StartHook();
}

bool SaveMachine::BeginMirror() {
  MirrorAction stAction(m_stSaver.m_stSettings, m_stSaver.m_stMark, m_stSaver.m_strPath);
  fflush(nullptr);
  if (LongActionUtil::Instance().Perform(&stAction, GetId(), 0) != 0) {
    g_pLog->Error("worker %d: the mirror can not be written: %s", *g_pWorkerIndex, strerror(errno));
    return false;
  }
  Enter(SAVE_MIRROR);
  return true;
}

int SaveMachine::OnMirrorEnded(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  return static_cast<SaveMachine*>(pMachine)->OnMirror(
      *static_cast<long_action_response_t*>(pMessage));
}

// The dump is good whatever has become of the mirror; the next save makes up for it.
int SaveMachine::OnMirror(const long_action_response_t& stResponse) {
  LongActionMethod stResult;
  const std::string strOutcome = OutcomeOf(stResponse.strStdOut, stResult);
  m_stSaver.m_bMirrorBehind = strOutcome != SAVED;
  if (m_stSaver.m_bMirrorBehind) {
    g_pLog->Error("worker %d: the mirror is behind: %s %s", *g_pWorkerIndex, strOutcome.c_str(),
                  stResponse.strStdError.c_str());
  } else {
    g_pLog->Info("worker %d: mirrored %s keys, %s rows written, %s deleted", *g_pWorkerIndex,
                 stResult.Param("keys", 0).c_str(), stResult.Param("written", 0).c_str(),
                 stResult.Param("deleted", 0).c_str());
  }
  return m_bSaved && !m_stSaver.m_bAbandoning ? StartHook() : DONE;
}

int SaveMachine::StartHook() {
  if (m_stSaver.m_stSettings.strSaveHook.empty()) {
    return DONE;
  }
  LongActionMethod stRequest;
  stRequest.Method("ExecuteShell2");
  stRequest.Param("command", m_stSaver.m_stSettings.strSaveHook);
  RequestAction stAction(stRequest.SerializeRequest(), m_stSaver.m_strPath);
  fflush(nullptr);
  if (LongActionUtil::Instance().Perform(&stAction, GetId(), 0) != 0) {
    g_pLog->Error("worker %d: save.hook can not be run: %s", *g_pWorkerIndex, strerror(errno));
    return DONE;
  }
  Enter(SAVE_HOOK);
  return GOES_ON;
}

int SaveMachine::OnHookEnded(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  static_cast<SaveMachine*>(pMachine)->LogHook(*static_cast<long_action_response_t*>(pMessage));
  return DONE;
}

void SaveMachine::LogHook(const long_action_response_t& stResponse) const {
  const bool bKilled = m_stSaver.m_bChildKilled;  // its exit code is 0
  const bool bGood = !bKilled && stResponse.iRetcode == 0;
  const std::string strEnd =
      bKilled ? "killed" : "exit code " + std::to_string(stResponse.iRetcode);
  std::string strOutput = stResponse.strStdOut + stResponse.strStdError;
  Trim(strOutput, " \n");
  g_pLog->WriteLog(bGood ? Log::LL_INFO : Log::LL_ERROR, "worker %d: save.hook: %s %s",
                   *g_pWorkerIndex, strEnd.c_str(), strOutput.c_str());
}

// Resumed when the killed child's end is noticed; asked again if that takes long.
int SaveMachine::Timeout(bool /*bMachine*/) {
  g_pLog->Error("worker %d: a save's child takes longer than save.timeout and is killed",
                *g_pWorkerIndex);
  m_stSaver.KillChild();
  return 0;
}
