#include "host_check.h"

#include "account_service.h"

#include "directory/resolver.h"

#include <algorithm>

namespace tessary::proxy {

HostLookUp SystemLookUp() {
    return [](const std::string& host, const directory::Deadline& deadline) {
        directory::Resolver resolver(deadline);
        const directory::HostAddresses& found = resolver.LookUp(host);
        KnownAddresses known{{}, found.failure};
        for (const directory::SocketAddress& address : found.addresses)
            known.addresses.push_back(IpAddress::Of(address.Get()));
        return known;
    };
}

HostCheck::HostCheck(HostLookUp lookUp, std::set<std::string> exempt,
                     std::chrono::milliseconds time)
    : lookUp_(std::move(lookUp)), exempt_(std::move(exempt)), time_(time) {}

void HostCheck::Check(const std::string& host, const IpAddress& asks) const {
    if (exempt_.contains(anyHost) || exempt_.contains(host))
        return;
    const auto [addresses, failure] = lookUp_(host, directory::Deadline::In(time_));
    if (std::find(addresses.begin(), addresses.end(), asks) != addresses.end())
        return;
    if (failure)
        throw Refusal(Code::Internal, "the host's name cannot be looked up at the moment",
                      failure->what());
    if (addresses.empty())
        throw Refusal(Code::NotAllowed, "the host's name has no address");
    std::string detail = "its addresses:";
    for (const IpAddress& address : addresses)
        detail += " " + address.Text();
    throw Refusal(Code::NotAllowed,
                  "the host's name belongs to another address than the one that asks", detail);
}

} // namespace tessary::proxy
