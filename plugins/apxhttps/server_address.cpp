#include "server_address.h"

#include "status.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdint>
#include <optional>

namespace tessary::apxhttps {
namespace {

constexpr std::uint16_t defaultPort = 8447;
constexpr std::size_t longestName = 253; // what the domain name system allows

struct Parts {
    std::string_view host; // with its brackets
    std::optional<std::string_view> port;
};

Parts Split(std::string_view address) {
    const auto end = address.starts_with('[') ? address.find(']') : address.find(':');
    if (end == std::string_view::npos)
        return {address, std::nullopt};
    const std::size_t hostSize = address[end] == ']' ? end + 1 : end;
    const std::string_view rest = address.substr(hostSize);
    if (rest.empty())
        return {address, std::nullopt};
    if (!rest.starts_with(':'))
        throw Failure(Status::BadRequest);
    return {address.substr(0, hostSize), rest.substr(1)};
}

bool IsIpv6(std::string_view bracketed) {
    if (!bracketed.ends_with(']'))
        return false;
    const std::string address(bracketed.substr(1, bracketed.size() - 2));
    in6_addr ignored;
    return address.find('\0') == std::string::npos &&
           inet_pton(AF_INET6, address.c_str(), &ignored) == 1;
}

/// Nothing that means something in a URL may pass.
bool IsName(std::string_view host) {
    return !host.empty() && host.size() <= longestName &&
           std::all_of(host.begin(), host.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '.' || c == '_';
           });
}

std::uint16_t Port(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port == 0)
        throw Failure(Status::BadRequest);
    return port;
}

} // namespace

std::string ServerUrl(std::string_view address) {
    const Parts parts = Split(address);
    if (!(parts.host.starts_with('[') ? IsIpv6(parts.host) : IsName(parts.host)))
        throw Failure(Status::BadRequest);
    const std::uint16_t port = parts.port ? Port(*parts.port) : defaultPort;
    return "https://" + std::string(parts.host) + ":" + std::to_string(port);
}

} // namespace tessary::apxhttps
