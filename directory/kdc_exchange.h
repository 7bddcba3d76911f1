/// One question to a key distribution centre.
#ifndef TESSARY_DIRECTORY_KDC_EXCHANGE_H
#define TESSARY_DIRECTORY_KDC_EXCHANGE_H

#include "deadline.h"
#include "socket.h"

#include <string_view>
#include <vector>

namespace tessary::directory {

/// Sends a Kerberos message over TCP and receives the answer. Where the connection is closed before
/// that, it asks again, twice at most.
/// \throws Error ConnectionRefused, TimedOut or NoController
std::vector<char> ExchangeWithKdc(const SocketAddress& kdc, std::string_view message,
                                  const Deadline& deadline);

} // namespace tessary::directory

#endif
