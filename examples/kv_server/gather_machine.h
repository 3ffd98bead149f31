#ifndef KV_SERVER_GATHER_MACHINE_H
#define KV_SERVER_GATHER_MACHINE_H

#include <string>
#include <vector>

#include "command_table.h"
#include "gateway_event.h"
#include "saver.h"
#include "state_machine.h"

class Gateway;

enum GatherState_t {
  GATHER_WAITING,
};

// A command over several workers: waits for the answer of each part and joins them into one reply.
//
// The parts run one by one, each atomic in its worker, the whole not. A part that is lost or too
// late makes the reply an error; the others may have run.
class GatherMachine : public StateMachine {
 public:
  GatherMachine(Gateway& stGateway, CommandId_t eCommand, const ReplyTarget_t& stAsker);

  static void RegisterStates();

  // Of INFO: which sections, of InfoSection_t.
  void SetSections(uint32_t iSections) { m_iSections = iSections; }

  // Adds a part that answers for the keys at these places of the command; the result is its number.
  uint32_t AddPart(std::vector<uint32_t> vecPlaces);

  int Timeout(bool bMachine) override;
  int StateMachineType() override { return MACHINE_GATHER; }
  const char* MachineName() override { return "gather"; }
  time_t GetMachineTimeout() const override { return 0; }  // the state's is enough

 private:
  struct Part_t {
    std::vector<uint32_t> vecPlaces;
    std::string strReply;
    bool bDone;
  };

  static int OnAnswer(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);

  bool Take(const GatewayEvent_t& stEvent);
  std::string Join() const;
  std::string JoinElements() const;
  std::string JoinLists() const;
  std::string DrawKey() const;
  std::string JoinStarted() const;
  WorkerStat_t SumStat() const;
  int64_t Sum() const;
  int64_t Least() const;
  void Reply(const std::string& strReply);

  Gateway& m_stGateway;
  const CommandId_t m_eCommand;
  const ReplyTarget_t m_stAsker;  // the session and its slot
  std::vector<Part_t> m_vecParts;
  size_t m_iOpenParts = 0;
  uint32_t m_iSections = 0;
  uint64_t m_iBytes = 0;  // of all parts' replies
};

#endif
