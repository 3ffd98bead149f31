#ifndef KV_SERVER_SAVER_H
#define KV_SERVER_SAVER_H

#include <cstdint>
#include <memory>
#include <string>

#include "id_generator.h"
#include "journal.h"
#include "key_store.h"
#include "save_feed.h"
#include "settings.h"

// What a worker tells of its saves.
struct SaveStat_t {
  uint64_t iChanges;   // since the last good save began
  uint64_t iRunning;   // 1 while one runs
  uint64_t iLastSave;  // seconds since 1970
  uint64_t iLastGood;  // 0 when the last one failed
};

// All that a worker tells for INFO.
struct WorkerStat_t {
  StoreStat_t stStore;
  SaveStat_t stSave;
  JournalStat_t stJournal;
};

// Saves of a worker's keys: in the background by a forked child, one at a time, on demand or by the
// rules of the settings; and one at the end in this process.
class Saver {
 public:
  // The save that runs is a machine with an id of that generator.
  Saver(const Settings_t& stSettings, KeyStore& stStore, const TableMark_t& stMark,
        IdGenerator& stIds);
  ~Saver();
  Saver(const Saver&) = delete;
  Saver& operator=(const Saver&) = delete;

  static std::string DumpPath(const Settings_t& stSettings, const TableMark_t& stMark);

  // Fills a table that was made anew, or one whose filling was cut short: from dump and journal;
  // when there is neither, from the mirror. Begins a journal. Empty, or why the worker can not
  // serve and what may be done.
  std::string Load();

  // Starts a save. False when one is under way, or when it can not be started, which the log tells.
  bool Start(const char* pReason);

  bool Running() const { return m_iMachine != 0; }
  // Readable when a child has written something; -1 when none runs.
  int WaitFD() const { return Running() ? m_iEpoll : -1; }

  // Sends a slice of the keys, takes what children have written, resumes the save whose child has
  // ended, starts what the rules want. Returns after how many milliseconds it wants to be called
  // again, iMost at most.
  int Turn(int iMost);

  // Ends a save that runs and saves in this process. False when that failed, which the log tells.
  bool SaveNow();

  // At the end: ends a save that runs, and saves what has changed if there are rules. What was
  // saved in this process goes to the mirror now.
  void Finish();
  // Not then,
  // should the end come soon; a shutdown that another worker refuses changes nothing.
  void DoNotSaveAtEnd();

  SaveStat_t Stat() const;

  Journal& TheJournal() { return m_stJournal; }

 private:
  friend class SaveMachine;

  std::string Fill(uint64_t& iGeneration, bool& bWhole);
  bool HasMirror() const { return !m_stSettings.strMirrorHost.empty(); }
  std::string LoadKeys(uint64_t& iGeneration, bool& bWhole);
  std::string LoadFromMirror(uint64_t& iGeneration, bool& bWhole);
  std::string SaveMirrored(uint64_t& iGeneration);
  bool StartMirror();
  void Drain();
  void Resume();
  void KillChild();
  void Abandon();
  bool RuleHolds() const;
  void OnSaved(bool bGood, uint64_t iChanges, uint64_t iGeneration);
  int64_t Now() const { return m_stStore.Now() / 1000; }

  const Settings_t& m_stSettings;
  KeyStore& m_stStore;
  const TableMark_t m_stMark;
  IdGenerator& m_stIds;
  const std::string m_strPath;
  Journal m_stJournal;
  int m_iEpoll = -1;
  uint32_t m_iMachine = 0;       // the save that runs
  uint64_t m_iSavedChanges = 0;  // changes of the store that are in the last good dump
  int64_t m_iLastSave;
  int64_t m_iRetryAt = 0;  // after a failure the rules wait
  bool m_bLastGood = true;
  int64_t m_iNoSaveBefore = 0;        // the end does not save before this time
  std::unique_ptr<SaveFeed> m_pFeed;  // of the keys to the child that writes them
  int m_iOutput = 0;                  // bytes from the child that runs
  bool m_bChildKilled = false;        // by us
  bool m_bMirrorBehind = false;       // there is a good dump that the mirror has not had
  bool m_bAbandoning = false;
};

#endif
