#include "debug_commands.h"

#include <time.h>

#include <cerrno>
#include <charconv>

#include "reply.h"
#include "subcommands.h"

namespace {

const double LONGEST_SLEEP = 3600;

// Negative when it is no number of seconds that we would sleep.
double ParseSeconds(std::string_view strText) {
  double dSeconds = -1;
  const char* pEnd = strText.data() + strText.size();
  const auto stResult = std::from_chars(strText.data(), pEnd, dSeconds, std::chars_format::fixed);
  const bool bGood = stResult.ec == std::errc() && stResult.ptr == pEnd && dSeconds >= 0 &&
                     dSeconds <= LONGEST_SLEEP;
  return bGood ? dSeconds : -1;
}

}  // namespace

bool CheckDebug(const Arguments_t& vecArguments, bool bAllowed, std::string& strOut) {
  if (!bAllowed) {
    AppendError(strOut,
                "ERR DEBUG command not allowed. If the debug.commands option is set to \"yes\", "
                "you can run it, otherwise you need to set this option in the configuration file, "
                "and then restart the server.");
    return false;
  }
  if (ChooseSubcommand(CMD_DEBUG, vecArguments, strOut) == nullptr) {
    return false;
  }
  if (ParseSeconds(vecArguments[2]) < 0) {
    AppendError(strOut, "ERR value is not a number of seconds from 0 to 3600");
    return false;
  }
  return true;
}

void RunDebug(const Arguments_t& vecArguments, std::string& strOut) {
  const double dSeconds = ParseSeconds(vecArguments[1]);
  timespec stTime{};
  stTime.tv_sec = static_cast<time_t>(dSeconds);
  stTime.tv_nsec = static_cast<long>((dSeconds - static_cast<double>(stTime.tv_sec)) * 1e9);
  while (nanosleep(&stTime, &stTime) == -1 && errno == EINTR) {
  }
  AppendStatus(strOut, "OK");
}
