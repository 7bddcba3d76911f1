#include "canonical_user.h"

#include "domain_state.h"
#include "error.h"
#include "known_domains.h"
#include "session.h"
#include "user_reference.h"
#include "user_search.h"

#include <optional>

namespace tessary::directory {
namespace {

[[noreturn]] void ThrowNoSuchUser(const std::string& domain) {
    throw Error(Status::NoSuchUser, domain + " has no such user");
}

[[noreturn]] void ThrowNoSuchDomain(const DomainState& state, const std::string& domain) {
    throw Error(Status::NoSuchDomain, state.domain + " has no trust with a domain " + domain);
}

/// The host looks for one user.
class Inquiry {
public:
    Inquiry(const DomainState& state, const UserReference& user)
        : state_(state), user_(user), home_(state, Deadline::In(queryTime)) {}

    std::string Run() {
        const bool atHome = user_.domain.empty() || state_.IsNamed(user_.domain);
        if (const auto account = SearchIn(home_, atHome))
            return state_.netbiosName + "\\" + *account;
        if (atHome)
            ThrowNoSuchUser(state_.domain);

        const KnownDomains known = KnownDomains::Read(home_);
        const KnownDomain& domain = DomainOfUser(known);
        Session session(home_, state_, domain.dnsName);
        const bool named = known.Find(user_.domain) == &domain;
        if (const auto account = SearchIn(session, named))
            return domain.netbiosName + "\\" + *account;
        ThrowNoSuchUser(domain.dnsName);
    }

private:
    /// \param named whether the domain that the session is at is the one that the name names
    std::optional<std::string> SearchIn(Session& session, bool named) const {
        UserSearch search(session);
        if (user_.form == UserReference::Form::PrincipalName) {
            // One that was given to a user goes before one that follows from an account's name.
            auto account = search.ByPrincipalName(user_.name + "@" + user_.domain);
            return account || !named ? account : search.ByAccountName(user_.name);
        }
        if (!named)
            return std::nullopt;
        switch (user_.form) {
        case UserReference::Form::Path:
            return search.ByPath(user_.levels);
        case UserReference::Form::DistinguishedName:
            return search.ByDistinguishedName(user_.name);
        default:
            return search.ByAccountName(user_.name);
        }
    }

    const KnownDomain& DomainOfUser(const KnownDomains& known) const {
        const KnownDomain* domain = known.Find(user_.domain);
        if (!domain && user_.form == UserReference::Form::PrincipalName) {
            domain = known.OwnerOfSuffix(user_.domain);
            if (!domain && known.IsOwnSuffix(user_.domain))
                ThrowNoSuchUser(state_.domain);
        }
        if (!domain || domain->relationship == Relationship::None)
            ThrowNoSuchDomain(state_, user_.domain);
        if (!domain->LetsUsIn())
            throw Error(Status::AccessDenied,
                        domain->dnsName + " does not trust " + state_.domain +
                            ": its users can log in here, but it does not let this host ask");
        return *domain;
    }

    const DomainState& state_;
    const UserReference& user_;
    Session home_;
};

DomainState Membership() {
    std::optional<DomainState> state = DomainState::Load();
    if (!state)
        throw Error(Status::FileNotFound, "the host is not joined to a domain");
    return *state;
}

} // namespace

std::string CanonicalUserName(const std::string& name) {
    const UserReference user = UserReference::Parse(name);
    const DomainState state = Membership();
    return Inquiry(state, user).Run();
}

std::string HostPrincipalFor(const std::string& domain) {
    const DomainState state = Membership();
    const std::string wanted = WithoutFinalDot(domain);
    if (!state.IsNamed(wanted)) {
        Session session(state, Deadline::In(queryTime));
        const KnownDomains known = KnownDomains::Read(session);
        const KnownDomain* found = known.Find(wanted);
        if (!found || found->relationship == Relationship::None)
            ThrowNoSuchDomain(state, domain);
    }
    return "host/" + state.fullName + "@" + state.realm;
}

} // namespace tessary::directory
