#include "account_search.h"

#include "account_rules.h"

#include "directory/error.h"
#include "directory/machine_account.h"
#include "directory/sid.h"
#include "directory/text.h"

#include <algorithm>
#include <ctime>

namespace tessary::proxy {
namespace {

using directory::EqualNames;
using directory::Error;
using directory::EscapeFilterValue;
using directory::HostNames;
using directory::LdapEntry;
using directory::PendingSearch;
using directory::Session;
using directory::Status;

const std::vector<const char*> attributesOfAccounts = {"objectClass",
                                                       "objectGUID",
                                                       "sAMAccountName",
                                                       "userAccountControl",
                                                       "primaryGroupID",
                                                       "adminCount",
                                                       "isCriticalSystemObject",
                                                       "msDS-AllowedToDelegateTo",
                                                       "sIDHistory",
                                                       "whenCreated",
                                                       "pwdLastSet",
                                                       "dNSHostName",
                                                       "servicePrincipalName",
                                                       "msDS-SupportedEncryptionTypes",
                                                       directory::markAttribute};

// Those that a host's own account answers for, and those that people make other accounts for. Each
// is asked for by its whole name: a search for a part of it would read every account of the domain.
constexpr const char* services[] = {
    "HOST/", "RestrictedKrbHost/", "HTTP/", "cifs/", "ldap/", "nfs/", "WSMAN/", "TERMSRV/"};

std::string Equals(const std::string& attribute, const std::string& value) {
    return "(" + attribute + "=" + EscapeFilterValue(value) + ")";
}

std::string AccountsFilter(const HostNames& names) {
    std::string filter = "(|" + Equals("sAMAccountName", names.AccountName()) +
                         Equals("dNSHostName", names.fullName) +
                         Equals("msDS-AdditionalDnsHostName", names.fullName);
    for (const char* service : services)
        for (const std::string& name : {names.shortName, names.fullName})
            filter += Equals("servicePrincipalName", service + name);
    return filter + ")";
}

/// "20261121174850.0Z" in seconds since 1970; 0 when it is malformed.
std::int64_t SecondsOf(const std::string& time) {
    std::tm parts{};
    if (!strptime(time.c_str(), "%Y%m%d%H%M%S", &parts))
        return 0;
    return timegm(&parts);
}

void ExpectPlaceForAccounts(const LdapEntry& container) {
    const std::vector<std::string>& classes = container.Values("objectClass");
    const auto is = [&](const char* name) {
        return std::find(classes.begin(), classes.end(), name) != classes.end();
    };
    // Other objects may have objects below them, too, and what is one's may be the other's.
    if (!is("organizationalUnit") && !is("container"))
        throw Error(Status::NoSuchContainer, container.dn + " is no organisational unit");
}

std::optional<AccountFacts> FactsOfOnly(const std::vector<LdapEntry>& found) {
    return found.empty() ? std::nullopt : std::optional(FactsOf(found.front()));
}

} // namespace

bool AccountFacts::IsDisabled() const {
    return (control & accountDisabled) != 0;
}

std::optional<std::int64_t> AccountFacts::PasswordSetAt() const {
    constexpr std::int64_t unitsPerSecond = 10'000'000;
    constexpr std::int64_t from1601To1970 = 11'644'473'600; // seconds
    if (passwordSet <= 0)
        return std::nullopt;
    return passwordSet / unitsPerSecond - from1601To1970;
}

std::string HexOf(const std::string& bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        text += digits[static_cast<unsigned char>(c) >> 4];
        text += digits[static_cast<unsigned char>(c) & 15];
    }
    return text;
}

AccountFacts FactsOf(const LdapEntry& account) {
    AccountFacts facts;
    facts.dn = account.dn;
    facts.guid = HexOf(account.Value("objectGUID"));
    facts.mark = account.Value(directory::markAttribute);
    facts.classes = account.Values("objectClass");
    facts.control = account.Number("userAccountControl").value_or(0);
    facts.primaryGroup = account.Number("primaryGroupID").value_or(0);
    facts.adminCount = account.Number("adminCount").value_or(0) != 0;
    facts.critical = EqualNames(account.Value("isCriticalSystemObject"), "TRUE");
    facts.delegates = !account.Values("msDS-AllowedToDelegateTo").empty();
    facts.hasFormerIdentities = !account.Values("sIDHistory").empty();
    facts.created = SecondsOf(account.Value("whenCreated"));
    facts.passwordSet = account.Number("pwdLastSet").value_or(0);
    return facts;
}

