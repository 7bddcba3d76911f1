/// One question to a key distribution centre.
#ifndef TESSARY_DIRECTORY_KDC_EXCHANGE_H
#define TESSARY_DIRECTORY_KDC_EXCHANGE_H

#include "deadline.h"
#include "socket.h"

#include <string_view>
#include <vector>

namespace tessary::directory {

/// Whether a question may be asked again that the other end may have read already.
enum class Repeat {
    Never,
    WhenDropped, ///< twice at most, where a connection is closed before the first byte of an answer
};

/// Sends a Kerberos message over TCP and receives the answer. One that is busy with many hosts at
/// once drops connections that it has just taken; no other failure is worth a repeat.
/// \throws Error ConnectionRefused, TimedOut or NoController
std::vector<char> ExchangeWithKdc(const SocketAddress& kdc, std::string_view message,
                                  const Deadline& deadline, Repeat repeat);

} // namespace tessary::directory

#endif
