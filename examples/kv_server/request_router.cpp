#include "request_router.h"

#include <signal.h>
#include <unistd.h>

#include "command_runner.h"
#include "debug_commands.h"
#include "gateway.h"
#include "gather_machine.h"
#include "info_text.h"
#include "key_owner.h"
#include "local_commands.h"
#include "log.h"
#include "machine_pool.h"
#include "memory_tracking.h"
#include "reply.h"
#include "session.h"
#include "subcommands.h"
#include "zelk_variable.h"

namespace {

const size_t PART_KEYS = 128;  // of a command over many keys, in one worker's part

}  // namespace

// Keys of one command that go to one worker together.
struct RequestRouter::Part_t {
  int iWorker;
  Arguments_t vecArguments;
  std::vector<uint32_t> vecPlaces;
  size_t iBytes;
};

bool RequestRouter::Run(Session& stSession, const Arguments_t& vecArguments) {
  if (vecArguments.empty()) {
    return true;
  }
  const Command_t* pCommand = FindCommand(vecArguments[0]);
  if (Refuse(stSession, pCommand, vecArguments)) {
    return true;
  }
  stSession.Record().pCommand = pCommand->pName;
  bool bRun = true;
  // Words of SHUTDOWN are for the workers, which save or do not.
  const bool bToWorkers = pCommand->eId == CMD_SHUTDOWN && vecArguments.size() > 1;
  switch (bToWorkers ? ROUTE_ALL : pCommand->eRoute) {
    case ROUTE_GATEWAY:
      bRun = RunHere(stSession, *pCommand, vecArguments);
      break;
    case ROUTE_ONE_KEY:
      bRun = RunOnWorker(stSession, *pCommand, WorkerOf(vecArguments[1]), vecArguments);
      break;
    case ROUTE_ALL:
      bRun = RunOnAll(stSession, *pCommand, vecArguments);
      break;
    case ROUTE_CURSOR:
      bRun = RunAtCursor(stSession, *pCommand, vecArguments);
      break;
    default:
      bRun = RunOnKeys(stSession, *pCommand, vecArguments);
  }
  if (bRun && bToWorkers) {
    stSession.StartClosing();
  }
  if (bRun) {
    m_stGateway.Statistics().CountCall(pCommand->eId);
    stSession.NoteRequest(pCommand->pName);
  }
  return bRun;
}

// Answers a request that can not be run with an error.
bool RequestRouter::Refuse(Session& stSession, const Command_t* pCommand,
                           const Arguments_t& vecArguments) {
  if (pCommand == nullptr) {
    AppendUnknownCommand(stSession.LocalReply(), vecArguments);
    return true;
  }
  const size_t iCount = vecArguments.size();
  if (!ArityMatches(*pCommand, iCount) || (pCommand->eRoute == ROUTE_PAIRS && iCount % 2 == 0) ||
      (pCommand->eId == CMD_PING && iCount > 2)) {
    AppendWrongArity(stSession.LocalReply(), *pCommand);
    return true;
  }
  const std::string strError = CheckArguments(*pCommand, vecArguments, m_stGateway.Settings());
  if (!strError.empty()) {
    AppendError(stSession.LocalReply(), strError);
    return true;
  }
  return false;
}

int RequestRouter::WorkerOf(std::string_view strKey) const {
  const size_t iWorkers = m_stGateway.Workers();
  return iWorkers == 1 ? 0 : OwnerOf(strKey, iWorkers);
}

bool RequestRouter::RunOnWorker(Session& stSession, const Command_t& stCommand, int iWorker,
                                const Arguments_t& vecArguments) {
  WorkerLink& stLink = m_stGateway.Link(iWorker);
  if (stLink.Blocked()) {
    return false;
  }
  uint32_t iSlot = 0;
  if (!stSession.JoinSlot(iWorker, iSlot)) {
    stLink.StartRun({stSession.GetId(), stSession.OpenSlot(iWorker)});
  }
  stLink.Add(stCommand.eId, vecArguments, 1);
  return true;
}

bool RequestRouter::RunOnKeys(Session& stSession, const Command_t& stCommand,
                              const Arguments_t& vecArguments) {
  std::vector<Part_t> vecParts = SplitByWorker(stCommand, vecArguments);
  if (vecParts.size() == 1) {
    return RunOnWorker(stSession, stCommand, vecParts[0].iWorker, vecArguments);
  }
  return RunParts(stSession, stCommand, vecParts);
}

std::vector<RequestRouter::Part_t> RequestRouter::SplitByWorker(
    const Command_t& stCommand, const Arguments_t& vecArguments) const {
  const size_t iStep = stCommand.eRoute == ROUTE_PAIRS ? 2 : 1;
  const size_t iNone = static_cast<size_t>(-1);
  std::vector<size_t> vecCurrent(m_stGateway.Workers(), iNone);  // a worker's part being filled
  std::vector<Part_t> vecParts;
  for (size_t i = 1; i < vecArguments.size(); i += iStep) {
    const int iWorker = WorkerOf(vecArguments[i]);
    size_t& iPart = vecCurrent[static_cast<size_t>(iWorker)];
    if (iPart == iNone || vecParts[iPart].vecPlaces.size() >= PART_KEYS ||
        vecParts[iPart].iBytes >= RecordLimit(m_stGateway.Settings().iQueueBytes)) {
      iPart = vecParts.size();
      vecParts.push_back({iWorker, {}, {}, 0});
    }
    Part_t& stPart = vecParts[iPart];
    stPart.vecPlaces.push_back(static_cast<uint32_t>((i - 1) / iStep));
    for (size_t iArgument = i; iArgument < i + iStep; ++iArgument) {
      stPart.vecArguments.push_back(vecArguments[iArgument]);
      stPart.iBytes += vecArguments[iArgument].size();
    }
  }
  return vecParts;
}

