#include "key_rotation.h"

#include "error.h"
#include "key_change.h"
#include "machine_account.h"
#include "machine_login.h"
#include "password_change.h"
#include "session.h"

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace tessary::directory {
namespace {

constexpr std::chrono::seconds settlingTime{5};

/// Whether the account's key is so young. One of the future is not: the clock was wrong when it
/// came.
bool IsYounger(krb5_context context, const DomainState& state, std::chrono::seconds age) {
    std::int64_t newest = 0;
    for (const KeytabKey& key : ReadHostKeys(context, {state.AccountPrincipal()}))
        newest = std::max<std::int64_t>(newest, static_cast<std::uint32_t>(key.name.time));
    const std::int64_t now = std::time(nullptr);
    return newest <= now && now - newest < age.count();
}

/// Whether the domain is known to take the keys.
bool AreTaken(const DomainState& state, const std::vector<AccountKey>& keys) {
    try {
        const Deadline deadline = Deadline::In(settlingTime);
        return AreAccepted(LocateController(state.domain, {}, deadline), state, keys, deadline);
    } catch (const Error&) {
        return false;
    }
}

/// Sees to it that the keytab has what the domain made of the new password: an account that was
/// renamed has another salt from then on, and its version may have gone up by more than one.
void Confirm(Session& session, const DomainState& state, KeyChange& change,
             const std::vector<AccountKey>& keys, const Secret& password) {
    MachineAccounts accounts(session);
    const std::optional<LdapEntry> account = accounts.Find(state.account);
    if (!account)
        return;
    const int version = MachineAccounts::KeyVersionOf(*account);
    const bool accepted = AreAccepted(session.Where(), state, keys, session.End());
    // A version that is still the old one is that of a controller that has not heard of it yet.
    if (accepted && version <= change.Version() + 1)
        return;
    if (accepted)
        change.Finished(keys, version)->Commit();
    else
        change
            .Finished(session.Kerberos().MakeKeys(state.account, password),
                      std::max(version, change.Version() + 1))
            ->Commit();
}

} // namespace

bool RotateKey(std::chrono::seconds minimumAge) {
    const Deadline deadline = Deadline::In(membershipTime);
    const StateLock lock(membershipLock, deadline);
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        throw Error(Status::FileNotFound, "the host is not joined to a domain");

    Session session(*state, deadline, &lock);
    const krb5_context context = session.Kerberos().Context();
    if (IsYounger(context, *state, minimumAge))
        return false;
    MachineAccounts accounts(session);
    const std::optional<LdapEntry> account = accounts.Find(state->account);
    if (!account)
        throw Error(Status::NoMachineAccount, "the domain has no account " + state->account);
    const Secret password = MakeMachinePassword();
    const std::vector<AccountKey> keys = session.Kerberos().MakeKeys(state->account, password);
    PasswordChange change(session, state->account, std::string("FILE:") + hostKeytab);

    KeyChange keytab(context, *state, MachineAccounts::KeyVersionOf(*account));
    keytab.Stage(keys);
    const auto finished = keytab.Finished(keys, keytab.Version() + 1);
    finished->Sync();
    try {
        change.Execute(password);
    } catch (const Error& error) {
        if (!KeyChange::MayStillHappen(error)) {
            keytab.TakeBack();
            throw;
        }
        // The answer is lost, the change perhaps not. Should nobody be there to ask, the keytab has
        // both keys, and the next login finds out.
        if (!AreTaken(*state, keys))
            throw;
    }
    finished->Commit();
    try {
        Confirm(session, *state, keytab, keys, password);
    } catch (const Error&) {
        // The key has been changed; that nobody is there to confirm it changes nothing.
    }
    return true;
}

} // namespace tessary::directory
