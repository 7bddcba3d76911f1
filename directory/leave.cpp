#include "membership.h"

#include "domain_state.h"
#include "error.h"
#include "kerberos_profile.h"
#include "keytab.h"
#include "machine_account.h"
#include "session.h"

namespace tessary::directory {
namespace {

// With the host's own key: a courtesy to the domain, not worth a long wait.
constexpr std::chrono::seconds courtesyTime{5};

/// The keys first: a host without them and with its membership knows that something is wrong, one
/// with keys of an account that it has forgotten does not.
void Forget(const DomainState& state) {
    const KerberosContext context(MakeKerberosContext(state.realm));
    KeytabReplacement(context.get(), PrincipalsWithKeysOf(context.get(), state)).Commit();
    DomainState::Remove();
}

/// What a join that was killed may have left. Keys that it had put in force already are useless,
/// and the next join replaces them.
void RemoveLeftovers() {
    Replacement::RemoveLeftover(hostKeytab);
    Replacement::RemoveLeftover(DomainState::Path());
}

void DeleteOrDisable(Session& session, const DomainState& state) {
    MachineAccounts accounts(session);
    const std::optional<LdapEntry> account = accounts.Find(state.account);
    if (!account)
        return;
    try {
        accounts.Delete(account->dn);
    } catch (const Error& error) {
        if (error.Code() != Status::AccessDenied)
            throw;
        accounts.Disable(account->dn);
    }
}

void DisableWithOwnKey(const DomainState& state) {
    try {
        Session session(state, Deadline::In(courtesyTime));
        MachineAccounts accounts(session);
        if (const std::optional<LdapEntry> account = accounts.Find(state.account))
            accounts.Disable(account->dn);
    } catch (const Error&) {
        // Most domains don't let a host disable its own account; the host leaves all the same.
    }
}

} // namespace

void LeaveDomain(const std::string& user, const char* password) {
    const Deadline deadline = Deadline::In(membershipTime);
    const UserName userName = UserName::Parse(user);
    const StateLock lock(membershipLock, deadline);
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        return RemoveLeftovers();
    Session session(LocateController(state->domain, {}, deadline), userName, password, deadline);
    DeleteOrDisable(session, *state);
    Forget(*state);
}

void LeaveDomain() {
    const StateLock lock(membershipLock, Deadline::In(membershipTime));
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        return RemoveLeftovers();
    DisableWithOwnKey(*state);
    Forget(*state);
}

} // namespace tessary::directory
