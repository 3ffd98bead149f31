#ifndef ZELK_TESTS_REPLY_RULES_H
#define ZELK_TESTS_REPLY_RULES_H

#include <string>
#include <vector>

// Replies of two servers are compared byte by byte. Where a reply depends on time, order or
// addresses, a rule takes that out of it:
//
//   sorted      an array's elements in their order
//   upto N      "upto N" for an integer that is N or up to a tenth less
//   digits      "#" for each number
//   kind        only the type character
//   names       of lines of "name:value" only the names, each as a line
//   addresses   "?" for what is a client's own in a line about it: id, addr, fd, age ...
//   common      the same, without the fields that only one of the servers has
//   greeting    "?" for the server's name, version and the client's number in a reply to HELLO
//
// An unknown rule is an exception.
std::string ApplyRule(const std::string& strRule, const std::string& strReply);

// The elements of an array reply, each with all its bytes.
std::vector<std::string> ElementsOf(const std::string& strReply);

// The text of a bulk string reply.
std::string TextOf(const std::string& strReply);

#endif
