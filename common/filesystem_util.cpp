#include "filesystem_util.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "simple_filter.h"

namespace {

struct Closer {
  void operator()(FILE* pFile) const { fclose(pFile); }
  void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};

bool Exists(const std::string& strPath) { return access(strPath.c_str(), F_OK) == 0; }

// Makes one level. The answers to "exists" and "mkdir" are two moments: what another process made
// in between counts as existing, and only the second look can tell it from a dangling link.
int MakeLevel(const std::string& strLevel, unsigned int iMode) {
  const std::string strWithSlash = strLevel + '/';
  if (Exists(strLevel) || mkdir(strWithSlash.c_str(), iMode) == 0) {
    return 0;
  }
  const int iError = errno;
  if (iError == EEXIST && Exists(strLevel)) {
    return 0;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): safe in glibc, whose texts do not change
  printf("mkdir %s err, %s\n", strWithSlash.c_str(), strerror(iError));
  errno = iError;
  return -1;
}

}  // namespace

int SaveFile(const char* pPath, const char* pBuffer, unsigned int iLength) {
  const std::unique_ptr<FILE, Closer> pFile(fopen(pPath, "we"));
  if (pFile == nullptr) {
    return -1;
  }
  if (iLength == 0) {
    return 0;  // pBuffer may be null then, as that of an empty vector
  }
  setvbuf(pFile.get(), nullptr, _IONBF, 0);  // so that the count is what the file has taken
  return fwrite(pBuffer, 1, iLength, pFile.get()) == iLength ? 0 : -1;
}

int GetPath(const char* pPath, std::string& strDirectory) {
  const char* pSlash = strrchr(pPath, '/');
  if (pSlash == nullptr) {
    strDirectory = "/";
    return 0;
  }
  strDirectory = std::string(pPath, pSlash);
  return 0;
}

int MakeDir(const char* pPath, unsigned int iMode) {
  std::string strCopy = pPath;
  std::string strLevel = *pPath == '/' ? "/" : "";
  char* pState = nullptr;
  for (const char* pName = strtok_r(strCopy.data(), "/\\", &pState); pName != nullptr;
       pName = strtok_r(nullptr, "/\\", &pState)) {
    strLevel += pName;
    if (MakeLevel(strLevel, iMode) != 0) {
      return -1;
    }
    strLevel += '/';
  }
  return 0;
}

int Ls(const char* pDirectory, const char* pFilter, std::vector<std::string>& vecNames) {
  const std::unique_ptr<DIR, Closer> pDir(opendir(pDirectory));
  if (pDir == nullptr) {
    return -1;
  }
  SimpleFilter stFilter;
  stFilter.SetRegular(pFilter);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads from this stream
  while (const dirent* pEntry = readdir(pDir.get())) {
    if (stFilter.DoFilter(pEntry->d_name)) {
      vecNames.emplace_back(pEntry->d_name);
    }
  }
  return 0;
}
