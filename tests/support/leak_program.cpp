// leak_program DIRECTORY MODE: allocates as a host does, and writes its report there.
//
// clean: frees everything, in all the ways there are. leak: leaves two blocks and prints where.
// child: leaves a block while a forked child leaves none. crash: ends without its report.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "memory_tracking.h"

namespace {

struct Base {
  virtual ~Base() = default;
};

struct Block : Base {
  char m_acBytes[64 - sizeof(Base)] = {};
};

struct Failing {
  Failing() { throw 1; }
};

// Volatile, so that no allocation is optimised away.
Base* volatile g_pKept = nullptr;
char* volatile g_pForeign = nullptr;

// Outlives the report, and what it was made before.
const std::unique_ptr<Base> g_pEarlier(KV_NEW Block);
std::unique_ptr<Base> g_pLater;

void AllocateAndFree() {
  const std::unique_ptr<Base> pObject(KV_NEW Block);
  std::vector<std::string> vecPlain(100, std::string(100, 'x'));
  g_pKept = KV_NEW Block;
  delete g_pKept;
  g_pForeign = new char[10];
  KV_TRACK(g_pForeign, 10);
  delete[] g_pForeign;
  try {
    g_pForeign = reinterpret_cast<char*>(KV_NEW Failing);
  } catch (int) {
  }
}

int Leak() {
  g_pKept = KV_NEW Block;
  printf("%s:%d\n", __FILE__, __LINE__ - 1);
  g_pForeign = new char[10];
  KV_TRACK(g_pForeign, 10);
  printf("%s:%d\n", __FILE__, __LINE__ - 1);
  return 0;
}

int LeakBesideAChild(const char* pDirectory) {
  g_pKept = KV_NEW Block;
  const pid_t iChild = fork();
  if (iChild == 0) {
    {
      const MemoryReport stReport(pDirectory, "child 0");
      AllocateAndFree();
    }
    _exit(0);
  }
  return waitpid(iChild, nullptr, 0) == iChild ? 0 : 1;
}

int Run(const char* pDirectory, const std::string& strMode) {
  const MemoryReport stReport(pDirectory, "leak program");
  AllocateAndFree();
  if (strMode == "leak") {
    return Leak();
  }
  if (strMode == "crash") {
    _exit(0);
  }
  return strMode == "child" ? LeakBesideAChild(pDirectory) : 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  const int iExit = Run(argv[1], argv[2]);
  g_pLater.reset(KV_NEW Block);
  return iExit;
}
