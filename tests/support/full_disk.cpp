#include "full_disk.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

const char FILLING[] = "/filling";

std::string EnterNamespace() {
  if (geteuid() != 0) {
    return "only root may mount";
  }
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return std::string("mounts are not allowed: ") + strerror(errno);
  }
  return "";
}

}  // namespace

std::string SmallDisk::WhyNot() {
  static const std::string strWhyNot = EnterNamespace();
  return strWhyNot;
}

SmallDisk::SmallDisk(const std::string& strDirectory, size_t iBytes)
    : m_strDirectory(strDirectory) {
  const std::string strOptions = "size=" + std::to_string(iBytes) + ",mode=0755";
  if (!WhyNot().empty() ||
      mount("none", m_strDirectory.c_str(), "tmpfs", 0, strOptions.c_str()) != 0) {
    throw std::runtime_error("no small disk on " + m_strDirectory + ": " + strerror(errno));
  }
}

SmallDisk::~SmallDisk() { umount2(m_strDirectory.c_str(), MNT_DETACH); }

void SmallDisk::Fill() const {
  const std::string strFile = m_strDirectory + FILLING;
  const int iFD = open(strFile.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::string strBlock(4096, 'x');
  off_t iSize = 0;
  struct statvfs stDisk {};
  statvfs(m_strDirectory.c_str(), &stDisk);
  // First most of it at once, for speed; then to the last page.
  const auto iMost = static_cast<off_t>(stDisk.f_bavail * stDisk.f_frsize) * 9 / 10;
  if (iMost > 0 && fallocate(iFD, 0, 0, iMost) == 0) {
    iSize = iMost;
  }
  for (ssize_t iCount = 0; (iCount = pwrite(iFD, strBlock.data(), strBlock.size(), iSize)) > 0;) {
    iSize += iCount;
  }
  close(iFD);
}

void SmallDisk::Free() const { unlink((m_strDirectory + FILLING).c_str()); }
