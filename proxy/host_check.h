/// Whether a client may speak for a host.
#ifndef TESSARY_PROXY_HOST_CHECK_H
#define TESSARY_PROXY_HOST_CHECK_H

#include "network.h"

#include "directory/deadline.h"
#include "directory/error.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tessary::proxy {

/// In place of a host's name: all of them.
inline constexpr char anyHost[] = "*";

/// What is known of a host's addresses.
struct KnownAddresses {
    std::vector<IpAddress> addresses;
    std::optional<directory::Error> failure; ///< why nobody can tell whether there are more
};

/// Looks up the addresses of a host. Called by many threads at once.
using HostLookUp =
    std::function<KnownAddresses(const std::string& host, const directory::Deadline&)>;

/// Asks the hosts file and the name servers of this host, up to the deadline.
HostLookUp SystemLookUp();

/// Compares the address that asks with those of the host that it asks for. Any number of threads
/// may call it at once.
class HostCheck {
public:
    /// \param time   for looking a host up
    /// \param exempt hosts whose address does not matter, as NormalizeHostName() has them, or
    ///               anyHost
    HostCheck(HostLookUp lookUp, std::set<std::string> exempt, std::chrono::milliseconds time);

    /// \param host as NormalizeHostName() has it
    /// \throws Refusal NotAllowed when it is another's; Internal when nobody can tell
    void Check(const std::string& host, const IpAddress& asks) const;

private:
    HostLookUp lookUp_;
    std::set<std::string> exempt_;
    std::chrono::milliseconds time_;
};

} // namespace tessary::proxy

#endif
