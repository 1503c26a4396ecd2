#include "shared/Address.h"

#include <arpa/inet.h>

#include "shared/Text.h"

namespace shared {

bool parseAddress(const std::string& text, sockaddr_in& address) {
  const size_t colon = text.rfind(':');
  int64_t port = 0;
  if (colon == std::string::npos || !parseNumber(text.substr(colon + 1), 0, 65535, port)) return false;
  address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  return inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) == 1;
}

}  // namespace shared
