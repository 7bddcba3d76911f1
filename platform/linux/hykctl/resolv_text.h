/// The text of a resolver configuration file.
#ifndef HYKCTL_RESOLV_TEXT_H
#define HYKCTL_RESOLV_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace HykCtl {

/// True when two domain names are the same but for letter case and a trailing dot.
bool SameDomain(std::string_view left, std::string_view right);

/// Returns `text` with the domains in its search list, by the rules of DnsConfigImpl.
std::string WithSearchDomains(const std::string& text, const std::vector<std::string>& domains);

} // namespace HykCtl

#endif
