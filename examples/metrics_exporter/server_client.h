#ifndef METRICS_EXPORTER_SERVER_CLIENT_H
#define METRICS_EXPORTER_SERVER_CLIENT_H

#include <netinet/in.h>

#include <string>
#include <vector>

struct Server_t {
  sockaddr_in stAddress;
  std::string strInfo;  // the name that INFO goes by
};

// "127.0.0.1:6399"; false when the text is no IPv4 address and port.
bool ParseAddress(const std::string& strText, sockaddr_in& stAddress);

// Asks over a connection of its own for sections of INFO. False when there is no whole answer
// within two seconds, or another one. Any thread.
bool AskInfo(const Server_t& stServer, const std::vector<std::string>& vecSections,
             std::string& strText);

#endif
