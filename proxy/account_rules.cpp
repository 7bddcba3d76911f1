#include "account_rules.h"

#include "account_place.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace tessary::proxy {
namespace {

constexpr long domainComputers = 515; // a group's number within the domain

// Bits of userAccountControl.
constexpr long trustAccount = 0x800;
constexpr long workstationAccount = 0x1000;
constexpr long controllerAccount = 0x2000;
constexpr long trustedForDelegation = 0x80000;
constexpr long trustedToActForUsers = 0x1000000;
constexpr long readOnlyController = 0x4000000;

// Disabled, locked out, no password needed, password never expires, expired.
constexpr long harmless = 0x2 | 0x10 | 0x20 | 0x10000 | 0x800000;

/// What is known of a password's age is only good to a second or so: two clocks are read, and one
/// of the times has no fractions.
constexpr std::int64_t sameTime = 2; // seconds

/// How far this host's clock and a controller's may be apart, and more than a request takes.
constexpr std::int64_t requestSpan = 300; // seconds

// Groups that every domain has, by their number in it: controllers of all kinds, administrators of
// the domain, of the forest, of its schema, keys and policies, and who publishes certificates for
// others.
constexpr std::string_view elevatedNumbers[] = {"498", "512", "516", "517", "518", "519",
                                                "520", "521", "522", "526", "527"};
// Those that are the same everywhere: administrators and operators of accounts, servers, printers
// and backups, whoever copies the directory, and whoever lets other forests in.
constexpr std::string_view elevatedGroups[] = {"S-1-5-32-544", "S-1-5-32-548", "S-1-5-32-549",
                                               "S-1-5-32-550", "S-1-5-32-551", "S-1-5-32-552",
                                               "S-1-5-32-557"};

template <std::size_t size>
bool IsAmong(const std::string_view (&list)[size], std::string_view text) {
    return std::find(std::begin(list), std::end(list), text) != std::end(list);
}

bool Has(const AccountFacts& account, long bits) {
    return (account.control & bits) != 0;
}

bool IsComputer(const AccountFacts& account) {
    const auto& classes = account.classes;
    // The accounts of managed services are computers of a kind.
    return std::find(classes.begin(), classes.end(), "computer") != classes.end() &&
           std::none_of(classes.begin(), classes.end(), [](const std::string& each) {
               return each.find("ServiceAccount") != std::string::npos;
           });
}

std::optional<std::string> If(bool holds, const char* reason) {
    return holds ? std::optional<std::string>(reason) : std::nullopt;
}

/// Why a host gets no second password while nobody has used the first one.
std::string JustGiven(const AccountRecord& record, const AccountRules& rules,
                      AccountRecords::Time now) {
    const auto end = std::chrono::system_clock::from_time_t(record.started) + rules.unusedAfter;
    const auto left = std::max<long>(std::chrono::ceil<std::chrono::minutes>(end - now).count(), 1);
    return "was given to this host a moment ago: it is disabled in " + std::to_string(left) +
           (left == 1 ? " minute" : " minutes") +
           " unless the host takes it over, the host can ask again then, and an administrator of "
           "the proxy can allow it at once with 'tesauth-apxd release " +
           record.host + "'";
}

bool IsOldEnough(const AccountFacts& account, std::chrono::hours age, AccountRecords::Time now) {
    const std::optional<std::int64_t> set = account.PasswordSetAt();
    return age.count() > 0 && set && now - std::chrono::system_clock::from_time_t(*set) >= age;
}

} // namespace

std::optional<std::string> WhyElevated(const AccountFacts& account) {
    if (Has(account, controllerAccount | readOnlyController))
        return "is a domain controller's";
    if (Has(account, trustAccount))
        return "is a trusted domain's";
    if (!IsComputer(account) || !Has(account, workstationAccount))
        return "is no host's";
    if (auto reason =
            If(Has(account, trustedForDelegation | trustedToActForUsers) || account.delegates,
               "may act for users"))
        return reason;
    if (auto reason = If(account.adminCount, "has an administrator's rights"))
        return reason;
    if (auto reason = If(account.primaryGroup != domainComputers, "is in no plain host's group"))
        return reason;
    if (auto reason = If(account.critical, "is one that the domain needs"))
        return reason;
    if (auto reason = If(account.hasFormerIdentities, "has another account's rights, too"))
        return reason;
    return If(Has(account, ~(workstationAccount | harmless)),
              "has settings that no plain host has");
}

bool IsElevatedGroup(const std::string& sid) {
    constexpr std::string_view ofADomain = "S-1-5-21-";
    if (sid.compare(0, ofADomain.size(), ofADomain) != 0)
        return IsAmong(elevatedGroups, sid);
    return IsAmong(elevatedNumbers, std::string_view(sid).substr(sid.rfind('-') + 1));
}

bool IsOurs(const AccountFacts& account, const AccountRecord& record) {
    if (!record.guid.empty())
        return record.guid == account.guid;
    return record.state == AccountState::Pending && !record.mark.empty() &&
           record.mark == account.mark;
}

bool IsDone(const AccountFacts& account, const AccountRecord& record) {
    if (record.state != AccountState::Pending || record.mark.empty() || record.mark != account.mark)
        return false;
    // Someone may have joined the host with the account in another way since: that gave it another
    // password, and left the mark.
    const std::optional<std::int64_t> set = account.PasswordSetAt();
    if (!record.guid.empty())
        return set && !IsSetSince(account, record);
    return set && *set <= account.created + sameTime;
}

bool IsSetSince(const AccountFacts& account, const AccountRecord& record) {
    const std::optional<std::int64_t> set = account.PasswordSetAt();
    return set && *set > record.started + requestSpan;
}

std::optional<Objection> WhyNotReset(const AccountFacts& account,
                                     const std::optional<AccountRecord>& record,
                                     const std::string& host, const AccountRules& rules,
                                     AccountRecords::Time now) {
    if (const std::optional<std::string> reason = WhyElevated(account))
        return Objection{*reason};
    constexpr char otherMaker[] = "is there already, and this proxy has not made it: an "
                                  "administrator of the domain can delete it";
    if (!record || !IsOurs(account, *record))
        return Objection{otherMaker};
    if (record->host != host)
        return Objection{"is that of another host, " + record->host};
    if (!LiesWithin(account.dn, rules.container))
        return Objection{"is there already, outside the organisational unit that this proxy may "
                         "write to"};
    if (IsDone(account, *record) || account.IsDisabled() || record->released ||
        IsOldEnough(account, rules.resetAfter, now))
        return std::nullopt;
    if (record->state == AccountState::Given && account.passwordSet == record->passwordSet)
        return Objection{JustGiven(*record, rules, now), true};
    return Objection{"is there already, and is in use: an administrator of the proxy can let it be "
                     "given a new password with 'tesauth-apxd release " +
                         host + "'",
                     true};
}

} // namespace tessary::proxy
