// The main job on a host with real domain controllers: join, ask, leave. Both sides are looked at.

#include "lab_commands.h"

#include <string>

#include <gmock/gmock.h>

namespace {

using lab::Entry;
using lab::Result;
using lab::Setting;
using lab::Words;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr char keytab[] = "/etc/krb5.keytab";
constexpr char computersContainer[] = "CN=Computers,DC=corp,DC=example";
constexpr char hostsUnit[] = "OU=Hosts,OU=Servers,DC=corp,DC=example";

class LabMainJob : public testing::Test {
protected:
    LabMainJob()
        : domain_(Setting("DOMAIN")), admin_(Setting("ADMIN")), password_(Setting("PASSWORD")) {}

    void SetUp() override {
        lab::Lab({"fresh", "host1"});
        ASSERT_THAT(lab::Computers("dc1", domain_), IsEmpty());
    }

    static Result On(const Words& words, const std::string& input = "") {
        return lab::RunOn("host1", words, input);
    }
    static Result Ctl(const Words& words, const std::string& input = "") {
        return lab::Ctl("host1", words, input);
    }

    static Result Join(const std::string& path, const std::string& user,
                       const std::string& password) {
        return Ctl({"join", path, "-U", user, "--password-stdin"}, password + "\n");
    }
    Result JoinAsAdmin(const std::string& path) const { return Join(path, admin_, password_); }
    Result LeaveAsAdmin() const {
        return Ctl({"leave", "-U", admin_, "--password-stdin"}, password_ + "\n");
    }

    /// What a verb says, which has to succeed, as text.
    static std::string Answer(const Words& words) {
        const Result result = Ctl(words);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }

    static nlohmann::json Status() { return Ctl({"status", "--json"}).Json(); }

    static void SetHostsFile(const std::string& text) {
        ASSERT_EQ(On({"tee", "/etc/hosts"}, text).status, 0);
    }

    /// The host's account as the controller has it; fails unless there is exactly one.
    Entry Account() const {
        const auto found =
            lab::Search("dc1", domain_, "(sAMAccountName=HOST1$)",
                        {"dNSHostName", "servicePrincipalName", "msDS-SupportedEncryptionTypes",
                         "userAccountControl", "objectClass", "msDS-KeyVersionNumber"});
        EXPECT_EQ(found.size(), 1u);
        return found.empty() ? Entry() : found.front();
    }

