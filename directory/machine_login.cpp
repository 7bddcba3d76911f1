#include "machine_login.h"

#include "error.h"
#include "keytab.h"
#include "session.h"

#include <algorithm>

namespace tessary::directory {
namespace {

/// The newest of the keys that the keytab has under any of the host's names.
struct NewestKey {
    NewestKey(krb5_context context, const DomainState& state) {
        std::vector<KeytabKey> all = ReadHostKeys(context, state.KeytabPrincipals());
        version = NewestVersion(all);
        std::string holder; // each has the same keys
        for (KeytabKey& key : all) {
            if (key.name.version != version || (!holder.empty() && key.name.principal != holder))
                continue;
            holder = key.name.principal;
            keys.push_back(std::move(key.key));
        }
    }

    int version;
    std::vector<AccountKey> keys;
};

void Adopt(krb5_context context, const DomainState& state, const NewestKey& newest) {
    if (NewestVersion(ReadHostKeys(context, {state.AccountPrincipal()})) >= newest.version)
        return;
    KeytabReplacement keytab(context, [](const KeytabEntryName&) { return true; });
    keytab.Add({state.AccountPrincipal()}, newest.version, newest.keys);
    keytab.Commit();
}

/// Whoever holds the lock is changing the key right now, and will do this himself.
void AdoptUnlessBusy(krb5_context context, const DomainState& state, const NewestKey& newest) {
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

void LogInAsHost(KerberosSession& kerberos, const DomainState& state, const StateLock* held) {
    const krb5_context context = kerberos.Context();
    const int tried = NewestVersion(ReadHostKeys(context, {state.AccountPrincipal()}));
    try {
        LogInAsMachine(kerberos, state.account, std::string("FILE:") + hostKeytab);
    } catch (const Error& error) {
        const NewestKey newest(context, state);
        if (error.Code() != Status::MachineKeyRejected || newest.version <= tried)
            throw;
        KeytabInMemory keytab(context);
        keytab.Add({state.AccountPrincipal()}, newest.version, newest.keys);
        LogInAsMachine(kerberos, state.account, keytab.Name());
        held ? Adopt(context, state, newest) : AdoptUnlessBusy(context, state, newest);
    }
}

bool AreAccepted(const Controller& controller, const DomainState& state,
                 const std::vector<AccountKey>& keys, const Deadline& deadline) {
    KerberosSession kerberos(controller.realm, FinderFor(controller, deadline), deadline);
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

} // namespace tessary::directory
