/// Trying a domain's controllers, all at once.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_PROBE_H
#define TESSARY_DIRECTORY_DIAGNOSIS_PROBE_H

#include "diagnosis_records.h"
#include "diagnosis_text.h"
#include "error.h"
#include "socket.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tessary::directory {

/// What is served on one of a controller's ports.
struct ServicePort {
    std::uint16_t number;
    const char* service;
    bool vital; ///< nothing works without
};

inline constexpr std::size_t servicePortCount = 3;
inline constexpr std::size_t ldapPort = 1; ///< which of them
inline constexpr std::array<ServicePort, servicePortCount> servicePorts{{
    {88, "Kerberos", true},
    {389, "LDAP", true},
    {464, "password changes", false},
}};

/// Whether a port takes connections.
struct PortReport {
    bool noRoute = false;         ///< this host knows no way to the address, and did not try
    std::optional<Error> failure; ///< why no connection came about
    Latency latency{};            ///< until it did
};

/// How the host's clock stands to a controller's.
struct ClockReading {
    std::chrono::milliseconds ahead; ///< of the controller's; less than 0 when it is behind
    std::chrono::milliseconds doubt; ///< by how much that may be off, up or down
};

/// What a controller says of itself over LDAP.
struct RootReport {
    std::optional<Error> failure; ///< why it says nothing
    std::string domain;           ///< the DNS name of the domain that it serves, or empty
    std::optional<ClockReading> clock;
};

struct AddressReport {
    SocketAddress address;
    std::array<PortReport, servicePortCount> ports; ///< as in servicePorts
    RootReport root;

    bool NoRoute() const { return ports.front().noRoute; }
    /// Whether all that is vital is served there, for this domain.
    bool Serves(const std::string& domain) const;
};

struct ControllerReport {
    std::string host;
    std::vector<AddressReport> addresses;
    Origin origin{};
    std::optional<Error> lookupFailure{}; ///< why it is not known whether there are addresses

    /// The first address that serves the domain, or null.
    const AddressReport* Serving(const std::string& domain) const;
};

/// How long it waits for controllers that don't answer, all together.
inline constexpr std::chrono::seconds probeTime{5};

/// Connects to each port of each address, and reads what each controller says of itself.
std::vector<ControllerReport> ProbeControllers(const std::vector<NamedController>& controllers);

} // namespace tessary::directory

#endif
