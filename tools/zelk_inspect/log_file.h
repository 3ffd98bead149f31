#ifndef ZELK_INSPECT_LOG_FILE_H
#define ZELK_INSPECT_LOG_FILE_H

#include <string>

#include "describe.h"

// What a log file says of itself: its size, its last lines by level, who has it open. Empty, or why
// it can not be read.
std::string DescribeLog(const std::string& strPath, const Options_t& stOptions,
                        Document& stDocument, Figures_t& mapFigures);

#endif
