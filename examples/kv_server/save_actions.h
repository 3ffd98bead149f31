#ifndef KV_SERVER_SAVE_ACTIONS_H
#define KV_SERVER_SAVE_ACTIONS_H

#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "dump_file.h"
#include "long_action_util.h"
#include "save_feed.h"
#include "settings.h"

// The slow parts of a save, which a worker has done by forked children. Each ends with its worker.

// Writes the dump. The outcome is the text of a serialised result on standard output: "keys",
// "bytes" and "state", which is "saved" or what went wrong.
class SaveAction : public LongActionMethod {
 public:
  // The child takes its end of the feed.
  SaveAction(SaveFeed& stFeed, const DumpOrigin_t& stOrigin, std::string strPath)
      : m_stFeed(stFeed),
        m_stOrigin(stOrigin),
        m_strPath(std::move(strPath)),
        m_iWorker(getpid()) {}

  int Do() override;

 private:
  SaveFeed& m_stFeed;
  const DumpOrigin_t m_stOrigin;
  const std::string m_strPath;
  const pid_t m_iWorker;
};

const char SAVED[] = "saved";

// Brings the mirror up to a dump, over a connection of its own. The outcome as above, with "keys",
// "written" and "deleted".
class MirrorAction : public LongActionMethod {
 public:
  MirrorAction(const Settings_t& stSettings, const TableMark_t& stMark, std::string strDump)
      : m_stSettings(stSettings),
        m_stMark(stMark),
        m_strDump(std::move(strDump)),
        m_iWorker(getpid()) {}
  int Do() override;

 private:
  const Settings_t& m_stSettings;
  const TableMark_t m_stMark;
  const std::string m_strDump;
  const pid_t m_iWorker;
};

// Runs what a serialised request names; its exit code is the method's. So a hook is a request for
// the library's ExecuteShell2.
class RequestAction : public LongActionMethod {
 public:
  // The command finds the dump's path in its environment, as KV_DUMP, and of the worker's
  // descriptors the first three.
  RequestAction(std::string strRequest, std::string strDump)
      : m_strRequest(std::move(strRequest)), m_strDump(std::move(strDump)), m_iWorker(getpid()) {}
  int Do() override;

 private:
  const std::string m_strRequest;
  const std::string m_strDump;
  const pid_t m_iWorker;
};

#endif
