/// What the host remembers of its membership in a domain.
#ifndef TESSARY_DIRECTORY_DOMAIN_STATE_H
#define TESSARY_DIRECTORY_DOMAIN_STATE_H

#include "files.h"
#include "names.h"

#include <optional>
#include <string>
#include <vector>

namespace tessary::directory {

/// The host's membership; the file that holds it is the truth on whether the host is joined.
struct DomainState {
    std::string domain; ///< DNS name, lower case
    std::string netbiosName;
    std::string realm;
    std::string domainSid;
    std::string account;   ///< the computer account's name, with the final '$'
    std::string accountDn; ///< where the account was when the host joined
    std::string shortName; ///< the host's names in the keytab
    std::string fullName;

    /// The complete name that the host logs in with: "WEB1$@CORP.EXAMPLE".
    std::string AccountPrincipal() const { return account + "@" + realm; }
    /// Complete names of the principals whose keys the host has: the account's and its services'.
    std::vector<std::string> KeytabPrincipals() const;

    /// Whether a text is one of the domain's two names.
    bool IsNamed(const std::string& name) const;

    /// \return the state, or nothing when the host is not joined; a damaged file says nothing about
    ///         any membership
    static std::optional<DomainState> Load();
    /// Whether there is a file and Load() can make nothing of it.
    static bool IsDamaged();
    /// Makes the file's new version; the host counts as joined once it is committed.
    void Prepare(Replacement& file) const;
    static void Remove();

    static const char* Path();
};

} // namespace tessary::directory

#endif
