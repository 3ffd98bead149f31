#ifndef KV_SERVER_TABLE_SET_H
#define KV_SERVER_TABLE_SET_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "key_store.h"
#include "settings.h"

// The tables of all workers, made by the first master of a run directory and found by later ones.
//
// The file "run" of the run directory is made once: a UUID, and what the tables were made with. The
// tables' keys are derived from it by ftok(). A derived key may be somebody else's, so each table
// bears the UUID, and a key that is taken is passed over when a table is made. The file "tables"
// lists the keys, before there is a segment under them.
class TableSet {
 public:
  explicit TableSet(std::string strDirectory) : m_strDirectory(std::move(strDirectory)) {}

  // Makes what is missing and looks at what is there. Empty, or why the server must not start; all
  // is as it was then. Log lines tell what was made anew.
  std::string Prepare(const Settings_t& stSettings);

  // Makes a table anew with twice its bytes, for a worker that could not load its keys into it: a
  // table that was filled over months has its blocks cut to other sizes than one that is filled at
  // a start, so the same keys may need more. False when it has four times the usual bytes already,
  // or can not be made; then there may be none, and the next Prepare() makes one.
  bool Enlarge(size_t iWorker);

  // Removes tables and files, and with them all keys.
  void Remove();

  const std::vector<TableName_t>& Names() const { return m_vecNames; }

  // What an operator is told of a table: "the table of worker 1 (segment 0x0102abcd)".
  static std::string Describe(const TableName_t& stName);

 private:
  // What the file "run" says.
  struct Run_t {
    std::string strUuid;
    uint64_t iWorkers;
    uint64_t iBytes;
    uint64_t iBuckets;
  };

  std::string RunFile() const { return m_strDirectory + "/run"; }
  std::string ListFile() const { return m_strDirectory + "/tables"; }
  std::string LoadRun(const Settings_t& stSettings);
  bool SaveRun() const;
  std::string CheckSettings(const Settings_t& stSettings) const;
  void LoadList();
  bool SaveList() const;
  std::string ChooseKeys();
  std::string PrepareTable(size_t iWorker);
  std::string MakeTable(size_t iWorker, uint64_t iBytes);
  std::string Advice(const std::string& strFault) const;

  std::string m_strDirectory;
  Run_t m_stRun{};
  std::vector<TableName_t> m_vecNames;
  std::vector<bool> m_vecNew;  // by worker: the table is still to be made
};

#endif
