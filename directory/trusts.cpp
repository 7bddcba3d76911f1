#include "trusts.h"

#include "domain_state.h"
#include "error.h"
#include "keytab.h"
#include "session.h"
#include "text.h"

namespace tessary::directory {
namespace {

constexpr long trustsWithinForest = 0x20; // a bit of trustAttributes

std::vector<LdapEntry> TrustObjects(const DomainState& state) {
    Session session(state, Deadline::In(queryTime));
    return session.Ldap().Search(
        "CN=System," + session.Where().baseDn, LDAP_SCOPE_ONELEVEL, "(objectClass=trustedDomain)",
        {"trustPartner", "flatName", "trustDirection", "trustAttributes"}, session.End());
}

Relationship RelationshipOf(const LdapEntry& trust) {
    if (trust.Number("trustAttributes").value_or(0) & trustsWithinForest)
        return Relationship::WithinForest;
    switch (trust.Number("trustDirection").value_or(0)) {
    case 1:
        return Relationship::Inbound;
    case 2:
        return Relationship::Outbound;
    case 3:
        return Relationship::TwoWay;
    default:
        return Relationship::None; // a trust that is turned off
    }
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
    for (const LdapEntry& trust : TrustObjects(*state))
        domains.push_back({trust.Value("trustPartner"), trust.Value("flatName")});
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
        LogInAsMachine(kerberos, state->account, std::string("FILE:") + hostKeytab);
        return MachineTrust::Good;
    } catch (const Error& error) {
        return TrustFor(error.Code());
    }
}

Relationship RelationshipWith(const std::string& domain) {
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        return Relationship::Unknown;
    if (state->IsNamed(domain))
        return Relationship::JoinedDomain;
    for (const LdapEntry& trust : TrustObjects(*state))
        if (EqualNames(trust.Value("trustPartner"), domain) ||
            EqualNames(trust.Value("flatName"), domain))
            return RelationshipOf(trust);
    return Relationship::None;
}

std::string AnyController(const std::string& first, const std::string& domain) {
    std::string wanted = NormalizeDomainName(domain);
    const std::optional<DomainState> state = DomainState::Load();
    if (state && state->IsNamed(wanted))
        wanted = state->domain;
    std::vector<std::string> known;
    if (!first.empty())
        known.push_back(first);
    return LocateController(wanted, known, Deadline::In(queryTime)).host;
}

} // namespace tessary::directory
