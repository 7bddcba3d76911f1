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

constexpr std::chrono::milliseconds settlingTime{5000};

/// Whether the account's key is so young. One of the future is not: the clock was wrong when it
/// came.
bool IsYounger(krb5_context context, const DomainState& state, std::chrono::seconds age) {
    const std::vector<KeytabKey> keys = ReadHostKeys(context, {state.AccountPrincipal()});
    std::int64_t came = 0;
    for (const KeytabKey& key : keys)
        if (key.name.version == NewestVersion(keys))
            came = key.name.time;
    const std::int64_t now = std::time(nullptr);
    return came <= now && now - came < age.count();
}

/// Nothing when the controller cannot be asked.
std::optional<bool> AreAcceptedIfAsked(const Controller& controller, const DomainState& state,
                                       const std::vector<AccountKey>& keys,
                                       const Deadline& deadline) {
    try {
        return AreAccepted(controller, state, keys, deadline);
    } catch (const Error&) {
        return std::nullopt;
    }
}

/// Whether the domain has taken the keys; nothing when that is not known. The controller that was
/// asked to take them knows. Any other may just not have heard of it: it can only confirm it.
std::optional<bool> AreTaken(const Controller& asked, const DomainState& state,
                             const std::vector<AccountKey>& keys) {
    const Deadline deadline = Deadline::In(settlingTime);
    if (const auto answer =
            AreAcceptedIfAsked(asked, state, keys, deadline.AtMost(settlingTime / 2)))
        return answer;
    try {
        const Controller other = LocateController(state.domain, {}, deadline);
        if (AreAcceptedIfAsked(other, state, keys, deadline).value_or(false))
            return true;
    } catch (const Error&) {
        // Nobody is there.
    }
    return std::nullopt;
}

/// The right to change the password, got with the account's key. A session that is there although
/// that key is refused was got with the former one.
PasswordChange StartChange(const Session& session, const DomainState& state) {
    try {
        return PasswordChange(session, state.account, std::string("FILE:") + hostKeytab);
    } catch (const Error& error) {
        if (error.Code() != Status::MachineKeyRejected)
            throw;
        throw Error(Status::NoController,
                    session.Where().host +
                        " is behind: it has not heard of the host's latest key yet; try again "
                        "later; if it stays, join again");
    }
}

/// Sees to it that the keytab has what the domain made of the new password: an account that was
/// renamed has another salt from then on, and its version may be another than the keytab's versions
/// let expect.
void Confirm(Session& session, const DomainState& state, KeyChange& change,
             const std::vector<AccountKey>& keys, const Secret& password) {
    MachineAccounts accounts(session);
    const std::optional<LdapEntry> account = accounts.Find(state.account);
    if (!account)
        return;
    const int expected = change.Version() + 1;
    const int told = MachineAccounts::KeyVersionOf(*account);
    // A version that is not newer is that of a controller that has not heard of it yet.
    const int version = told <= change.Told() ? expected : told;
    if (AreAccepted(session.Where(), state, keys, session.End())) {
        if (version != expected)
            change.Finished(keys, version)->Commit();
        return;
    }
    // A controller that takes neither has not heard of the change, nor perhaps of a new salt.
    const std::vector<AccountKey> others = session.Kerberos().MakeKeys(state.account, password);
    if (AreAccepted(session.Where(), state, others, session.End()))
        change.Finished(others, version)->Commit();
}

/// The same on the connection that there is, or else on a new one. The key has been changed; that
/// nobody is there to confirm it changes nothing.
void TryToConfirm(Session& session, const DomainState& state, KeyChange& change,
                  const std::vector<AccountKey>& keys, const Secret& password) {
    try {
        if (session.End().Milliseconds() >= settlingTime.count()) {
            session.Extend(Deadline::In(settlingTime));
            return Confirm(session, state, change, keys, password);
        }
    } catch (const Error&) {
        // The controller may have gone meanwhile, or the connection.
    }
    try {
        session.Reconnect(Deadline::In(settlingTime));
        Confirm(session, state, change, keys, password);
    } catch (const Error&) {
        return;
    }
}

} // namespace

bool RotateKey(std::chrono::seconds minimumAge) {
    const Deadline deadline = Deadline::In(membershipTime);
    const StateLock lock(membershipLock, deadline);
    const std::optional<DomainState> state = DomainState::Load();
    if (!state && DomainState::IsDamaged())
        throw Error(Status::InternalError, std::string(DomainState::Path()) + " is damaged");
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
    PasswordChange change = StartChange(session, *state);

    KeyChange keytab(context, *state, MachineAccounts::KeyVersionOf(*account));
    keytab.Stage(keys);
    const auto finished = keytab.Finished(keys, keytab.Version() + 1);
    finished->Sync();
    try {
        change.Execute(password);
    } catch (const Error& error) {
        // The answer is lost, or it is one to a question that was repeated; the change may have
        // been made all the same. Should nobody be there to ask, the keytab has both keys, and the
        // next login finds out.
        const std::optional<bool> taken = AreTaken(session.Where(), *state, keys);
        if (taken == false && !KeyChange::MayStillHappen(error))
            keytab.TakeBack();
        if (!taken.value_or(false))
            throw;
    }
    finished->Commit();
    TryToConfirm(session, *state, keytab, keys, password);
    return true;
}

} // namespace tessary::directory
