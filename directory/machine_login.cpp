#include "machine_login.h"

#include "error.h"
#include "keytab.h"
#include "session.h"

#include <functional>
#include <map>
#include <optional>

namespace tessary::directory {
namespace {

/// The account's keys of one version.
struct VersionedKeys {
    int version;
    std::vector<AccountKey> keys;
};

/// What the keytab has under any of the host's names, the newest first.
std::vector<VersionedKeys> HostKeysByVersion(krb5_context context, const DomainState& state) {
    struct Holding {
        std::string holder; // of several, since each has the same keys
        std::vector<AccountKey> keys;
    };
    std::map<int, Holding, std::greater<>> holdings;
    for (KeytabKey& key : ReadHostKeys(context, state.KeytabPrincipals())) {
        Holding& holding = holdings[key.name.version];
        if (holding.keys.empty())
            holding.holder = key.name.principal;
        if (holding.holder == key.name.principal)
            holding.keys.push_back(std::move(key.key));
    }
    std::vector<VersionedKeys> all;
    for (auto& [version, holding] : holdings)
        all.push_back({version, std::move(holding.keys)});
    return all;
}

int VersionOfAccount(krb5_context context, const DomainState& state) {
    return NewestVersion(ReadHostKeys(context, {state.AccountPrincipal()}));
}

void Adopt(krb5_context context, const DomainState& state, const VersionedKeys& newest) {
    if (VersionOfAccount(context, state) >= newest.version)
        return;
    KeytabReplacement keytab(context, [](const KeytabEntryName&) { return true; });
    keytab.Add({state.AccountPrincipal()}, newest.version, newest.keys);
    keytab.Commit();
}

/// Whoever holds the lock is changing the key right now, and will do this himself.
void AdoptUnlessBusy(krb5_context context, const DomainState& state, const VersionedKeys& newest) {
    try {
        const StateLock lock(membershipLock, Deadline::In(std::chrono::seconds(0)));
        Adopt(context, state, newest);
    } catch (const Error&) {
        // The next login will find it as this one did.
    }
}

} // namespace

void LogInAsMachine(KerberosSession& kerberos, const std::string& account,
                    const std::string& keytab, const char* service) {
    try {
        kerberos.LogInWithKeytab(account, keytab, service);
    } catch (const Error& error) {
        if (error.Code() == Status::WrongPassword)
            throw Error(Status::MachineKeyRejected, error.what());
        if (error.Code() == Status::NoSuchUser)
            throw Error(Status::NoMachineAccount, error.what());
        throw;
    }
}

namespace {

/// Whether these keys get an initial ticket.
bool LogsIn(KerberosSession& kerberos, const DomainState& state,
            const std::vector<AccountKey>& keys) {
    KeytabInMemory keytab(kerberos.Context());
    keytab.Add({state.AccountPrincipal()}, 1, keys);
    try {
        LogInAsMachine(kerberos, state.account, keytab.Name());
        return true;
    } catch (const Error& error) {
        if (error.Code() != Status::MachineKeyRejected)
            throw;
        return false;
    }
}

} // namespace

void LogInAsHost(KerberosSession& kerberos, const DomainState& state, const StateLock* held) {
    const krb5_context context = kerberos.Context();
    const int tried = VersionOfAccount(context, state);
    std::optional<Error> refusal;
    try {
        return LogInAsMachine(kerberos, state.account, std::string("FILE:") + hostKeytab);
    } catch (const Error& error) {
        if (error.Code() != Status::MachineKeyRejected)
            throw;
        refusal = error;
    }
    for (const VersionedKeys& other : HostKeysByVersion(context, state)) {
        if (other.version == tried)
            continue;
        if (LogsIn(kerberos, state, other.keys)) {
            if (other.version > tried)
                held ? Adopt(context, state, other) : AdoptUnlessBusy(context, state, other);
            return;
        }
        if (other.version < tried)
            break; // a controller is behind by one change, not by more
    }
    throw *refusal;
}

bool AreAccepted(const Controller& controller, const DomainState& state,
                 const std::vector<AccountKey>& keys, const Deadline& deadline) {
    KerberosSession kerberos(controller.realm, FinderFor(controller, deadline), deadline);
    return LogsIn(kerberos, state, keys);
}

} // namespace tessary::directory
