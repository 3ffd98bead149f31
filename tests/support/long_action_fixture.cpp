#include "long_action_fixture.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

Work::Work(std::function<int()> fnWork) : m_fnWork(std::move(fnWork)), m_iHost(getpid()) {}

int Work::Do() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != m_iHost) {
    _exit(125);  // the host was gone before the line above
  }
  return m_fnWork();
}

LongActionFixture::LongActionFixture() : m_iEpollFD(epoll_create1(EPOLL_CLOEXEC)) {
  m_stUtil.SetEpollFD(m_iEpollFD);
}

LongActionFixture::~LongActionFixture() {
  for (const int iPid : m_stUtil.EnumAllChildren()) {
    SendSignal(iPid, SIGKILL);
  }
  for (const int iPid : m_stUtil.EnumAllChildren()) {
    WaitAndReap(iPid);
    Exit(iPid, 0);
  }
  close(m_iEpollFD);
}

pid_t LongActionFixture::NewestChild(const std::vector<int>& vecBefore) const {
  for (const int iPid : m_stUtil.EnumAllChildren()) {
    if (!std::binary_search(vecBefore.begin(), vecBefore.end(), iPid)) {
      return iPid;
    }
  }
  throw std::runtime_error("no child was started");
}

pid_t LongActionFixture::Start(const std::function<int()>& fnWork, unsigned int iMachineID,
                               unsigned int iFlowno) {
  fflush(nullptr);
  const std::vector<int> vecBefore = m_stUtil.EnumAllChildren();
  Work stWork(fnWork);
  EXPECT_EQ(0, m_stUtil.Perform(&stWork, iMachineID, iFlowno));
  return NewestChild(vecBefore);
}

pid_t LongActionFixture::Start2(const std::function<int()>& fnWork, int& iStdoutFD,
                                int& iStderrFD) {
  fflush(nullptr);
  const std::vector<int> vecBefore = m_stUtil.EnumAllChildren();
  Work stWork(fnWork);
  EXPECT_EQ(0, m_stUtil.Perform2(&stWork, 0, 0, iStdoutFD, iStderrFD));
  return NewestChild(vecBefore);
}

void LongActionFixture::WaitForEnd(pid_t iPid) {
  siginfo_t stInfo;
  while (waitid(P_PID, static_cast<id_t>(iPid), &stInfo, WEXITED | WNOWAIT) == -1 &&
         errno == EINTR) {
  }
}

void LongActionFixture::WaitAndReap(pid_t iPid) {
  while (waitpid(iPid, nullptr, 0) == -1 && errno == EINTR) {
  }
}

int LongActionFixture::Turn(int iMilliseconds) {
  epoll_event arrEvents[64];
  const int iCount = epoll_wait(m_iEpollFD, arrEvents, 64, iMilliseconds);
  for (int i = 0; i < iCount; ++i) {
    EXPECT_EQ(0, m_stUtil.EventCallback(arrEvents[i].data.fd));
  }
  return iCount;
}

void LongActionFixture::Drain() {
  while (Turn() > 0) {
  }
}

Response_t LongActionFixture::Finish(pid_t iPid) {
  siginfo_t stInfo{};
  while (stInfo.si_pid == 0) {  // a child with much to say ends only when it is read
    Turn(1);
    stInfo.si_pid = 0;
    if (waitid(P_PID, static_cast<id_t>(iPid), &stInfo, WEXITED | WNOWAIT | WNOHANG) == -1) {
      break;
    }
  }
  Drain();
  EXPECT_TRUE(m_stUtil.IsLongAction(iPid, 0));
  Response_t pResponse = Poll();
  if (pResponse == nullptr) {
    ADD_FAILURE() << "no response of child " << iPid;
    pResponse = std::make_unique<long_action_response_t>();
    pResponse->iRetcode = -1;
  }
  return pResponse;
}

Response_t LongActionFixture::Run(const std::function<int()>& fnWork) {
  return Finish(Start(fnWork));
}

int CodeOf(const Response_t& pResponse) { return pResponse == nullptr ? -1 : pResponse->iRetcode; }

int WorkForEver() {
  for (;;) {
    pause();
  }
}

void WriteText(int iFD, const std::string& strText) {
  EXPECT_EQ(static_cast<ssize_t>(strText.size()), write(iFD, strText.data(), strText.size()));
}
