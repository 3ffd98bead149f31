#ifndef KV_SERVER_WORKER_H
#define KV_SERVER_WORKER_H

#include <deque>
#include <memory>

#include "command_runner.h"
#include "conversation.h"
#include "cpu_follower.h"
#include "id_generator.h"
#include "key_store.h"
#include "message_queue.h"
#include "queue_set.h"
#include "reply_outbox.h"
#include "saver.h"
#include "settings.h"

const int EXIT_TABLE = 2;
const int EXIT_JOURNAL = 3;
const int EXIT_TABLE_FULL = 4;

// A worker process: sleeps on its inbound queue, runs what comes, answers once per turn.
class Worker {
 public:
  Worker(const Settings_t& stSettings, const QueueNames_t& stNames, const TableName_t& stTable);

  // Serves until SIGTERM, then finishes what is in its queue. Returns the exit code: EXIT_TABLE
  // when the table is not what it should be, EXIT_TABLE_FULL when it is new and has no room for the
  // keys that it is to start with.
  int Run();

 private:
  // A record of the queue, freed when it has been run.
  struct Record_t {
    std::unique_ptr<char[]> pData;
    uint32_t iSize;
  };

  int AttachTable();
  int LoadTable();
  bool Start();
  void CommitOrEnd();
  void Turn();
  bool Fetch();
  bool FetchAtLeast(size_t iCount);
  void RunFirst();
  StateMachine* ConversationWith(uint64_t iLife);
  void EndConversation();

  const Settings_t m_stSettings;
  const QueueNames_t m_stNames;
  const TableName_t m_stTable;
  int m_iIndex;
  MessageQueue m_stIn;
  MessageQueue m_stOut;
  KeyStore m_stStore;
  CpuFollower m_stCpuFollower;
  IdGenerator m_stIds;
  Saver m_stSaver;
  CommandRunner m_stRunner;
  ReplyOutbox m_stOutbox;
  std::deque<Record_t> m_dqRecords;
  uint64_t m_iLife = 0;
  uint32_t m_iConversation = 0;  // machine id; 0 before the first batch
};

#endif
