/// Joining a domain and leaving it.
#ifndef TESSARY_DIRECTORY_MEMBERSHIP_H
#define TESSARY_DIRECTORY_MEMBERSHIP_H

#include <string>

namespace tessary::directory {

/// Joins this host to a domain with a user's rights: prepares the host's computer account, writes
/// its keys to the host's keytab and remembers the membership. Joining again to the same domain
/// gives the account a new key and enables it.
///
/// Either all of it happens or the host is left as it was: what a failed join created it removes
/// again, the account included, unless the controller is gone by then. A member that joins again
/// keeps its keys beside the new one; whichever of them the domain takes in the end will do. A
/// process that is killed on the way leaves the host not joined (at most with an account, and keys,
/// that the next join takes over).
/// \param domain the domain's DNS name
/// \param unit   where to make the account: "Servers/Hosts", a distinguished name, or empty
/// \param user   "alice", "alice@corp.example" or "CORP\alice"
/// \throws Error with any of the statuses for a person's mistakes; AlreadyJoined when the host is
///         joined to another domain
/// Thread safety: any number of threads and processes; one after the other runs.
void JoinDomain(const std::string& domain, const std::string& unit, const std::string& user,
                const char* password);

/// A domain as somebody else describes it; what is empty is not known.
struct DomainDescription {
    std::string dnsName;
    std::string netbiosName;
    std::string sid; ///< in text form
};

/// A machine account that somebody else has made for this host.
struct PreparedAccount {
    std::string name; ///< with the final '$' or without
    const char* password;
};

/// Joins this host to a domain with an account that was made for it. Nobody's rights are needed but
/// the account's own; its password is replaced by one that only this host knows. Otherwise as
/// JoinDomain(); a join that fails after the replacement leaves an account that has to be prepared
/// anew.
/// \throws Error as JoinDomain(); LogonFailure when the account or its password is not known to the
///         controller, perhaps not yet; DomainMismatch when the domain is another one than
///         described
void JoinDomainWithAccount(const DomainDescription& domain, const PreparedAccount& account);

/// Leaves the domain with a user's rights: deletes the host's computer account, or disables it
/// where that is all the user may do, then forgets the membership and the account's keys. When the
/// account can be neither deleted nor disabled, the host stays joined. A host that is not joined
/// has nothing to do.
void LeaveDomain(const std::string& user, const char* password);

/// Leaves the domain without anybody's rights: forgets the membership and the account's keys in any
/// case, and disables the account where the domain lets the host do so itself.
void LeaveDomain();

} // namespace tessary::directory

#endif
