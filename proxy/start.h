/// What has to be in place before the proxy serves.
#ifndef TESSARY_PROXY_START_H
#define TESSARY_PROXY_START_H

#include "certificate.h"
#include "configuration.h"

#include <string>
#include <vector>

namespace tessary::proxy {

/// Whether there is no file of that name.
bool IsMissing(const std::string& path);

/// Makes the state directory where it is missing.
/// \throws std::exception when it cannot be made, is another user's, or open to others
void PrepareStateDirectory(const std::string& path);

/// Whether the next start makes the server's certificate and key: both are missing, or only the
/// certificate is, and the key is the proxy's own, which nobody trusts without it.
bool MakesIdentity(const Configuration& configuration);

/// The server's certificate and key, which are made when they have to be.
/// \throws std::exception as ReadIdentity() does
Identity PrepareIdentity(const Configuration& configuration);

/// Sees to it that so many connections can be open.
/// \throws std::runtime_error when the system's limit is lower
void AllowConnections(unsigned connections);

/// What a check has found.
struct CheckResult {
    std::vector<std::string> faults; ///< each a line
    std::vector<std::string> facts;  ///< each a line for a person
};

/// Checks a configuration and what it names, without the network, and changes nothing.
CheckResult CheckConfiguration(const std::string& file);

/// Makes this process the user's who owns a directory, for good, if it is root's and the directory
/// another's: what it reads is what that one can read, and what it writes that one's.
void BecomeOwnerOf(const std::string& directory);

} // namespace tessary::proxy

#endif