bool RequestRouter::RunOnAll(Session& stSession, const Command_t& stCommand,
                             const Arguments_t& vecArguments) {
  const bool bInfo = stCommand.eId == CMD_INFO;
  const uint32_t iSections = bInfo ? InfoSections(vecArguments) : 0;
  if (bInfo && (iSections & INFO_OF_WORKERS) == 0) {
    AppendBulk(stSession.LocalReply(), m_stGateway.InfoText(iSections, {}));
    return true;
  }
  std::vector<Part_t> vecParts;
  for (size_t i = 0; i < m_stGateway.Workers(); ++i) {
    vecParts.push_back(
        {static_cast<int>(i), {vecArguments.begin() + 1, vecArguments.end()}, {}, 0});
  }
  return RunParts(stSession, stCommand, vecParts, iSections);
}

// A cursor that was never given out leads to the end.
bool RequestRouter::RunAtCursor(Session& stSession, const Command_t& stCommand,
                                const Arguments_t& vecArguments) {
  ScanCursor_t stCursor{};
  if (!ParseCursor(vecArguments[1], stCursor)) {
    AppendError(stSession.LocalReply(), "ERR invalid cursor");
    return true;
  }
  if (stCursor.iWorker >= m_stGateway.Workers()) {
    std::string& strReply = stSession.LocalReply();
    AppendArrayHead(strReply, 2);
    AppendBulk(strReply, "0");
    AppendArrayHead(strReply, 0);
    return true;
  }
  return RunOnWorker(stSession, stCommand, static_cast<int>(stCursor.iWorker), vecArguments);
}

bool RequestRouter::RunParts(Session& stSession, const Command_t& stCommand,
                             std::vector<Part_t>& vecParts, uint32_t iInfoSections) {
  for (const Part_t& stPart : vecParts) {
    if (m_stGateway.Link(stPart.iWorker).Blocked()) {
      return false;
    }
  }
  const uint32_t iId = m_stGateway.NewMachineId();
  const ReplyTarget_t stAsker{stSession.GetId(), stSession.OpenSlot(-1)};
  auto* pGather = KV_NEW GatherMachine(m_stGateway, stCommand.eId, stAsker);
  pGather->SetId(iId);
  pGather->SetSections(iInfoSections);
  pGather->SetStateTimeout(static_cast<unsigned int>(m_stGateway.Settings().iGatherTimeout));
  pGather->SetStateBeginTime(m_stGateway.Now());
  MachinePool::Instance().AddMachine(pGather);
  MachinePool::Instance().ConfigStateTimeout(pGather);
  for (Part_t& stPart : vecParts) {
    WorkerLink& stLink = m_stGateway.Link(stPart.iWorker);
    stLink.StartRun({iId, pGather->AddPart(std::move(stPart.vecPlaces))});
    stLink.Add(stCommand.eId, stPart.vecArguments, 0);
  }
  return true;
}

// False when it has to wait.
bool RequestRouter::RunHere(Session& stSession, const Command_t& stCommand,
                            const Arguments_t& vecArguments) {
  switch (stCommand.eId) {
    case CMD_QUIT:
      AppendStatus(stSession.LocalReply(), "OK");
      return stSession.StartClosing(), true;
    case CMD_SHUTDOWN:
      return Shutdown(stSession), true;
    case CMD_CLIENT:
      return m_stClients.Client(stSession, vecArguments), true;
    case CMD_HELLO:
      return m_stClients.Hello(stSession, vecArguments), true;
    case CMD_CONFIG:
      return Config(stSession, vecArguments), true;
    case CMD_DEBUG:
      return Debug(stSession, stCommand, vecArguments);
    default:
      RunLocalCommand(stCommand, vecArguments, stSession.LocalReply());
      return true;
  }
}

void RequestRouter::Shutdown(Session& stSession) {
  g_pLog->Info("gateway: client %llu asks for the end", stSession.LogNumber());
  kill(m_stGateway.Master(), SIGTERM);
  stSession.StartClosing();
}

void RequestRouter::Config(Session& stSession, const Arguments_t& vecArguments) {
  std::string& strOut = stSession.LocalReply();
  const Subcommand_t* pRow = ChooseSubcommand(CMD_CONFIG, vecArguments, strOut);
  if (pRow == nullptr) {
    return;
  }
  stSession.Record().pCommand = pRow->stFull.pName;
  if (pRow->iId == CONFIG_RESETSTAT) {
    m_stGateway.Statistics().Reset();
    return AppendStatus(strOut, "OK");
  }
  RunConfigCommand(vecArguments, m_stGateway.Settings(), strOut);
}

// Always the first worker: who wants to see a stall has to know which keys it stalls.
bool RequestRouter::Debug(Session& stSession, const Command_t& stCommand,
                          const Arguments_t& vecArguments) {
  std::string strReply;
  const bool bAllowed = m_stGateway.Settings().strDebugCommands == "yes";
  if (CheckDebug(vecArguments, bAllowed, strReply)) {
    return RunOnWorker(stSession, stCommand, 0, vecArguments);
  }
  stSession.LocalReply().append(strReply);
  return true;
}
