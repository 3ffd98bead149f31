#include "server_client.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

namespace {

typedef std::chrono::steady_clock Clock_t;

const std::chrono::seconds PATIENCE(2);  // less than Prometheus has: it waits 10 seconds
const size_t MAX_TEXT = 1 << 20;

// A socket that waits for the server only until a point in time.
class Connection {
 public:
  Connection() : m_iFD(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
  ~Connection() { close(m_iFD); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool Open(const sockaddr_in& stAddress) const {
    const auto* pAddress = reinterpret_cast<const sockaddr*>(&stAddress);
    if (connect(m_iFD, pAddress, sizeof(stAddress)) == 0) {
      return true;
    }
    int iError = 0;
    socklen_t iSize = sizeof(iError);
    return errno == EINPROGRESS && Wait(POLLOUT) &&
           getsockopt(m_iFD, SOL_SOCKET, SO_ERROR, &iError, &iSize) == 0 && iError == 0;
  }

  // A request is shorter than any socket's buffer.
  bool Send(const std::string& strBytes) const {
    return send(m_iFD, strBytes.data(), strBytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(strBytes.size());
  }

  // Adds what has come; false when nothing more will.
  bool Receive(std::string& strBytes) const {
    char szPiece[4096];
    if (!Wait(POLLIN)) {
      return false;
    }
    const ssize_t iSize = recv(m_iFD, szPiece, sizeof(szPiece), 0);
    strBytes.append(szPiece, iSize > 0 ? static_cast<size_t>(iSize) : 0);
    return iSize > 0;
  }

 private:
  bool Wait(short iEvents) const {
    const auto iLeft =
        std::chrono::duration_cast<std::chrono::milliseconds>(m_stEnd - Clock_t::now());
    pollfd stPoll{m_iFD, iEvents, 0};
    return iLeft.count() > 0 && poll(&stPoll, 1, static_cast<int>(iLeft.count())) == 1;
  }

  const int m_iFD;
  const Clock_t::time_point m_stEnd = Clock_t::now() + PATIENCE;
};

std::string Request(const std::vector<std::string>& vecWords) {
  std::string strRequest = "*" + std::to_string(vecWords.size()) + "\r\n";
  for (const std::string& strWord : vecWords) {
    strRequest += "$" + std::to_string(strWord.size()) + "\r\n" + strWord + "\r\n";
  }
  return strRequest;
}

// "$5\r\nhello\r\n": 1 when it is whole, 0 when more has to come, -1 when it is something else.
int TakeBulk(const std::string& strReply, std::string& strText) {
  const size_t iLine = strReply.find("\r\n");
  if (!strReply.empty() && strReply[0] != '$') {
    return -1;
  }
  if (iLine == std::string::npos) {
    return strReply.size() < 32 ? 0 : -1;
  }
  const size_t iSize = strtoul(strReply.c_str() + 1, nullptr, 10);
  if (iSize > MAX_TEXT) {
    return -1;
  }
  strText = strReply.substr(iLine + 2, iSize);
  return strReply.size() >= iLine + 2 + iSize + 2 ? 1 : 0;
}

}  // namespace

bool ParseAddress(const std::string& strText, sockaddr_in& stAddress) {
  const size_t iColon = strText.rfind(':');
  if (iColon == std::string::npos) {
    return false;
  }
  const std::string strPort = strText.substr(iColon + 1);
  const unsigned long iPort = strtoul(strPort.c_str(), nullptr, 10);
  stAddress = {};
  stAddress.sin_family = AF_INET;
  stAddress.sin_port = htons(static_cast<uint16_t>(iPort));
  return iPort > 0 && iPort < 65536 && std::to_string(iPort) == strPort &&
         inet_pton(AF_INET, strText.substr(0, iColon).c_str(), &stAddress.sin_addr) == 1;
}

bool AskInfo(const Server_t& stServer, const std::vector<std::string>& vecSections,
             std::string& strText) {
  std::vector<std::string> vecWords{stServer.strInfo};
  vecWords.insert(vecWords.end(), vecSections.begin(), vecSections.end());
  const Connection stConnection;
  if (!stConnection.Open(stServer.stAddress) || !stConnection.Send(Request(vecWords))) {
    return false;
  }
  std::string strReply;
  int iWhole = 0;
  while (iWhole == 0 && stConnection.Receive(strReply)) {
    iWhole = TakeBulk(strReply, strText);
  }
  return iWhole == 1;
}
