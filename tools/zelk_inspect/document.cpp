#include "document.h"

#include <algorithm>
#include <cstdio>

namespace {

const size_t NAME_WIDTH = 24;

std::string Spaced(std::string strName) {
  std::replace(strName.begin(), strName.end(), '_', ' ');
  return strName;
}

// JSON's string; Printable() has made all bytes ASCII where they may be anything.
std::string Quoted(const std::string& strText) {
  std::string strQuoted = "\"";
  for (const char c : strText) {
    const auto iByte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      strQuoted += '\\';
      strQuoted += c;
    } else if (iByte < 0x20 || iByte >= 0x7f) {
      char szEscape[8];
      snprintf(szEscape, sizeof(szEscape), "\\u%04x", iByte);
      strQuoted += szEscape;
    } else {
      strQuoted += c;
    }
  }
  return strQuoted + '"';
}

std::string JsonValue(const Document::Value_t& stValue) {
  return stValue.bString ? Quoted(stValue.strText) : stValue.strText;
}

void Pad(std::string& strLine, size_t iWidth) {
  strLine.resize(std::max(strLine.size(), iWidth), ' ');
}

}  // namespace

std::string Printable(std::string_view strBytes, uint64_t iMost) {
  std::string strText;
  for (const char c : strBytes.substr(0, iMost)) {
    const auto iByte = static_cast<unsigned char>(c);
    const char* pPlace = nullptr;
    static const char szPlain[] = {'\n', '\r', '\t', '\\', '"'};
    static const char szNames[] = {'n', 'r', 't', '\\', '"'};
    pPlace = std::find(szPlain, szPlain + sizeof(szPlain), c);
    if (pPlace != szPlain + sizeof(szPlain)) {
      strText += '\\';
      strText += szNames[pPlace - szPlain];
    } else if (iByte < 0x20 || iByte >= 0x7f) {
      char szEscape[8];
      snprintf(szEscape, sizeof(szEscape), "\\x%02x", iByte);
      strText += szEscape;
    } else {
      strText += c;
    }
  }
  return strBytes.size() > iMost ? strText + "..." : strText;
}

void Document::Add(const std::string& strName, const Value_t& stValue) {
  m_vecFields.push_back({strName, stValue});
}

void Document::AddList(const std::string& strName, std::vector<std::string> vecColumns,
                       std::vector<Row_t> vecRows) {
  m_vecLists.push_back({strName, std::move(vecColumns), std::move(vecRows)});
}

std::string Document::ListAsText(const List_t& stList) {
  std::vector<size_t> vecWidths;
  for (const std::string& strColumn : stList.vecColumns) {
    vecWidths.push_back(strColumn.size());
  }
  for (const Row_t& vecRow : stList.vecRows) {
    for (size_t i = 0; i < vecRow.size(); ++i) {
      vecWidths[i] = std::max(vecWidths[i], vecRow[i].strText.size());
    }
  }
  const auto fnLine = [&](const auto& fnCell) {
    std::string strLine = "   ";
    for (size_t i = 0; i < vecWidths.size(); ++i) {
      strLine += ' ';
      const std::string strCell = fnCell(i);
      const bool bLast = i + 1 == vecWidths.size();
      const size_t iWidth = strLine.size() + vecWidths[i] + 1;
      strLine += strCell;
      Pad(strLine, bLast ? 0 : iWidth);
    }
    return strLine + "\n";
  };
  std::string strText = Spaced(stList.strName) + ":\n";
  if (stList.vecColumns.size() > 1) {
    strText += fnLine([&](size_t i) { return Spaced(stList.vecColumns[i]); });
  }
  for (const Row_t& vecRow : stList.vecRows) {
    strText += fnLine([&](size_t i) { return vecRow[i].strText; });
  }
  return strText;
}

std::string Document::AsText() const {
  std::string strText;
  for (const Field_t& stField : m_vecFields) {
    std::string strLine = Spaced(stField.strName);
    Pad(strLine, NAME_WIDTH);
    strText += strLine + "  " + stField.stValue.strText + "\n";
  }
  for (const List_t& stList : m_vecLists) {
    strText += stList.vecRows.empty() ? "" : ListAsText(stList);
  }
  return strText;
}

std::string Document::ListAsJson(const List_t& stList) {
  std::string strText;
  for (const Row_t& vecRow : stList.vecRows) {
    std::string strRow;
    for (size_t i = 0; i < vecRow.size(); ++i) {
      strRow += (i == 0 ? "" : ",") + Quoted(stList.vecColumns[i]) + ":" + JsonValue(vecRow[i]);
    }
    strText += (strText.empty() ? "{" : ",{") + strRow + "}";
  }
  return Quoted(stList.strName) + ":[" + strText + "]";
}

std::string Document::AsJson() const {
  std::string strText;
  for (const Field_t& stField : m_vecFields) {
    strText +=
        (strText.empty() ? "" : ",") + Quoted(stField.strName) + ":" + JsonValue(stField.stValue);
  }
  for (const List_t& stList : m_vecLists) {
    strText += (strText.empty() ? "" : ",") + ListAsJson(stList);
  }
  return "{" + strText + "}\n";
}
