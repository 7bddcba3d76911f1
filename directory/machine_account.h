/// The host's computer account in the directory.
#ifndef TESSARY_DIRECTORY_MACHINE_ACCOUNT_H
#define TESSARY_DIRECTORY_MACHINE_ACCOUNT_H

#include "names.h"
#include "secret.h"
#include "session.h"

#include <functional>
#include <optional>
#include <string>

namespace tessary::directory {

/// What a join has to know of the domain before it changes anything.
struct Surroundings {
    std::string netbiosName;          ///< the domain's
    std::string domainSid;            ///< in text form
    std::string container;            ///< distinguished name of the place for a new account
    std::optional<LdapEntry> account; ///< the host's account, if there is one, wherever it is
};

/// A domain's own names.
struct DomainIdentity {
    std::string netbiosName;
    std::string sid; ///< in text form
};

/// What an account says of who made it, or gave it its password.
struct AccountMark {
    std::string description; ///< for people; an account that is taken over keeps its own
    std::string mark;        ///< for whoever made it, to know it by; see markAttribute
};

/// The attribute that holds an AccountMark's mark: one that people neither see nor use.
inline constexpr char markAttribute[] = "adminDescription";

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

    DomainIdentity Identify();

    /// \param accountName with the final '$'
    /// \param unit the organisational unit for a new account, as OrganizationalUnitDn() takes it;
    ///             empty for the domain's usual place
    /// \throws Error NoSuchContainer, also when the account lies elsewhere already
    Surroundings LookAround(const std::string& accountName, const std::string& unit);

    /// Makes an account for a host, or takes over and enables the one that there is, and gives it a
    /// password.
    /// \param meanwhile called while the controller works on a new account; it must not throw
    /// \throws Error AccessDenied, PasswordRefused, InvalidComputerName; AccessDenied also when
    ///         the name is one of a domain controller or a user
    MachineAccount Prepare(const HostNames& names, const Surroundings& around,
                           const Secret& password, const std::function<void()>& meanwhile);

    /// Makes an account with a mark. Where the answer is lost, the account may have been made all
    /// the same, and nothing is undone.
    /// \return its distinguished name
    /// \throws Error as Prepare()
    std::string CreateMarked(const HostNames& names, const std::string& container,
                             const Secret& password, const AccountMark& mark);

    /// Enables an account, and gives it a host's names, a password and a mark in one step. An
    /// answer may be lost as above.
    ///
    /// \param account with its userAccountControl, dNSHostName, servicePrincipalName and
    ///                msDS-SupportedEncryptionTypes; its name may be of the form "<GUID=...>"
    /// \throws Error as Prepare()
    void ResetMarked(const LdapEntry& account, const HostNames& names, const Secret& password,
                     const AccountMark& mark);

    /// With the rights of the account itself: gives it another password, and the host's names.
    /// \throws Error as Prepare()
    void ReplacePassword(const LdapEntry& own, const HostNames& names, std::string_view oldPassword,
                         const Secret& password);

    /// Asks for the version of an account's key, without waiting for the answer.
    PendingSearch StartKeyVersion(const std::string& dn);
    int FinishKeyVersion(const PendingSearch& search);
    /// The version of the account's key, as LookAround() or Find() read it.
    static int KeyVersionOf(const LdapEntry& account);

    /// An account, wherever it is, or nothing when there is none.
    /// \param accountName with the final '$'
    std::optional<LdapEntry> Find(const std::string& accountName);

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
    /// The searches for a domain's own names.
    struct PendingIdentity {
        PendingSearch domain;
        PendingSearch names;
    };

    PendingIdentity StartIdentify();
    DomainIdentity FinishIdentify(const PendingIdentity& searches, LdapEntry* domain = nullptr);
    PendingSearch StartFind(const std::string& accountName);
    std::optional<LdapEntry> FinishFind(const PendingSearch& search);
    void Add(const std::string& dn, const HostNames& names, const Secret& encodedPassword,
             const AccountMark* mark, const std::function<void()>& meanwhile);
    void DeleteIfNamed(const std::string& dn, const std::string& accountName,
                       const Deadline& toRead, const Deadline& toDelete);
    std::string Create(const HostNames& names, const std::string& container,
                       const Secret& encodedPassword, const std::function<void()>& meanwhile);
    static std::vector<LdapChange> NameChanges(const LdapEntry& account, const HostNames& names,
                                               const std::vector<std::string>& principals);
    void Reset(const LdapEntry& account, const HostNames& names, const Secret& encodedPassword,
               const AccountMark* mark);

    Session& session_;
};

} // namespace tessary::directory

#endif
