/// A new key for the host's account, under a keytab that never stops working.
#ifndef TESSARY_DIRECTORY_KEY_CHANGE_H
#define TESSARY_DIRECTORY_KEY_CHANGE_H

#include "domain_state.h"
#include "error.h"
#include "kerberos.h"
#include "keytab.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tessary::directory {

/// Between the moment in which the domain takes a new key and the one in which it is in the keytab,
/// a service of the host could not read a ticket made with it; and should the domain's answer get
/// lost, nobody would know which of the two keys is the right one. So the new key goes into the
/// keytab first, beside the old one, under the names of the services: they take any ticket that
/// either key fits. The account's own name, which the host logs in with, keeps the old key until
/// the domain has taken the new one. LogInAsHost() knows that there may be a newer one. (Another
/// program that logs in with the account's key is refused in the moment between the two.)
///
/// What the services have above the account's version waits: the domain may have taken it, or may
/// yet. The newest of it has the version that comes next, since many services look a key up by the
/// version that the domain wrote on the ticket; what came before it moves up, its time stamp kept.
/// A waiting key stays for a week, whatever the domain has taken since: the change may lie before a
/// controller that hangs, and nothing bounds how old it is when that one goes on.
///
/// Old keys stay as long as tickets made with them may be around: a week after the next one came.
///
/// Hold the membershipLock. Use by one thread.
class KeyChange {
public:
    /// \param context must outlive this
    /// \param told version of the key that the account has before the change, as the directory
    ///             tells; a controller that has not heard of the latest change yet is not believed
    KeyChange(krb5_context context, const DomainState& state, int told);

    /// The version that the key has before the change.
    int Version() const { return version_; }
    /// The same as the directory told it.
    int Told() const { return told_; }
    /// All who have the account's key.
    const std::vector<std::string>& Principals() const { return principals_; }

    /// Puts the new key beside the old one.
    void Stage(const std::vector<AccountKey>& newKeys);
    /// Takes the new key out again. Only for a domain that has said no: a change that has merely
    /// not been answered may still be made.
    void TakeBack();
    /// A keytab in which keys are the account's.
    /// \param newVersion old keys that are not older leave the account's own name, and wait from
    /// now
    ///                   on: controllers that know of them may still use them
    std::unique_ptr<KeytabReplacement> Finished(const std::vector<AccountKey>& newKeys,
                                                int newVersion);

    /// Whether a change that failed so may have been made, or may yet be.
    static bool MayStillHappen(const Error& error);

private:
    bool IsOfAccount(const std::string& principal) const;
    bool IsOutdated(int version) const;
    bool MayYetBeTaken(const KeyGeneration& waiting) const;
    std::vector<KeyGeneration> Waiting(const std::vector<AccountKey>& taken, int below) const;
    KeytabReplacement Kept(int below) const;
    void AddWaiting(KeytabReplacement& keytab, int first, std::vector<KeyGeneration> waiting) const;

    krb5_context context_;
    std::string accountPrincipal_;
    std::vector<std::string> principals_;
    std::vector<std::string> services_; // the same without the account itself
    int told_;
    int version_;
    std::vector<AccountKey> staged_;
    std::map<int, std::uint32_t> since_; // when each version came into the keytab
    std::int64_t now_;
};

} // namespace tessary::directory

#endif
