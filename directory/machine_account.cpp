#include "machine_account.h"

#include "error.h"
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

// The entry of wellKnownObjects that says where new computer accounts go.
constexpr char computersContainer[] = "B:32:AA312825768811D1ADED00C04FD8D5CD:";

std::vector<std::string_view> Views(const std::vector<std::string>& values) {
    return {values.begin(), values.end()};
}

bool SameSet(std::vector<std::string> a, std::vector<std::string> b) {
    for (auto* list : {&a, &b}) {
        std::transform(list->begin(), list->end(), list->begin(), LowerCase);
        std::sort(list->begin(), list->end());
    }
    return a == b;
}

} // namespace

MachineAccount MachineAccounts::Prepare(const HostNames& names, const std::string& unit,
                                        const Secret& password) {
    const Secret encoded = EncodeUnicodePassword(password);
    // A wrong organisational unit is told also when the account lies elsewhere already.
    const std::string container = ContainerDn(unit);
    const std::optional<LdapEntry> existing = FindEntry(names.AccountName());
    if (!existing)
        return {Create(names, container, encoded), true};
    Reset(*existing, names, encoded);
    return {existing->dn, false};
}

std::string MachineAccounts::ContainerDn(const std::string& unit) {
    const Controller& where = session_.Where();
    if (!unit.empty()) {
        const std::string dn = OrganizationalUnitDn(unit, where.baseDn);
        return session_.Ldap().Read(dn, {"objectClass"}, session_.End()).dn;
    }
    const LdapEntry base = session_.Ldap().Read(where.baseDn, {"wellKnownObjects"}, session_.End());
    for (const std::string& object : base.Values("wellKnownObjects"))
        if (EqualNames(std::string_view(object).substr(0, sizeof computersContainer - 1),
                       computersContainer))
            return object.substr(sizeof computersContainer - 1);
    return "CN=Computers," + where.baseDn;
}

std::optional<LdapEntry> MachineAccounts::FindEntry(const std::string& accountName) {
    std::vector<LdapEntry> found =
        session_.Ldap().Search(session_.Where().baseDn, LDAP_SCOPE_SUBTREE,
                               "(sAMAccountName=" + EscapeFilterValue(accountName) + ")",
                               {"userAccountControl", "dNSHostName", "servicePrincipalName",
                                "msDS-SupportedEncryptionTypes"},
                               session_.End());
    // A controller also names where other parts of the forest are; those are no entries.
    std::erase_if(found, [](const LdapEntry& entry) { return entry.dn.empty(); });
    if (found.empty())
        return std::nullopt;
    return std::move(found.front());
}

std::optional<std::string> MachineAccounts::Find(const std::string& accountName) {
    const std::optional<LdapEntry> entry = FindEntry(accountName);
    return entry ? std::optional(entry->dn) : std::nullopt;
}

std::string MachineAccounts::Create(const HostNames& names, const std::string& container,
                                    const Secret& encodedPassword) {
    const std::string dn = "CN=" + EscapeDnValue(names.account) + "," + container;
    const std::string accountName = names.AccountName();
    const std::string control = std::to_string(workstationAccount);
    const std::vector<std::string> principals = names.ServicePrincipals();
    try {
        session_.Ldap().Add(dn,
                            {{LDAP_MOD_ADD, "objectClass", {"computer"}},
                             {LDAP_MOD_ADD, "sAMAccountName", {accountName}},
                             {LDAP_MOD_ADD, "userAccountControl", {control}},
                             {LDAP_MOD_ADD, "dNSHostName", {names.fullName}},
                             {LDAP_MOD_ADD, "servicePrincipalName", Views(principals)},
                             {LDAP_MOD_ADD, "msDS-SupportedEncryptionTypes", {supportedEncryption}},
                             {LDAP_MOD_ADD, "unicodePwd", {encodedPassword.View()}}},
                            session_.End());
    } catch (const Error& error) {
        // The controller may have done its work and only the answer is lost.
        if (error.Code() == Status::TimedOut || error.Code() == Status::NoController)
            UndoCreation(dn, accountName);
        throw;
    }
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

void MachineAccounts::Reset(const LdapEntry& account, const HostNames& names,
                            const Secret& encodedPassword) {
    const long control = account.Number("userAccountControl").value_or(0);
    if ((control & workstationAccount) == 0)
        throw Error(Status::AccessDenied, account.dn + " is no workstation's account");

    // Only what is different: who may reset an account's password need not be allowed the rest.
    const std::string newControl = std::to_string(control & ~(accountDisabled | accountLocked));
    const std::vector<std::string> principals = names.ServicePrincipals();
    std::vector<LdapChange> changes;
    if (account.Value("userAccountControl") != newControl)
        changes.push_back({LDAP_MOD_REPLACE, "userAccountControl", {newControl}});
    if (!EqualNames(account.Value("dNSHostName"), names.fullName))
        changes.push_back({LDAP_MOD_REPLACE, "dNSHostName", {names.fullName}});
    if (!SameSet(account.Values("servicePrincipalName"), principals))
        changes.push_back({LDAP_MOD_REPLACE, "servicePrincipalName", Views(principals)});
    if (account.Value("msDS-SupportedEncryptionTypes") != supportedEncryption)
        changes.push_back(
            {LDAP_MOD_REPLACE, "msDS-SupportedEncryptionTypes", {supportedEncryption}});
    changes.push_back({LDAP_MOD_REPLACE, "unicodePwd", {encodedPassword.View()}});
    session_.Ldap().Modify(account.dn, changes, session_.End());
}

int MachineAccounts::KeyVersion(const std::string& dn) {
    const std::optional<long> version = session_.Ldap()
                                            .Read(dn, {"msDS-KeyVersionNumber"}, session_.End())
                                            .Number("msDS-KeyVersionNumber");
    if (!version)
        throw Error(Status::InternalError, dn + " has no key version");
    return static_cast<int>(*version);
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
