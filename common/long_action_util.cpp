#include "long_action_util.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "class_factory.h"

// DESIGN. The text form is that of libcrypto's base64 filter BIO, of which this source takes only
// the decoder, and only for text that Encode() did not write. A chain of BIOs costs more than a
// short text and goes byte by byte through a long one; the same lines come from libcrypto's block
// functions, 48 bytes at a time. The tests hold both against the chain, on a million random inputs.

// NOLINTNEXTLINE(cert-err58-cpp): it has room for the text in itself and does not throw
const std::string METHOD_KEY = "_METHOD_KEY_";

namespace {

const size_t LENGTH_SIZE = 4;  // bytes of a field's length
static_assert(sizeof(unsigned int) == LENGTH_SIZE);

const size_t LINE_BYTES = 48;  // encoded in one line
const size_t LINE_CHARACTERS = 64;

const int STATUS_RUNNING = 0x10000;  // no exit code has this value
const useconds_t CHILD_DELAY = 20000;
const size_t READ_SIZE = 1024;
const int UNKNOWN_DESCRIPTOR = -100;

struct FreeChain {
  void operator()(BIO* pChain) const { BIO_free_all(pChain); }
};
typedef std::unique_ptr<BIO, FreeChain> Chain_t;

// A response whose child does not run yet: dropped, it closes its pipes.
struct DropResponse {
  void operator()(long_action_response_t* pResponse) const {
    const int iErrno = errno;  // says why it is dropped
    for (const int iFD : {pResponse->fd_stdout[0], pResponse->fd_stdout[1], pResponse->fd_stderr[0],
                          pResponse->fd_stderr[1]}) {
      if (iFD != -1) {
        close(iFD);
      }
    }
    delete pResponse;
    errno = iErrno;
  }
};
typedef std::unique_ptr<long_action_response_t, DropResponse> PendingResponse_t;

// Null when there are no pipes to be had.
PendingResponse_t MakeResponse(unsigned int iMachineID, unsigned int iFlowno) {
  PendingResponse_t pResponse(new long_action_response_t);
  pResponse->iMachineID = static_cast<int>(iMachineID);
  pResponse->iFlowno = iFlowno;
  if (pipe2(pResponse->fd_stdout, O_CLOEXEC) == -1 ||
      pipe2(pResponse->fd_stderr, O_CLOEXEC) == -1) {
    return nullptr;
  }
  return pResponse;
}

bool Watch(int iEpollFD, int iFD) {
  epoll_event stEvent{};
  stEvent.events = EPOLLIN;
  stEvent.data.fd = iFD;
  return epoll_ctl(iEpollFD, EPOLL_CTL_ADD, iFD, &stEvent) == 0;
}

// A command that the child runs has the standard descriptors only. A pipe's end that is one of them
// already, since the host has closed its own, is left alone by dup2() and must lose its mark.
void Redirect(int iFD, int iStandardFD) {
  dup2(iFD, iStandardFD);
  if (iFD == iStandardFD) {
    fcntl(iFD, F_SETFD, 0);
  }
}

// noexcept: what Do() throws must end the child, not unwind it into the host's loop.
[[noreturn]] void RunChild(LongActionMethod* pMethod,
                           const long_action_response_t& stResponse) noexcept {
  signal(SIGCHLD, SIG_DFL);  // the host's handler would reap what Do() waits for
  usleep(CHILD_DELAY);
  Redirect(stResponse.fd_stdout[1], STDOUT_FILENO);
  Redirect(stResponse.fd_stderr[1], STDERR_FILENO);
  exit(pMethod->Do());
}

// Writes one field and returns its end; there is room for it.
char* PutField(char* pOut, const char* pData, unsigned int iLength) {
  memcpy(pOut, &iLength, LENGTH_SIZE);
  memcpy(pOut + LENGTH_SIZE, pData, iLength);
  return pOut + LENGTH_SIZE + iLength;
}

char* PutField(char* pOut, const std::string& strData) {
  return PutField(pOut, strData.data(), static_cast<unsigned int>(strData.size()));
}

size_t FieldSize(const std::string& strData) { return LENGTH_SIZE + strData.size(); }

void PutPairs(char* pOut, const std::multimap<std::string, std::string>& mapPairs) {
  for (const auto& [strKey, strValue] : mapPairs) {
    pOut = PutField(PutField(pOut, strKey), strValue);
  }
}

size_t PairsSize(const std::multimap<std::string, std::string>& mapPairs) {
  size_t iSize = 0;
  for (const auto& [strKey, strValue] : mapPairs) {
    iSize += FieldSize(strKey) + FieldSize(strValue);
  }
  return iSize;
}

// Decodes whole lines as Encode() writes them; false when anything is different from that.
bool DecodeLines(const std::string& strText, std::string& strBytes) {
  const size_t iData = strText.find_last_not_of('=') + 1;
  const size_t iPadding = strText.size() - iData;
  if (iPadding > 2 || strText.find('=') < iData) {
    return false;
  }
  strBytes.resize(strText.size() / 4 * 3);
  const auto* pIn = reinterpret_cast<const unsigned char*>(strText.data());
  auto* pOut = reinterpret_cast<unsigned char*>(strBytes.data());
  size_t iBytes = 0;
  for (size_t i = 0; i < strText.size(); i += LINE_CHARACTERS + 1) {
    const size_t iCount = std::min(LINE_CHARACTERS, strText.size() - i);
    const size_t iEnd = i + iCount;
    const size_t iLine = iCount / 4 * 3;
    if (iCount % 4 != 0 || (iEnd < strText.size() && strText[iEnd] != '\n') ||
        EVP_DecodeBlock(pOut + iBytes, pIn + i, static_cast<int>(iCount)) !=
            static_cast<int>(iLine)) {
      return false;
    }
    iBytes += iLine;
  }
  strBytes.resize(iBytes - iPadding);
  return true;
}

// Decodes any text as far as libcrypto's filter understands it.
std::string DecodeByChain(const std::string& strText) {
  if (strText.size() > INT_MAX - 2) {
    return "";
  }
  const std::string strLines = strText + '\n';
  Chain_t pSource(BIO_new_mem_buf(strLines.data(), static_cast<int>(strLines.size())));
  const Chain_t pFilter(BIO_new(BIO_f_base64()));
  if (pSource == nullptr || pFilter == nullptr) {
    return "";
  }
  BIO_push(pFilter.get(), pSource.release());
  std::string strBytes(strText.size() + 2, '\0');
  const int iCount = BIO_read(pFilter.get(), strBytes.data(), static_cast<int>(strBytes.size()));
  strBytes.resize(static_cast<size_t>(std::max(iCount, 0)));
  return strBytes;
}

// Null when the name is unknown, or when its objects are no methods.
LongActionMethod* CreateMethod(const std::string& strMethod) {
  Object* pObject = ClassFactory::Instance().NewObject(strMethod.c_str());
  auto* pMethod = dynamic_cast<LongActionMethod*>(pObject);
  if (pMethod == nullptr) {
    delete pObject;
  }
  return pMethod;
}

void ReportUnknownMethod(const std::string& strMethod) {
  dprintf(STDERR_FILENO, "Internal error: invalid object type `%s`\n", strMethod.c_str());
  for (const auto& stEntry : ClassFactory::Instance().ObjectMap()) {
    dprintf(STDERR_FILENO, "Internal error:   valid list - %s\n", stEntry.first.c_str());
  }
}

int WriteEncoded(int iFD, const std::string& strBytes) {
  const std::string strText = LongActionMethod::Encode(strBytes);
  const ssize_t iIgnored = write(iFD, strText.data(), strText.size());
  static_cast<void>(iIgnored);  // a child has nowhere else to report to
  return static_cast<int>(strText.size());
}

}  // namespace

