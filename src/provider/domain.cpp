#include <ostream>

#include "tesauth/provider.h"

namespace tessary::authentication {

namespace {

std::string NameOrUnset(const std::string& name) {
    return name.empty() ? "(unset)" : name;
}

} // namespace

Domain::Domain(const std::string& dns, const std::string& netbios)
    : dnsName(dns), netbiosName(netbios) {}

std::ostream& operator<<(std::ostream& stream, const Domain& domain) {
    return stream << "DNS Name: " << NameOrUnset(domain.dnsName)
                  << ", NetBIOS Name: " << NameOrUnset(domain.netbiosName);
}

} // namespace tessary::authentication
