// A log with numbered files of its own, the text helpers, and what the log looks like.
#include <cstdio>
#include <string>
#include <vector>

#include "filesystem_util.h"
#include "log.h"
#include "string_util.h"

int main(int, char** argv) {  // a directory for the files
  Log stLog;
  stLog.SetPath(argv[1]);
  stLog.SetPrefix("server_");
  stLog.SetLevel("INFORMATION");

  std::vector<std::string> vecWords;
  StringSplit("listen 4k, verbose yes", " ,", vecWords);
  stLog.Info("buffer of %ld bytes, verbose: %d", static_cast<long>(StringToInt(vecWords[1])),
             StringToBool(vecWords[3]));
  stLog.Debug("below the level: not even formatted");
  stLog.BinaryLog(Log::LL_ERROR, "GET /\r\n", 7, "not understood");

  std::vector<std::string> vecFiles;
  Ls(stLog.GetPath().c_str(), "^server_[0-9]+[.]log$", vecFiles);
  FILE* pFile = fopen((stLog.GetPath() + "/" + vecFiles[0]).c_str(), "r");
  for (char szLine[256]; fgets(szLine, sizeof(szLine), pFile) != nullptr;) {
    const std::string strLine = szLine;  // without the time
    printf("%s", strLine[0] == '[' ? strLine.substr(25).c_str() : szLine);
  }
  return fclose(pFile);
}
