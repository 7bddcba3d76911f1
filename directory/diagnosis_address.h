/// The host's own addresses.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_ADDRESS_H
#define TESSARY_DIRECTORY_DIAGNOSIS_ADDRESS_H

#include "socket.h"

#include <string>
#include <vector>

namespace tessary::directory {

/// All of them, IPv4 first.
std::vector<SocketAddress> OwnAddresses();

/// The address that the host has towards one of these peers or, where it has no way to any, towards
/// the rest of the world; never the loopback's nor one that means something on one link only. Sends
/// nothing.
/// \param peers IPv4 is tried first
/// \return "127.0.1.1" on a host without a network
std::string OwnAddressTowards(const std::vector<SocketAddress>& peers);

} // namespace tessary::directory

#endif
