/// The host's computer account in the directory.
#ifndef TESSARY_DIRECTORY_MACHINE_ACCOUNT_H
#define TESSARY_DIRECTORY_MACHINE_ACCOUNT_H

#include "names.h"
#include "secret.h"
#include "session.h"

#include <optional>
#include <string>

namespace tessary::directory {

/// A computer account found or made.
struct MachineAccount {
    std::string dn;
    bool created; ///< by us, just now
};

/// Creates and removes computer accounts. Use by one thread at a time, like its session.
class MachineAccounts {
public:
    /// \param session must outlive this
    explicit MachineAccounts(Session& session) : session_(session) {}

    /// Makes an account for a host, or takes over and enables the one that there is, wherever it
    /// is, and gives it a password.
    /// \param unit the organisational unit for a new account, as OrganizationalUnitDn() takes it;
    ///             empty for the domain's usual place
    /// \throws Error AccessDenied, NoSuchContainer, PasswordRefused, InvalidComputerName;
    ///         AccessDenied also when the name is one of a domain controller or a user
    MachineAccount Prepare(const HostNames& names, const std::string& unit, const Secret& password);

    /// The version of the account's key.
    int KeyVersion(const std::string& dn);

    /// Where an account is now, or nothing when there is none.
    /// \param accountName with the final '$'
    std::optional<std::string> Find(const std::string& accountName);

    /// Deletes an account with all that is below it.
    void Delete(const std::string& dn) { session_.Ldap().DeleteTree(dn, session_.End()); }

    /// Deletes an account that was created in vain, on a new connection if need be and in a time of
    /// its own, at most 5 seconds. An object that only has the same distinguished name stays, as
    /// does an account that somebody has put something below. What fails here is not told: why the
    /// account was created in vain is what matters.
    /// \param accountName with the final '$'
    void UndoCreation(const std::string& dn, const std::string& accountName) noexcept;

    /// Makes an account unusable and keeps it.
    void Disable(const std::string& dn);

private:
    std::optional<LdapEntry> FindEntry(const std::string& accountName);
    std::string ContainerDn(const std::string& unit);
    void DeleteIfNamed(const std::string& dn, const std::string& accountName,
                       const Deadline& toRead, const Deadline& toDelete);
    std::string Create(const HostNames& names, const std::string& container,
                       const Secret& encodedPassword);
    void Reset(const LdapEntry& account, const HostNames& names, const Secret& encodedPassword);

    Session& session_;
};

} // namespace tessary::directory

#endif
