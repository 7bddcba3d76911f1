/// IPv4 addresses and the IPv4 settings of an interface.
#ifndef HOSTCTL_NETWORK_H
#define HOSTCTL_NETWORK_H

#include <array>
#include <cstdint>
#include <string>

#include "hostctl/host.h"

namespace HostCtl {
namespace Network {

/// An IPv4 address. Immutable.
class HOSTCTL_API Ipv4Address {
public:
    /// True for a dotted quad of four decimal numbers up to 255, and for nothing else.
    static bool IsValidAddress(const std::string& text);

    /// Throws Lib::HostCtlException for a text that is no valid address.
    explicit Ipv4Address(const std::string& text);

    /// The address in dotted form.
    std::string ToString() const;

private:
    std::array<uint8_t, 4> bytes_;
};

/// The IPv4 settings of one interface.
class HOSTCTL_API IpConfig {
public:
    explicit IpConfig(const Ipv4Address& address);
    const Ipv4Address& GetAddress() const { return address_; }

private:
    Ipv4Address address_;
};

} // namespace Network
} // namespace HostCtl

#endif
