#include "hostctl/network.h"

#include <arpa/inet.h>

#include <cstring>

namespace HostCtl {
namespace Network {
namespace {

bool Parse(const std::string& text, std::array<uint8_t, 4>& bytes) {
    // The C function would stop at an embedded zero byte and accept what stands before it.
    return text.find('\0') == std::string::npos &&
           inet_pton(AF_INET, text.c_str(), bytes.data()) == 1;
}

} // namespace

bool Ipv4Address::IsValidAddress(const std::string& text) {
    std::array<uint8_t, 4> bytes;
    return Parse(text, bytes);
}

Ipv4Address::Ipv4Address(const std::string& text) : bytes_{} {
    if (!Parse(text, bytes_))
        throw Lib::HostCtlException("'" + text + "' is not an IPv4 address");
}

std::string Ipv4Address::ToString() const {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, bytes_.data(), text, sizeof text);
    return text;
}

IpConfig::IpConfig(const Ipv4Address& address) : address_(address) {}

} // namespace Network
} // namespace HostCtl
