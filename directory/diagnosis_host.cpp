#include "diagnosis_host.h"

#include "diagnosis_address.h"
#include "diagnosis_text.h"
#include "error.h"
#include "names.h"
#include "resolver.h"
#include "text.h"

#include <netdb.h>
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

/// How the host is called.
class OwnName {
public:
    explicit OwnName(const std::string& domain)
        : name_(HostName()), short_(name_.substr(0, name_.find('.'))),
          canonical_(CanonicalName(name_)), full_(name_) {
        if (canonical_.find('.') != std::string::npos)
            full_ = canonical_;
        else if (name_.find('.') == std::string::npos && !domain.empty())
            full_ = name_ + "." + domain;
    }

    const std::string& Name() const { return name_; }
    const std::string& Short() const { return short_; }
    /// By the host's own files; empty when they don't know the name.
    const std::string& Canonical() const { return canonical_; }
    const std::string& Full() const { return full_; }

private:
    std::string name_;
    std::string short_;
    std::string canonical_;
    std::string full_;
};

/// The steps that mend a host's name.
class Remedies {
public:
    /// \param domain that the name should be in; empty when it is not known
    Remedies(const std::string& domain, const PeerSource& peers) : domain_(domain), peers_(peers) {}

    std::string Rename() const {
        return Known("hostnamectl set-hostname NAME." + ShellWord(domain_) +
                     ", with a name of letters, digits and hyphens that no other host has");
    }
    /// \param full the full name that the host is to have
    std::string RenameTo(const std::string& full) const {
        return Known("hostnamectl set-hostname " + ShellWord(full));
    }
    std::string AddToHosts(const std::string& full) const {
        return Known("echo " + ShellWord(HostsLine(full)) + " >>/etc/hosts");
    }
    std::string OnlyLineOfHosts(const std::string& full) const {
        return Known("let this be the only line of /etc/hosts with the host's name: " +
                     HostsLine(full));
    }
    std::string RenameAndAddToHosts(const std::string& name, const std::string& full) const {
        return Known("hostnamectl set-hostname " + ShellWord(name) +
                     ", and this line in /etc/hosts: " + HostsLine(full));
    }

private:
    /// What to call a host follows from its domain.
    std::string Known(const std::string& remedy) const {
        return domain_.empty() ? "see that the domain is found, then look again: the host's name "
                                 "goes by it"
                               : remedy;
    }

    std::string HostsLine(const std::string& full) const {
        const std::string first = full.substr(0, full.find('.'));
        return OwnAddressTowards(peers_()) + " " + full + (full == first ? "" : " " + first);
    }

    const std::string& domain_;
    const PeerSource& peers_;
};

Finding AddressFinding(const OwnName& name, const Remedies& remedies) {
    const std::string& full = name.Full();
    Resolver resolver(Deadline::In(lookupTime));
    const HostAddresses& lookup = resolver.LookUp(full);
    if (lookup.addresses.empty() && lookup.failure)
        return {check, Severity::Failure,
                full + " could not be looked up: " + lookup.failure->what(),
                "mend what is said of the name servers"};
    if (lookup.addresses.empty())
        return {check, Severity::Failure,
                full + " has no address: neither /etc/hosts nor a name server knows one",
                remedies.AddToHosts(full)};
    std::vector<std::string> own, addresses;
    for (const SocketAddress& address : OwnAddresses())
        own.push_back(address.Text());
    for (const SocketAddress& address : lookup.addresses)
        addresses.push_back(address.Text());
    const bool isOwn = std::any_of(addresses.begin(), addresses.end(), [&](const auto& address) {
        return IsLoopback(address) || std::find(own.begin(), own.end(), address) != own.end();
    });
    if (!isOwn)
        return {check, Severity::Failure,
                full + " leads to " + Listed(addresses) + ", which is no address of this host",
                remedies.OnlyLineOfHosts(full)};
    return {check, Severity::Ok, full + " leads to this host (" + Listed(addresses) + ")", ""};
}

std::string FirstLabel(const std::string& name) {
    return name.substr(0, name.find('.'));
}

/// What is wrong with the name by itself.
std::optional<Finding> NameFinding(const OwnName& name, const std::string& domain,
                                   const Remedies& remedies) {
    const auto failure = [](const std::string& text, const std::string& remedy) {
        return Finding{check, Severity::Failure, text, remedy};
    };
    try {
        HostNames::Of(name.Name(), domain);
    } catch (const Error& error) {
        return failure(error.what(), remedies.Rename());
    }
    if (IsAnybodys(name.Short()))
        return failure("the host is called " + name.Name() + ", which is no name of its own",
                       remedies.Rename());
    const std::string& canonical = name.Canonical();
    if (!canonical.empty() && !EqualNames(FirstLabel(canonical), name.Short()))
        return failure("/etc/hosts takes " + name.Name() + " for another name of " + canonical,
                       remedies.OnlyLineOfHosts(name.Short() + "." + domain));
    return std::nullopt;
}

/// What is not as it should be with a name that works.
std::optional<Finding> NameWarning(const OwnName& name, const std::string& domain,
                                   const std::optional<DomainState>& state,
                                   const Remedies& remedies) {
    const auto warning = [](const std::string& text, const std::string& remedy) {
        return Finding{check, Severity::Warning, text, remedy};
    };
    if (state && !EqualNames(name.Short(), state->shortName))
        return warning(
            "the host is called " + name.Short() + " and is joined as " + state->shortName +
                ": by its new name no service of it can be logged in to",
            remedies.RenameTo(state->fullName) + ", or join anew: " + JoinCommand(state->domain));
    const std::string& canonical = name.Canonical();
    if (!canonical.empty() && FirstLabel(canonical) != name.Short())
        return warning("the host is called " + name.Name() + ", and /etc/hosts writes " +
                           canonical +
                           ": programs that tell capitals from small letters take them for two "
                           "names",
                       remedies.RenameAndAddToHosts(LowerCase(name.Name()), LowerCase(canonical)));
    const std::string inDomain = name.Short() + "." + domain;
    if (!domain.empty() && !IsIn(name.Full(), domain))
        return warning(name.Full() + " is no name in " + domain,
                       remedies.RenameAndAddToHosts(inDomain, inDomain));
    return std::nullopt;
}

} // namespace

Finding CheckHostName(const std::string& domain, const std::optional<DomainState>& state,
                      const PeerSource& peers) {
    const OwnName name(domain);
    const Remedies remedies(domain, peers);
    if (const std::optional<Finding> failure = NameFinding(name, domain, remedies))
        return *failure;
    const Finding address = AddressFinding(name, remedies);
    if (address.severity != Severity::Ok)
        return address;
    return NameWarning(name, domain, state, remedies).value_or(address);
}

} // namespace tessary::directory
