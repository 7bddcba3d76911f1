/// The names that a join deals with: of domains, users, hosts and organisational units.
#ifndef TESSARY_DIRECTORY_NAMES_H
#define TESSARY_DIRECTORY_NAMES_H

#include <string>
#include <vector>

namespace tessary::directory {

/// A domain's name as it is asked for: lower case, without a final dot.
/// \throws Error InvalidDomainName
std::string NormalizeDomainName(const std::string& name);

/// A user as written by a person: "alice", "alice@corp.example" or "CORP\alice".
struct UserName {
    std::string name;
    std::string domain; ///< empty when none was written; DNS or NetBIOS name as written

    /// \throws Error InvalidUserName
    static UserName Parse(const std::string& text);
};

/// How this host calls itself in a domain.
struct HostNames {
    std::string shortName; ///< first label of the host name, lower case
    std::string fullName;  ///< with a domain: the host's own, else the joined one; lower case
    std::string account;   ///< the computer account's name without the final '$': the short name in
                           ///< upper case; when longer than 15 characters, its first 10, a hyphen
                           ///< and 4 characters that depend on the whole name

    /// The account's name for logging in: with the final '$'.
    std::string AccountName() const { return account + "$"; }
    /// The services of a host under both its names, such as "HOST/web1".
    std::vector<std::string> ServicePrincipals() const;

    /// \throws Error InvalidComputerName when the name cannot be a computer's
    static HostNames Of(const std::string& hostName, const std::string& domain);
    /// The names of this host, by gethostname().
    static HostNames OfThisHost(const std::string& domain);
};

/// An organisational unit as written by a person, as the distinguished name that it stands for.
/// \param unit   a path from the top such as "Servers/Hosts", or a distinguished name, with the
///               domain's part or without
/// \param baseDn the domain's distinguished name
/// \throws Error NoSuchContainer when it is malformed
std::string OrganizationalUnitDn(const std::string& unit, const std::string& baseDn);

/// A value made fit for a distinguished name.
std::string EscapeDnValue(const std::string& value);

} // namespace tessary::directory

#endif
