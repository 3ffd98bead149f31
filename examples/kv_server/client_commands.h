#ifndef KV_SERVER_CLIENT_COMMANDS_H
#define KV_SERVER_CLIENT_COMMANDS_H

#include <string>

#include "batch.h"

class Gateway;
class Session;

// The commands about connections: CLIENT and HELLO. The replies go to the session that asks.
class ClientCommands {
 public:
  explicit ClientCommands(Gateway& stGateway) : m_stGateway(stGateway) {}

  void Client(Session& stSession, const Arguments_t& vecArguments);

  // RESP2 only. There are no passwords: the user "default" may give any.
  void Hello(Session& stSession, const Arguments_t& vecArguments);

 private:
  std::string List(const Arguments_t& vecArguments, std::string& strLines) const;
  void Kill(Session& stAsker, const Arguments_t& vecArguments);
  std::string ApplyHello(Session& stSession, const Arguments_t& vecArguments);

  Gateway& m_stGateway;
};

#endif
