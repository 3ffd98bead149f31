// A table that is there after its writer was killed, and what the next process finds in it.
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "hash_map.h"
#include "id_generator.h"

const uint64_t SIZE = 8 << 20;  // 4 MiB of it for the lists of free blocks, 1 MiB for the buckets

void FillAndDie(const char* pPath) {
  HashMap stTable;
  IdGenerator stIds;
  if (stTable.Attach(pPath, 1, SIZE, 1000, false)) {
    for (const char* pName : {"ada", "grace", "edsger"}) {
      stTable.Set(pName, uint64_t{stIds.GetId()});
    }
    stTable.Set("motto", "keep it simple");
    stTable.Delete("edsger");
  }
  raise(SIGKILL);  // no farewell
}

int main(int, char** argv) {  // any file that is there, for ftok()
  if (fork() == 0) FillAndDie(argv[1]);
  wait(nullptr);
  HashMap stTable;
  if (!stTable.Attach(argv[1], 1, SIZE, 1000, true)) return 1;
  printf("ada is %d, nobody is %d\n", static_cast<int>(stTable.GetInt("ada", 0)),
         static_cast<int>(stTable.GetInt("nobody", 0)));
  printf("motto: %s\n", stTable.GetString("motto"));
  for (HashMap::iterator itItem = stTable.begin(); itItem != stTable.end(); ++itItem) {
    printf("%s has %u bytes\n", (*itItem).pKey, (*itItem).iValueSize);
  }
  printf("longest chain ever: %u\n", stTable.GetStat().iMaxBucketSize);
  return shmctl(shmget(ftok(argv[1], 1), 0, 0), IPC_RMID, nullptr);  // a server keeps it
}
