#ifndef ZELK_COMMON_LONG_ACTION_UTIL_H
#define ZELK_COMMON_LONG_ACTION_UTIL_H

#include <stdint.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "object.h"

// The key under which a request carries its method's name: "_METHOD_KEY_".
extern const std::string METHOD_KEY;

// A piece of work that does not belong into an event loop: a method's name, its parameters, its
// results, and the bytes and the text in which they travel. A concrete method overrides Do().
//
// Two ways to run one: LongActionUtil::Perform() runs an object in a forked child; Execute() makes
// the method that a request names and runs it in this process. The object that executes, the
// carrier, may be a plain LongActionMethod; the methods below it read the carrier's parameters:
//
//   stRequest.Method("ExecuteShell2");                         sender
//   stRequest.Param("command", "ls");
//   strText = LongActionMethod::Encode(stRequest.SerializeRequest());
//
//   strBytes = LongActionMethod::Decode(strText);              receiver
//   stCarrier.Execute(strBytes.data(), strBytes.size());
//
// Keys, values and names may hold any bytes, each less than 4 GiB; an embedded NUL ends a name for
// ClassFactory. Parameters and results are ordered by key, byte by byte, equal keys as they came.
// Nothing is shared between processes. Not locked: one thread at a time.
class LongActionMethod : public Object {
 public:
  LongActionMethod() = default;
  // Destroys the method that Execute() made.
  ~LongActionMethod() override;

  LongActionMethod(const LongActionMethod&) = delete;
  LongActionMethod& operator=(const LongActionMethod&) = delete;

  // Writes nothing.
  void Dump(int iFD) override;

  // The work; the result is the exit code. Must be overridden: this one aborts.
  virtual int Do();

  // The name under which ClassFactory knows the method.
  void Method(const std::string& strMethod) { m_strMethod = strMethod; }
  const std::string& Method() const { return m_strMethod; }

  // Adds a parameter to this object; a key may repeat.
  void Param(const std::string& strKey, const std::string& strValue) {
    m_mapParams.emplace(strKey, strValue);
  }

  // The value number iIndex, from 0, of a key. Deliberately, only the root of the chain of parents
  // is asked, so that a method sees its carrier's parameters and none of its own. When there is no
  // such value, one empty string that lives as long as the process.
  const std::string& Param(const std::string& strKey, int iIndex) const;
  const std::string& Param(const std::string& strKey, int iIndex);

  // Adds a result to this object; a key may repeat.
  void ResultParam(const std::string& strKey, const std::string& strValue) {
    m_mapResults.emplace(strKey, strValue);
  }

  // Empties name, parameters and results; the result code is -1 again.
  void Clear();

  // What Do() returned in the last Execute(); -1 before, and when nothing could be run.
  int Retcode() const { return m_iResultCode; }

  // The carrier for which this method runs, not owned; null for a carrier.
  LongActionMethod* Parent() const { return m_pParentMethod; }
  void Parent(LongActionMethod* pParent) { m_pParentMethod = pParent; }

  // The bytes of a request: METHOD_KEY and the name, then each parameter's key and value. A field
  // is its length (4 bytes, this machine's order) and that many bytes.
  //
  // An empty value at the very end is lost when the bytes are parsed; see ParseRequest().
  std::string SerializeRequest() const;

  // The bytes of the results, in the same form, without name and result code.
  std::string SerializeResult() const;

  // Adds the pairs of a request to the parameters, then takes the first METHOD_KEY among them out
  // as the name. False without such a key, or when a length or the bytes it announces run past the
  // end; what was parsed until then stays among the parameters.
  //
  // Deliberately, bytes that end between two fields, or between a length and its bytes, are a
  // success, and their unfinished pair is dropped: no bytes at all are a success too.
  bool ParseRequest(const char* pBuffer, unsigned int iLength);

  // Adds the pairs of a result. Deliberately to the parameters, not to the results: read them with
  // Param(). False as in ParseRequest().
  bool ParseResult(const char* pBuffer, unsigned int iLength);

