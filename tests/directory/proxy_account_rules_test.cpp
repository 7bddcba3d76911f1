// Which accounts may be given a new password, and where the proxy may write.

#include "account_place.h"
#include "account_rules.h"

#include <functional>

#include <gmock/gmock.h>

namespace tessary::proxy {
namespace {

using testing::HasSubstr;
using testing::Optional;

constexpr char hosts[] = "OU=Hosts,DC=corp,DC=example";
constexpr char host[] = "web1.corp.example";
constexpr std::int64_t now = 1'800'000'000;

constexpr std::int64_t FileTime(std::int64_t seconds) {
    return (seconds + 11'644'473'600) * 10'000'000;
}

/// A plain account that a host has taken over.
AccountFacts Plain() {
    AccountFacts account;
    account.dn = std::string("CN=WEB1,") + hosts;
    account.guid = "0123";
    account.mark = "made";
    account.classes = {"top", "person", "organizationalPerson", "user", "computer"};
    account.control = 0x1000;
    account.primaryGroup = 515;
    account.created = now - 5000;
    account.passwordSet = FileTime(now - 3600);
    return account;
}

AccountRecord Known() {
    AccountRecord record;
    record.account = "WEB1$";
    record.host = host;
    record.mark = "made";
    record.guid = "0123";
    record.state = AccountState::Taken;
    return record;
}

std::optional<std::string> Why(const AccountFacts& account,
                               const std::optional<AccountRecord>& record, int hours = 0) {
    const auto objection = WhyNotReset(account, record, host,
                                       {hosts, std::chrono::hours(hours), std::chrono::minutes(10)},
                                       std::chrono::system_clock::from_time_t(now));
    return objection ? std::optional(objection->reason) : std::nullopt;
}

TEST(ProxyAccountRules, PlainAccountIsNotElevated) {
    EXPECT_EQ(WhyElevated(Plain()), std::nullopt);
    for (const long bit : {0x2, 0x10, 0x20, 0x10000, 0x800000}) {
        AccountFacts account = Plain();
        account.control |= bit;
        EXPECT_EQ(WhyElevated(account), std::nullopt) << bit;
    }
}

TEST(ProxyAccountRules, ElevatedAccounts) {
    const struct {
        std::function<void(AccountFacts&)> change;
        const char* reason;
    } cases[] = {
        {[](AccountFacts& a) { a.control = 0x2000; }, "is a domain controller's"},
        {[](AccountFacts& a) { a.control = 0x3000; }, "is a domain controller's"},
        {[](AccountFacts& a) { a.control |= 0x4000000; }, "is a domain controller's"},
        {[](AccountFacts& a) { a.control = 0x800; }, "is a trusted domain's"},
        {[](AccountFacts& a) { a.control = 0x200; }, "is no host's"},
        {[](AccountFacts& a) { a.control = 0; }, "is no host's"},
        {[](AccountFacts& a) { a.classes.pop_back(); }, "is no host's"},
        {[](AccountFacts& a) { a.classes.push_back("msDS-GroupManagedServiceAccount"); },
         "is no host's"},
        {[](AccountFacts& a) { a.control |= 0x80000; }, "may act for users"},
        {[](AccountFacts& a) { a.control |= 0x1000000; }, "may act for users"},
        {[](AccountFacts& a) { a.delegates = true; }, "may act for users"},
        {[](AccountFacts& a) { a.adminCount = true; }, "has an administrator's rights"},
        {[](AccountFacts& a) { a.primaryGroup = 516; }, "is in no plain host's group"},
        {[](AccountFacts& a) { a.primaryGroup = 521; }, "is in no plain host's group"},
        {[](AccountFacts& a) { a.primaryGroup = 0; }, "is in no plain host's group"},
        {[](AccountFacts& a) { a.critical = true; }, "is one that the domain needs"},
        {[](AccountFacts& a) { a.hasFormerIdentities = true; },
         "has another account's rights, too"},
        {[](AccountFacts& a) { a.control |= 0x40000; }, "has settings that no plain host has"},
    };
    for (const auto& each : cases) {
        AccountFacts account = Plain();
        account.control |= 0x2; // disabled, so that nothing else speaks against it
        each.change(account);
        EXPECT_THAT(WhyElevated(account), Optional(std::string(each.reason)));
        EXPECT_THAT(Why(account, Known()), Optional(std::string(each.reason)));
    }
}

TEST(ProxyAccountRules, ElevatedGroups) {
    const std::string domain = "S-1-5-21-1-2-512-";
    for (const char* number :
         {"498", "512", "516", "517", "518", "519", "520", "521", "522", "526", "527"})
        EXPECT_TRUE(IsElevatedGroup(domain + number)) << number;
    for (const char* number : {"513", "515", "523", "525", "1512", "5120", "1104", ""})
        EXPECT_FALSE(IsElevatedGroup(domain + number)) << number;
    for (const char* group : {"S-1-5-32-544", "S-1-5-32-548", "S-1-5-32-549", "S-1-5-32-550",
                              "S-1-5-32-551", "S-1-5-32-552", "S-1-5-32-557"})
        EXPECT_TRUE(IsElevatedGroup(group)) << group;
    for (const char* group :
         {"", "S-1-5-32-545", "S-1-5-32-554", "S-1-5-32-512", "S-1-5-11", "S-1-1-0", "512"})
        EXPECT_FALSE(IsElevatedGroup(group)) << group;
}

TEST(ProxyAccountRules, OnlyTheHostOfAnAccountHearsWhyItGetsNone) {
    const AccountRules rules{hosts, std::chrono::hours(0), std::chrono::minutes(10)};
    const auto at = std::chrono::system_clock::from_time_t(now);
    EXPECT_TRUE(WhyNotReset(Plain(), Known(), host, rules, at).value().forHost);
    EXPECT_FALSE(WhyNotReset(Plain(), std::nullopt, host, rules, at).value().forHost);
    EXPECT_FALSE(WhyNotReset(Plain(), Known(), "web1.x.example", rules, at).value().forHost);
    AccountFacts elevated = Plain();
    elevated.adminCount = true;
    EXPECT_FALSE(WhyNotReset(elevated, Known(), host, rules, at).value().forHost);
    AccountFacts moved = Plain();
    moved.dn = "CN=WEB1,OU=Servers,DC=corp,DC=example";
    EXPECT_FALSE(WhyNotReset(moved, Known(), host, rules, at).value().forHost);
}

TEST(ProxyAccountRules, AccountInUse) {
    EXPECT_THAT(Why(Plain(), Known()), Optional(HasSubstr("is in use")));
}

TEST(ProxyAccountRules, AccountThatWasGivenAMomentAgo) {
    AccountRecord given = Known();
    given.state = AccountState::Given;
    given.passwordSet = Plain().passwordSet;
    const auto text = [](const std::string& time) {
        return Optional("was given to this host a moment ago: it is disabled in " + time +
                        " unless the host takes it over, the host can ask again then, and an "
                        "administrator of the proxy can allow it at once with 'tesauth-apxd "
                        "release web1.corp.example'");
    };
    const struct {
        std::int64_t age; // seconds
        const char* left;
    } cases[] = {{0, "10 minutes"},  {1, "10 minutes"},  {60, "9 minutes"},
                 {479, "3 minutes"}, {480, "2 minutes"}, {540, "1 minute"},
                 {599, "1 minute"},  {600, "1 minute"},  {7200, "1 minute"}};
    for (const auto& each : cases) {
        given.started = now - each.age;
        EXPECT_THAT(Why(Plain(), given), text(each.left)) << each.age;
    }
    const AccountRules rules{hosts, std::chrono::hours(0), std::chrono::minutes(10)};
    const auto at = std::chrono::system_clock::from_time_t(now);
    EXPECT_TRUE(WhyNotReset(Plain(), given, host, rules, at).value().forHost);
    EXPECT_FALSE(WhyNotReset(Plain(), given, "web1.x.example", rules, at).value().forHost);

    given.passwordSet = FileTime(now - 3601);
    EXPECT_THAT(Why(Plain(), given), Optional(HasSubstr("is in use"))) << "its host has taken it";
    given.passwordSet = Plain().passwordSet;
    given.released = true;
    EXPECT_EQ(Why(Plain(), given), std::nullopt);
}

TEST(ProxyAccountRules, DisabledReleasedOrOld) {
    AccountFacts disabled = Plain();
    disabled.control |= 0x2;
    EXPECT_EQ(Why(disabled, Known()), std::nullopt);

    AccountRecord released = Known();
    released.released = true;
    EXPECT_EQ(Why(Plain(), released), std::nullopt);

    EXPECT_EQ(Why(Plain(), Known(), 1), std::nullopt);
    AccountFacts younger = Plain();
    younger.passwordSet = FileTime(now - 3599);
    EXPECT_THAT(Why(younger, Known(), 1), Optional(HasSubstr("is in use")));
    AccountFacts unset = Plain();
    unset.passwordSet = 0;
    EXPECT_THAT(Why(unset, Known(), 1), Optional(HasSubstr("is in use")));
}

TEST(ProxyAccountRules, OnlyOurOwn) {
    AccountFacts account = Plain();
    account.control |= 0x2;
    EXPECT_THAT(Why(account, std::nullopt), Optional(HasSubstr("has not made it")));
    account.guid = "4567";
    EXPECT_THAT(Why(account, Known()), Optional(HasSubstr("has not made it")));
    AccountRecord pending = Known();
    pending.state = AccountState::Pending;
    EXPECT_THAT(Why(account, pending), Optional(HasSubstr("has not made it")))
        << "the mark is for accounts that are not known yet";
    pending.guid = "";
    EXPECT_EQ(Why(account, pending), std::nullopt);
    pending.mark = "";
    account.mark = "";
    EXPECT_THAT(Why(account, pending), Optional(HasSubstr("has not made it")));
}

TEST(ProxyAccountRules, OnlyForItsHostAndInItsPlace) {
    AccountFacts account = Plain();
    account.control |= 0x2;
    AccountRecord other = Known();
    other.host = "web1.other.example";
    EXPECT_THAT(Why(account, other), Optional(HasSubstr("is that of another host")));
    account.dn = "CN=WEB1,OU=Servers,DC=corp,DC=example";
    EXPECT_THAT(Why(account, Known()), Optional(HasSubstr("outside")));
}

TEST(ProxyAccountRules, WhatNobodyHasGotIsDoneAgain) {
    AccountRecord pending = Known();
    pending.state = AccountState::Pending;
    pending.started = now - 3600 - 300;
    EXPECT_EQ(Why(Plain(), pending), std::nullopt) << "the reset was done";
    --pending.started;
    EXPECT_THAT(Why(Plain(), pending), Optional(HasSubstr("is in use")))
        << "somebody has set its password since";
    AccountFacts unset = Plain();
    unset.passwordSet = 0;
    EXPECT_THAT(Why(unset, pending), Optional(HasSubstr("is in use")));
    pending.mark = "other";
    EXPECT_THAT(Why(Plain(), pending), Optional(HasSubstr("is in use"))) << "it was not";

    pending.guid = "";
    pending.mark = "made";
    AccountFacts made = Plain();
    made.passwordSet = FileTime(made.created);
    EXPECT_EQ(Why(made, pending), std::nullopt);
    made.passwordSet = FileTime(made.created + 10);
    EXPECT_THAT(Why(made, pending), Optional(HasSubstr("is in use")))
        << "somebody has set its password since";
}

TEST(ProxyAccountPlace, BelowIsAMatterOfParts) {
    for (const char* dn :
         {hosts, "ou=hosts,dc=CORP,dc=example", "OU=Web,OU=Hosts,DC=corp,DC=example",
          "CN=WEB1, OU=Hosts, DC=corp, DC=example", "CN=a\\,b,OU=Hosts,DC=corp,DC=example",
          "CN=a\\2Cb,OU=\\48osts,DC=corp,DC=example"})
        EXPECT_TRUE(LiesWithin(dn, hosts)) << dn;
    for (const char* dn :
         {"", "DC=corp,DC=example", "OU=Evil\\,OU=Hosts,DC=corp,DC=example",
          "OU=Evil\\,OU=Hosts\\,DC=corp\\,DC=example", "OU=HostsX,DC=corp,DC=example",
          "OU=xHosts,DC=corp,DC=example", "CN=Hosts,DC=corp,DC=example",
          "OU=Hosts+CN=x,DC=corp,DC=example", "OU=Hosts,DC=corp,DC=example,DC=org",
          "OU=Hosts,OU=Servers,DC=corp,DC=example", "OU=#0405486f737473,DC=corp,DC=example",
          "<GUID=00112233445566778899aabbccddeeff>", "OU=Hosts", "no name"})
        EXPECT_FALSE(LiesWithin(dn, hosts)) << dn;
    EXPECT_FALSE(LiesWithin(hosts, ""));
    EXPECT_TRUE(LiesWithin("CN=x,OU=a\\,b,DC=c", "OU=a\\2cb,DC=c"));
}

} // namespace
} // namespace tessary::proxy
