#include "configuration.h"

#include "directory/error.h"
#include "directory/names.h"
#include "directory/text.h"

#include <algorithm>
#include <functional>
#include <optional>

#include "host_name.h"
#include "toml_reader.h"

namespace tessary::proxy {
namespace {

constexpr char certificateName[] = "certificate.pem";
constexpr char keyName[] = "key.pem";

constexpr std::int64_t mostConnections = 100'000;
constexpr std::int64_t mostRequests = 1'000'000;
constexpr std::int64_t mostDays = 36'500;
constexpr std::int64_t mostMinutes = 24 * 60;

void ReadPath(TomlReader& reader, const char* key, std::string& path) {
    if (const auto value = reader.Text(key)) {
        path = *value;
        if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos)
            reader.Blame(key, "a path that begins with / is wanted");
    }
}

std::string DistinguishedNameOf(const std::string& domain) {
    std::string name = "DC=";
    for (const char c : domain)
        name += c == '.' ? ",DC=" : std::string(1, c);
    return name;
}

/// \throws directory::Error when it is malformed
void CheckContainer(TomlReader& reader, const std::string& container, const std::string& baseDn) {
    const std::string dn = directory::LowerCase(directory::OrganizationalUnitDn(container, baseDn));
    // What names no domain gets the right one behind it, and what names another one as well.
    if (dn.find(",dc=") != dn.size() - baseDn.size() - 1)
        reader.Blame("container",
                     "an organisational unit of the domain is wanted: OU=...," + baseDn);
}

void ReadDomain(TomlReader& reader, AccountSettings& accounts) {
    const auto domain = reader.RequiredText("domain");
    const auto container = reader.RequiredText("container");
    try {
        if (domain)
            accounts.domain = directory::NormalizeDomainName(*domain);
    } catch (const directory::Error& error) {
        reader.Blame("domain", error.what());
    }
    accounts.container = container.value_or("");
    try {
        if (container && container->empty())
            reader.Blame("container", "an organisational unit is wanted");
        else if (container && !accounts.domain.empty())
            CheckContainer(reader, *container, DistinguishedNameOf(accounts.domain));
    } catch (const directory::Error& error) {
        reader.Blame("container", error.what());
    }
}

/// The signs that Active Directory does not take in an account's name, and '@', which would begin a
/// realm.
void ReadAccount(TomlReader& reader, AccountSettings& accounts) {
    const auto account = reader.RequiredText("account");
    if (!account)
        return;
    accounts.account = *account;
    if (account->empty() || account->find_first_of("\"/\\[]:;|=,+*?<>@") != std::string::npos ||
        Printable(*account) != *account)
        reader.Blame("account", "the name of an account is wanted, without a domain");
}

void ReadHostDomains(TomlReader& reader, AccountSettings& accounts) {
    const auto texts = reader.Texts("host_domains");
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (!texts[i])
            continue;
        try {
            accounts.hostDomains.push_back(directory::NormalizeDomainName(*texts[i]));
        } catch (const directory::Error& error) {
            reader.Blame("host_domains", i, error.what());
        }
    }
}

void ReadListener(TomlReader& reader, FrontSettings& front) {
    const auto listen = reader.Text("listen");
    const auto address = IpAddress::Parse(listen.value_or("0.0.0.0"));
    if (address)
        front.listen = *address;
    else
        reader.Blame("listen", "an IPv4 or IPv6 address is wanted");
    front.port = static_cast<std::uint16_t>(reader.Number("port", 1, 65535, 8447));
}

void ReadNetworks(TomlReader& reader, FrontSettings& front) {
    const auto texts = reader.Texts("allowed_networks");
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (!texts[i])
            continue;
        if (const auto network = Network::Parse(*texts[i]))
            front.allowedNetworks.push_back(*network);
        else
            reader.Blame("allowed_networks", i,
                         "a network such as 192.0.2.0/24 or 2001:db8::/32 is wanted, with no bits "
                         "set behind its prefix");
    }
}

