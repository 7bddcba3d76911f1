/// Finding a domain controller that answers.
#ifndef TESSARY_DIRECTORY_LOCATOR_H
#define TESSARY_DIRECTORY_LOCATOR_H

#include "deadline.h"
#include "ldap_connection.h"
#include "socket.h"

#include <memory>
#include <string>
#include <vector>

namespace tessary::directory {

/// A controller that has answered, what it said of itself, and the connection to it.
struct Controller {
    std::string host;                           ///< its DNS name
    std::string domain;                         ///< the DNS name it was looked for by, lower case
    std::string realm;                          ///< the domain's Kerberos realm
    std::string baseDn;                         ///< the domain's distinguished name
    std::string configurationDn;                ///< where the forest keeps its configuration
    SocketAddress address;                      ///< with the port of LDAP
    std::unique_ptr<LdapConnection> connection; ///< not logged in
};

/// Finds a controller of a domain: asks the ones named in `first`, then the host's preferred
/// controllers, if this user may read the list, then those that the domain's service records name.
/// Several are asked at once, each a little after the one before, and the first to answer is taken:
/// one that is dead or frozen costs a fraction of a second, all of them together no more than one
/// waiting time, 5 seconds.
/// Where name servers are silent, the Resolver's time comes on top; controllers that are being
/// asked meanwhile lose none of theirs, but that of the deadline.
///
/// A controller that serves another domain is passed over, whatever the others do. One that closes
/// the connection without a word counts as refusing it; what answers with anything but what it was
/// asked for is no controller, and takes neither time nor memory beyond these limits.
/// \param domain DNS name, as NormalizeDomainName() returns it
/// \throws Error NoSuchDomain when there is no such domain; ConnectionRefused when all refused;
///         TimedOut when all are silent; NoController otherwise
Controller LocateController(const std::string& domain, const std::vector<std::string>& first,
                            const Deadline& deadline);

} // namespace tessary::directory

#endif