  // Parses a request and runs the method that it names, with this object as its carrier; the
  // outcome is in Retcode(). Results are emptied first, parameters are not. What can not be parsed
  // and a name that no LongActionMethod is registered under are told on descriptor 2.
  //
  // Meant to be called once: a second call forgets the first one's method without destroying it.
  void Execute(const char* pBuffer, unsigned int iLength);

  // Base64 in lines of 64 characters, without a newline at the end; "" for "".
  static std::string Encode(const std::string& strBytes);

  // The bytes of what Encode() made. Of another text, what the base64 filter of libcrypto reads
  // from it, with a newline added: "" when that is nothing, and always from 2 GiB on.
  static std::string Decode(const std::string& strText);

  // Writes the encoded bytes to descriptor 1 or 2 in one write(), which may block on a full pipe.
  // Returns the text's length, deliberately also when not all or nothing was written.
  static int EncodeToStdout(const std::string& strBytes);
  static int EncodeToStderr(const std::string& strBytes);

 protected:
  typedef std::multimap<std::string, std::string> Params_t;

  // Append one field.
  void SerializeToString(std::string& strOut, const char* pData, unsigned int iLength) const;
  void SerializeToString(std::string& strOut, const std::string& strData) const;

  // Read a length, or iCount bytes, at iOffset and advance it. False when fewer bytes remain: then
  // nothing has changed.
  bool PeekUnsigned(const char* pBuffer, unsigned int iLength, unsigned int& iOffset,
                    unsigned int& iValue) const;
  bool PeekBuffer(const char* pBuffer, unsigned int iLength, unsigned int& iOffset,
                  unsigned int iCount, std::string& strOut) const;

  // Adds the pairs of a buffer to the parameters; false as in ParseRequest().
  bool Parse(const char* pBuffer, unsigned int iLength);

  std::string m_strMethod;
  Params_t m_mapParams;
  int m_iResultCode = -1;
  Params_t m_mapResults;
  LongActionMethod* m_pRealMethod = nullptr;    // made by Execute(), owned
  LongActionMethod* m_pParentMethod = nullptr;  // not owned
};

// A child that runs, and at last what became of it.
//
// The destructor closes nothing; the descriptors belong to LongActionUtil, which has closed them
// when the host gets the record.
struct long_action_response_t {
  std::string strStdOut;  // as far as EventCallback() has read
  std::string strStdError;
  int iRetcode = 0;             // as given to ChildExit()
  int fd_stdout[2] = {-1, -1};  // read end, write end
  int fd_stderr[2] = {-1, -1};
  int iMachineID = 0;            // tags of the host: the waiting state machine
  uint32_t iFlowno = 0;          // and its request
  void* event_stdout = nullptr;  // objects of the host, only kept here
  void* event_stderr = nullptr;
};

// A slot of the table that IsLongAction() sweeps. Free: pid 0. Running: status 65536.
struct pid_retcode_t {
  pid_t pid;
  int status;
};

// Runs long actions in forked children, collects what they print, and hands it to the host when
// they have ended. One per process, driven by the host's event loop:
//
//   SetEpollFD() once; Perform() starts a child.
//   A read end is readable: EventCallback(), again as long as it is.
//   Children may have ended (a tick, a SIGCHLD): IsLongAction(0, 0), then EventCallback() until the
//   read ends are dry, then PollChild() until it is null. Each response is the host's to delete.
//
// A host that reaps its children itself calls ChildExit(pid, exit code) in place of the last line;
// null says that the child was none of these. IsLongAction() tells that too, but it sweeps: poll
// afterwards for children whose codes it took. Deliberately, ChildExit() frees no slot: the pid
// stays known, the sweep waits for whoever gets its number next, and after 1000 such children
// further ones have no slot. With signal_init(), whose handler reaps all and keeps no status, the
// sweep learns nothing: the host finds out by itself who has ended, and calls ChildExit().
//
// The child is a copy of the host. It gets standard output and error, SIGCHLD's default and nothing
// else: every other descriptor stays open in it, connections, queues and the epoll set included. A
// command that it runs (exec) has of them what is not marked close-on-exec: of this library's own
// descriptors the FIFOs of queues. So the host
// - flushes stdio before it starts a child: what is buffered is printed once more by the child;
// - takes a descriptor out of the epoll set before it closes it, for a child may still hold it, and
//   expects a peer to see the end of a connection only when the child has ended too;
// - lets a Do() that runs long close what is above descriptor 2 first, and ask for its own end with
//   the host's, prctl(PR_SET_PDEATHSIG, SIGKILL): an orphan that prints more than the pipe holds
//   waits for ever, because it holds the read end itself;
// - ends a child that takes too long: there is no limit here.
//
// Not locked: one thread. A child that dies, in whatever way, harms nothing in the host.
class LongActionUtil {
 public:
  static LongActionUtil& Instance();

