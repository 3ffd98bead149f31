#include "client_commands.h"

#include "client_list.h"
#include "command_runner.h"
#include "gateway.h"
#include "log.h"
#include "reply.h"
#include "server_version.h"
#include "session.h"
#include "subcommands.h"
#include "zelk_variable.h"

namespace {

const char BAD_NAME[] = "ERR Client names cannot contain spaces, newlines or special characters.";

// Empty, or the error.
std::string SetName(ClientRecord_t& stRecord, std::string_view strName) {
  if (!IsClientName(strName)) {
    return BAD_NAME;
  }
  stRecord.strName = strName;
  return "";
}

void AppendOkOrError(std::string& strOut, const std::string& strError) {
  if (strError.empty()) {
    AppendStatus(strOut, "OK");
  } else {
    AppendError(strOut, strError);
  }
}

void AppendName(std::string& strOut, const std::string& strName) {
  if (strName.empty()) {
    AppendNull(strOut);
  } else {
    AppendBulk(strOut, strName);
  }
}

void AppendGreeting(std::string& strOut, uint64_t iNumber) {
  AppendArrayHead(strOut, 14);
  AppendBulk(strOut, "server");
  AppendBulk(strOut, "kv_server");
  AppendBulk(strOut, "version");
  AppendBulk(strOut, SERVER_VERSION);
  AppendBulk(strOut, "proto");
  AppendInteger(strOut, 2);
  AppendBulk(strOut, "id");
  AppendInteger(strOut, static_cast<int64_t>(iNumber));
  AppendBulk(strOut, "mode");
  AppendBulk(strOut, "standalone");
  AppendBulk(strOut, "role");
  AppendBulk(strOut, "master");
  AppendBulk(strOut, "modules");
  AppendArrayHead(strOut, 0);
}

std::string CheckProtocol(std::string_view strVersion) {
  int64_t iVersion = 0;
  if (!ParseInteger(strVersion, iVersion)) {
    return "ERR Protocol version is not an integer or out of range";
  }
  return iVersion == 2 ? "" : "NOPROTO unsupported protocol version";
}

}  // namespace

void ClientCommands::Client(Session& stSession, const Arguments_t& vecArguments) {
  std::string& strOut = stSession.LocalReply();
  ClientRecord_t& stRecord = stSession.Record();
  const Subcommand_t* pRow = ChooseSubcommand(CMD_CLIENT, vecArguments, strOut);
  if (pRow == nullptr) {
    return;
  }
  stRecord.pCommand = pRow->stFull.pName;
  std::string strLines;
  switch (pRow->iId) {
    case CLIENT_GETNAME:
      return AppendName(strOut, stRecord.strName);
    case CLIENT_ID:
      return AppendInteger(strOut, static_cast<int64_t>(stRecord.iNumber));
    case CLIENT_INFO:
      return AppendBulk(strOut, ClientLine(stSession.State(), m_stGateway.Now()));
    case CLIENT_KILL:
      return Kill(stSession, vecArguments);
    case CLIENT_NO_EVICT:
      return AppendOkOrError(strOut, IsWord(vecArguments[2], "on") || IsWord(vecArguments[2], "off")
                                         ? ""
                                         : "ERR syntax error");
    case CLIENT_SETNAME:
      return AppendOkOrError(strOut, SetName(stRecord, vecArguments[2]));
    default:
      const std::string strError = List(vecArguments, strLines);
      return strError.empty() ? AppendBulk(strOut, strLines) : AppendError(strOut, strError);
  }
}

std::string ClientCommands::List(const Arguments_t& vecArguments, std::string& strLines) const {
  ClientFilter_t stFilter;
  std::string strError = ParseListFilter(vecArguments, stFilter);
  if (!strError.empty()) {
    return strError;
  }
  for (const Session* pSession : m_stGateway.Sessions()) {
    const ClientState_t stState = pSession->State();
    if (stFilter.Matches(stState)) {
      strLines += ClientLine(stState, m_stGateway.Now());
    }
  }
  return "";
}

// Another client's connection ends without a word, the asker's after the reply.
void ClientCommands::Kill(Session& stAsker, const Arguments_t& vecArguments) {
  std::string& strOut = stAsker.LocalReply();
  ClientFilter_t stFilter;
  const std::string strError = ParseKillFilter(vecArguments, stFilter);
  if (!strError.empty()) {
    return AppendError(strOut, strError);
  }
  int64_t iKilled = 0;
  for (Session* pSession : m_stGateway.Sessions()) {
    const bool bMe = pSession == &stAsker;
    if ((bMe && stFilter.bSkipMe) || !stFilter.Matches(pSession->State())) {
      continue;
    }
    g_pLog->Info("gateway: client %llu is disconnected by client %llu",
                 static_cast<unsigned long long>(pSession->Record().iNumber),
                 static_cast<unsigned long long>(stAsker.Record().iNumber));
    ++iKilled;
    if (!bMe) {
      pSession->HangUp();
      m_stGateway.Touch(*pSession);
    } else {
      stAsker.StartClosing();
    }
  }
  if (!stFilter.bOldForm) {
    AppendInteger(strOut, iKilled);
  } else {
    AppendOkOrError(strOut, iKilled > 0 ? "" : "ERR No such client");
  }
}

void ClientCommands::Hello(Session& stSession, const Arguments_t& vecArguments) {
  const std::string strError = ApplyHello(stSession, vecArguments);
  if (!strError.empty()) {
    return AppendError(stSession.LocalReply(), strError);
  }
  AppendGreeting(stSession.LocalReply(), stSession.Record().iNumber);
}

// Empty, or the error; options before a wrong one have been applied then.
std::string ClientCommands::ApplyHello(Session& stSession, const Arguments_t& vecArguments) {
  std::string strError = vecArguments.size() > 1 ? CheckProtocol(vecArguments[1]) : "";
  for (size_t i = 2; i < vecArguments.size() && strError.empty(); ++i) {
    const size_t iMore = vecArguments.size() - 1 - i;
    if (IsWord(vecArguments[i], "auth") && iMore >= 2) {
      if (vecArguments[i + 1] != "default") {
        strError = "WRONGPASS invalid username-password pair or user is disabled.";
      }
      i += 2;
    } else if (IsWord(vecArguments[i], "setname") && iMore >= 1) {
      strError = SetName(stSession.Record(), vecArguments[++i]);
    } else {
      strError =
          "ERR Syntax error in HELLO option '" + std::string(ShownText(vecArguments[i])) + "'";
    }
  }
  return strError;
}