LongActionMethod::~LongActionMethod() { delete m_pRealMethod; }

void LongActionMethod::Dump(int /*iFD*/) {}

int LongActionMethod::Do() { abort(); }

const std::string& LongActionMethod::Param(const std::string& strKey, int iIndex) const {
  static const std::string& strMissing = *new std::string;  // outlives the static destructors
  const LongActionMethod* pRoot = this;
  while (pRoot->m_pParentMethod != nullptr) {
    pRoot = pRoot->m_pParentMethod;
  }
  auto [it, itEnd] = pRoot->m_mapParams.equal_range(strKey);
  for (int i = 0; it != itEnd; ++it, ++i) {
    if (i == iIndex) {
      return it->second;
    }
  }
  return strMissing;
}

const std::string& LongActionMethod::Param(const std::string& strKey, int iIndex) {
  return static_cast<const LongActionMethod*>(this)->Param(strKey, iIndex);
}

void LongActionMethod::Clear() {
  m_strMethod.clear();
  m_mapParams.clear();
  m_mapResults.clear();
  m_iResultCode = -1;
}

void LongActionMethod::SerializeToString(std::string& strOut, const char* pData,
                                         unsigned int iLength) const {
  const size_t iSize = strOut.size();
  strOut.resize(iSize + LENGTH_SIZE + iLength);
  PutField(strOut.data() + iSize, pData, iLength);
}

