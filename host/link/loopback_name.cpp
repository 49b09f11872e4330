#include "host/link/loopback_name.h"

#include <arpa/inet.h>

bool IsLoopbackName(const std::string& strHost) {
  in_addr address{};
  if (inet_pton(AF_INET, strHost.c_str(), &address) == 1) {
    return ntohl(address.s_addr) >> 24U == 127;
  }
  return strHost == "localhost" || strHost == "[::1]";
}
