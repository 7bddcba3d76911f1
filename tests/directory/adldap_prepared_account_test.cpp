// Joining with an account that somebody else has made, on a host of the lab.

#include "directory/domain_state.h"
#include "directory/keytab.h"
#include "directory/machine_account.h"
#include "directory/membership.h"
#include "directory/session.h"
#include "directory/trusts.h"
#include "provider_plugin.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include <gmock/gmock.h>

namespace tessary::directory {
namespace {

using testing::UnorderedElementsAre;

constexpr char dn[] = "CN=HOST1,CN=Computers,DC=corp,DC=example";
constexpr char oneTimePassword[] = "0ne-time.Passw0rd.0ne-time.Passw0rd";

std::string Lab(const char* variable) {
    const char* value = std::getenv((std::string("TESAUTH_LAB_") + variable).c_str());
    return value ? value : "";
}

bool Exists(const char* path) {
    struct stat information {};
    return stat(path, &information) == 0;
}

Deadline End() {
    return Deadline::In(queryTime);
}

Session AdminSession() {
    return Session(LocateController(Lab("DOMAIN"), {}, End()), UserName::Parse(Lab("ADMIN")),
                   Lab("PASSWORD").c_str(), End());
}

class PreparedAccountTest : public testing::Test {
protected:
    PreparedAccountTest() {
        void* handle = dlopen("/usr/libexec/tesauth/libadldap.so", RTLD_LAZY | RTLD_GLOBAL);
        operations_ = handle ? static_cast<const ActiveDirectoryClientOperations*>(
                                   dlsym(handle, "ActiveDirectoryClientOperations"))
                             : nullptr;
    }

    void SetUp() override {
        ASSERT_NE(operations_, nullptr);
        Session session = AdminSession();
        session.Ldap().Add(dn,
                           {{LDAP_MOD_ADD, "objectClass", {"computer"}},
                            {LDAP_MOD_ADD, "sAMAccountName", {"HOST1$"}},
                            {LDAP_MOD_ADD, "userAccountControl", {"4096"}}},
                           End());
        SetPassword(oneTimePassword);
    }

    void TearDown() override {
        LeaveDomain(Lab("ADMIN"), Lab("PASSWORD").c_str());
        Session session = AdminSession();
        session.Ldap().DeleteTree(dn, End());
        EXPECT_FALSE(Exists(hostKeytab));
        EXPECT_FALSE(Exists(DomainState::Path()));
    }

    static void Change(const char* attribute, std::string_view value) {
        AdminSession().Ldap().Modify(dn, {{LDAP_MOD_REPLACE, attribute, {value}}}, End());
    }
    static void SetPassword(std::string_view password) {
        Change("unicodePwd", EncodeUnicodePassword(password).View());
    }

    static std::string DomainSid() {
        Session session = AdminSession();
        return MachineAccounts(session).LookAround("HOST1$", "").domainSid;
    }

    std::uint32_t Join(const char* account = "HOST1$", const char* password = oneTimePassword,
                       const char* netbiosName = "CORP", const char* sid = nullptr,
                       const char* domain = "corp.example") const {
        const ActiveDirectoryDomainInfo info{"", netbiosName, domain, sid ? sid : sid_.c_str()};
        const ActiveDirectoryMachineAccount machine{"host1", "corp.example", "", account, password};
        return operations_->joinDomainWithMachineAccount(&info, &machine);
    }

    /// Whether the account takes a password.
    static bool Takes(const char* password) {
        const Controller controller = LocateController(Lab("DOMAIN"), {}, End());
        KerberosSession kerberos(controller.realm, FinderFor(controller, End()), End());
        try {
            kerberos.LogIn({"HOST1$", ""}, controller.domain, password);
            return true;
        } catch (const Error& error) {
            EXPECT_EQ(error.Code(), Status::WrongPassword) << error.what();
            return false;
        }
    }

