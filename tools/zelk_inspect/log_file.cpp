#include "log_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>
#include <vector>

#include "open_files.h"

namespace {

const uint64_t TAIL = 16 << 20;  // bytes of the file's end that are read

const std::array<std::string_view, 6> LEVELS = {"NET",     "DEBUG", "INFORMATION",
                                                "WARNING", "ERROR", "STAT"};

// [2024-01-02 15:04:05,678][INFORMATION] the message
const size_t TIME_BEGIN = 1;
const size_t TIME_SIZE = 23;
const size_t LEVEL_BEGIN = TIME_BEGIN + TIME_SIZE + 2;

struct Lines_t {
  std::array<uint64_t, LEVELS.size()> szByLevel{};
  uint64_t iOther = 0;  // rows of a dump, lines of others
  std::string strFirstTime;
  std::string strLastTime;
};

size_t LevelOf(const std::string& strLine) {
  if (strLine.size() < LEVEL_BEGIN || strLine[0] != '[' || strLine[LEVEL_BEGIN - 1] != '[') {
    return LEVELS.size();
  }
  const size_t iEnd = strLine.find(']', LEVEL_BEGIN);
  const std::string strLevel =
      strLine.substr(LEVEL_BEGIN, iEnd == std::string::npos ? 0 : iEnd - LEVEL_BEGIN);
  return static_cast<size_t>(std::find(LEVELS.begin(), LEVELS.end(), strLevel) - LEVELS.begin());
}

Lines_t CountLines(std::ifstream& stFile) {
  Lines_t stLines;
  std::string strLine;
  while (std::getline(stFile, strLine)) {
    const size_t iLevel = LevelOf(strLine);
    if (iLevel == LEVELS.size()) {
      stLines.iOther += 1;
      continue;
    }
    stLines.szByLevel[iLevel] += 1;
    stLines.strLastTime = strLine.substr(TIME_BEGIN, TIME_SIZE);
    if (stLines.strFirstTime.empty()) {
      stLines.strFirstTime = stLines.strLastTime;
    }
  }
  return stLines;
}

}  // namespace

std::string DescribeLog(const std::string& strPath, const Options_t& /*stOptions*/,
                        Document& stDocument, Figures_t& mapFigures) {
  struct stat stStatus {};
  if (stat(strPath.c_str(), &stStatus) != 0) {
    return strPath + ": " + strerror(errno);
  }
  // Before it is opened: that would wait for a FIFO's writer, or wake one that waits for a reader.
  if (!S_ISREG(stStatus.st_mode)) {
    return strPath + ": not a file";
  }
  std::ifstream stFile(strPath);
  if (!stFile.is_open()) {
    return strPath + ": " + strerror(errno);
  }
  const auto iSize = static_cast<uint64_t>(stStatus.st_size);
  const uint64_t iSkipped = iSize - std::min(iSize, TAIL);
  stFile.seekg(static_cast<std::streamoff>(iSkipped));
  if (iSkipped > 0) {
    std::string strPart;
    std::getline(stFile, strPart);
  }
  const Lines_t stLines = CountLines(stFile);
  stFile.close();  // not to be found among those who have it open
  stDocument.Add("log", strPath);
  stDocument.Add("bytes", iSize);
  stDocument.Add("bytes_skipped", iSkipped);
  stDocument.Add("held_by", OpenText(FindOpen(stStatus)));
  stDocument.Add("first_line", Printable(stLines.strFirstTime));
  stDocument.Add("last_line", Printable(stLines.strLastTime));
  std::vector<Document::Row_t> vecRows;
  for (size_t i = 0; i < LEVELS.size(); ++i) {
    vecRows.push_back({std::string(LEVELS[i]), stLines.szByLevel[i]});
  }
  vecRows.push_back({"other", stLines.iOther});
  stDocument.AddList("lines_by_level", {"level", "lines"}, std::move(vecRows));
  mapFigures["bytes"] = iSize;
  return {};
}
