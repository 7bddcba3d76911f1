// Accounts that the proxy makes, on a host of the lab.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include "directory/membership.h"
#include "directory/trusts.h"

#include <atomic>
#include <set>
#include <thread>
#include <vector>

namespace {

using namespace tessary;
using lab::Setting;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr std::size_t passwordSize = 40;

using LabProxyAccounts = ProxyLab;

TEST_F(LabProxyAccounts, DomainIsDescribed) {
    const proxy::DomainInfo info = Keeper().Domain();
    EXPECT_EQ(info.netbiosName, "CORP");
    EXPECT_EQ(info.dnsName, "corp.example");
    EXPECT_THAT(info.sid, StartsWith("S-1-5-21-"));

    settings_.domain = "CORP.Example.";
    EXPECT_EQ(Restart().Domain().sid, info.sid);
}

TEST_F(LabProxyAccounts, DomainIsAskedOnceForAll) {
    const int before = interference::Searches();
    Keeper().Domain();
    const int once = interference::Searches() - before;
    ASSERT_GT(once, 0);

    proxy::AccountKeeper& keeper = Restart();
    std::vector<std::thread> threads;
    std::atomic<int> answers{0};
    for (int i = 0; i < 16; ++i)
        threads.emplace_back([&] { answers += keeper.Domain().netbiosName == "CORP" ? 1 : 0; });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(answers, 16);
    EXPECT_EQ(interference::Searches() - before, 2 * once);

    lab::Lab({"cut", "dc1"});
    EXPECT_EQ(keeper.Domain().netbiosName, "CORP") << "known by now";
    lab::Lab({"join", "dc1"});
}

TEST_F(LabProxyAccounts, AccountIsMadeAsAJoinWouldMakeIt) {
    const proxy::NewAccount made = Make("web1.corp.example");
    EXPECT_EQ(made.accountName, "WEB1$");
    EXPECT_EQ(made.password.Size(), passwordSize);
    EXPECT_TRUE(Takes("WEB1$", made.password.View()));

    const directory::LdapEntry account = Only("WEB1$");
    EXPECT_EQ(account.dn, std::string("CN=WEB1,") + hosts);
    EXPECT_EQ(account.Value("userAccountControl"), "4096");
    EXPECT_EQ(account.Value("dNSHostName"), "web1.corp.example");
    EXPECT_THAT(account.Values("servicePrincipalName"),
                UnorderedElementsAre("HOST/web1", "HOST/web1.corp.example",
                                     "RestrictedKrbHost/web1",
                                     "RestrictedKrbHost/web1.corp.example"));
    EXPECT_EQ(account.Value("msDS-SupportedEncryptionTypes"), "24");
    EXPECT_EQ(account.Value("description"), "Made by tesauth-apxd for web1.corp.example");

    const auto record = Record("WEB1$");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->host, "web1.corp.example");
    EXPECT_EQ(record->state, proxy::AccountState::Given);
    EXPECT_EQ(record->mark, account.Value("adminDescription"));
    EXPECT_EQ(std::to_string(record->passwordSet), account.Value("pwdLastSet"));
}

TEST_F(LabProxyAccounts, LongNamesGetTheAccountsThatAJoinWouldGiveThem) {
    const std::string host = "a-host-with-a-long-name.corp.example";
    const proxy::NewAccount made = Make(host);
    EXPECT_EQ(made.accountName, directory::HostNames::Of(host, domain).AccountName());
    EXPECT_EQ(Only(made.accountName).Value("dNSHostName"), host);
}

TEST_F(LabProxyAccounts, EveryPasswordIsAnotherOne) {
    std::set<std::string> passwords;
    for (const char* host : {"web1.corp.example", "web2.corp.example", "web3.corp.example"})
        passwords.insert(std::string(Make(host).password.View()));
    EXPECT_EQ(passwords.size(), 3u);
}

