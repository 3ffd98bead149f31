#ifndef ZELK_TESTS_COMMAND_TABLE_FILE_H
#define ZELK_TESTS_COMMAND_TABLE_FILE_H

#include <string>
#include <vector>

// A table of requests for two servers, a text file:
//
//   # a comment
//   SET a "b \x00 c"                    a command, in words as one types them
//   SET a "x"*70000                     a quoted word so many times
//   > "*1\r\n$4\r\n" "PING\r\n"         bytes on a connection of their own, ended behind them
//   KEYS *
//       rule: sorted                    what both replies pass through before they are compared
//   HELLO 3
//       differs: HELLO 3                the row of the server's README that says why
//       theirs: "*14\r\n$6\r\n"         the replies, behind the rule; both or neither
//       ours: "-NOPROTO\r\n"
struct TableLine_t {
  std::string strPlace;  // "file:line: text"
  bool bBytes = false;   // then there is one word
  std::vector<std::string> vecWords;
  std::string strRule;  // "name" or "name argument"
  std::string strDiffers;
  std::string strTheirs;
  std::string strOurs;
};

// What can not be read, or would be no check (a difference between equal replies), is an exception
// that names the line.
std::vector<TableLine_t> ReadCommandTable(const std::string& strPath);

// A reply in the form of the table, in quotes.
std::string Quoted(const std::string& strBytes);

// The words of one line, as above.
std::vector<std::string> QuotedWords(const std::string& strText);

#endif
