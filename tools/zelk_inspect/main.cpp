#include <cerrno>
#include <cstdio>
#include <cstring>

#include "list.h"
#include "look.h"
#include "options.h"
#include "remove.h"
#include "verify.h"

namespace {

int Run(const Options_t& stOptions) {
  if (stOptions.bHelp || stOptions.bVersion) {
    fputs(stOptions.bHelp ? HELP_TEXT : "zelk-inspect " ZELK_VERSION "\n", stdout);
    return EXIT_FINE;
  }
  if (stOptions.strCommand == "list") {
    return RunList(stOptions);
  }
  if (stOptions.strCommand == "verify") {
    return RunVerify(stOptions);
  }
  if (stOptions.strCommand == "remove") {
    return RunRemove(stOptions);
  }
  return RunLook(stOptions);
}

}  // namespace

int main(int argc, char** argv) {
  const Options_t stOptions = ParseOptions({argv + 1, argv + argc});
  if (!stOptions.strError.empty()) {
    fprintf(stderr, "zelk-inspect: %s; see zelk-inspect --help\n", stOptions.strError.c_str());
    return EXIT_USAGE;
  }
  const int iResult = Run(stOptions);
  // What a job reads and what it is told must not differ: a full disk is no short list.
  if (fflush(stdout) != 0 || ferror(stdout) != 0) {
    fprintf(stderr, "zelk-inspect: standard output: %s\n", strerror(errno));
    return EXIT_NOT_WRITTEN;
  }
  return iResult;
}
