#include <algorithm>
#include <array>
#include <netdb.h>
#include <strings.h>
#include <syslog.h>

#include "host_name.h"
#include "hykctl/network.h"
#include "tesauth/active_directory_store.h"

namespace tessary::authentication {

namespace {

/// The names of hosts that nobody has named yet.
bool IsForbidden(const std::string& shortName) {
    static const std::array<std::string, 3> forbidden = {"localhost", "linux", "hostname"};
    return std::find(forbidden.begin(), forbidden.end(), shortName) != forbidden.end();
}

void AddSearchDomain(const std::string& domain) {
    if (gethostbyname(domain.c_str()) == nullptr) {
        return; // a search domain that does not resolve would only slow the host down
    }
    HykCtl::Network::DnsConfigImpl dns("defaultTcpipStack");
    dns.AddUserSearchDomain(domain);
    dns.SaveConfig();
}

void MapManagementAddress(const std::string& fullName, const std::string& shortName) {
    const auto interface = HykCtl::Network::NetworkInfoImpl().GetManagementInterface();
    HykCtl::Network::HostsFile().AddOrReplaceEntry(interface.GetIpConfig().GetAddress(), fullName,
                                                   {shortName});
}

} // namespace

void ActiveDirectoryStore::SanitiseHostnameForDomain(const std::string& domain) const {
    const std::string hostName = GetHostName();
    std::string fullName = ResolveCanonicalName(hostName);
    const std::string shortName = UpToFirstDot(hostName);
    if (UpToFirstDot(fullName) != shortName) {
        throw InvalidHostNameException("shortname does not match FQDN");
    }

    const std::string expectedName = shortName + "." + domain;
    if (fullName.find('.') == std::string::npos) {
        fullName = expectedName;
    }
    if (strcasecmp(fullName.c_str(), expectedName.c_str()) != 0) {
        syslog(LOG_WARNING,
               "The fully qualified hostname %s does not match the expected value %s\n",
               fullName.c_str(), expectedName.c_str());
        AddSearchDomain(domain);
    }
    // Kept on purpose: only now, so that the search domain has been added even for such a name.
    if (IsForbidden(shortName)) {
        throw InvalidHostNameException("hostname is in blacklist");
    }
    MapManagementAddress(fullName, shortName);
}

} // namespace tessary::authentication
