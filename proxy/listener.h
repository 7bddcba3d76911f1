/// The socket that connections arrive at.
#ifndef TESSARY_PROXY_LISTENER_H
#define TESSARY_PROXY_LISTENER_H

#include "network.h"

#include "directory/unique_fd.h"

#include <cstdint>

namespace tessary::proxy {

/// A non-blocking socket that listens. At "::" it takes IPv4 connections, too.
/// \param port 0: any that is free
/// \throws std::system_error names the address
directory::UniqueFd Listen(const IpAddress& address, std::uint16_t port);

/// The port that a socket is bound to.
std::uint16_t PortOf(int socket);

} // namespace tessary::proxy

#endif
