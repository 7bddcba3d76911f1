/// The domain name system: a domain's controllers and their addresses.
#ifndef TESSARY_DIRECTORY_RESOLVER_H
#define TESSARY_DIRECTORY_RESOLVER_H

#include "error.h"
#include "socket.h"

#include <resolv.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tessary::directory {

/// While it lives, look-ups of this thread through the C library's own DNS client ask no name
/// server: they answer from local files or fail at once. Other threads are not affected. Modules of
/// the name service switch that ask by other means, such as `resolve` and `mdns`, are not muted.
///
/// The libraries below insist on looking a controller's name up to find its canonical form; the
/// name that the controller gives itself is the right one, and a look-up costs seconds where name
/// servers don't answer.
class MutedResolver {
public:
    MutedResolver();
    ~MutedResolver();
    MutedResolver(const MutedResolver&) = delete;
    MutedResolver& operator=(const MutedResolver&) = delete;

private:
    int serverCount_;
};

/// One host of a service, as the domain's records name it.
struct ServiceRecord {
    unsigned priority; ///< less comes first
    unsigned weight;   ///< the heavier, the likelier within one priority
    std::string host;
};

/// What became of the look-up of a host.
struct HostAddresses {
    std::vector<SocketAddress> addresses; ///< port 0; empty when there is none, or none was told
    std::optional<Error> failure;         ///< why no name server told whether there are more
};

/// Asks the name servers of the host's current resolver configuration. Gives up after 6 to 10
/// seconds, by how many servers there are, when none answers, and asks them nothing more then. Use
/// by one thread at a time.
class Resolver {
public:
    /// \param deadline with less than six seconds left, servers get half the time
    explicit Resolver(const Deadline& deadline);
    ~Resolver();
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    /// The hosts of a service, in the order to try them: by priority, by weight within one.
    /// \param name such as "_ldap._tcp.dc._msdcs.corp.example"
    /// \throws Error NoSuchDomain when there is no such record; NoController when no name server
    ///         answers or none can tell
    std::vector<std::string> ServiceHosts(const std::string& name);

    /// The same, always in the same order: by priority, the heaviest first, then by name.
    std::vector<ServiceRecord> ServiceRecords(const std::string& name);

    /// The addresses of a host: one written as an address, one from the hosts file, one that came
    /// with ServiceHosts(), or one from a name server. Port 0.
    /// \return empty when the name does not resolve
    std::vector<SocketAddress> Addresses(const std::string& host) { return LookUp(host).addresses; }
    /// The same, and tells a name that does not resolve from one that could not be looked up.
    const HostAddresses& LookUp(const std::string& host);

private:
    bool Query(const std::string& name, int type);
    void AddAddress(const std::string& host, int type, const unsigned char* data, unsigned length);
    void QueryAddresses(const std::string& host, int type);
    /// Whether the last question was answered, be it that there is no such record.
    bool IsTold() const;
    /// Throws what it means that the last question, for a service, brought no record of one.
    [[noreturn]] void ThrowNoService(const std::string& name) const;

    struct __res_state state_ {};
    std::vector<unsigned char> answer_;
    int queryError_ = 0;
    bool isPartial_ = false; // not all of the last answer came
    bool silent_ = false;    // the name servers let a question pass without an answer
    std::map<std::string, HostAddresses> known_; // by host name in lower case
};

} // namespace tessary::directory

#endif