TEST_F(LabProxyAccounts, PlaceIsTheProxysOwnOrBelow) {
    Make("web1.corp.example", hosts);
    Make("web2.corp.example", web);
    Make("web3.corp.example", "ou=web, OU=HOSTS,dc=Corp,DC=Example");
    Make("web4.corp.example", "Hosts/Web");
    EXPECT_EQ(Only("WEB1$").dn, std::string("CN=WEB1,") + hosts);
    for (const char* account : {"WEB2", "WEB3", "WEB4"})
        EXPECT_EQ(Only(std::string(account) + "$").dn, std::string("CN=") + account + "," + web);
}

TEST_F(LabProxyAccounts, AnyOtherPlaceIsRefused) {
    const std::string other = "5 this proxy makes no accounts in that organisational unit";
    for (const char* container :
         {"OU=Servers,DC=corp,DC=example", "OU=Hosts,OU=Servers,DC=corp,DC=example",
          "CN=Computers,DC=corp,DC=example", "OU=Domain Controllers,DC=corp,DC=example",
          "OU=Evil\\,OU=Hosts,DC=corp,DC=example", "OU=x\\,OU=Hosts\\,DC=corp\\,DC=example",
          "OU=x+OU=Hosts,DC=corp,DC=example", "Servers", "Servers/Hosts", "OU=HostsX", base})
        EXPECT_EQ(Refused("web1.corp.example", container), other) << container;
    for (const char* container : {"OU=Nowhere,OU=Hosts,DC=corp,DC=example", "Hosts/Nowhere"})
        EXPECT_EQ(Refused("web1.corp.example", container),
                  "87 there is no such organisational unit")
            << container;
    for (const char* container : {"=", "OU=", "Hosts//Web", "/", "Hosts\nWeb", "OU=Hosts,,",
                                  "<WKGUID=aa312825768811d1aded00c04fd8d5cd,DC=corp,DC=example>"})
        EXPECT_THAT(Refused("web1.corp.example", container),
                    testing::AnyOf("87 the organisational unit's name is malformed", other))
            << container;
    using namespace std::string_literals;
    EXPECT_EQ(Refused("web1.corp.example", "Hosts\0/Web"s),
              "87 the organisational unit's name is malformed");
    EXPECT_EQ(Count("WEB1$"), 0u);
    EXPECT_FALSE(Record("WEB1$"));
}

TEST_F(LabProxyAccounts, RefusalOfAPlaceNamesTheProxysOwnInTheLogAlone) {
    EXPECT_THAT(Ask("web1.corp.example", "Servers").detail, HasSubstr(hosts));
}

TEST_F(LabProxyAccounts, HostsOfOtherDomainsAreRefused) {
    settings_.hostDomains = {"other.example"};
    const std::string refused = "5 this proxy makes no accounts for hosts of that domain";
    for (const char* host : {"web1.attacker.net", "web1.evilcorp.example", "web1.example",
                             "web1.corp.example.attacker.net", "web1.another.example"})
        EXPECT_EQ(Refused(host), refused) << host;
    EXPECT_EQ(Count("WEB1$"), 0u);
    EXPECT_FALSE(Record("WEB1$"));
    Make("web1.sub.corp.example");
    Make("web2.other.example");
    EXPECT_EQ(Only("WEB2$").Value("dNSHostName"), "web2.other.example");
}

TEST_F(LabProxyAccounts, AccountIsNoPlaceForAnother) {
    Make("web1.corp.example");
    EXPECT_EQ(Refused("web2.corp.example", "CN=WEB1,OU=Hosts,DC=corp,DC=example"),
              "87 there is no such organisational unit");
    EXPECT_EQ(Count("WEB2$"), 0u);
}

