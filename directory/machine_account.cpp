#include "machine_account.h"

#include "error.h"
#include "sid.h"
#include "text.h"

#include <algorithm>

namespace tessary::directory {
namespace {

constexpr std::chrono::milliseconds undoTime{5000};

// Bits of userAccountControl.
constexpr long accountDisabled = 0x2;
constexpr long accountLocked = 0x10;
constexpr long workstationAccount = 0x1000;

// AES, 128 and 256 bits: the kinds of encryption of the account's keys.
constexpr char supportedEncryption[] = "24";

constexpr char keyVersionAttribute[] = "msDS-KeyVersionNumber";

// The entry of wellKnownObjects that says where new computer accounts go.
constexpr char computersContainer[] = "B:32:AA312825768811D1ADED00C04FD8D5CD:";

std::vector<std::string_view> Views(const std::vector<std::string>& values) {
    return {values.begin(), values.end()};
}

std::string ComputersContainer(const LdapEntry& domain, const std::string& baseDn) {
    for (const std::string& object : domain.Values("wellKnownObjects"))
        if (EqualNames(std::string_view(object).substr(0, sizeof computersContainer - 1),
                       computersContainer))
            return object.substr(sizeof computersContainer - 1);
    return "CN=Computers," + baseDn;
}

std::string PlaceOf(const HostNames& names, const std::string& container) {
    return "CN=" + EscapeDnValue(names.account) + "," + container;
}

bool IsOfHostItself(const std::string& principal) {
    const std::string_view service = std::string_view(principal).substr(0, principal.find('/'));
    return EqualNames(service, "HOST") || EqualNames(service, "RestrictedKrbHost");
}

/// What an account's service principals are to be: the host's own, and those that an administrator
/// has registered for other services. Those of the host's former names go.
std::vector<std::string> PrincipalsFor(const LdapEntry& account, const HostNames& names) {
    std::vector<std::string> principals = names.ServicePrincipals();
    for (const std::string& principal : account.Values("servicePrincipalName"))
        if (!IsOfHostItself(principal))
            principals.push_back(principal);
    return principals;
}

/// Those of some names that are not among others.
std::vector<std::string_view> Without(const std::vector<std::string>& names,
                                      const std::vector<std::string>& others) {
    std::vector<std::string_view> rest;
    for (const std::string& name : names)
        if (std::none_of(others.begin(), others.end(),
                         [&](const std::string& other) { return EqualNames(other, name); }))
            rest.push_back(name);
    return rest;
}

void AddChange(std::vector<LdapChange>& changes, int operation, const char* attribute,
               std::vector<std::string_view> values) {
    if (!values.empty())
        changes.push_back({operation, attribute, std::move(values)});
}

} // namespace

MachineAccounts::PendingIdentity MachineAccounts::StartIdentify() {
    const Controller& where = session_.Where();
    LdapConnection& ldap = session_.Ldap();
    const auto domain = ldap.StartRead(where.baseDn, {"objectSid", "wellKnownObjects"});
    const auto names = ldap.StartSearch(
        "CN=Partitions," + where.configurationDn, LDAP_SCOPE_ONELEVEL,
        "(&(objectClass=crossRef)(nCName=" + EscapeFilterValue(where.baseDn) + ")(nETBIOSName=*))",
        {"nETBIOSName"});
    return {domain, names};
}

DomainIdentity MachineAccounts::FinishIdentify(const PendingIdentity& searches, LdapEntry* domain) {
    DomainIdentity identity;
    LdapEntry entry = session_.Ldap().FinishRead(searches.domain, session_.End());
    identity.sid = SidText(entry.Value("objectSid"));
    const auto names = session_.Ldap().FinishSearch(searches.names, session_.End());
    identity.netbiosName = names.empty() ? "" : names.front().Value("nETBIOSName");
    if (domain)
        *domain = std::move(entry);
    return identity;
}

DomainIdentity MachineAccounts::Identify() {
    return FinishIdentify(StartIdentify());
}

Surroundings MachineAccounts::LookAround(const std::string& accountName, const std::string& unit) {
    LdapConnection& ldap = session_.Ldap();
    const Controller& where = session_.Where();
    const PendingIdentity identity = StartIdentify();
    const auto account = StartFind(accountName);
    Surroundings around;
    if (!unit.empty())
        around.container =
            ldap.Read(OrganizationalUnitDn(unit, where.baseDn), {"objectClass"}, session_.End()).dn;

    LdapEntry domain;
    DomainIdentity found = FinishIdentify(identity, &domain);
    around.domainSid = std::move(found.sid);
    around.netbiosName = std::move(found.netbiosName);
    if (unit.empty())
        around.container = ComputersContainer(domain, where.baseDn);
    around.account = FinishFind(account);
    return around;
}

MachineAccount MachineAccounts::Prepare(const HostNames& names, const Surroundings& around,
                                        const Secret& password,
                                        const std::function<void()>& meanwhile) {
    const Secret encoded = EncodeUnicodePassword(password.View());
    if (!around.account)
        return {Create(names, around.container, encoded, meanwhile), true};
    Reset(*around.account, names, encoded, nullptr);
    return {around.account->dn, false};
}

PendingSearch MachineAccounts::StartFind(const std::string& accountName) {
    return session_.Ldap().StartSearch(session_.Where().baseDn, LDAP_SCOPE_SUBTREE,
                                       "(sAMAccountName=" + EscapeFilterValue(accountName) + ")",
                                       {"userAccountControl", "dNSHostName", "servicePrincipalName",
                                        "msDS-SupportedEncryptionTypes", keyVersionAttribute});
}

std::optional<LdapEntry> MachineAccounts::FinishFind(const PendingSearch& search) {
    std::vector<LdapEntry> found = session_.Ldap().FinishSearch(search, session_.End());
    return found.empty() ? std::nullopt : std::optional(std::move(found.front()));
}

std::optional<LdapEntry> MachineAccounts::Find(const std::string& accountName) {
    return FinishFind(StartFind(accountName));
}

void MachineAccounts::Add(const std::string& dn, const HostNames& names,
                          const Secret& encodedPassword, const AccountMark* mark,
                          const std::function<void()>& meanwhile) {
    const std::string accountName = names.AccountName();
    const std::string control = std::to_string(workstationAccount);
    const std::vector<std::string> principals = names.ServicePrincipals();
    std::vector<LdapChange> attributes = {
        {LDAP_MOD_ADD, "objectClass", {"computer"}},
        {LDAP_MOD_ADD, "sAMAccountName", {accountName}},
        {LDAP_MOD_ADD, "userAccountControl", {control}},
        {LDAP_MOD_ADD, "dNSHostName", {names.fullName}},
        {LDAP_MOD_ADD, "servicePrincipalName", Views(principals)},
        {LDAP_MOD_ADD, "msDS-SupportedEncryptionTypes", {supportedEncryption}},
        {LDAP_MOD_ADD, "unicodePwd", {encodedPassword.View()}}};
    if (mark) {
        attributes.push_back({LDAP_MOD_ADD, "description", {mark->description}});
        attributes.push_back({LDAP_MOD_ADD, markAttribute, {mark->mark}});
    }
    session_.Ldap().Add(dn, attributes, session_.End(), meanwhile);
}

std::string MachineAccounts::Create(const HostNames& names, const std::string& container,
                                    const Secret& encodedPassword,
                                    const std::function<void()>& meanwhile) {
    const std::string dn = PlaceOf(names, container);
    try {
        Add(dn, names, encodedPassword, nullptr, meanwhile);
    } catch (const Error& error) {
        // The controller may have done its work and only the answer is lost.
        if (error.Code() == Status::TimedOut || error.Code() == Status::NoController)
            UndoCreation(dn, names.AccountName());
        throw;
    }
    return dn;
}

std::string MachineAccounts::CreateMarked(const HostNames& names, const std::string& container,
                                          const Secret& password, const AccountMark& mark) {
    const std::string dn = PlaceOf(names, container);
    Add(dn, names, EncodeUnicodePassword(password.View()), &mark, [] {});
    return dn;
}

void MachineAccounts::DeleteIfNamed(const std::string& dn, const std::string& accountName,
                                    const Deadline& toRead, const Deadline& toDelete) {
    const LdapEntry entry = session_.Ldap().Read(dn, {"objectClass", "sAMAccountName"}, toRead);
    const std::vector<std::string>& classes = entry.Values("objectClass");
    if (EqualNames(entry.Value("sAMAccountName"), accountName) &&
        std::find(classes.begin(), classes.end(), "computer") != classes.end())
        session_.Ldap().Delete(dn, toDelete);
}

void MachineAccounts::UndoCreation(const std::string& dn, const std::string& accountName) noexcept {
    const Deadline deadline = Deadline::In(undoTime);
    try {
        // A controller that does not answer now must find no deletion when it wakes up: the account
        // may be a later join's by then. Reading comes first for that, too.
        DeleteIfNamed(dn, accountName, deadline.AtMost(undoTime / 2), deadline);
        return;
    } catch (const std::exception&) {
        // On to the next try.
    }
    try {
        session_.Reconnect(deadline);
        DeleteIfNamed(dn, accountName, deadline, deadline);
    } catch (const std::exception&) {
        // No controller is left to tell, or the account is not there.
    }
}

std::vector<LdapChange> MachineAccounts::NameChanges(const LdapEntry& account,
                                                     const HostNames& names,
                                                     const std::vector<std::string>& principals) {
    // Only what is different: who may reset an account's password need not be allowed the rest.
    std::vector<LdapChange> changes;
    if (!EqualNames(account.Value("dNSHostName"), names.fullName))
        changes.push_back({LDAP_MOD_REPLACE, "dNSHostName", {names.fullName}});
    const std::vector<std::string>& registered = account.Values("servicePrincipalName");
    AddChange(changes, LDAP_MOD_DELETE, "servicePrincipalName", Without(registered, principals));
    AddChange(changes, LDAP_MOD_ADD, "servicePrincipalName", Without(principals, registered));
    if (account.Value("msDS-SupportedEncryptionTypes") != supportedEncryption)
        changes.push_back(
            {LDAP_MOD_REPLACE, "msDS-SupportedEncryptionTypes", {supportedEncryption}});
    return changes;
}

void MachineAccounts::Reset(const LdapEntry& account, const HostNames& names,
                            const Secret& encodedPassword, const AccountMark* mark) {
    const long control = account.Number("userAccountControl").value_or(0);
    if ((control & workstationAccount) == 0)
        throw Error(Status::AccessDenied, account.dn + " is no workstation's account");

    const std::string newControl = std::to_string(control & ~(accountDisabled | accountLocked));
    const std::vector<std::string> principals = PrincipalsFor(account, names);
    std::vector<LdapChange> changes = NameChanges(account, names, principals);
    if (account.Value("userAccountControl") != newControl)
        changes.push_back({LDAP_MOD_REPLACE, "userAccountControl", {newControl}});
    if (mark)
        changes.push_back({LDAP_MOD_REPLACE, markAttribute, {mark->mark}});
    changes.push_back({LDAP_MOD_REPLACE, "unicodePwd", {encodedPassword.View()}});
    session_.Ldap().Modify(account.dn, changes, session_.End());
}

void MachineAccounts::ResetMarked(const LdapEntry& account, const HostNames& names,
                                  const Secret& password, const AccountMark& mark) {
    Reset(account, names, EncodeUnicodePassword(password.View()), &mark);
}

void MachineAccounts::ReplacePassword(const LdapEntry& own, const HostNames& names,
                                      std::string_view oldPassword, const Secret& password) {
    // The names first: should they be refused, the account is as good as it was.
    const std::vector<std::string> principals = PrincipalsFor(own, names);
    const std::vector<LdapChange> changes = NameChanges(own, names, principals);
    if (!changes.empty())
        session_.Ldap().Modify(own.dn, changes, session_.End());
    const Secret oldEncoded = EncodeUnicodePassword(oldPassword);
    const Secret newEncoded = EncodeUnicodePassword(password.View());
    session_.Ldap().Modify(own.dn,
                           {{LDAP_MOD_DELETE, "unicodePwd", {oldEncoded.View()}},
                            {LDAP_MOD_ADD, "unicodePwd", {newEncoded.View()}}},
                           session_.End());
}

int MachineAccounts::KeyVersionOf(const LdapEntry& account) {
    const std::optional<long> version = account.Number(keyVersionAttribute);
    if (!version)
        throw Error(Status::InternalError, account.dn + " has no key version");
    return static_cast<int>(*version);
}

PendingSearch MachineAccounts::StartKeyVersion(const std::string& dn) {
    return session_.Ldap().StartRead(dn, {keyVersionAttribute});
}

int MachineAccounts::FinishKeyVersion(const PendingSearch& search) {
    return KeyVersionOf(session_.Ldap().FinishRead(search, session_.End()));
}

void MachineAccounts::Disable(const std::string& dn) {
    const long control = session_.Ldap()
                             .Read(dn, {"userAccountControl"}, session_.End())
                             .Number("userAccountControl")
                             .value_or(workstationAccount);
    const std::string newControl = std::to_string(control | accountDisabled);
    session_.Ldap().Modify(dn, {{LDAP_MOD_REPLACE, "userAccountControl", {newControl}}},
                           session_.End());
}

} // namespace tessary::directory