void LongActionMethod::SerializeToString(std::string& strOut, const std::string& strData) const {
  SerializeToString(strOut, strData.data(), static_cast<unsigned int>(strData.size()));
}

std::string LongActionMethod::SerializeRequest() const {
  std::string strOut(FieldSize(METHOD_KEY) + FieldSize(m_strMethod) + PairsSize(m_mapParams), '\0');
  PutPairs(PutField(PutField(strOut.data(), METHOD_KEY), m_strMethod), m_mapParams);
  return strOut;
}

std::string LongActionMethod::SerializeResult() const {
  std::string strOut(PairsSize(m_mapResults), '\0');
  PutPairs(strOut.data(), m_mapResults);
  return strOut;
}

bool LongActionMethod::PeekUnsigned(const char* pBuffer, unsigned int iLength,
                                    unsigned int& iOffset, unsigned int& iValue) const {
  if (iOffset > iLength || iLength - iOffset < LENGTH_SIZE) {
    return false;
  }
  memcpy(&iValue, pBuffer + iOffset, LENGTH_SIZE);
  iOffset += LENGTH_SIZE;
  return true;
}

bool LongActionMethod::PeekBuffer(const char* pBuffer, unsigned int iLength, unsigned int& iOffset,
                                  unsigned int iCount, std::string& strOut) const {
  if (iOffset > iLength || iLength - iOffset < iCount) {
    return false;
  }
  strOut.assign(pBuffer + iOffset, iCount);
  iOffset += iCount;
  return true;
}

bool LongActionMethod::Parse(const char* pBuffer, unsigned int iLength) {
  enum { KEY_LENGTH, KEY, VALUE_LENGTH, VALUE, STATES };
  std::string strKey;
  std::string strValue;
  unsigned int iCount = 0;
  unsigned int iOffset = 0;
  // The buffer may end after any of the four steps; deliberate.
  for (int iState = KEY_LENGTH; iOffset < iLength; iState = (iState + 1) % STATES) {
    const bool bRead =
        iState == KEY_LENGTH || iState == VALUE_LENGTH
            ? PeekUnsigned(pBuffer, iLength, iOffset, iCount)
            : PeekBuffer(pBuffer, iLength, iOffset, iCount, iState == KEY ? strKey : strValue);
    if (!bRead) {
      return false;
    }
    if (iState == VALUE) {
      // Serialised pairs come in ascending order; the hint keeps equal keys in arrival order.
      m_mapParams.emplace_hint(m_mapParams.end(), std::exchange(strKey, {}),
                               std::exchange(strValue, {}));
    }
  }
  return true;
}

bool LongActionMethod::ParseRequest(const char* pBuffer, unsigned int iLength) {
  if (!Parse(pBuffer, iLength)) {
    return false;
  }
  const auto it = m_mapParams.lower_bound(METHOD_KEY);
  if (it == m_mapParams.end() || it->first != METHOD_KEY) {
    return false;
  }
  m_strMethod = std::move(it->second);
  m_mapParams.erase(it);
  return true;
}

bool LongActionMethod::ParseResult(const char* pBuffer, unsigned int iLength) {
  return Parse(pBuffer, iLength);
}

void LongActionMethod::Execute(const char* pBuffer, unsigned int iLength) {
  m_iResultCode = -1;
  m_mapResults.clear();
  if (!ParseRequest(pBuffer, iLength)) {
    dprintf(STDERR_FILENO, "Internal error: can't parse data\n");
    return;
  }
  m_pRealMethod = CreateMethod(m_strMethod);  // an earlier one is not destroyed; deliberate
  if (m_pRealMethod == nullptr) {
    ReportUnknownMethod(m_strMethod);
    return;
  }
  m_pRealMethod->Parent(this);
  m_iResultCode = m_pRealMethod->Do();
}

