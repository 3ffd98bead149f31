#ifndef KV_SERVER_REQUEST_ROUTER_H
#define KV_SERVER_REQUEST_ROUTER_H

#include <cstdint>
#include <vector>

#include "batch.h"
#include "client_commands.h"
#include "command_table.h"

class Gateway;
class Session;

// Decides who runs a client's request: the gateway itself, the worker that owns its key, or several
// workers whose answers a machine joins.
class RequestRouter {
 public:
  explicit RequestRouter(Gateway& stGateway) : m_stGateway(stGateway), m_stClients(stGateway) {}

  // Has a request run or answered. False when it has to wait for room in a worker's queue; nothing
  // of it was done then.
  bool Run(Session& stSession, const Arguments_t& vecArguments);

 private:
  struct Part_t;

  bool Refuse(Session& stSession, const Command_t* pCommand, const Arguments_t& vecArguments);
  int WorkerOf(std::string_view strKey) const;
  bool RunHere(Session& stSession, const Command_t& stCommand, const Arguments_t& vecArguments);
  void Shutdown(Session& stSession);
  void Config(Session& stSession, const Arguments_t& vecArguments);
  bool Debug(Session& stSession, const Command_t& stCommand, const Arguments_t& vecArguments);
  bool RunOnWorker(Session& stSession, const Command_t& stCommand, int iWorker,
                   const Arguments_t& vecArguments);
  bool RunOnKeys(Session& stSession, const Command_t& stCommand, const Arguments_t& vecArguments);
  bool RunOnAll(Session& stSession, const Command_t& stCommand, const Arguments_t& vecArguments);
  bool RunAtCursor(Session& stSession, const Command_t& stCommand, const Arguments_t& vecArguments);
  bool RunParts(Session& stSession, const Command_t& stCommand, std::vector<Part_t>& vecParts,
                uint32_t iInfoSections = 0);
  std::vector<Part_t> SplitByWorker(const Command_t& stCommand,
                                    const Arguments_t& vecArguments) const;

  Gateway& m_stGateway;
  ClientCommands m_stClients;
};

#endif
