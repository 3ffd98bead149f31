#ifndef ZELK_INSPECT_DOCUMENT_H
#define ZELK_INSPECT_DOCUMENT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Named values and lists of them, printed as text for people or as one line of JSON for programs.
class Document {
 public:
  // A cell as JSON has it, and whether it is a string.
  struct Value_t {
    Value_t(uint64_t iValue) : strText(std::to_string(iValue)) {}  // NOLINT: stands for it
    Value_t(int64_t iValue) : strText(std::to_string(iValue)) {}   // NOLINT
    Value_t(int iValue) : strText(std::to_string(iValue)) {}       // NOLINT
    Value_t(bool bValue) : strText(bValue ? "true" : "false") {}   // NOLINT
    Value_t(std::string strValue)                                  // NOLINT
        : strText(std::move(strValue)), bString(true) {}
    Value_t(const char* pValue) : strText(pValue), bString(true) {}  // NOLINT

    std::string strText;
    bool bString = false;
  };
  typedef std::vector<Value_t> Row_t;

  // Names are those of JSON: words with underscores, which text shows as blanks.
  void Add(const std::string& strName, const Value_t& stValue);
  // The list's rows have a value for each column.
  void AddList(const std::string& strName, std::vector<std::string> vecColumns,
               std::vector<Row_t> vecRows);

  std::string AsText() const;
  std::string AsJson() const;

 private:
  struct Field_t {
    std::string strName;
    Value_t stValue;
  };
  struct List_t {
    std::string strName;
    std::vector<std::string> vecColumns;
    std::vector<Row_t> vecRows;
  };

  static std::string ListAsText(const List_t& stList);
  static std::string ListAsJson(const List_t& stList);

  std::vector<Field_t> m_vecFields;
  std::vector<List_t> m_vecLists;
};

// Any bytes as printable ASCII: \n \r \t \\ \" and \xHH for the others. With a limit, only so many
// bytes and "..." behind them.
std::string Printable(std::string_view strBytes, uint64_t iMost = UINT64_MAX);

#endif