Findings SearchNames(Session& session, const HostNames& names, const std::string& container) {
    directory::LdapConnection& ldap = session.Ldap();
    const directory::Controller& where = session.Where();
    Findings findings;
    // By itself: who names no such place, as often as he likes, must not leave the answers to other
    // questions behind on a session that is kept.
    const LdapEntry place = ldap.Read(container, {"objectClass"}, session.End());
    ExpectPlaceForAccounts(place);
    findings.container = place.dn;

    const PendingSearch accounts = ldap.StartSearch(where.baseDn, LDAP_SCOPE_SUBTREE,
                                                    AccountsFilter(names), attributesOfAccounts);
    const PendingSearch controllers = ldap.StartSearch(
        "CN=Sites," + where.configurationDn, LDAP_SCOPE_SUBTREE,
        "(&(objectClass=server)" + Equals("dNSHostName", names.fullName) + ")", {"cn"});
    const PendingSearch domains =
        ldap.StartSearch("CN=Partitions," + where.configurationDn, LDAP_SCOPE_ONELEVEL,
                         "(&(objectClass=crossRef)(|" + Equals("dnsRoot", names.fullName) +
                             Equals("nETBIOSName", names.account) + "))",
                         {"cn"});
    const PendingSearch trusts =
        ldap.StartSearch("CN=System," + where.baseDn, LDAP_SCOPE_ONELEVEL,
                         "(&(objectClass=trustedDomain)(|" + Equals("flatName", names.account) +
                             Equals("trustPartner", names.fullName) + "))",
                         {"cn"});
    const PendingSearch neighbours =
        ldap.StartSearch(container, LDAP_SCOPE_ONELEVEL,
                         "(&" + Equals("name", names.account) + "(!" +
                             Equals("sAMAccountName", names.AccountName()) + "))",
                         {"cn"});

    for (LdapEntry& entry : ldap.FinishSearch(accounts, session.End())) {
        if (EqualNames(entry.Value("sAMAccountName"), names.AccountName()))
            findings.account = std::move(entry);
        else
            findings.holder = entry.dn;
    }
    for (const PendingSearch& search : {controllers, domains, trusts, neighbours})
        for (const LdapEntry& entry : ldap.FinishSearch(search, session.End()))
            findings.holder = entry.dn;
    return findings;
}

std::optional<AccountFacts> FindByGuid(Session& session, const std::string& guid) {
    try {
        return FactsOf(
            session.Ldap().Read("<GUID=" + guid + ">", attributesOfAccounts, session.End()));
    } catch (const Error& error) {
        if (error.Code() != Status::NoSuchContainer)
            throw;
        return std::nullopt;
    }
}

std::optional<AccountFacts> FindByName(Session& session, const std::string& account) {
    return FactsOfOnly(session.Ldap().Search(session.Where().baseDn, LDAP_SCOPE_SUBTREE,
                                             Equals("sAMAccountName", account),
                                             attributesOfAccounts, session.End()));
}

bool IsInElevatedGroup(Session& session, const AccountFacts& account) {
    directory::LdapConnection& ldap = session.Ldap();
    // All of its groups, also those by way of others, and its primary one.
    const std::vector<std::string> groups =
        ldap.Read(account.UniqueDn(), {"tokenGroups"}, session.End()).Values("tokenGroups");
    if (groups.empty())
        throw Error(Status::AccessDenied, "cannot read which groups " + account.dn + " is in");
    if (std::any_of(groups.begin(), groups.end(), [](const std::string& group) {
            return IsElevatedGroup(directory::SidText(group));
        }))
        return true;
    std::string filter = "(&(adminCount=1)(|";
    for (const std::string& group : groups)
        filter += Equals("objectSid", group);
    return !ldap.Search(session.Where().baseDn, LDAP_SCOPE_SUBTREE, filter + "))", {"cn"},
                        session.End())
                .empty();
}

} // namespace tessary::proxy