void ReadExemptHosts(TomlReader& reader, ServerSettings& server) {
    const auto texts = reader.Texts("hosts_without_forward_entry");
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (!texts[i])
            continue;
        const auto name = *texts[i] == anyHost ? texts[i] : NormalizeHostName(*texts[i]);
        if (name)
            server.hostsWithoutForwardEntry.insert(*name);
        else
            reader.Blame("hosts_without_forward_entry", i,
                         "a fully qualified host name or \"*\" is wanted");
    }
}

void ReadLimits(TomlReader& reader, FrontSettings& front) {
    const auto number = [&](const char* key, std::int64_t most, unsigned& value) {
        value = static_cast<unsigned>(reader.Number(key, 1, most, value));
    };
    number("requests_per_minute_per_address", mostRequests, front.requestsPerMinuteAndAddress);
    number("requests_per_minute", mostRequests, front.requestsPerMinute);
    number("connections_per_address", mostConnections, front.connectionsPerAddress);
    number("connections", mostConnections, front.connections);
}

void ReadCertificatePaths(TomlReader& reader, Configuration& configuration) {
    const std::string& folder = configuration.accounts.stateDirectory;
    configuration.certificate = folder + "/" + certificateName;
    configuration.privateKey = folder + "/" + keyName;
    ReadPath(reader, "certificate", configuration.certificate);
    ReadPath(reader, "private_key", configuration.privateKey);
    configuration.namesCertificate = reader.Has("certificate");
    if (reader.Has("certificate") && !reader.Has("private_key"))
        reader.Blame("certificate", "private_key, the file with its key, is missing");
    if (!reader.Has("certificate") && reader.Has("private_key"))
        reader.Blame("private_key", "certificate, the file with its certificate, is missing");
}

} // namespace

ConfigurationError::ConfigurationError(std::vector<std::string> faults)
    : std::runtime_error(faults.empty() ? "" : faults.front()), faults_(std::move(faults)) {}

Configuration ReadConfiguration(const std::string& file) {
    TomlReader reader(file);
    Configuration configuration;
    AccountSettings& accounts = configuration.accounts;
    ReadDomain(reader, accounts);
    ReadHostDomains(reader, accounts);
    ReadAccount(reader, accounts);
    accounts.keytab = "/etc/tessary/tesauth/apxd.keytab";
    accounts.stateDirectory = "/var/lib/tesauth-apxd";
    ReadPath(reader, "keytab", accounts.keytab);
    ReadPath(reader, "state_directory", accounts.stateDirectory);
    accounts.resetAfter =
        std::chrono::hours(24 * reader.Number("reset_after_days", 0, mostDays, 0));
    accounts.unusedAfter =
        std::chrono::minutes(reader.Number("unused_account_minutes", 1, mostMinutes, 10));
    ReadCertificatePaths(reader, configuration);
    ReadListener(reader, configuration.server.front);
    ReadNetworks(reader, configuration.server.front);
    ReadExemptHosts(reader, configuration.server);
    ReadLimits(reader, configuration.server.front);
    reader.End();
    return configuration;
}

std::vector<std::string> Warnings(const Configuration& configuration) {
    std::vector<std::string> warnings;
    const std::vector<Network>& networks = configuration.server.front.allowedNetworks;
    if (networks.empty())
        warnings.push_back("allowed_networks is empty: everybody is refused");
    if (std::any_of(networks.begin(), networks.end(), std::mem_fn(&Network::HasAll)))
        warnings.push_back("allowed_networks has a network of all addresses: everybody may ask");
    if (configuration.server.hostsWithoutForwardEntry.contains(anyHost))
        warnings.push_back("hosts_without_forward_entry has \"*\": whoever may ask can have the "
                           "account of any host");
    return warnings;
}

} // namespace tessary::proxy
