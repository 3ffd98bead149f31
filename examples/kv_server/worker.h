#ifndef KV_SERVER_WORKER_H
#define KV_SERVER_WORKER_H

#include <deque>
#include <memory>

#include "command_runner.h"
#include "conversation.h"
#include "key_store.h"
#include "message_queue.h"
#include "queue_set.h"
#include "reply_outbox.h"
#include "settings.h"

// A worker process: sleeps on its inbound queue, runs what comes, answers once per turn.
class Worker {
 public:
  Worker(const Settings_t& stSettings, const QueueNames_t& stNames, int iIndex);

  // Serves until SIGTERM, then finishes what is in its queue. Returns the exit code.
  int Run();

 private:
  // A record of the queue, freed when it has been run.
  struct Record_t {
    std::unique_ptr<char[]> pData;
    uint32_t iSize;
  };

  bool Start();
  void Turn();
  bool Fetch();
  bool FetchAtLeast(size_t iCount);
  void RunFirst();
  StateMachine* ConversationWith(uint64_t iLife);

  const Settings_t m_stSettings;
  const QueueNames_t m_stNames;
  int m_iIndex;
  MessageQueue m_stIn;
  MessageQueue m_stOut;
  KeyStore m_stStore;
  CommandRunner m_stRunner;
  ReplyOutbox m_stOutbox;
  std::deque<Record_t> m_dqRecords;
  uint64_t m_iLife = 0;
  uint32_t m_iConversation = 0;  // machine id; 0 before the first batch
};

#endif
