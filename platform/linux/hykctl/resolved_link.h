/// The search domains that the system's resolver service keeps for a network interface.
#ifndef HYKCTL_RESOLVED_LINK_H
#define HYKCTL_RESOLVED_LINK_H

#include <string>
#include <vector>

namespace HykCtl {

/// Adds domains to those of the interface; the ones it has stay. Nothing is sent when it has all
/// of them. They hold until the interface is configured anew.
/// Throws HostCtl::Lib::HostCtlException with the service's own words.
void AddLinkDomains(const std::string& interfaceName, const std::vector<std::string>& domains);

} // namespace HykCtl

#endif