    std::string domain_;
    std::string admin_;
    std::string password_;
};

TEST_F(LabMainJob, JoinMakesTheAccountOnTheController) {
    const Result joined = JoinAsAdmin(domain_);
    EXPECT_EQ(joined.status, 0);
    EXPECT_EQ(joined.out, "joined corp.example\n");
    EXPECT_EQ(joined.err, "");

    const Entry account = Account();
    EXPECT_THAT(lab::Values(account, "dn"),
                ElementsAre(std::string("CN=HOST1,") + computersContainer));
    EXPECT_THAT(lab::Values(account, "objectClass"), testing::Contains("computer"));
    EXPECT_THAT(lab::Values(account, "dNSHostName"), ElementsAre("host1.corp.example"));
    EXPECT_THAT(lab::Values(account, "servicePrincipalName"),
                UnorderedElementsAre("HOST/host1", "HOST/host1.corp.example",
                                     "RestrictedKrbHost/host1",
                                     "RestrictedKrbHost/host1.corp.example"));
    EXPECT_THAT(lab::Values(account, "msDS-SupportedEncryptionTypes"), ElementsAre("24"));
    EXPECT_THAT(lab::Values(account, "userAccountControl"), ElementsAre("4096"));

    const Result left = LeaveAsAdmin();
    EXPECT_EQ(left.status, 0);
    EXPECT_EQ(left.out, "left corp.example\n");
    EXPECT_THAT(lab::Computers("dc1", domain_), IsEmpty());
}

TEST_F(LabMainJob, MemberAnswersAboutItsDomain) {
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    EXPECT_EQ(Answer({"store", "show"}), "None\n");
    EXPECT_EQ(Answer({"store", "activate", "Active Directory"}), "activated Active Directory\n");
    EXPECT_EQ(Answer({"store", "show"}), "Active Directory\n");
    EXPECT_EQ(Answer({"store", "list"}), "* Active Directory\n  None\n");
    EXPECT_EQ(Answer({"status"}),
              "store                         Active Directory\n"
              "domain                        corp.example\n"
              "NetBIOS name                  CORP\n"
              "organisational unit           default\n"
              "machine account               CN=HOST1,CN=Computers,DC=corp,DC=example\n"
              "preferred domain controllers  none\n"
              "domain controller             dc1.corp.example\n"
              "trust state                   good\n");
    const nlohmann::json expected = {
        {"store", "Active Directory"},
        {"joined", true},
        {"domain", "corp.example"},
        {"netbios", "CORP"},
        {"organizationalUnit", nullptr},
        {"machineAccount", std::string("CN=HOST1,") + computersContainer},
        {"preferredDomainControllers", nlohmann::json::array()},
        {"domainController", "dc1.corp.example"},
        {"trustState", {{"value", 1}, {"name", "good"}, {"live", true}}},
        {"live",
         {{"netbios", true},
          {"machineAccount", true},
          {"preferredDomainControllers", true},
          {"domainController", true},
          {"trustState", true}}},
        {"errors", nlohmann::json::object()}};
    EXPECT_EQ(Status(), expected);

    EXPECT_EQ(Answer({"trusts"}), "lab.example  LAB\n");
    EXPECT_EQ(Answer({"trust", "lab.example"}), "two-way\n");
    EXPECT_EQ(Answer({"trust", "corp.example"}), "joined domain\n");
    EXPECT_EQ(Answer({"trust", "nosuch.example"}), "none\n");
    EXPECT_EQ(Answer({"dc", "corp.example"}), "dc1.corp.example\n");
    EXPECT_EQ(Answer({"dc", "lab.example"}), "dc2.lab.example\n");

    ASSERT_EQ(LeaveAsAdmin().status, 0);
    EXPECT_EQ(Answer({"status"}), "store   Active Directory\ndomain  not joined\n");
    EXPECT_EQ(Status()["trustState"]["name"], "not joined");
    EXPECT_EQ(Ctl({"trusts"}).status, 1) << "a host without a domain knows of no trusts";
}

TEST_F(LabMainJob, OptionsAreKept) {
    const std::string option = "UserVars.ActiveDirectoryVerifyAPXCertificate";
    EXPECT_EQ(Answer({"option", "get", option}), "1\n");
    EXPECT_EQ(Answer({"option", "set", option, "0"}), option + " = 0\n");
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    EXPECT_EQ(Answer({"option", "get", option}), "0\n");
    ASSERT_EQ(LeaveAsAdmin().status, 0);
    EXPECT_EQ(Answer({"option", "get", option}), "0\n");
}

TEST_F(LabMainJob, OtherKeysAndSettingsOfTheHostStay) {
    ASSERT_EQ(On({"ktutil"}, "add_entry -password -p nfs/x@OTHER -k 3 -e aes256-cts\npw\n"
                             "wkt /etc/krb5.keytab\nq\n")
                  .status,
              0);
    ASSERT_EQ(On({"chmod", "0600", keytab}).status, 0);
    const std::string before = On({"klist", "-kteK", keytab}).out;
    ASSERT_THAT(before, HasSubstr("nfs/x@OTHER"));

    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    EXPECT_EQ(On({"stat", "-c", "%a %U", keytab}).out, "600 root\n");
    const std::string joined = On({"klist", "-kteK", keytab}).out;
    EXPECT_THAT(joined, HasSubstr(before.substr(before.rfind("   3 "))));
    EXPECT_THAT(joined, HasSubstr("HOST1$@CORP.EXAMPLE"));
    EXPECT_THAT(joined, HasSubstr("host/host1.corp.example@CORP.EXAMPLE"));
    EXPECT_NE(On({"test", "-e", "/etc/krb5.conf"}).status, 0) << "nobody asked for one";

    ASSERT_EQ(LeaveAsAdmin().status, 0);
    EXPECT_EQ(On({"klist", "-kteK", keytab}).out, before);
    EXPECT_NE(On({"test", "-e", "/etc/krb5.conf"}).status, 0);
}

TEST_F(LabMainJob, KerberosSettingsOfTheHostAreNobodysBusiness) {
    const std::string settings = "[libdefaults]\ndefault_realm = ELSEWHERE\n"
                                 "[realms]\nCORP.EXAMPLE = {\nkdc = 10.99.0.250\n}\n";
    ASSERT_EQ(On({"tee", "/etc/krb5.conf"}, settings).status, 0);
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    EXPECT_EQ(Status()["trustState"]["name"], "good");
    EXPECT_EQ(On({"cat", "/etc/krb5.conf"}).out, settings);
    EXPECT_EQ(LeaveAsAdmin().status, 0);
}

TEST_F(LabMainJob, KeysLogInWithOrdinaryTools) {
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    ASSERT_EQ(On({"tee", "/etc/krb5.conf"},
                 "[libdefaults]\nrdns = false\ndns_canonicalize_hostname = false\n")
                  .status,
              0);
    const Result login = On({"kinit", "-k", "HOST1$@CORP.EXAMPLE"});
    EXPECT_EQ(login.status, 0) << login.err;
    EXPECT_THAT(On({"klist"}).out, HasSubstr("Default principal: HOST1$@CORP.EXAMPLE"));
    // A ticket for the host is one that the host's own keys open.
    const Result service = On({"kvno", "-k", keytab, "host/host1.corp.example@CORP.EXAMPLE"});
    EXPECT_EQ(service.status, 0) << service.err;
    EXPECT_EQ(LeaveAsAdmin().status, 0);
}

TEST_F(LabMainJob, JoinGoesToTheUnitInBothSpellings) {
    for (const std::string unit : {"Servers/Hosts", hostsUnit}) {
        SCOPED_TRACE(unit);
        ASSERT_EQ(JoinAsAdmin(domain_ + "/" + unit).status, 0);
        EXPECT_THAT(lab::Values(Account(), "dn"),
                    ElementsAre(std::string("CN=HOST1,") + hostsUnit));
        EXPECT_EQ(Status()["organizationalUnit"], unit);
        EXPECT_EQ(LeaveAsAdmin().status, 0);
        EXPECT_THAT(lab::Computers("dc1", domain_), IsEmpty());
    }
}

TEST_F(LabMainJob, DelegatedRightsAreEnough) {
    const std::string password = Setting("USER_PASSWORD");
    const Result joined = Join(domain_ + "/Servers/Hosts", "joiner", password);
    EXPECT_EQ(joined.status, 0) << joined.err;
    EXPECT_THAT(lab::Values(Account(), "dn"), ElementsAre(std::string("CN=HOST1,") + hostsUnit));
    EXPECT_EQ(Status()["trustState"]["name"], "good");
    EXPECT_EQ(Join(domain_ + "/Servers/Hosts", "joiner", password).status, 0) << "once more";
    EXPECT_EQ(Status()["trustState"]["name"], "good");
    EXPECT_EQ(Ctl({"leave", "-U", "joiner", "--password-stdin"}, password + "\n").status, 0);
    EXPECT_THAT(lab::Computers("dc1", domain_), IsEmpty());
}

TEST_F(LabMainJob, SecondJoinRenewsTheFirst) {
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    const auto firstVersion = lab::Values(Account(), "msDS-KeyVersionNumber");
    const Result again = JoinAsAdmin(domain_);
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(lab::Values(Account(), "msDS-KeyVersionNumber"), firstVersion);
    EXPECT_EQ(Status()["trustState"]["name"], "good");
    EXPECT_EQ(LeaveAsAdmin().status, 0);
}

TEST_F(LabMainJob, SecondDomainIsRefusedUntilTheHostHasLeft) {
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    const std::string other = Setting("DOMAIN2");
    const Words join{"join", other, "-U", Setting("ADMIN2"), "--password-stdin", "--json"};
    const Result refused = Ctl(join, Setting("PASSWORD2") + "\n");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.Json()["error"]["code"], 2691);
    EXPECT_THAT(lab::Computers("dc2", other), IsEmpty());
    EXPECT_EQ(Status()["domain"], domain_);

