#ifndef KV_SERVER_JOURNAL_H
#define KV_SERVER_JOURNAL_H

#include <cstdint>
#include <string>

#include "journal_file.h"
#include "key_store.h"
#include "settings.h"

// What a worker tells of its journal.
struct JournalStat_t {
  uint64_t iOn;
  uint64_t iGood;     // 0 after a failure, until a save has made up for it
  uint64_t iWhole;    // dump and journal together have all changes
  uint64_t iBytes;    // of the present file
  uint64_t iPending;  // 1 while written bytes wait for a sync
  uint64_t iSyncs;    // done by this process
};

// The journal of a worker's changes: what the dump lacks, should the tables be gone.
//
// Changes are gathered in memory, as the store tells them, and written by one asynchronous request
// per turn of the worker, before its replies go out (Commit()). So the death of processes takes no
// acknowledged change. What the death of the machine may take is the setting's matter: with
// journal.sync=batch nothing, since Commit() also waits for the disk; with "second" what was
// written since a sync began that has ended well: one begins a second after the one before, or at
// once when there was none for so long.
//
// A journal that can not be written is given up: the worker refuses writes until a save has
// succeeded, from which a new file goes on.
class Journal : private ChangeListener {
 public:
  Journal(const Settings_t& stSettings, KeyStore& stStore, const TableMark_t& stMark);
  ~Journal() override;
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Does what follows a dump again, in a store that has the dump's keys; generation 0: there is no
  // dump. Also with the journal off: files that are there tell of changes. Empty, or what is wrong.
  std::string Replay(uint64_t iDump);

  // Starts a file for the changes from now on. bWhole: the store has come from dump and journal.
  void Begin(uint64_t iDump, bool bWhole);

  bool IsOn() const { return m_bOn; }
  // Readable when a sync has ended; -1 when none is under way.
  int WaitFD() const;

  // What was gathered is in the file, and with "batch" on the disk, when this returns. False when
  // that failed, and so changes are lost to the journal that nobody must be told to be done.
  bool Commit();
  // Commits what nobody waits for, collects syncs and starts them. Returns after how many
  // milliseconds it wants to be called again, iMost at most.
  int Turn(int iMost);
  // At the end: everything is on the disk.
  void Finish();

  // Empty, or why writes are refused.
  const std::string& Refusal() const { return m_strError; }
  // Whether only a save makes the journal whole.
  bool WantsSave() const { return m_bOn && !m_bWhole; }

  // To be called when a save has copied the keys: changes from now on go into a file of their own.
  // Its generation is the dump's. Empty, or what went wrong: then the save must not go on.
  std::string Rotate(uint64_t& iGeneration);
  // The dump of that generation is there.
  void OnSaved(uint64_t iGeneration);

  JournalStat_t Stat() const;

 private:
  enum Request_t { WRITE, SYNC, REQUESTS };

  void OnSet(std::string_view strKey, std::string_view strValue, int64_t iExpireAt) override;
  void OnExpiry(std::string_view strKey, int64_t iExpireAt) override;
  void OnRemove(std::string_view strKey) override;
  void OnClear() override;

  std::string Path(uint64_t iGeneration) const;
  std::string OpenNext();
  void CloseFile();
  void FlushMuch();
  void Flush();
  void SyncNow();
  bool StartSync();
  void Collect();
  void Await(Request_t eRequest);
  void Fail(const std::string& strWhat);
  void MarkWhole();

  const bool m_bOn;
  const bool m_bSyncBatches;
  KeyStore& m_stStore;
  const TableMark_t m_stMark;
  const std::string m_strDirectory;

  uint64_t m_iGeneration = 0;  // the latest that has a file, or that a dump stands for
  int m_iFD = -1;              // -1: changes can not be written
  uint64_t m_iSize = 0;
  JournalEncoder m_stEncoder;
  std::string m_strBuffer;
  bool m_bWhole = false;
  bool m_bLost = false;  // changes of this turn
  std::string m_strError;

  bool m_abBusy[REQUESTS] = {};
  long m_aiResult[REQUESTS] = {};
  bool m_bUnsynced = false;
  int64_t m_iSyncAt = 0;  // when the last sync began
  uint64_t m_iSyncs = 0;
};

#endif
