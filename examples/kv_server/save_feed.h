#ifndef KV_SERVER_SAVE_FEED_H
#define KV_SERVER_SAVE_FEED_H

#include "key_store.h"
#include "table_snapshot.h"

// A worker's keys, on their way to the child that writes them to disk: a snapshot at one end of a
// socket, and its reader at the other.
//
// The worker sends what the socket takes, a slice in each turn, and never waits. The child waits
// for more. It must not take the end of the stream for the end of the keys, which is a mark: the
// worker may have died.
class SaveFeed {
 public:
  // Begins the snapshot. Good() is false when there is no socket; errno says why.
  explicit SaveFeed(KeyStore& stStore);
  ~SaveFeed();
  SaveFeed(const SaveFeed&) = delete;
  SaveFeed& operator=(const SaveFeed&) = delete;
  bool Good() const { return m_iWorkerEnd != -1; }

  // In the worker, when the child was forked.
  void StartSending();
  // A slice. Returns after how many milliseconds the next one is due, iMost when all was sent.
  int Turn(int iMost);

  // In the child: calls fnVisit for each key. False when not all have come; errno says so.
  bool Receive(const KeyStore::Visitor_t& fnVisit);

 private:
  void Send();

  TableSnapshot m_stSnapshot;
  int m_iWorkerEnd = -1;
  int m_iChildEnd = -1;
};

#endif
