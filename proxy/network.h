/// Addresses of clients, and the networks that they may come from.
#ifndef TESSARY_PROXY_NETWORK_H
#define TESSARY_PROXY_NETWORK_H

#include <sys/socket.h>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tessary::proxy {

/// An IPv4 or IPv6 address without a port; a value. An IPv4 address that is written within IPv6 is
/// that IPv4 address.
class IpAddress {
public:
    /// \return nothing when it is not an address alone, written as one
    static std::optional<IpAddress> Parse(const std::string& text);
    /// \param address of the family AF_INET or AF_INET6
    static IpAddress Of(const sockaddr* address);

    bool IsV4() const;
    std::string Text() const;

    /// \param[out] storage the address with a port, of the family that fits
    /// \return its length
    socklen_t ToSocketAddress(std::uint16_t port, sockaddr_storage& storage) const;

    /// What limits count by: an IPv4 address itself, the network of 64 bits of an IPv6 address, as
    /// a host has all of that one's addresses at its choice.
    IpAddress Site() const { return IsV4() ? *this : First(64); }

    /// The first bits; the others are zero. An IPv4 address has 96 bits before its own.
    IpAddress First(unsigned bits) const;

    auto operator<=>(const IpAddress&) const = default;

private:
    std::array<std::uint8_t, 16> bytes_{}; // IPv4 as IPv6 has it
};

/// One end of a connection.
struct Peer {
    IpAddress address;
    std::uint16_t port = 0;

    static Peer Of(const sockaddr* address);
    std::string Text() const; ///< "192.0.2.7:50123", "[2001:db8::7]:50123"
};

/// The addresses that have their first bits in common; a value.
class Network {
public:
    /// \param text "192.0.2.0/24", "2001:db8::/32", or an address, which stands for itself alone
    /// \return nothing when it is neither, or has bits set behind its prefix: then a mistake about
    ///         its length is likely
    static std::optional<Network> Parse(const std::string& text);

    /// Whether it has all addresses of its family.
    bool HasAll() const;

    /// IPv6 networks have no IPv4 addresses in them.
    bool Contains(const IpAddress& address) const;

private:
    Network(const IpAddress& base, unsigned bits) : base_(base), bits_(bits) {}

    IpAddress base_;
    unsigned bits_; // of 128
};

} // namespace tessary::proxy

#endif
