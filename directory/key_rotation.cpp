#include "key_rotation.h"

#include "error.h"
#include "key_change.h"
#include "machine_account.h"
#include "machine_login.h"
#include "password_change.h"
#include "session.h"

#include <algorithm>
#include <ctime>

namespace tessary::directory {
namespace {

constexpr std::chrono::seconds settlingTime{5};

std::chrono::seconds AgeOfKey(krb5_context context, const DomainState& state) {
    krb5_timestamp newest = 0;
    for (const KeytabKey& key : ReadHostKeys(context, {state.AccountPrincipal()}))
        newest = std::max(newest, key.name.time);
    return std::chrono::seconds(std::time(nullptr) - newest);
}

/// Whether the domain is known to take a key.
bool IsAccepted(const DomainState& state, int version, const std::vector<AccountKey>& keys) {
    try {
        const Deadline deadline = Deadline::In(settlingTime);
        const Controller controller = LocateController(state.domain, {}, deadline);
        KerberosSession kerberos(controller.realm, FinderFor(controller, deadline), deadline);
        KeytabInMemory keytab(kerberos.Context());
        keytab.Add({state.AccountPrincipal()}, version, keys);
        LogInAsMachine(kerberos, state.account, keytab.Name());
        return true;
    } catch (const Error&) {
        return false;
    }
}

} // namespace

bool RotateKey(std::chrono::seconds minimumAge) {
    const Deadline deadline = Deadline::In(membershipTime);
    const StateLock lock(membershipLock, deadline);
    const std::optional<DomainState> state = DomainState::Load();
    if (!state)
        throw Error(Status::FileNotFound, "the host is not joined to a domain");

    Session session(*state, deadline);
    const krb5_context context = session.Kerberos().Context();
    if (AgeOfKey(context, *state) < minimumAge)
        return false;
    MachineAccounts accounts(session);
    const std::optional<LdapEntry> account = accounts.Find(state->account);
    if (!account)
        throw Error(Status::NoMachineAccount, "the domain has no account " + state->account);
    const int version = MachineAccounts::KeyVersionOf(*account);
    const Secret password = MakeMachinePassword();
    const std::vector<AccountKey> keys = session.Kerberos().MakeKeys(state->account, password);
    PasswordChange change(session, state->account, std::string("FILE:") + hostKeytab);

    KeyChange keytab(context, *state, version);
    keytab.Stage(keys);
    try {
        change.Execute(password);
    } catch (const Error& error) {
        if (!KeyChange::MayStillHappen(error)) {
            keytab.TakeBack();
            throw;
        }
        // The answer is lost, the change perhaps not. Should nobody be there to ask, the keytab has
        // both keys, and the next login finds out.
        if (!IsAccepted(*state, version + 1, keys))
            throw;
    }
    keytab.Finish(keys);
    return true;
}

} // namespace tessary::directory