  LongActionUtil(const LongActionUtil&) = delete;
  LongActionUtil& operator=(const LongActionUtil&) = delete;

  // The epoll instance in which Perform() registers read ends; it stays the host's.
  void SetEpollFD(int iFD) { m_iEpollFD = iFD; }

  // Starts a child that runs pMethod->Do() and exits with the low 8 bits of its result, by exit():
  // atexit functions and static destructors run there too. Do() starts after 20 ms; an exception
  // that leaves it ends the child by SIGABRT.
  //
  // pMethod stays the caller's, who may destroy it at once: the child has its own copy. The read
  // ends are registered for EPOLLIN with themselves as data. Returns 0, or -1 with errno when pipe,
  // epoll_ctl or fork failed: then all is as before.
  //
  // Child number 1001 and further at a time are started all the same (deliberately), but the sweep
  // does not see them: only ChildExit() finishes them.
  int Perform(LongActionMethod* pMethod, unsigned int iMachineID, unsigned int iFlowno);

  // The same, but the read ends go to the caller, who watches them, and not into the epoll set.
  // They are stored before the fork, so a failed one leaves there numbers that are closed again.
  int Perform2(LongActionMethod* pMethod, unsigned int iMachineID, unsigned int iFlowno,
               int& iStdoutFD, int& iStderrFD);

  // Reads once, at most 1024 bytes, blocking when there are none. -100 when iFD is not the read end
  // of a child that runs, else 0; a failed read prints a line without newline on stdout.
  int EventCallback(int iFD);

  // Finishes a child with this exit code, kept as it is: closes its pipes and returns its response,
  // now the caller's to delete. Null for an unknown child. Bytes that were not read yet are lost.
  long_action_response_t* ChildExit(pid_t iPid, int iStatus);

  // Collects the exit codes of all ended children that have a slot, whatever the arguments; a death
  // by signal gives 0. True when iPid is in a slot, so for 0 while one is free (deliberately).
  bool IsLongAction(pid_t iPid, int iStatus);

  // Finishes the first child whose exit code has been collected, and frees its slot; null when
  // there is none, or when ChildExit() had finished that child already.
  long_action_response_t* PollChild();

  // The pids of all children that are not finished, ascending.
  std::vector<int> EnumAllChildren() const;

  // The host's event objects of a child; iFD is either of its read ends. Of an unknown descriptor,
  // Set does nothing and Get gives null.
  void SetStdoutEvent(int iFD, void* pEvent);
  void* GetStdoutEvent(int iFD) const;
  void SetStderrEvent(int iFD, void* pEvent);
  void* GetStderrEvent(int iFD) const;

 protected:
  LongActionUtil();
  ~LongActionUtil() = default;

 private:
  static const int MAX_SWEPT = 1000;

  // Forks; in the parent, keeps the response in the tables. False when there is no child.
  bool Launch(LongActionMethod* pMethod, long_action_response_t* pResponse);
  void ClosePipe(const int (&arrPipe)[2]);
  // The response of the child that owns this read end, or null.
  long_action_response_t* ResponseOf(int iFD) const;

  int m_iEpollFD = -1;
  std::map<int, int> m_mapFD2PID;  // read ends, two a child
  std::map<int, long_action_response_t*> m_mapChildren;
  pid_retcode_t m_pids[MAX_SWEPT];
};

#endif
