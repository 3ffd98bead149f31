#include "golden_image.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "heap_image.h"
#include "test_support.h"

namespace {

const size_t ROW = 16;

typedef std::function<void(size_t iOffset, char cByte)> Put_t;

// The size of the image; each byte that is written down goes to fnPut.
size_t ReadSize(std::istream& stText) {
  std::string strLine;
  size_t iSize = 0;
  while (std::getline(stText, strLine) && strLine.compare(0, 1, "#") == 0) {
  }
  if (sscanf(strLine.c_str(), "size %zu", &iSize) != 1) {
    throw std::runtime_error("an image without its size");
  }
  return iSize;
}

void ReadRows(std::istream& stText, size_t iSize, const Put_t& fnPut) {
  std::string strLine;
  while (std::getline(stText, strLine)) {
    std::istringstream stRow(strLine);
    size_t iOffset = 0;
    unsigned int iByte = 0;
    stRow >> iOffset >> std::hex;
    for (; stRow >> iByte; ++iOffset) {
      if (iOffset >= iSize || iByte > 0xff) {
        throw std::runtime_error("no row of an image: " + strLine);
      }
      fnPut(iOffset, static_cast<char>(iByte));
    }
    if (!stRow.eof()) {
      throw std::runtime_error("no row of an image: " + strLine);
    }
  }
}

}  // namespace

std::string ImageText(std::string_view strBytes, const std::string& strComment) {
  std::string strText = "# " + strComment + "\nsize " + std::to_string(strBytes.size()) + "\n";
  for (size_t iOffset = 0; iOffset < strBytes.size(); iOffset += ROW) {
    const std::string_view strRow = strBytes.substr(iOffset, ROW);
    if (strRow.find_first_not_of('\0') == std::string_view::npos) {
      continue;
    }
    strText += std::to_string(iOffset);
    for (const char c : strRow) {
      char szByte[8];
      snprintf(szByte, sizeof(szByte), " %02x", static_cast<unsigned char>(c));
      strText += szByte;
    }
    strText += '\n';
  }
  return strText;
}

std::string ImageBytes(const std::string& strText) {
  std::istringstream stText(strText);
  std::string strBytes(ReadSize(stText), '\0');
  ReadRows(stText, strBytes.size(), [&](size_t iOffset, char c) { strBytes[iOffset] = c; });
  return strBytes;
}

void LoadImage(const std::string& strPath, key_t iKey) {
  std::istringstream stText(ReadFile(strPath));
  const size_t iSize = ReadSize(stText);
  const HeapImage stSegment(iKey, iSize);
  ReadRows(stText, iSize, [&](size_t iOffset, char c) { stSegment.Base()[iOffset] = c; });
}

std::string SegmentBytes(key_t iKey) {
  const HeapImage stSegment(iKey);
  return stSegment.Bytes(0, stSegment.Size());
}
