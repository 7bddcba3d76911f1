/// What the directory has under a host's names.
#ifndef TESSARY_PROXY_ACCOUNT_SEARCH_H
#define TESSARY_PROXY_ACCOUNT_SEARCH_H

#include "directory/names.h"
#include "directory/session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tessary::proxy {

/// A bit of userAccountControl.
inline constexpr long accountDisabled = 0x2;

/// A computer account as a controller describes it.
struct AccountFacts {
    std::string dn;
    std::string guid;                 ///< objectGUID in hexadecimal digits
    std::string mark;                 ///< see directory::markAttribute
    std::vector<std::string> classes; ///< of the object
    long control = 0;                 ///< userAccountControl
    long primaryGroup = 0;            ///< its number within the domain
    bool adminCount = false;          ///< guarded as a member of an administrators' group
    bool critical = false;            ///< the domain itself needs it
    bool delegates = false;           ///< may act for users at some services
    bool hasFormerIdentities = false; ///< that it has the rights of, too
    std::int64_t created = 0;         ///< in seconds since 1970
    std::int64_t passwordSet = 0;     ///< pwdLastSet, as the directory counts

    bool IsDisabled() const;
    /// When its password was set, in seconds since 1970; nothing where that is not known, or it has
    /// to be set first.
    std::optional<std::int64_t> PasswordSetAt() const;
    /// A name that stands for this very object, wherever it is moved and whatever gets its place.
    std::string UniqueDn() const { return "<GUID=" + guid + ">"; }
};

/// What is known of a host's names before anything is done.
struct Findings {
    std::string container;                       ///< where a new account goes
    std::optional<directory::LdapEntry> account; ///< the host's, wherever it is
    std::string holder; ///< what else has one of the host's names already; empty if nothing
};

/// Looks for everything that a host's names could be confused with: accounts with its names or
/// services, what else has its name in the container, domain controllers of the forest, domains of
/// the forest and those that the domain has a trust with.
/// \param container distinguished name of the place for a new account
/// \throws directory::Error NoSuchContainer when that is not there, or no place for accounts
Findings SearchNames(directory::Session& session, const directory::HostNames& names,
                     const std::string& container);

AccountFacts FactsOf(const directory::LdapEntry& account);

std::string HexOf(const std::string& bytes);

/// An account, by its objectGUID in hexadecimal digits; nothing when there is none.
std::optional<AccountFacts> FindByGuid(directory::Session& session, const std::string& guid);
/// The same by its name.
std::optional<AccountFacts> FindByName(directory::Session& session, const std::string& account);

/// Whether an account is, directly or by way of other groups, a member of a group whose members are
/// guarded as administrators, or of one of those that IsElevatedGroup() names.
/// \throws directory::Error also when the controller does not tell
bool IsInElevatedGroup(directory::Session& session, const AccountFacts& account);

} // namespace tessary::proxy

#endif
