/// Whether a client may speak for a host.
#ifndef TESSARY_PROXY_HOST_CHECK_H
#define TESSARY_PROXY_HOST_CHECK_H

#include "network.h"

#include "directory/deadline.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace tessary::proxy {

/// Looks up the addresses of a host; none when it has none. Called by many threads at once.
/// Throws directory::Error when nobody can tell.
using HostLookUp =
    std::function<std::vector<IpAddress>(const std::string& host, const directory::Deadline&)>;

/// Asks the hosts file and the name servers of this host, up to the deadline.
HostLookUp SystemLookUp();

/// Compares the address that asks with those of the host that it asks for. Any number of threads
/// may call it at once.
class HostCheck {
public:
    /// \param exempt hosts whose address does not matter, as NormalizeHostName() has them; "*": all
    /// \param time   for looking a host up
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
