/// Whether the host's own name is one that a domain can know it by.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_HOST_H
#define TESSARY_DIRECTORY_DIAGNOSIS_HOST_H

#include "diagnosis.h"
#include "domain_state.h"
#include "socket.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tessary::directory {

/// The addresses of the domain's controllers; asked for only when it takes them, may wait.
using PeerSource = std::function<std::vector<SocketAddress>()>;

/// Looks at the host's name and at the addresses that it leads to. Takes up to 6 seconds when name
/// servers are silent.
/// \param domain that the name should be in; empty when none is known, and then no remedy names one
/// \param state  the host's membership, if it has any
/// \param peers  a line for the hosts file has the address that the host has towards them
Finding CheckHostName(const std::string& domain, const std::optional<DomainState>& state,
                      const PeerSource& peers);

} // namespace tessary::directory

#endif
