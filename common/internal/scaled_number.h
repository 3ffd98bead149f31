#ifndef ZELK_COMMON_INTERNAL_SCALED_NUMBER_H
#define ZELK_COMMON_INTERNAL_SCALED_NUMBER_H

#include <string>

// What the readers of numbers with a size suffix have in common.

// "0x1", but not "0x" alone.
inline bool IsHexadecimal(const std::string& strText) {
  return strText.size() >= 3 && strText[0] == '0' && (strText[1] == 'x' || strText[1] == 'X');
}

// The bits by which a number is shifted for K, M or G behind it; 0 for any other character.
inline unsigned int ScaleBits(char cSuffix) {
  switch (cSuffix) {
    case 'K':
    case 'k':
      return 10;
    case 'M':
    case 'm':
      return 20;
    case 'G':
    case 'g':
      return 30;
    default:
      return 0;
  }
}

#endif
