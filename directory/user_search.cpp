#include "user_search.h"

#include "error.h"

#include <utility>

namespace tessary::directory {
namespace {

constexpr char accountName[] = "sAMAccountName";

// The account type of people. Accounts that stand for a trust would pass for people by their class
// and their category.
constexpr char people[] = "(sAMAccountType=805306368)";

std::string Equals(const std::string& attribute, const std::string& value) {
    return "(" + attribute + "=" + EscapeFilterValue(value) + ")";
}

std::string People(const std::string& condition) {
    return "(&" + std::string(people) + condition + ")";
}

std::optional<std::string> TheOnlyOne(const std::vector<LdapEntry>& users) {
    if (users.size() > 1)
        throw Error(Status::NoSuchUser, "the name fits more than one user");
    if (users.empty() || users.front().Value(accountName).empty())
        return std::nullopt;
    return users.front().Value(accountName);
}

} // namespace

std::optional<std::string> UserSearch::ByAccountName(const std::string& name) {
    return ByAttribute(accountName, name);
}

std::optional<std::string> UserSearch::ByPrincipalName(const std::string& name) {
    return ByAttribute("userPrincipalName", name);
}

std::optional<std::string> UserSearch::ByDistinguishedName(const std::string& dn) {
    return TheOnlyOne(Search(dn, LDAP_SCOPE_BASE, people));
}

std::optional<std::string> UserSearch::ByPath(const std::vector<std::string>& levels) {
    // A level says nothing of the kind of its object, so a container and a unit may both be meant.
    std::vector<std::string> bases{session_.Where().baseDn};
    std::vector<LdapEntry> found;
    for (std::size_t i = 0; i < levels.size(); ++i) {
        const std::string named = Equals("name", levels[i]);
        const std::string filter = i + 1 == levels.size() ? People(named) : named;
        found.clear();
        for (const std::string& base : bases)
            for (LdapEntry& entry : Search(base, LDAP_SCOPE_ONELEVEL, filter))
                found.push_back(std::move(entry));
        bases.clear();
        for (const LdapEntry& entry : found)
            bases.push_back(entry.dn);
    }
    return TheOnlyOne(found);
}

std::optional<std::string> UserSearch::ByAttribute(const char* attribute,
                                                   const std::string& value) {
    return TheOnlyOne(
        Search(session_.Where().baseDn, LDAP_SCOPE_SUBTREE, People(Equals(attribute, value))));
}

std::vector<LdapEntry> UserSearch::Search(const std::string& base, int scope,
                                          const std::string& filter) {
    try {
        return session_.Ldap().Search(base, scope, filter, {accountName}, session_.End());
    } catch (const Error& error) {
        if (error.Code() == Status::NoSuchContainer) // where there is nothing there is no user
            return {};
        throw;
    }
}

} // namespace tessary::directory
