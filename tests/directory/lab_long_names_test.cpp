// Hosts with names that are longer than a computer account's may be, and begin alike.

#include "lab_commands.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using lab::Entry;
using lab::Result;
using lab::Setting;
using lab::Values;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr std::size_t longestAccount = 15; // characters, besides the '$'

struct NamedHost {
    const char* host; // of the lab
    std::string name;
};

const std::vector<NamedHost>& Hosts() {
    static const std::vector<NamedHost> hosts{{"host1", "app-frontend-prod-01"},
                                              {"host2", "app-frontend-prod-02"}};
    return hosts;
}

/// As its administrator would: with a line in the hosts file.
void Rename(const NamedHost& host) {
    const std::string script = "hostname \"$1\" && sed -i \"s/$2/$1/g\" /etc/hosts";
    EXPECT_EQ(lab::RunOn(host.host, {"sh", "-c", script, "sh", host.name, host.host}).status, 0);
}

Entry AccountOf(const NamedHost& host) {
    const std::vector<Entry> found =
        lab::Search("dc1", Setting("DOMAIN"), "(dNSHostName=" + host.name + ".corp.example)",
                    {"sAMAccountName", "servicePrincipalName", "objectGUID"});
    EXPECT_THAT(found, SizeIs(1)) << host.name;
    return found.empty() ? Entry() : found.front();
}

std::string AccountNameOf(const Entry& account) {
    const std::vector<std::string> names = Values(account, "sAMAccountName");
    return names.empty() ? "" : names.front();
}

void ExpectAccountFits(const Entry& account, const std::string& hostName) {
    const std::string name = AccountNameOf(account);
    EXPECT_LE(name.size(), longestAccount + 1);
    EXPECT_THAT(name, EndsWith("$"));
    const std::string full = hostName + ".corp.example";
    EXPECT_THAT(Values(account, "servicePrincipalName"),
                UnorderedElementsAre("HOST/" + hostName, "HOST/" + full,
                                     "RestrictedKrbHost/" + hostName, "RestrictedKrbHost/" + full));
}

/// The host's key opens its account, and what others get for its services opens with the key.
void ExpectKeytabWorks(const NamedHost& host, const std::string& account) {
    const std::string script = "kinit -k '" + account +
                               "@CORP.EXAMPLE' && kvno -k "
                               "/etc/krb5.keytab 'host/" +
                               host.name + ".corp.example@CORP.EXAMPLE' 'host/" + host.name +
                               "@CORP.EXAMPLE' && kdestroy";
    const Result result = lab::RunOn(host.host, {"sh", "-c", script});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("keytab entry valid"));
}

TEST(LabLongNames, HostsThatBeginAlikeHaveAccountsOfTheirOwn) {
    std::vector<Entry> accounts;
    for (const NamedHost& host : Hosts()) {
        SCOPED_TRACE(host.name);
        ASSERT_GE(host.name.size(), 20u);
        lab::Lab({"fresh", host.host});
        Rename(host);
        const Result joined = lab::JoinAsAdmin(host.host);
        ASSERT_EQ(joined.status, 0) << joined.err;
        accounts.push_back(AccountOf(host));
        ExpectAccountFits(accounts.back(), host.name);
    }
    EXPECT_EQ(Hosts()[0].name.substr(0, longestAccount), Hosts()[1].name.substr(0, longestAccount));
    EXPECT_NE(AccountNameOf(accounts[0]), AccountNameOf(accounts[1]));
    EXPECT_THAT(lab::Computers("dc1", Setting("DOMAIN")), SizeIs(2));

    for (std::size_t i = 0; i < accounts.size(); ++i) {
        const NamedHost& host = Hosts()[i];
        SCOPED_TRACE(host.name);
        ExpectKeytabWorks(host, AccountNameOf(accounts[i]));
        const Result again = lab::JoinAsAdmin(host.host);
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_EQ(AccountOf(host), accounts[i]) << "the same object, unchanged but for its key";
        ExpectKeytabWorks(host, AccountNameOf(accounts[i]));
    }
    for (const NamedHost& host : Hosts()) {
        const Result left = lab::LeaveAsAdmin(host.host);
        EXPECT_EQ(left.status, 0) << left.err;
        lab::ExpectNothingLeft(host.host);
    }
    EXPECT_THAT(lab::Computers("dc1", Setting("DOMAIN")), IsEmpty());
}

} // namespace
