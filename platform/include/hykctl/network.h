/// The host's network configuration: management interface, hosts file, DNS search domains.
///
/// Failures are thrown as HostCtl::Lib::HostCtlException with the file or interface and the cause.
/// A file is replaced whole or not at all.
#ifndef HYKCTL_NETWORK_H
#define HYKCTL_NETWORK_H

#include <string>
#include <vector>

#include "hostctl/network.h"

namespace HykCtl {
namespace Network {

/// A network interface of the host.
class HOSTCTL_API ManagementInterface {
public:
    ManagementInterface(std::string name, HostCtl::Network::IpConfig ipConfig);
    const std::string& Name() const { return name_; }
    const HostCtl::Network::IpConfig& GetIpConfig() const { return ipConfig_; }

private:
    std::string name_;
    HostCtl::Network::IpConfig ipConfig_;
};

/// What the host knows of its network. May be used from any thread.
class HOSTCTL_API NetworkInfoImpl {
public:
    /// The interface that holds the IPv4 default route (of several, the one with the lowest
    /// metric), else the first one, by index, that is up, is not a loopback and has an IPv4
    /// address. Its address is the first one it has. Throws HostCtl::Lib::HostCtlException when
    /// there is none.
    ManagementInterface GetManagementInterface() const;
};

/// The hosts file, /etc/hosts.
///
/// A symbolic link is followed; a file that is a mount of its own, as in a container, is rewritten
/// in place. Callers in several threads and processes do not lose each other's entries: one waits
/// for another up to 10 seconds.
class HOSTCTL_API HostsFile {
public:
    /// Maps `address` to `hostName` and `aliases`.
    ///
    /// The new entry takes the place of the first line of that address; without one, of the first
    /// line that is about this host: its first name is `hostName` or an alias, or it is the
    /// installer's line for 127.0.1.1 and carries one of these names. Otherwise it is added at the
    /// end. From every other IPv4 line `hostName` and the aliases are taken off, since a name with
    /// two addresses contradicts the entry: "127.0.0.1 localhost myhost" becomes "127.0.0.1
    /// localhost". A line that has no name left goes, but for its comment, and so does a 127.0.1.1
    /// line about this host. A line with the name localhost is never replaced for its name's sake.
    ///
    /// All other lines, those of IPv6 addresses included, comments, blanks and line ends stay byte
    /// by byte; names are compared without regard to letter case. An entry that is there already
    /// is not written again. The file is on the disk before the call returns; mode and owner are
    /// kept, a missing file is created with mode 0644.
    ///
    /// Throws HostCtl::Lib::HostCtlException for a name that cannot stand in the file (empty, with
    /// blanks, control or comment characters), when the file cannot be read or written, and when
    /// another process does not let go of the lock, which lies in /var/lib/tessary; the file is
    /// then as it was, unless the text says that only the directory could not be synced.
    void AddOrReplaceEntry(const HostCtl::Network::Ipv4Address& address,
                           const std::string& hostName, const std::vector<std::string>& aliases);
};

/// The DNS settings of a network stack. Not synchronised; several objects, in several processes,
/// do not lose each other's domains in /etc/resolv.conf.
class HOSTCTL_API DnsConfigImpl {
public:
    /// Throws HostCtl::Lib::HostCtlException for any stack but "defaultTcpipStack", the one that
    /// a host has.
    explicit DnsConfigImpl(const std::string& networkStack);

    /// Adds a domain to the search list, unless it is in it already; nothing is written yet.
    /// Throws HostCtl::Lib::HostCtlException for a name that cannot stand in the list.
    void AddUserSearchDomain(const std::string& domain);

    /// Writes what was added; does nothing when nothing was.
    ///
    /// In /etc/resolv.conf the last "search" or "domain" line counts. The domains that are missing
    /// from it are put at its end; resolvers read six domains, so that the last of those that were
    /// there make room when there would be more. A "domain" line stays and gets a search line after
    /// it; the file is otherwise left as it is, and not written when nothing is missing. Domains
    /// are compared without regard to letter case and a trailing dot.
    ///
    /// Where /etc/resolv.conf is a link to a file of the systemd resolver service, that service is
    /// told instead: the domains are added to those of the management interface, until that
    /// interface is configured anew. Two callers at the same moment may then lose a domain.
    ///
    /// Throws HostCtl::Lib::HostCtlException; what was added is then kept for another attempt.
    void SaveConfig();

private:
    std::string networkStack_;
    std::vector<std::string> added_;
};

} // namespace Network
} // namespace HykCtl

#endif
