#include "network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace tessary::proxy {
namespace {

constexpr std::array<std::uint8_t, 12> v4Prefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
constexpr unsigned v4PrefixBits = 8 * v4Prefix.size();

std::optional<unsigned> ParsePrefixLength(const std::string& text, unsigned longest) {
    unsigned length = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, length);
    if (error != std::errc() || last != end || length > longest)
        return std::nullopt;
    return length;
}

std::uint16_t PortOf(const sockaddr* address) {
    return ntohs(address->sa_family == AF_INET6
                     ? reinterpret_cast<const sockaddr_in6*>(address)->sin6_port
                     : reinterpret_cast<const sockaddr_in*>(address)->sin_port);
}

} // namespace

std::optional<IpAddress> IpAddress::Parse(const std::string& text) {
    if (text.find('\0') != std::string::npos)
        return std::nullopt;
    IpAddress address;
    if (inet_pton(AF_INET6, text.c_str(), address.bytes_.data()) == 1)
        return address;
    std::copy(v4Prefix.begin(), v4Prefix.end(), address.bytes_.begin());
    if (inet_pton(AF_INET, text.c_str(), address.bytes_.data() + v4Prefix.size()) == 1)
        return address;
    return std::nullopt;
}

IpAddress IpAddress::Of(const sockaddr* address) {
    IpAddress result;
    if (address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        std::memcpy(result.bytes_.data(), &v6->sin6_addr, result.bytes_.size());
    } else {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        std::copy(v4Prefix.begin(), v4Prefix.end(), result.bytes_.begin());
        std::memcpy(result.bytes_.data() + v4Prefix.size(), &v4->sin_addr, sizeof v4->sin_addr);
    }
    return result;
}

bool IpAddress::IsV4() const {
    return std::equal(v4Prefix.begin(), v4Prefix.end(), bytes_.begin());
}

std::string IpAddress::Text() const {
    char text[INET6_ADDRSTRLEN] = "";
    if (IsV4())
        inet_ntop(AF_INET, bytes_.data() + v4Prefix.size(), text, sizeof text);
    else
        inet_ntop(AF_INET6, bytes_.data(), text, sizeof text);
    return text;
}

socklen_t IpAddress::ToSocketAddress(std::uint16_t port, sockaddr_storage& storage) const {
    storage = {};
    if (IsV4()) {
        auto* const v4 = reinterpret_cast<sockaddr_in*>(&storage);
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        std::memcpy(&v4->sin_addr, bytes_.data() + v4Prefix.size(), sizeof v4->sin_addr);
        return sizeof *v4;
    }
    auto* const v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    std::memcpy(&v6->sin6_addr, bytes_.data(), bytes_.size());
    return sizeof *v6;
}

IpAddress IpAddress::First(unsigned bits) const {
    IpAddress result = *this;
    for (unsigned i = 0; i < bytes_.size(); ++i) {
        const unsigned kept = std::clamp(bits, 8 * i, 8 * i + 8) - 8 * i;
        result.bytes_[i] = static_cast<std::uint8_t>(bytes_[i] & (0xff00u >> kept));
    }
    return result;
}

Peer Peer::Of(const sockaddr* address) {
    return {IpAddress::Of(address), PortOf(address)};
}

std::string Peer::Text() const {
    const std::string text = address.Text();
    return (address.IsV4() ? text : "[" + text + "]") + ":" + std::to_string(port);
}

std::optional<Network> Network::Parse(const std::string& text) {
    const std::size_t slash = text.find('/');
    const auto address = IpAddress::Parse(text.substr(0, slash));
    if (!address)
        return std::nullopt;
    // Of an IPv4 address written within IPv6 nobody knows what its prefix counts from.
    if (address->IsV4() && text.find(':') != std::string::npos)
        return std::nullopt;
    unsigned bits = 128;
    if (slash != std::string::npos) {
        const unsigned before = address->IsV4() ? v4PrefixBits : 0;
        const auto length = ParsePrefixLength(text.substr(slash + 1), 128 - before);
        if (!length)
            return std::nullopt;
        bits = before + *length;
    }
    if (address->First(bits) != *address)
        return std::nullopt;
    return Network(*address, bits);
}

bool Network::HasAll() const {
    return bits_ == (base_.IsV4() ? v4PrefixBits : 0);
}

bool Network::Contains(const IpAddress& address) const {
    return address.IsV4() == base_.IsV4() && address.First(bits_) == base_;
}

} // namespace tessary::proxy
