#include "hykctl/resolved_link.h"

#include <net/if.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>

#include "hostctl/host.h"
#include "hykctl/resolv_text.h"
#include "hykctl/system_error.h"

namespace HykCtl {
namespace {

/// Whom SetLinkDomains can be asked of.
struct BusService {
    const char* name;
    const char* path;
    const char* interface;
};

constexpr BusService kResolver = {"org.freedesktop.resolve1", "/org/freedesktop/resolve1",
                                  "org.freedesktop.resolve1.Manager"};
// Links that the network service manages are refused by the resolver service, with this error, and
// taken by the network service.
constexpr BusService kNetworkService = {"org.freedesktop.network1", "/org/freedesktop/network1",
                                        "org.freedesktop.network1.Manager"};
constexpr const char* kLinkBusy = "org.freedesktop.resolve1.LinkBusy";

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageReleaser {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageReleaser>;

class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* Get() { return &error_; }
    bool Is(const char* name) const { return sd_bus_error_has_name(&error_, name) != 0; }

    [[noreturn]] void Throw(const BusService& service, const std::string& action, int result) {
        const std::string cause =
            error_.message ? error_.message : std::generic_category().message(-result);
        throw HostCtl::Lib::HostCtlException(std::string(service.name) + ": cannot " + action +
                                             ": " + cause);
    }

private:
    sd_bus_error error_ = {};
};

struct LinkDomain {
    std::string name;
    bool routeOnly;
};

/// Throws for a negative result of a message function.
int Checked(int result, const char* action) {
    if (result < 0)
        ThrowSystemError("message bus", action, -result);
    return result;
}

Bus OpenBus() {
    sd_bus* bus = nullptr;
    Checked(sd_bus_open_system(&bus), "connect");
    return Bus(bus);
}

/// The domains of one link, out of those of all links and of the system.
std::vector<LinkDomain> ReadDomains(sd_bus* bus, int link) {
    constexpr const char* action = "read the search domains";
    BusError error;
    sd_bus_message* raw = nullptr;
    const int result = sd_bus_get_property(bus, kResolver.name, kResolver.path, kResolver.interface,
                                           "Domains", error.Get(), &raw, "a(isb)");
    if (result < 0)
        error.Throw(kResolver, action, result);
    const Message reply(raw);
    std::vector<LinkDomain> domains;
    Checked(sd_bus_message_enter_container(raw, 'a', "(isb)"), action);
    int owner = 0;
    int routeOnly = 0;
    const char* name = nullptr;
    while (Checked(sd_bus_message_read(raw, "(isb)", &owner, &name, &routeOnly), action) > 0)
        if (owner == link)
            domains.push_back({name, routeOnly != 0});
    return domains;
}

/// Asks a service to set the domains of a link; returns a negative error with `error` filled in.
int CallSetDomains(sd_bus* bus, const BusService& service, int link,
                   const std::vector<LinkDomain>& domains, BusError& error) {
    constexpr const char* action = "compose a message";
    sd_bus_message* raw = nullptr;
    Checked(sd_bus_message_new_method_call(bus, &raw, service.name, service.path, service.interface,
                                           "SetLinkDomains"),
            action);
    const Message message(raw);
    Checked(sd_bus_message_append(raw, "i", link), action);
    Checked(sd_bus_message_open_container(raw, 'a', "(sb)"), action);
    for (const LinkDomain& domain : domains)
        Checked(sd_bus_message_append(raw, "(sb)", domain.name.c_str(), int{domain.routeOnly}),
                action);
    Checked(sd_bus_message_close_container(raw), action);
    return sd_bus_call(bus, raw, 0, error.Get(), nullptr);
}

void SetDomains(sd_bus* bus, int link, const std::vector<LinkDomain>& domains) {
    constexpr const char* action = "set the search domains";
    BusError error;
    const int result = CallSetDomains(bus, kResolver, link, domains, error);
    if (result >= 0)
        return;
    if (!error.Is(kLinkBusy))
        error.Throw(kResolver, action, result);
    BusError networkError;
    const int networkResult = CallSetDomains(bus, kNetworkService, link, domains, networkError);
    if (networkResult < 0)
        networkError.Throw(kNetworkService, action, networkResult);
}

/// Adds a domain that is searched; one that only routes queries is made to be searched. Returns
/// false when nothing is to be done.
bool Add(std::vector<LinkDomain>& domains, const std::string& name) {
    const auto found = std::find_if(domains.begin(), domains.end(), [&](const auto& domain) {
        return SameDomain(domain.name, name);
    });
    if (found == domains.end())
        domains.push_back({name, false});
    else if (found->routeOnly)
        found->routeOnly = false;
    else
        return false;
    return true;
}

} // namespace

void AddLinkDomains(const std::string& interfaceName, const std::vector<std::string>& domains) {
    const int link = static_cast<int>(if_nametoindex(interfaceName.c_str()));
    if (link == 0)
        ThrowSystemError(interfaceName, "look up the interface", errno);
    const Bus bus = OpenBus();
    std::vector<LinkDomain> linkDomains = ReadDomains(bus.get(), link);
    bool changed = false;
    for (const std::string& domain : domains)
        changed = Add(linkDomains, domain) || changed;
    if (changed)
        SetDomains(bus.get(), link, linkDomains);
}

} // namespace HykCtl
