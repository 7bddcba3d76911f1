/// Finding a user in one domain.
#ifndef TESSARY_DIRECTORY_USER_SEARCH_H
#define TESSARY_DIRECTORY_USER_SEARCH_H

#include "session.h"
#include "user_reference.h"

#include <optional>
#include <string>
#include <vector>

namespace tessary::directory {

/// Searches the domain that a session is at, by the directory's own rules for comparing names. Only
/// people's accounts count: no computers, no accounts that stand for trusts.
///
/// Each returns the account's name as the directory spells it, or nothing when there is none. They
/// throw NoSuchUser when a name fits more than one account, and what LdapConnection throws.
class UserSearch {
public:
    /// \param session must outlive this
    explicit UserSearch(Session& session) : session_(session) {}

    std::optional<std::string> ByAccountName(const std::string& name);
    /// By the attribute of that name, which need not have anything to do with the account's name.
    std::optional<std::string> ByPrincipalName(const std::string& name);
    std::optional<std::string> ByDistinguishedName(const std::string& dn);
    /// \param levels from the domain's top to the user's own name
    std::optional<std::string> ByPath(const std::vector<std::string>& levels);

private:
    std::optional<std::string> ByAttribute(const char* attribute, const std::string& value);
    std::vector<LdapEntry> Search(const std::string& base, int scope, const std::string& filter);

    Session& session_;
};

} // namespace tessary::directory

#endif
