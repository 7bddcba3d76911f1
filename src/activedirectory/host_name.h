/// The host's own name, as the system and the resolver tell it.
#ifndef TESAUTH_ACTIVEDIRECTORY_HOST_NAME_H
#define TESAUTH_ACTIVEDIRECTORY_HOST_NAME_H

#include <string>

namespace tessary::authentication {

/// The host name as it is set. Throws InvalidHostNameException.
std::string GetHostName();

/// The canonical name that the resolver knows a host name by. Throws InvalidHostNameException.
std::string ResolveCanonicalName(const std::string& hostName);

/// The part of a name before its first ".", all of it if it has none.
std::string UpToFirstDot(const std::string& name);

} // namespace tessary::authentication

#endif
