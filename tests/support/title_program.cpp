// A program that gives itself the titles that it reads, one a line, and tells after each what it
// still has: "<argument 1>|<argument 2>|...|$TITLE_PROBE". Its parent looks at it from outside.

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "process_util.h"

int main(int argc, char** argv) {
  InitProcessTitle(argc, argv);
  for (std::string strTitle; std::getline(std::cin, strTitle);) {
    ChangeProcessTitle(argc, argv, strTitle.c_str());
    for (int i = 1; i < argc; ++i) {
      printf("%s|", argv[i]);
    }
    const char* pProbe = getenv("TITLE_PROBE");
    printf("%s\n", pProbe != nullptr ? pProbe : "(none)");
    fflush(stdout);
  }
  return 0;
}