    const ActiveDirectoryClientOperations* operations_;
    const std::string sid_ = DomainSid();
};

TEST_F(PreparedAccountTest, JoinReplacesThePasswordAtOnce) {
    ASSERT_TRUE(Takes(oneTimePassword));
    ASSERT_EQ(Join(), 0u);
    EXPECT_FALSE(Takes(oneTimePassword));
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);

    const DomainState state = DomainState::Load().value();
    EXPECT_EQ(state.domain, "corp.example");
    EXPECT_EQ(state.netbiosName, "CORP");
    EXPECT_EQ(state.domainSid, sid_);
    EXPECT_EQ(state.account, "HOST1$");
    EXPECT_EQ(state.accountDn, dn);
    Session session = AdminSession();
    const LdapEntry account = session.Ldap().Read(
        state.accountDn, {"dNSHostName", "servicePrincipalName", "msDS-SupportedEncryptionTypes"},
        End());
    EXPECT_EQ(account.Value("dNSHostName"), "host1.corp.example");
    EXPECT_THAT(account.Values("servicePrincipalName"),
                UnorderedElementsAre("HOST/host1", "HOST/host1.corp.example",
                                     "RestrictedKrbHost/host1",
                                     "RestrictedKrbHost/host1.corp.example"));
    EXPECT_EQ(account.Value("msDS-SupportedEncryptionTypes"), "24");
}

TEST_F(PreparedAccountTest, AccountsNameIsTakenWithoutTheDollarSign) {
    ASSERT_EQ(Join("HOST1"), 0u);
    EXPECT_EQ(DomainState::Load().value().account, "HOST1$");
}

TEST_F(PreparedAccountTest, WhatIsNotKnownOfTheDomainIsNotCompared) {
    ASSERT_EQ(Join("HOST1$", oneTimePassword, "", ""), 0u);
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);
}

TEST_F(PreparedAccountTest, AccountNotKnownYetIsWorthAnotherTry) {
    EXPECT_EQ(Join("NOBODY$"), 1326u);
    EXPECT_EQ(Join("HOST1$", "not yet replicated"), 1326u);
    EXPECT_TRUE(Takes(oneTimePassword));
}

TEST_F(PreparedAccountTest, RefusalLeavesAccountAndHostAsTheyWere) {
    EXPECT_EQ(Join("HOST1$", oneTimePassword, "OTHER"), 1810u);
    EXPECT_EQ(Join("HOST1$", oneTimePassword, "CORP", "S-1-5-21-1-2-3"), 1810u);
    EXPECT_EQ(Join("HOST1$", oneTimePassword, "CORP", nullptr, "nosuch.example"), 1355u);
    EXPECT_EQ(Join(""), 87u);
    EXPECT_EQ(Join("HOST1$", nullptr), 87u);
    EXPECT_EQ(Join("HOST1$", "pa\xc3\x9fwort"), 87u) << "it could not be given back as the old one";
    EXPECT_EQ(operations_->joinDomainWithMachineAccount(nullptr, nullptr), 87u);
    Change("userAccountControl", "4098");
    EXPECT_EQ(Join(), 1331u);
    Change("userAccountControl", "4096");
    EXPECT_TRUE(Takes(oneTimePassword));
    EXPECT_FALSE(Exists(hostKeytab));
    EXPECT_FALSE(Exists(DomainState::Path()));
}

TEST_F(PreparedAccountTest, MemberMayJoinAgainSo) {
    ASSERT_EQ(Join(), 0u);
    SetPassword(oneTimePassword);
    ASSERT_EQ(TestMachineTrust(), MachineTrust::KeyRejected);
    ASSERT_EQ(Join(), 0u);
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);
}

TEST_F(PreparedAccountTest, KeytabThatCannotBeReadIsRefusedBeforeAnythingIsChanged) {
    ASSERT_EQ(std::system("echo no keytab > /etc/krb5.keytab"), 0);
    EXPECT_EQ(Join(), 1359u);
    EXPECT_TRUE(Takes(oneTimePassword));
    std::remove(hostKeytab);
}

} // namespace
} // namespace tessary::directory
