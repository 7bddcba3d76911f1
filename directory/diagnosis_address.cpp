#include "diagnosis_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace tessary::directory {
namespace {

constexpr std::uint16_t anyPort = 389; // nothing is sent there

struct InterfaceListDeleter {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

bool IsIpv4(const SocketAddress& address) {
    return address.Get()->sa_family == AF_INET;
}

bool IsInternet(const sockaddr* address) {
    return address->sa_family == AF_INET || address->sa_family == AF_INET6;
}

/// Whether others in the network can know a host by it.
bool IsGlobal(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        const auto number = ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
        return (number >> 24) != 127 && (number >> 16) != 0xa9fe && number != INADDR_ANY;
    }
    const in6_addr* const number = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    return !IN6_IS_ADDR_LOOPBACK(number) && !IN6_IS_ADDR_LINKLOCAL(number) &&
           !IN6_IS_ADDR_UNSPECIFIED(number);
}

std::vector<SocketAddress> Ipv4First(std::vector<SocketAddress> addresses) {
    std::stable_partition(addresses.begin(), addresses.end(), IsIpv4);
    return addresses;
}

/// What the kernel would put into a datagram to this peer as its sender.
std::optional<SocketAddress> SourceFor(const SocketAddress& peer) {
    const UniqueFd fd(socket(peer.Get()->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const SocketAddress target = peer.WithPort(anyPort);
    sockaddr_storage source{};
    socklen_t length = sizeof source;
    const auto generic = reinterpret_cast<sockaddr*>(&source);
    if (!fd || connect(fd.Get(), target.Get(), target.Length()) != 0 ||
        getsockname(fd.Get(), generic, &length) != 0 || !IsGlobal(generic))
        return std::nullopt;
    return SocketAddress(generic, length, 0);
}

/// Addresses kept for documents: the way to them is the way to everywhere.
std::vector<SocketAddress> Elsewhere() {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    inet_pton(AF_INET, "192.0.2.1", &ipv4.sin_addr);
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::1", &ipv6.sin6_addr);
    return {SocketAddress(reinterpret_cast<sockaddr*>(&ipv4), sizeof ipv4, 0),
            SocketAddress(reinterpret_cast<sockaddr*>(&ipv6), sizeof ipv6, 0)};
}

} // namespace

std::vector<SocketAddress> OwnAddresses() {
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) != 0)
        return {};
    const std::unique_ptr<ifaddrs, InterfaceListDeleter> list(found);
    std::vector<SocketAddress> addresses;
    for (const ifaddrs* each = list.get(); each; each = each->ifa_next)
        if (each->ifa_addr && IsInternet(each->ifa_addr))
            addresses.emplace_back(each->ifa_addr,
                                   each->ifa_addr->sa_family == AF_INET ? sizeof(sockaddr_in)
                                                                        : sizeof(sockaddr_in6),
                                   0);
    return Ipv4First(std::move(addresses));
}

std::string OwnAddressTowards(const std::vector<SocketAddress>& peers) {
    std::vector<SocketAddress> all = Ipv4First(peers);
    for (const SocketAddress& elsewhere : Elsewhere())
        all.push_back(elsewhere);
    for (const SocketAddress& peer : all)
        if (const std::optional<SocketAddress> source = SourceFor(peer))
            return source->Text();
    const std::vector<SocketAddress> own = OwnAddresses();
    const auto global = std::find_if(own.begin(), own.end(), [](const SocketAddress& address) {
        return IsGlobal(address.Get());
    });
    return global == own.end() ? "127.0.1.1" : global->Text();
}

} // namespace tessary::directory
