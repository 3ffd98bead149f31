#ifndef ZELK_TESTS_FULL_DISK_H
#define ZELK_TESTS_FULL_DISK_H

#include <cstddef>
#include <string>

// A small file system of one's own over a directory, which can be filled. It is mounted in a mount
// namespace of this process and its later children, so it is gone with the last of them.
class SmallDisk {
 public:
  // Why there can be none here; "" when there can.
  static std::string WhyNot();

  SmallDisk(const std::string& strDirectory, size_t iBytes);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  // Takes all that is left, and gives it back.
  void Fill() const;
  void Free() const;

 private:
  const std::string m_strDirectory;
};

#endif
