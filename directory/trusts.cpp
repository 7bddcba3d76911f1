#include "trusts.h"

#include "domain_state.h"
#include "error.h"
#include "machine_login.h"
#include "session.h"

namespace tessary::directory {
namespace {

KnownDomains DomainsKnownTo(const DomainState& state, const Deadline& deadline) {
    Session session(state, deadline);
    return KnownDomains::Read(session);
}

MachineTrust TrustFor(Status status) {
    switch (status) {
    case Status::MachineKeyRejected:
        return MachineTrust::KeyRejected;
    case Status::NoMachineAccount:
        return MachineTrust::AccountMissing;
    case Status::AccountDisabled:
    case Status::PasswordExpired:
        return MachineTrust::AccountDisabled;
    case Status::ClockSkew:
        return MachineTrust::ClockSkew;
    case Status::ConnectionRefused:
    case Status::NoController:
    case Status::NoSuchDomain:
    case Status::TimedOut:
        return MachineTrust::NoController;
    default:
        return MachineTrust::Unknown;
    }
}

} // namespace

std::vector<TrustedDomain> TrustedDomains() {
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        throw Error(Status::FileNotFound, "the host is not joined to a domain");
    std::vector<TrustedDomain> domains;
    const KnownDomains known = DomainsKnownTo(*state, Deadline::In(queryTime));
    for (const KnownDomain& domain : known.All())
        if (domain.hasTrustObject)
            domains.push_back({domain.dnsName, domain.netbiosName});
    return domains;
}

MachineTrust TestMachineTrust() {
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        return MachineTrust::NotJoined;
    try {
        const Deadline deadline = Deadline::In(queryTime);
        const Controller controller = LocateController(state->domain, {}, deadline);
        KerberosSession kerberos(controller.realm, FinderFor(controller, deadline), deadline);
        LogInAsHost(kerberos, *state);
        return MachineTrust::Good;
    } catch (const Error& error) {
        return TrustFor(error.Code());
    }
}

Relationship RelationshipWith(const std::string& domain) {
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        return Relationship::Unknown;
    const std::string wanted = WithoutFinalDot(domain);
    if (state->IsNamed(wanted))
        return Relationship::JoinedDomain;
    const KnownDomains known = DomainsKnownTo(*state, Deadline::In(queryTime));
    const KnownDomain* found = known.Find(wanted);
    return found ? found->relationship : Relationship::None;
}

std::string AnyController(const std::string& first, const std::string& domain) {
    const Deadline deadline = Deadline::In(queryTime);
    std::string wanted = NormalizeDomainName(domain);
    const std::optional<DomainState> state = DomainState::Load();
    if (state && state->IsNamed(wanted)) {
        wanted = state->domain;
    } else if (state && wanted.find('.') == std::string::npos) {
        const KnownDomains known = DomainsKnownTo(*state, deadline);
        if (const KnownDomain* found = known.Find(wanted))
            wanted = NormalizeDomainName(found->dnsName);
    }
    std::vector<std::string> controllers;
    if (!first.empty())
        controllers.push_back(first);
    return LocateController(wanted, controllers, deadline).host;
}

} // namespace tessary::directory
