#ifndef KV_SERVER_REPLY_H
#define KV_SERVER_REPLY_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The protocol's replies, each appended to a text.
void AppendStatus(std::string& strOut, std::string_view strStatus);  // +OK
void AppendError(std::string& strOut, std::string_view strError);    // -ERR ...; line ends blanked
void AppendInteger(std::string& strOut, int64_t iValue);             // :1
void AppendBulk(std::string& strOut, std::string_view strValue);     // $3 abc
void AppendNull(std::string& strOut);                                // $-1
void AppendArrayHead(std::string& strOut, size_t iCount);            // *2

// A client's text as an error repeats it: its beginning, and nothing behind a zero byte.
const size_t SHOWN_TEXT = 128;
std::string_view ShownText(std::string_view strText, size_t iLimit = SHOWN_TEXT);

void AppendReplyTooLong(std::string& strOut, uint64_t iLimit);

const char WORKER_LOST_ERROR[] = "ERR worker restarted, the command may or may not have run";

// Takes replies apart that a worker of ours has made, for joining them.
bool IsErrorReply(std::string_view strReply);
int64_t IntegerOfReply(std::string_view strReply);
// The elements of an array of bulk strings, each with its own head and line ends.
std::vector<std::string_view> ElementsOfReply(std::string_view strReply);
// The content of a bulk string.
std::string_view BulkOfReply(std::string_view strReply);

#endif
