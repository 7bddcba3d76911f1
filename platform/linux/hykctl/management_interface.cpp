#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>

#include "hykctl/network.h"
#include "hykctl/system_error.h"

namespace HykCtl {
namespace Network {
namespace {

using HostCtl::Network::IpConfig;
using HostCtl::Network::Ipv4Address;

constexpr const char* kRouteTable = "/proc/net/route";

struct DefaultRoute {
    std::string interfaceName;
    unsigned metric;
};

struct InterfaceAddress {
    std::string interfaceName;
    std::string address;
    unsigned index;
    bool isLoopback;
};

/// The default routes of the main table, the preferred one first.
std::vector<DefaultRoute> ReadDefaultRoutes() {
    std::ifstream table(kRouteTable);
    if (!table)
        ThrowSystemError(kRouteTable, "open", errno);
    std::vector<DefaultRoute> routes;
    std::string line;
    std::getline(table, line); // the heading
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        DefaultRoute route;
        unsigned destination, gateway, flags, references, uses, mask;
        fields >> route.interfaceName >> std::hex >> destination >> gateway >> flags >> std::dec >>
            references >> uses >> route.metric >> std::hex >> mask;
        const bool usable = (flags & RTF_UP) != 0 && (flags & RTF_REJECT) == 0;
        if (fields && destination == 0 && mask == 0 && usable)
            routes.push_back(route);
    }
    std::stable_sort(routes.begin(), routes.end(), [](const auto& left, const auto& right) {
        return left.metric < right.metric;
    });
    return routes;
}

/// The IPv4 addresses of the interfaces that are up, in the order of the interfaces' indexes and
/// of the addresses' precedence.
std::vector<InterfaceAddress> ReadAddresses() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        ThrowSystemError("network interfaces", "list", errno);
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(first, freeifaddrs);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* item = first; item; item = item->ifa_next) {
        const bool isUp = (item->ifa_flags & IFF_UP) != 0;
        if (!isUp || !item->ifa_addr || item->ifa_addr->sa_family != AF_INET)
            continue;
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(item->ifa_addr)->sin_addr, text,
                  sizeof text);
        // An address may carry a label of its own after the interface's name and a colon.
        std::string name = item->ifa_name;
        name.resize(std::min(name.find(':'), name.size()));
        const unsigned index = if_nametoindex(name.c_str());
        addresses.push_back({name, text, index, (item->ifa_flags & IFF_LOOPBACK) != 0});
    }
    std::stable_sort(addresses.begin(), addresses.end(),
                     [](const auto& left, const auto& right) { return left.index < right.index; });
    return addresses;
}

ManagementInterface Make(const InterfaceAddress& found) {
    return ManagementInterface(found.interfaceName, IpConfig(Ipv4Address(found.address)));
}

} // namespace

ManagementInterface::ManagementInterface(std::string name, IpConfig ipConfig)
    : name_(std::move(name)), ipConfig_(std::move(ipConfig)) {}

ManagementInterface NetworkInfoImpl::GetManagementInterface() const {
    const std::vector<InterfaceAddress> addresses = ReadAddresses();
    for (const DefaultRoute& route : ReadDefaultRoutes())
        for (const InterfaceAddress& address : addresses)
            if (address.interfaceName == route.interfaceName)
                return Make(address);
    for (const InterfaceAddress& address : addresses)
        if (!address.isLoopback)
            return Make(address);
    throw HostCtl::Lib::HostCtlException(
        "no management interface: no network interface is up and has an IPv4 address");
}

} // namespace Network
} // namespace HykCtl
