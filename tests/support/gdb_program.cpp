// A process for a debugger to look at: one object of each kind that has a printer, with known
// contents. gdb_program QUEUE_KEY TABLE_KEY: says "ready" and waits for the end of its input. With
// a third argument it dies instead, and leaves a core in the working directory if the system lets
// it.

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "hash_map.h"
#include "machine_pool.h"
#include "message_queue.h"
#include "state_machine.h"

namespace {

class Session : public StateMachine {
 public:
  Session(unsigned int iID, int iState) {
    SetId(iID);
    m_iState = iState;
    m_sInternalHead = {7, 0x010200c0, 4711, 0xffffffff, 0};
  }
  int StateMachineType() override { return 1; }
  const char* MachineName() override { return "Session"; }
  int Timeout(bool) override { return 0; }
};

const unsigned int RING_SIZE = 200;
const uint64_t TABLE_BYTES = 8 << 20;

void Push(MessageQueue& stQueue, std::string strText) {
  const BufferVec_t stMessage{strText.data(), static_cast<uint32_t>(strText.size())};
  if (stQueue.Push(&stMessage, 1) != 1) {
    exit(1);
  }
}

// Messages that go over the ring's end.
void FillQueue(MessageQueue& stQueue, key_t iKey) {
  if (stQueue.AttachWithKey("fifo", iKey, RING_SIZE + sizeof(MessageQueue::ShmHead)) != 0) {
    exit(1);
  }
  Push(stQueue, std::string(150, '-'));
  BufferVec_t stMessage{};
  if (stQueue.Pop(&stMessage, 1) == 1) {
    delete[] stMessage.pData;
  }
  Push(stQueue, "hello, \"worker\"\n");
  Push(stQueue, "");
  Push(stQueue, std::string(60, 'x'));
}

void FillTable(HashMap& stTable, key_t iKey) {
  if (!stTable.Attach(iKey, TABLE_BYTES, 1, false)) {
    exit(1);
  }
  stTable.Set("number", uint64_t{258});
  stTable.Set("gone", "text");
  stTable.Set("greeting", "hello");
  stTable.Delete("gone");
}

void FillPool(Session& stFirst, Session& stSecond) {
  stFirst.SetMessageFrom("gateway");
  stFirst.SetParentMachineID(4);
  stFirst.SetStateBeginTime(1700000000);
  stFirst.SetStateTimeout(30);
  MachinePool::Instance().AddMachine(&stFirst);
  MachinePool::Instance().ConfigStateTimeout(&stFirst);
  MachinePool::Instance().AddMachine(&stSecond);
}

}  // namespace

// Named for the debugger, which finds them wherever the process stands.
MessageQueue g_stQueue;
MessageQueue g_stNoQueue;
HashMap g_stTable;
HashMap g_stNoTable;
Session g_stFirst(5, 2);
Session g_stSecond(17, -1);
MachinePool* g_pPool = &MachinePool::Instance();
InternalHead_t g_stHead{-1, 0x0100007f, 80, 0x0200000a, 6399};
conn_key_t g_iKey = (conn_key_t{0x1122} << 64) + 0x33;
alignas(16) char g_szGarbage[4096];

int main(int argc, char** argv) {
  if (argc < 3) {
    return 2;
  }
  FillQueue(g_stQueue, atoi(argv[1]));
  FillTable(g_stTable, atoi(argv[2]));
  FillPool(g_stFirst, g_stSecond);
  for (char& c : g_szGarbage) {
    c = 'Z';
  }
  if (argc > 3) {
    const rlimit stLimit{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &stLimit);
    abort();
  }
  puts("ready");
  fflush(stdout);
  for (char c = 0; read(STDIN_FILENO, &c, 1) > 0;) {
  }
  _exit(0);  // the pool's machines are no pointers of new: nothing here is to be destroyed twice
}
