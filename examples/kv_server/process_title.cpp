#include "process_title.h"

#include <cstring>

#include "process_util.h"

namespace {

char** g_pArguments = nullptr;
size_t g_iArgumentSize = 0;  // of all arguments' texts

}  // namespace

void InitTitle(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    g_iArgumentSize += strlen(argv[i]) + 1;
  }
  g_pArguments = argv;
  InitProcessTitle(argc, argv);
}

// The arguments have been read: only the first counts, and listings are not to show remains of the
// others.
void SetTitle(const std::string& strRole) {
  if (g_pArguments == nullptr) {
    return;
  }
  memset(g_pArguments[0], 0, g_iArgumentSize);
  ChangeProcessTitle(1, g_pArguments, ("kv_server: " + strRole).c_str());
}
