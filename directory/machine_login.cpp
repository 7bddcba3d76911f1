#include "machine_login.h"

#include "error.h"
#include "key_change.h"
#include "keytab.h"
#include "session.h"

#include <algorithm>
#include <optional>

namespace tessary::directory {

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

void LogInWithKeys(KerberosSession& kerberos, const DomainState& state,
                   const std::vector<AccountKey>& keys) {
    KeytabInMemory keytab(kerberos.Context());
    keytab.Add({state.AccountPrincipal()}, 1, keys);
    LogInAsMachine(kerberos, state.account, keytab.Name());
}

namespace {

/// Whether these keys get an initial ticket.
bool LogsIn(KerberosSession& kerberos, const DomainState& state,
            const std::vector<AccountKey>& keys) {
    try {
        LogInWithKeys(kerberos, state, keys);
        return true;
    } catch (const Error& error) {
        if (error.Code() != Status::MachineKeyRejected)
            throw;
        return false;
    }
}

/// What the host logs in with.
KeyGeneration KeysOfAccount(krb5_context context, const DomainState& state) {
    std::vector<KeyGeneration> all = ReadKeyGenerations(context, {state.AccountPrincipal()});
    return all.empty() ? KeyGeneration{-1, 0, {}} : std::move(all.back());
}

/// Puts keys in force that the domain has just taken. Whoever has put others in force meanwhile
/// knows better.
/// \param refused what the account had in the keytab
/// \param version of the accepted keys, as the domain counts
void Adopt(krb5_context context, const DomainState& state, const KeyGeneration& refused,
           const KeyGeneration& accepted, int version) {
    const KeyGeneration present = KeysOfAccount(context, state);
    if (present.version != refused.version ||
        (!present.keys.empty() && !SameKeys(present.keys, refused.keys)))
        return;
    const int before = refused.keys.empty() ? version - 1 : refused.version;
    KeyChange(context, state, before).Finished(accepted.keys, version)->Commit();
}

/// The version that services see on their tickets.
/// \param refused the version of the keys that were in force before
int VersionOfAccepted(KerberosSession& kerberos, const DomainState& state, int refused) {
    try {
        return kerberos.KeyVersionOf(state.account);
    } catch (const Error&) {
        return refused + 1; // nearly always so
    }
}

void AdoptAccepted(KerberosSession& kerberos, const DomainState& state,
                   const KeyGeneration& refused, const KeyGeneration& accepted,
                   const StateLock* held) {
    const krb5_context context = kerberos.Context();
    const int version = VersionOfAccepted(kerberos, state, refused.version);
    if (held)
        return Adopt(context, state, refused, accepted, version);
    try {
        const StateLock lock(membershipLock, Deadline::In(std::chrono::seconds(0)));
        Adopt(context, state, refused, accepted, version);
    } catch (const Error&) {
        // Whoever holds the lock is changing the key right now, and will do this himself. Else the
        // next login will find it as this one did.
    }
}

} // namespace

void LogInAsHost(KerberosSession& kerberos, const DomainState& state, const StateLock* held) {
    const krb5_context context = kerberos.Context();
    const KeyGeneration own = KeysOfAccount(context, state);
    std::optional<Error> refusal;
    try {
        if (own.keys.empty()) // this tells why
            return LogInAsMachine(kerberos, state.account, std::string("FILE:") + hostKeytab);
        return LogInWithKeys(kerberos, state, own.keys);
    } catch (const Error& error) {
        if (error.Code() != Status::MachineKeyRejected)
            throw;
        refusal = error;
    }
    const std::vector<KeyGeneration> all = ReadKeyGenerations(context, state.KeytabPrincipals());
    for (const KeyGeneration& waiting : all) // the latest question has the lowest version
        if (waiting.version > own.version && LogsIn(kerberos, state, waiting.keys))
            return AdoptAccepted(kerberos, state, own, waiting, held);
    // A controller is behind by one change, not by more.
    const auto former = std::find_if(all.rbegin(), all.rend(), [&](const KeyGeneration& each) {
        return each.version < own.version;
    });
    if (former == all.rend() || !LogsIn(kerberos, state, former->keys))
        throw *refusal;
}

bool AreAccepted(const Controller& controller, const DomainState& state,
                 const std::vector<AccountKey>& keys, const Deadline& deadline) {
    KerberosSession kerberos(controller.realm, FinderFor(controller, deadline), deadline);
    return LogsIn(kerberos, state, keys);
}

} // namespace tessary::directory