    ASSERT_EQ(LeaveAsAdmin().status, 0);
    EXPECT_EQ(Ctl(join, Setting("PASSWORD2") + "\n").status, 0);
    EXPECT_THAT(lab::Computers("dc2", other), ElementsAre("HOST1$"));
    EXPECT_EQ(Status()["domain"], other);
    EXPECT_EQ(
        Ctl({"leave", "-U", Setting("ADMIN2"), "--password-stdin"}, Setting("PASSWORD2") + "\n")
            .status,
        0);
    EXPECT_THAT(lab::Computers("dc2", other), IsEmpty());
}

TEST_F(LabMainJob, HostGetsItsFullNameInTheHostsFile) {
    SetHostsFile("127.0.0.1\tlocalhost\n10.99.0.101\thost1\n");
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    EXPECT_EQ(On({"cat", "/etc/hosts"}).out,
              "127.0.0.1\tlocalhost\n10.99.0.101\thost1.corp.example host1\n");
    EXPECT_EQ(On({"getent", "hosts", "host1"}).out, "10.99.0.101     host1.corp.example host1\n");
    EXPECT_EQ(LeaveAsAdmin().status, 0);
}

TEST_F(LabMainJob, HostOfAnotherDnsDomainGetsTheSearchDomain) {
    SetHostsFile("127.0.0.1\tlocalhost\n10.99.0.101\thost1.elsewhere.example host1\n");
    ASSERT_EQ(
        On({"tee", "/etc/resolv.conf"}, "search elsewhere.example\nnameserver 10.99.0.10\n").status,
        0);
    ASSERT_EQ(JoinAsAdmin(domain_).status, 0);
    EXPECT_THAT(On({"cat", "/etc/resolv.conf"}).out,
                HasSubstr("search elsewhere.example corp.example\n"));
    EXPECT_EQ(On({"cat", "/etc/hosts"}).out,
              "127.0.0.1\tlocalhost\n10.99.0.101\thost1.elsewhere.example host1\n");
    EXPECT_EQ(LeaveAsAdmin().status, 0);
}

TEST_F(LabMainJob, HostsNameIsLeftAloneOnRequest) {
    const std::string hosts = "127.0.0.1\tlocalhost\n";
    SetHostsFile(hosts);
    const Result joined =
        Ctl({"join", domain_, "-U", admin_, "--password-stdin", "--skip-hostname-check"},
            password_ + "\n");
    EXPECT_EQ(joined.status, 0) << joined.err;
    EXPECT_EQ(On({"cat", "/etc/hosts"}).out, hosts);
    EXPECT_EQ(LeaveAsAdmin().status, 0);
}

} // namespace