TEST_F(LabProxyAccounts, NamesThatAreSomebodyElsesAreRefused) {
    settings_.hostDomains = {"elsewhere.example", "example"};
    directory::Session& admin = Admin();
    const std::string other = std::string("CN=OTHER,CN=Computers,") + base;
    admin.Ldap().Add(
        other,
        {{LDAP_MOD_ADD, "objectClass", {"computer"}},
         {LDAP_MOD_ADD, "sAMAccountName", {"OTHER$"}},
         {LDAP_MOD_ADD, "userAccountControl", {"4096"}},
         {LDAP_MOD_ADD, "dNSHostName", {"taken.corp.example"}},
         {LDAP_MOD_ADD,
          "servicePrincipalName",
          {"HTTP/shop.corp.example", "HOST/short", "RestrictedKrbHost/alias.corp.example"}}},
        admin.End());
    const std::string refused = "5 the host's name is another one's already";
    for (const char* host : {"taken.corp.example", "TAKEN.corp.example", "shop.corp.example",
                             "short.corp.example", "alias.corp.example", "corp.example",
                             "corp.elsewhere.example", "domaindnszones.corp.example"})
        EXPECT_EQ(Refused(host), refused) << host;
    EXPECT_THAT(Ask("shop.corp.example").detail, HasSubstr("CN=OTHER"))
        << "the log says whose, the client does not hear of it";
    EXPECT_THAT(Refused("dc1.corp.example"), StartsWith("5 "));
    EXPECT_THAT(WhyNoNewPassword("dc1.elsewhere.example"),
                StartsWith("the account DC1$ is a domain controller's"));
    EXPECT_THAT(WhyNoNewPassword("other.corp.example"), HasSubstr("this proxy has not made it"));
    for (const char* account : {"TAKEN$", "SHOP$", "SHORT$", "ALIAS$", "CORP$"})
        EXPECT_EQ(Count(account), 0u) << account;
}

TEST_F(LabProxyAccounts, NamesThatAreNoHostsAreRefused) {
    for (const char* host : {"", "*)(objectClass=*", "web1,OU=Servers", "web1\\2a.corp.example",
                             "localhost", "-web.corp.example", "we b.corp.example"})
        EXPECT_EQ(Refused(host), "87 the host's name cannot be a computer's") << host;
}

TEST_F(LabProxyAccounts, OfRequestsForOneHostAtOnceOneIsServed) {
    std::atomic<int> given{0}, refused{0};
    std::vector<std::thread> threads;
    proxy::AccountKeeper& keeper = Keeper();
    for (int i = 0; i < 12; ++i)
        threads.emplace_back([&] {
            try {
                keeper.Create("web1.corp.example", "");
                ++given;
            } catch (const proxy::Refusal& refusal) {
                refused += refusal.WhichCode() == proxy::Code::NotAllowed ? 1 : 0;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(given, 1);
    EXPECT_EQ(refused, 11);
    EXPECT_EQ(Count("WEB1$"), 1u);
}

TEST_F(LabProxyAccounts, ManyHostsAtOnceAreServed) {
    constexpr int count = 60;
    std::vector<std::string> answers(count);
    std::vector<std::thread> threads;
    proxy::AccountKeeper& keeper = Keeper();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            try {
                answers[i] =
                    keeper.Create("many" + std::to_string(i) + ".corp.example", "").accountName;
            } catch (const proxy::Refusal& refusal) {
                answers[i] = std::string(refusal.what()) + refusal.Detail();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    RecordProperty("seconds", std::to_string(time.count()));
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(answers[i], "MANY" + std::to_string(i) + "$");
    EXPECT_EQ(lab::Computers("dc1", domain).size(), static_cast<std::size_t>(count));
}

TEST_F(LabProxyAccounts, AccountJoinsItsHost) {
    const proxy::NewAccount made = Make("host1.corp.example");
    const proxy::DomainInfo info = Keeper().Domain();
    const std::string password(made.password.View());
    directory::JoinDomainWithAccount({info.dnsName, info.netbiosName, info.sid},
                                     {made.accountName, password.c_str()});
    EXPECT_EQ(directory::TestMachineTrust(), directory::MachineTrust::Good);
    EXPECT_FALSE(Takes("HOST1$", password));

    Pass(std::chrono::minutes(11));
    EXPECT_EQ(directory::TestMachineTrust(), directory::MachineTrust::Good);
    EXPECT_EQ(Record("HOST1$").value().state, proxy::AccountState::Taken);
    directory::LeaveDomain(Setting("ADMIN"), Setting("PASSWORD").c_str());
}

} // namespace
