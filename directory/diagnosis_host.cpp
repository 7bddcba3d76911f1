#include "diagnosis_host.h"

#include "diagnosis_text.h"
#include "error.h"
#include "names.h"
#include "resolver.h"
#include "text.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string_view>
#include <vector>

namespace tessary::directory {
namespace {

constexpr char check[] = "host name";
constexpr std::chrono::seconds lookupTime{5}; // see diagnosis_records.cpp

struct AddressListDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
struct InterfaceListDeleter {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

std::string HostName() {
    char name[HOST_NAME_MAX + 1] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

/// What the host's own files call it in full; empty when they don't know the name.
std::string CanonicalName(const std::string& name) {
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const MutedResolver localOnly;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0)
        return "";
    const std::unique_ptr<addrinfo, AddressListDeleter> list(found);
    return list->ai_canonname ? list->ai_canonname : "";
}

/// The host's addresses in the network as people write them, IPv4 first.
std::vector<std::string> OwnAddresses() {
    ifaddrs* found = nullptr;
    std::vector<std::string> addresses, later;
    if (getifaddrs(&found) != 0)
        return addresses;
    const std::unique_ptr<ifaddrs, InterfaceListDeleter> list(found);
    for (const ifaddrs* each = list.get(); each; each = each->ifa_next) {
        if (!each->ifa_addr || (each->ifa_flags & IFF_LOOPBACK) != 0)
            continue;
        if (each->ifa_addr->sa_family == AF_INET)
            addresses.push_back(SocketAddress(each->ifa_addr, sizeof(sockaddr_in), 0).Text());
        else if (each->ifa_addr->sa_family == AF_INET6)
            later.push_back(SocketAddress(each->ifa_addr, sizeof(sockaddr_in6), 0).Text());
    }
    addresses.insert(addresses.end(), later.begin(), later.end());
    return addresses;
}

bool IsLoopback(const std::string& address) {
    return address.compare(0, 4, "127.") == 0 || address == "::1";
}

/// Names that installers leave behind. Many hosts have them, and a domain takes one of each.
bool IsAnybodys(const std::string& shortName) {
    constexpr std::string_view names[] = {"localhost", "linux", "hostname"};
    return std::find(std::begin(names), std::end(names), shortName) != std::end(names);
}

bool IsIn(const std::string& name, const std::string& domain) {
    const std::string end = "." + domain;
    return name.size() > end.size() &&
           EqualNames(std::string_view(name).substr(name.size() - end.size()), end);
}

/// How the host is called, and the steps that mend it.
class OwnName {
public:
    explicit OwnName(const std::string& domain)
        : domain_(domain), name_(HostName()), short_(name_.substr(0, name_.find('.'))),
          canonical_(CanonicalName(name_)) {}

    const std::string& Name() const { return name_; }
    const std::string& Short() const { return short_; }
    const std::string& Canonical() const { return canonical_; }

    std::string Full() const {
        for (const std::string& name : {canonical_, name_})
            if (name.find('.') != std::string::npos)
                return name;
        return domain_.empty() ? name_ : name_ + "." + domain_;
    }

    std::string Rename() const {
        return "hostnamectl set-hostname NAME" + (domain_.empty() ? "" : "." + domain_) +
               ", with a name of letters, digits and hyphens that no other host has";
    }
    /// \param full the full name that it is to have
    std::string HostsLine(const std::string& full) const {
        const std::vector<std::string> own = OwnAddresses();
        return (own.empty() ? "127.0.1.1" : own.front()) + " " + full +
               (full == short_ ? "" : " " + short_);
    }

private:
    std::string domain_;
    std::string name_;
    std::string short_;
    std::string canonical_; // by the host's own files
};

Finding AddressFinding(const OwnName& name) {
    const std::string full = name.Full();
    std::vector<std::string> addresses;
    for (const SocketAddress& address : Resolver(Deadline::In(lookupTime)).Addresses(full))
        addresses.push_back(address.Text());
    if (addresses.empty())
        return {check, Severity::Failure,
                full + " has no address: neither /etc/hosts nor a name server knows one",
                "echo '" + name.HostsLine(full) + "' >>/etc/hosts"};
    const std::vector<std::string> own = OwnAddresses();
    const bool isOwn = std::any_of(addresses.begin(), addresses.end(), [&](const auto& address) {
        return IsLoopback(address) || std::find(own.begin(), own.end(), address) != own.end();
    });
    if (!isOwn)
        return {check, Severity::Failure,
                full + " leads to " + Listed(addresses) + ", which is no address of this host",
                "let this be the only line of /etc/hosts with the host's name: " +
                    name.HostsLine(full)};
    return {check, Severity::Ok, full + " leads to this host (" + Listed(addresses) + ")", ""};
}

} // namespace

Finding CheckHostName(const std::string& domain, const std::optional<DomainState>& state) {
    const OwnName name(domain);
    try {
        HostNames::Of(name.Name(), domain);
    } catch (const Error& error) {
        return {check, Severity::Failure, error.what(), name.Rename()};
    }
    if (IsAnybodys(name.Short()))
        return {check, Severity::Failure,
                "the host is called " + name.Name() + ", which is no name of its own",
                name.Rename()};
    const std::string& canonical = name.Canonical();
    if (!canonical.empty() && canonical.substr(0, canonical.find('.')) != name.Short())
        return {check, Severity::Failure,
                "/etc/hosts takes " + name.Name() + " for another name of " + canonical,
                "let this be the only line of /etc/hosts with the host's name: " +
                    name.HostsLine(domain.empty() ? name.Short() : name.Short() + "." + domain)};

    const Finding address = AddressFinding(name);
    if (address.severity != Severity::Ok)
        return address;
    if (state && !EqualNames(name.Short(), state->shortName))
        return {check, Severity::Warning,
                "the host is called " + name.Short() + " and is joined as " + state->shortName +
                    ": by its new name no service of it can be logged in to",
                "hostnamectl set-hostname " + state->fullName + ", or join anew: tesauthctl join " +
                    state->domain + " -U USER"};
    if (!domain.empty() && !IsIn(name.Full(), domain))
        return {
            check, Severity::Warning, name.Full() + " is no name in " + domain,
            "hostnamectl set-hostname " + name.Short() + "." + domain +
                ", and this line in /etc/hosts: " + name.HostsLine(name.Short() + "." + domain)};
    return address;
}

} // namespace tessary::directory
