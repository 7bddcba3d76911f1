#include "machine_login.h"

#include "error.h"
#include "kerberos_owner.h"
#include "keytab.h"

#include <algorithm>

namespace tessary::directory {
namespace {

int NewestVersion(const std::vector<KeytabKey>& keys) {
    int newest = -1;
    for (const KeytabKey& key : keys)
        newest = std::max(newest, key.name.version);
    return newest;
}

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

/// Whoever is changing the key right now does this himself.
void Adopt(krb5_context context, const DomainState& state, const NewestKey& newest) {
    try {
        const StateLock lock(membershipLock, Deadline::In(std::chrono::seconds(0)));
        if (NewestVersion(ReadHostKeys(context, {state.AccountPrincipal()})) >= newest.version)
            return;
        KeytabReplacement keytab(context, [](const KeytabEntryName&) { return true; });
        keytab.Add({state.AccountPrincipal()}, newest.version, newest.keys);
        keytab.Commit();
    } catch (const Error&) {
        // The next login will find it as this one did.
    }
}

} // namespace

void LogInAsMachine(KerberosSession& kerberos, const std::string& account,
                    const std::string& keytab) {
    try {
        kerberos.LogInWithKeytab(account, keytab);
    } catch (const Error& error) {
        if (error.Code() == Status::WrongPassword)
            throw Error(Status::MachineKeyRejected, error.what());
        if (error.Code() == Status::NoSuchUser)
            throw Error(Status::NoMachineAccount, error.what());
        throw;
    }
}

void LogInAsHost(KerberosSession& kerberos, const DomainState& state) {
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
        Adopt(context, state, newest);
    }
}

} // namespace tessary::directory
