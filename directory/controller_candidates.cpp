#include "controller_candidates.h"

namespace tessary::directory {
namespace {

constexpr std::uint16_t ldapPort = 389;

} // namespace

ControllerCandidates::ControllerCandidates(const std::string& domain,
                                           const std::vector<std::string>& known,
                                           const Deadline& deadline)
    : resolver_(deadline), domain_(domain), hosts_(known.begin(), known.end()) {}

std::optional<Candidate> ControllerCandidates::Next() {
    while (addresses_.empty()) {
        if (hosts_.empty() && !discovered_) {
            discovered_ = true;
            try {
                for (std::string& host : resolver_.ServiceHosts("_ldap._tcp.dc._msdcs." + domain_))
                    hosts_.push_back(std::move(host));
            } catch (const Error& error) {
                discoveryError_ = error;
            }
        }
        if (hosts_.empty())
            return std::nullopt;
        const std::string host = std::move(hosts_.front());
        hosts_.pop_front();
        for (const SocketAddress& address : resolver_.Addresses(host))
            addresses_.push_back({host, address.WithPort(ldapPort)});
    }
    Candidate candidate = std::move(addresses_.front());
    addresses_.pop_front();
    return candidate;
}

} // namespace tessary::directory
