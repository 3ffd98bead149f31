// How many lines of each level are in logs: log_report NAME_PATTERN FILE...
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "regex_util.h"
#include "simple_filter.h"
#include "time_util.h"

int main(int argc, char** argv) {
  SimpleFilter stFilter;
  if (argc < 3 || stFilter.SetRegular(argv[1]) != 0) {
    fprintf(stderr, "usage: log_report NAME_PATTERN FILE...\n");
    return 2;
  }
  std::map<std::string, int> mapLevels;
  for (int i = 2; i < argc; ++i) {
    if (!stFilter.DoFilter(argv[i])) {
      continue;
    }
    std::ifstream stFile(argv[i]);
    for (std::string strLine; std::getline(stFile, strLine);) {
      std::vector<std::string> vecGroups;
      RegexUtil::MatchString("^\\[[^]]*\\]\\[([A-Z]+)\\]", strLine.c_str(), vecGroups);
      if (!vecGroups.empty()) {
        ++mapLevels[vecGroups[0]];
      }
    }
  }
  printf("%s\n", GenerateTimeString());
  for (const auto& [strLevel, iLines] : mapLevels) {
    printf("%8d %s\n", iLines, strLevel.c_str());
  }
}
