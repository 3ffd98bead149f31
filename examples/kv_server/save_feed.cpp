#include "save_feed.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "dump_file.h"

namespace {

const size_t SLICE = 64 << 10;     // copied in one turn
const size_t WAITING = 512 << 10;  // no slice while so much waits for the child
const int SLOW_CHILD_MS = 1;

struct CloseFile {
  void operator()(FILE* pFile) const { fclose(pFile); }
};

bool ReadAll(FILE* pFile, void* pData, size_t iSize) {
  return fread(pData, 1, iSize, pFile) == iSize;
}

void Close(int& iFD) {
  if (iFD != -1) {
    close(std::exchange(iFD, -1));
  }
}

}  // namespace

SaveFeed::SaveFeed(KeyStore& stStore) : m_stSnapshot(stStore) {
  int arEnds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, arEnds) == 0) {
    m_iWorkerEnd = arEnds[0];
    m_iChildEnd = arEnds[1];
  }
}

SaveFeed::~SaveFeed() {
  Close(m_iWorkerEnd);
  Close(m_iChildEnd);
}

void SaveFeed::StartSending() { Close(m_iChildEnd); }

int SaveFeed::Turn(int iMost) {
  if (m_stSnapshot.WaitingBytes() < WAITING) {
    m_stSnapshot.Advance(SLICE);
  }
  Send();
  if (m_stSnapshot.Whole() && m_stSnapshot.WaitingBytes() == 0) {
    return iMost;
  }
  return m_stSnapshot.Whole() || m_stSnapshot.WaitingBytes() >= WAITING ? SLOW_CHILD_MS : 0;
}

// A child that has gone is no error here: the worker will hear of its end.
void SaveFeed::Send() {
  while (m_stSnapshot.WaitingBytes() > 0) {
    const std::string_view strFront = m_stSnapshot.Front();
    const ssize_t iCount =
        send(m_iWorkerEnd, strFront.data(), strFront.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (iCount > 0) {
      m_stSnapshot.Take(static_cast<size_t>(iCount));
      continue;
    }
    if (errno != EAGAIN && errno != EINTR && errno != ENOBUFS) {
      m_stSnapshot.Abandon();
    }
    return;
  }
}

bool SaveFeed::Receive(const KeyStore::Visitor_t& fnVisit) {
  Close(m_iWorkerEnd);
  const std::unique_ptr<FILE, CloseFile> pFile(fdopen(std::exchange(m_iChildEnd, -1), "r"));
  if (pFile == nullptr) {
    return false;
  }
  setvbuf(pFile.get(), nullptr, _IOFBF, SLICE);
  std::string strKey;
  std::string strValue;
  int64_t iKeys = 0;
  DumpEntry_t stEntry{};
  while (ReadAll(pFile.get(), &stEntry, sizeof(stEntry))) {
    if (stEntry.iKeySize == DUMP_END) {
      errno = EPROTO;
      return stEntry.iExpireAt == iKeys;
    }
    strKey.resize(stEntry.iKeySize);
    strValue.resize(stEntry.iValueSize);
    if (!ReadAll(pFile.get(), strKey.data(), strKey.size()) ||
        !ReadAll(pFile.get(), strValue.data(), strValue.size())) {
      break;
    }
    fnVisit(strKey, {strValue, stEntry.iExpireAt});
    ++iKeys;
  }
  errno = ECONNRESET;
  return false;
}
