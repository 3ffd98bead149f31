// Makes the images of tests/data/golden in the directory that it is given. They were made once and
// are not made again: they stand for what earlier builds have left in shared memory and on disk.

#include <cstdio>
#include <cstring>
#include <string>

#include "dump_file.h"
#include "golden_image.h"
#include "hash_map.h"
#include "kv_store_fixture.h"
#include "long_action_util.h"
#include "message_queue.h"
#include "shm_allocator.h"
#include "test_janitor.h"
#include "test_support.h"

namespace {

std::string g_strDirectory;

void Keep(const char* pName, const std::string& strBytes, const char* pComment) {
  WriteFile(g_strDirectory + "/" + pName, ImageText(strBytes, pComment));
  printf("%s: %zu bytes\n", pName, strBytes.size());
}

void Push(MessageQueue& stQueue, const std::string& strText) {
  const BufferVec_t stMessage{const_cast<char*>(strText.data()),
                              static_cast<uint32_t>(strText.size())};
  stQueue.Push(&stMessage, 1);
}

void MakeRing() {
  const PrivateDirectory stDirectory;
  const PrivateKey stKey;
  MessageQueue stQueue;
  stQueue.AttachWithKey(stDirectory.File("fifo").c_str(), stKey.Key(), 13 + 64);
  BufferVec_t stTaken{};
  Push(stQueue, "taken before the image was made");
  stQueue.Pop(&stTaken, 1);
  delete[] stTaken.pData;
  Push(stQueue, "first message");
  Push(stQueue, "");
  Push(stQueue, "this one goes on at the start");
  Keep("ring.image", SegmentBytes(stKey.Key()), "a ring of 64 bytes with three pending messages");
}

void MakeHeap() {
  const PrivateKey stKey;
  ShmAllocator stHeap;
  stHeap.Attach(stKey.Key(), 4194384 + 32 + 4096, 32, false);
  memcpy(stHeap.GetReservedPointer(), "the reserved area, its 32 bytes.", 32);
  const uint64_t szSizes[] = {16, 16, 100, 16};
  void* szBlocks[4];
  for (int i = 0; i < 4; ++i) {
    szBlocks[i] = stHeap.Allocate(szSizes[i]);
    memset(szBlocks[i], 'A' + i, szSizes[i]);
  }
  stHeap.Deallocate(szBlocks[1]);
  Keep("heap.image", SegmentBytes(stKey.Key()), "a heap with three blocks in use");
}

void MakeTable() {
  const PrivateKey stKey;
  HashMap stTable;
  stTable.Attach(stKey.Key(), 4194384 + RESERVED_SIZE + 8192, 4, false);
  stTable.Set("color", "blue");
  stTable.Set("gone", "deleted before the image was made");
  stTable.Set("count", uint64_t{1234567890123456789});
  stTable.Set("", "the empty key");
  stTable.Set("\xc3\xa9\x80\xff", "a\0b", 3);
  stTable.Set("nothing", "", 0);
  stTable.Set("color", "red");
  stTable.Delete("gone");
  Keep("table.image", SegmentBytes(stKey.Key()), "a table of four buckets with five entries");
}

void MakeRequest() {
  LongActionMethod stMethod;
  stMethod.Method("ExecuteShell2");
  stMethod.Param("command", "ls -l");
  stMethod.Param("list", "second in order, added first");
  stMethod.Param("list", "added second");
  stMethod.Param("binary", std::string("\0\n\xff", 3));
  stMethod.Param("empty", "");
  Keep("request.image", stMethod.SerializeRequest(), "a request of five parameters");
}

void MakeDump() {
  const PrivateDirectory stDirectory;
  const StoreTable stTable;
  KeyStore stStore;
  DumpStat_t stStat{};
  stStore.Attach(stTable.Name());
  stStore.SetTime(1700000000000);
  stStore.Set("color", "red");
  stStore.Set("", "the empty key");
  stStore.Set("empty", "");
  stStore.Set("binary", std::string("\0\r\n\xff", 4), 4102444800000);
  stStore.Set("over", "its time has passed", 1700000000001);
  const std::string strPath = stDirectory.File("dump-0.kv");
  WriteDump(stStore, stTable.Name().stMark, strPath, stStat, 7);
  Keep("dump.image", ReadFile(strPath), "dump-0.kv of a server with one worker, five keys");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: golden_program DIRECTORY\n");
    return 2;
  }
  StartJanitor();
  g_strDirectory = argv[1];
  MakeRing();
  MakeHeap();
  MakeTable();
  MakeRequest();
  MakeDump();
  return 0;
}