std::string LongActionMethod::Encode(const std::string& strBytes) {
  const size_t iLines = (strBytes.size() + LINE_BYTES - 1) / LINE_BYTES;
  const size_t iQuads = (strBytes.size() + 2) / 3;
  std::string strText(iQuads * 4 + iLines, '\n');
  const auto* pIn = reinterpret_cast<const unsigned char*>(strBytes.data());
  auto* pOut = reinterpret_cast<unsigned char*>(strText.data());
  for (size_t i = 0; i < strBytes.size(); i += LINE_BYTES) {
    const auto iCount = static_cast<int>(std::min(LINE_BYTES, strBytes.size() - i));
    pOut += EVP_EncodeBlock(pOut, pIn + i, iCount);
    *pOut++ = '\n';  // over the block's NUL
  }
  if (!strText.empty()) {
    strText.pop_back();
  }
  return strText;
}

std::string LongActionMethod::Decode(const std::string& strText) {
  std::string strBytes;
  return DecodeLines(strText, strBytes) ? strBytes : DecodeByChain(strText);
}

int LongActionMethod::EncodeToStdout(const std::string& strBytes) {
  return WriteEncoded(STDOUT_FILENO, strBytes);
}

int LongActionMethod::EncodeToStderr(const std::string& strBytes) {
  return WriteEncoded(STDERR_FILENO, strBytes);
}

LongActionUtil::LongActionUtil() {
  std::fill(std::begin(m_pids), std::end(m_pids), pid_retcode_t{0, STATUS_RUNNING});
}

LongActionUtil& LongActionUtil::Instance() {
  // Never destroyed: children run the static destructors while the host goes on.
  static LongActionUtil& stUtil = *new LongActionUtil;
  return stUtil;
}

int LongActionUtil::Perform(LongActionMethod* pMethod, unsigned int iMachineID,
                            unsigned int iFlowno) {
  PendingResponse_t pResponse = MakeResponse(iMachineID, iFlowno);
  if (pResponse == nullptr || !Watch(m_iEpollFD, pResponse->fd_stdout[0]) ||
      !Watch(m_iEpollFD, pResponse->fd_stderr[0]) || !Launch(pMethod, pResponse.get())) {
    return -1;
  }
  static_cast<void>(pResponse.release());  // it is in the tables now
  return 0;
}

int LongActionUtil::Perform2(LongActionMethod* pMethod, unsigned int iMachineID,
                             unsigned int iFlowno, int& iStdoutFD, int& iStderrFD) {
  PendingResponse_t pResponse = MakeResponse(iMachineID, iFlowno);
  if (pResponse == nullptr) {
    return -1;
  }
  iStdoutFD = pResponse->fd_stdout[0];
  iStderrFD = pResponse->fd_stderr[0];
  if (!Launch(pMethod, pResponse.get())) {
    return -1;
  }
  static_cast<void>(pResponse.release());  // it is in the tables now
  return 0;
}

bool LongActionUtil::Launch(LongActionMethod* pMethod, long_action_response_t* pResponse) {
  // What needs memory comes first: a child that runs is in the tables.
  std::map<int, int> mapNewFDs{{pResponse->fd_stdout[0], 0}, {pResponse->fd_stderr[0], 0}};
  std::map<int, long_action_response_t*> mapNewChild{{0, pResponse}};
  const pid_t iPid = fork();
  if (iPid == -1) {
    return false;
  }
  if (iPid == 0) {
    RunChild(pMethod, *pResponse);
  }
  for (auto& stEntry : mapNewFDs) {
    stEntry.second = iPid;
  }
  m_mapFD2PID.merge(mapNewFDs);
  auto stChild = mapNewChild.extract(0);
  stChild.key() = iPid;
  m_mapChildren.insert(std::move(stChild));
  const auto pSlot = std::find_if(std::begin(m_pids), std::end(m_pids),
                                  [](const pid_retcode_t& stSlot) { return stSlot.pid == 0; });
  if (pSlot != std::end(m_pids)) {
    *pSlot = {iPid, STATUS_RUNNING};
  }
  return true;
}

