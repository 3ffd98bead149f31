// Commands about saving.

#include <algorithm>

#include "command_runner.h"
#include "reply.h"

void CommandRunner::BgSave(const Arguments_t& /*vecArguments*/, std::string& strOut) {
  if (m_stSaver.Running()) {
    return AppendError(strOut, "ERR Background save already in progress");
  }
  if (!m_stSaver.Start("as asked for")) {
    return AppendError(strOut, "ERR the save can not be started, see the log");
  }
  AppendStatus(strOut, "Background saving started");
}

void CommandRunner::LastSave(const Arguments_t& /*vecArguments*/, std::string& strOut) {
  AppendInteger(strOut, static_cast<int64_t>(m_stSaver.Stat().iLastSave));
}

// The end itself comes with a signal, when all workers have agreed.
void CommandRunner::Shutdown(const Arguments_t& vecArguments, std::string& strOut) {
  const auto Has = [&](const char* pWord) {
    return std::any_of(vecArguments.begin(), vecArguments.end(), [pWord](std::string_view strWord) {
      return EqualsIgnoringCase(strWord, pWord);
    });
  };
  if (Has("nosave")) {
    m_stSaver.DoNotSaveAtEnd();
  }
  if (Has("save") && !m_stSaver.SaveNow() && !Has("force")) {
    return AppendError(strOut, "ERR Errors trying to SHUTDOWN. Check logs.");
  }
  AppendStatus(strOut, "OK");
}