int LongActionUtil::EventCallback(int iFD) {
  long_action_response_t* pResponse = ResponseOf(iFD);
  if (pResponse == nullptr) {
    return UNKNOWN_DESCRIPTOR;
  }
  std::string& strText =
      iFD == pResponse->fd_stdout[0] ? pResponse->strStdOut : pResponse->strStdError;
  if (strText.capacity() - strText.size() < READ_SIZE) {
    strText.reserve(strText.size() + READ_SIZE);  // may throw: then the bytes are still in the pipe
  }
  char szBuffer[READ_SIZE];
  const ssize_t iCount = read(iFD, szBuffer, sizeof(szBuffer));
  if (iCount <= 0) {
    printf("fd:%d, read failed, return %d", iFD, static_cast<int>(iCount));
    return 0;
  }
  strText.append(szBuffer, static_cast<size_t>(iCount));
  return 0;
}

long_action_response_t* LongActionUtil::ChildExit(pid_t iPid, int iStatus) {
  const auto it = m_mapChildren.find(iPid);
  if (it == m_mapChildren.end()) {
    return nullptr;
  }
  long_action_response_t* pResponse = it->second;
  pResponse->iRetcode = iStatus;
  m_mapChildren.erase(it);
  ClosePipe(pResponse->fd_stdout);
  ClosePipe(pResponse->fd_stderr);
  return pResponse;
}

// Out of the epoll set first: a child that inherited the read end would keep it in there.
void LongActionUtil::ClosePipe(const int (&arrPipe)[2]) {
  epoll_ctl(m_iEpollFD, EPOLL_CTL_DEL, arrPipe[0], nullptr);
  close(arrPipe[0]);
  close(arrPipe[1]);
  m_mapFD2PID.erase(arrPipe[0]);
}

bool LongActionUtil::IsLongAction(pid_t iPid, int /*iStatus*/) {
  for (pid_retcode_t& stSlot : m_pids) {
    int iStatus = 0;
    if (stSlot.pid != 0 && waitpid(stSlot.pid, &iStatus, WNOHANG) > 0) {
      stSlot.status = WEXITSTATUS(iStatus);
    }
  }
  return std::any_of(std::begin(m_pids), std::end(m_pids),
                     [=](const pid_retcode_t& stSlot) { return stSlot.pid == iPid; });
}

long_action_response_t* LongActionUtil::PollChild() {
  const auto pSlot =
      std::find_if(std::begin(m_pids), std::end(m_pids), [](const pid_retcode_t& stSlot) {
        return stSlot.pid != 0 && stSlot.status != STATUS_RUNNING;
      });
  if (pSlot == std::end(m_pids)) {
    return nullptr;
  }
  const pid_retcode_t stEnded = *pSlot;
  *pSlot = {0, STATUS_RUNNING};
  return ChildExit(stEnded.pid, stEnded.status);
}

std::vector<int> LongActionUtil::EnumAllChildren() const {
  std::vector<int> vecPids;
  vecPids.reserve(m_mapChildren.size());
  for (const auto& stEntry : m_mapChildren) {
    vecPids.push_back(stEntry.first);
  }
  return vecPids;
}

// A child may have the pid of an earlier one that was reaped but not finished: when that one is,
// the descriptors of the later one stay without a response.
long_action_response_t* LongActionUtil::ResponseOf(int iFD) const {
  const auto itPid = m_mapFD2PID.find(iFD);
  if (itPid == m_mapFD2PID.end()) {
    return nullptr;
  }
  const auto itChild = m_mapChildren.find(itPid->second);
  return itChild == m_mapChildren.end() ? nullptr : itChild->second;
}

void LongActionUtil::SetStdoutEvent(int iFD, void* pEvent) {
  if (long_action_response_t* pResponse = ResponseOf(iFD)) {
    pResponse->event_stdout = pEvent;
  }
}

void* LongActionUtil::GetStdoutEvent(int iFD) const {
  const long_action_response_t* pResponse = ResponseOf(iFD);
  return pResponse == nullptr ? nullptr : pResponse->event_stdout;
}

void LongActionUtil::SetStderrEvent(int iFD, void* pEvent) {
  if (long_action_response_t* pResponse = ResponseOf(iFD)) {
    pResponse->event_stderr = pEvent;
  }
}

void* LongActionUtil::GetStderrEvent(int iFD) const {
  const long_action_response_t* pResponse = ResponseOf(iFD);
  return pResponse == nullptr ? nullptr : pResponse->event_stderr;
}
