// Accounts that are there already when a host asks for one.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include <functional>

namespace {

using namespace tessary;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char host[] = "web1.corp.example";
constexpr char account[] = "WEB1$";
constexpr char inUse[] = "5 the account WEB1$ is there already, and is in use: an administrator of "
                         "the proxy can let it be given a new password with "
                         "'tesauth-apxd release web1.corp.example'";
constexpr char justGiven[] =
    "5 the account WEB1$ was given to this host a moment ago: it is disabled in 10 minutes "
    "unless the host takes it over, the host can ask again then, and an administrator of the proxy "
    "can allow it at once with 'tesauth-apxd release web1.corp.example'";
constexpr char notYet[] = "1311 the controller does not know the account yet";
constexpr char notOurs[] = "the account WEB1$ is there already, and this proxy has not made it: an "
                           "administrator of the domain can delete it";

class LabProxyResets : public ProxyLab {
protected:
    static void MakeByAdmin(const std::string& container, const std::string& name = account,
                            const std::string& principal = "HTTP/none") {
        directory::Session& admin = Admin();
        admin.Ldap().Add("CN=WEB1," + container,
                         {{LDAP_MOD_ADD, "objectClass", {"computer"}},
                          {LDAP_MOD_ADD, "sAMAccountName", {name}},
                          {LDAP_MOD_ADD, "servicePrincipalName", {principal}},
                          {LDAP_MOD_ADD, "userAccountControl", {"4098"}}},
                         admin.End());
    }
    static void DeleteAccount() {
        directory::Session& admin = Admin();
        admin.Ldap().Delete(Only(account).dn, admin.End());
    }
    void Release() { proxy::ReleaseAccount(stateDirectory_, host); }
};

TEST_F(LabProxyResets, AccountInUseIsRefused) {
    Make(host);
    EXPECT_EQ(Refused(host), justGiven);
    ChangePassword(account);
    EXPECT_EQ(Refused(host), inUse);
    Pass(std::chrono::minutes(11));
    EXPECT_EQ(Refused(host), inUse);
}

TEST_F(LabProxyResets, AccountOfSomebodyElseIsRefused) {
    MakeByAdmin(hosts);
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr(notOurs));
    EXPECT_FALSE(Record(account)) << "nothing was meant to be done";
}

TEST_F(LabProxyResets, AccountWithTheNameOfOneThatWasOursIsRefused) {
    Make(host);
    DeleteAccount();
    MakeByAdmin(hosts);
    Release();
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr(notOurs));
}

TEST_F(LabProxyResets, CopiedMarkMakesNoAccountOurs) {
    Make(host);
    const std::string mark = Record(account).value().mark;
    DeleteAccount();
    MakeByAdmin(hosts);
    Change(Only(account).dn, "adminDescription", mark);
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr(notOurs));
}

TEST_F(LabProxyResets, DisabledAccountGetsANewPassword) {
    const proxy::NewAccount first = Make(host);
    const directory::LdapEntry before = Only(account);
    Change(before.dn, "description", "rack 12");
    Disable(account);
    const proxy::NewAccount second = Make(host);
    EXPECT_EQ(second.accountName, account);
    EXPECT_FALSE(Takes(account, first.password.View()));
    EXPECT_TRUE(Takes(account, second.password.View()));
    const directory::LdapEntry after = Only(account);
    EXPECT_EQ(after.Value("objectGUID"), before.Value("objectGUID"));
    EXPECT_EQ(after.Value("userAccountControl"), "4096");
    EXPECT_EQ(after.Value("description"), "rack 12");
    EXPECT_EQ(Refused(host), justGiven);
}

TEST_F(LabProxyResets, AccountThatWasMovedWithinIsStillThatOne) {
    Make(host, web);
    Disable(account);
    Make(host);
    EXPECT_EQ(Only(account).dn, std::string("CN=WEB1,") + web) << "it stays where it is";
}

TEST_F(LabProxyResets, AccountThatWasMovedAwayIsRefused) {
    Make(host);
    Disable(account);
    const lab::Result moved =
        lab::Run({std::getenv("TESAUTH_LAB"), "on", "dc1", "samba-tool", "computer", "move", "WEB1",
                  "OU=Servers,DC=corp,DC=example"});
    ASSERT_EQ(moved.status, 0) << moved.err;
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr("outside the organisational unit that this proxy "
                                                  "may write to: CN=WEB1,OU=Servers"));
}

TEST_F(LabProxyResets, AccountOfAnotherHostOfThatNameIsRefused) {
    settings_.hostDomains = {"other.example"};
    Make(host);
    Disable(account);
    Release();
    EXPECT_THAT(WhyNoNewPassword("web1.other.example"),
                HasSubstr("is that of another host, web1.corp.example"));
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyResets, AgeIsThePasswordsOwn) {
    Make(host);
    ChangePassword(account);
    Pass(std::chrono::hours(24 * 40));
    EXPECT_EQ(Refused(host), inUse) << "no age is set";
    settings_.resetAfter = std::chrono::hours(24 * 41);
    Restart();
    EXPECT_EQ(Refused(host), inUse);
    settings_.resetAfter = std::chrono::hours(24 * 39);
    Restart();
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyResets, ReleaseCountsOnce) {
    Make(host);
    ChangePassword(account);
    Release();
    EXPECT_EQ(Refused(host), "given");
    EXPECT_EQ(Refused(host), justGiven);
}

TEST_F(LabProxyResets, ReleaseIsUsedUpOnlyBySuccess) {
    Make(host);
    Release();
    interference::RefuseNextChange();
    const Answer refused = Ask(host);
    EXPECT_EQ(refused.code, 1359u);
    EXPECT_THAT(refused.detail, HasSubstr("Insufficient access"));
    EXPECT_TRUE(Record(account).value().released);
    EXPECT_EQ(Refused(host), "given");
    EXPECT_FALSE(Record(account).value().released);
}

TEST_F(LabProxyResets, NobodyIsReleasedWhoIsNotThere) {
    Make(host);
    EXPECT_THROW(proxy::ReleaseAccount(stateDirectory_, "web2.corp.example"), std::runtime_error);
    proxy::ReleaseAccount(stateDirectory_, "WEB1.corp.example");
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyResets, NewAccountInPlaceOfAReleasedOneIsNotReleased) {
    Make(host);
    Release();
    DeleteAccount();
    Make(host);
    EXPECT_EQ(Refused(host), justGiven);
}

TEST_F(LabProxyResets, AccountThatAnotherControllerMayKnowIsNotMadeTwice) {
    Make(host);
    const std::string guid = Record(account).value().guid;
    DeleteAccount();
    {
        const PdcEmulatorIsHidden hidden;
        Restart();
        EXPECT_EQ(Refused(host), notYet);
        EXPECT_EQ(Record(account).value().guid, guid);
        EXPECT_EQ(Count(account), 0u);
    }
    EXPECT_EQ(Refused(host), "given") << "the PDC emulator says that it is gone";
}

TEST_F(LabProxyResets, AccountThatMayHaveBeenMadeElsewhereIsNotMadeTwice) {
    interference::BusyFor("CN=WEB1,");
    EXPECT_EQ(Refused(host), "1311 no domain controller answers");
    interference::BusyFor("");
    const PdcEmulatorIsHidden hidden;
    Restart();
    EXPECT_EQ(Refused(host), notYet);
    EXPECT_EQ(Count(account), 0u);
    Pass(std::chrono::minutes(11));
    EXPECT_EQ(Refused(host), "given") << "nobody has the password of what was only meant";
}

TEST_F(LabProxyResets, AccountThatHasGotAnotherNameIsNotForgotten) {
    Make(host, web);
    const proxy::AccountRecord before = Record(account).value();
    const std::string dn = Only(account).dn;
    Change(dn, "sAMAccountName", "OTHER$");
    Change(dn, "dNSHostName", "other.corp.example");
    Change(dn, "servicePrincipalName", "HOST/other");
    for (const bool withdrawn : {false, true}) {
        EXPECT_THAT(WhyNoNewPassword(host), HasSubstr("has another name now: " + dn)) << withdrawn;
        EXPECT_EQ(Record(account).value().guid, before.guid) << withdrawn;
        Pass(std::chrono::minutes(16));
    }
    EXPECT_EQ(Count("OTHER$"), 0u);
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyResets, AccountThatAHostHasTakenAndThatHasGotAnotherNameBlocksNobody) {
    Make(host, web);
    ChangePassword(account);
    Pass(std::chrono::minutes(11));
    const std::string dn = Only(account).dn;
    Change(dn, "sAMAccountName", "OTHER$");
    Change(dn, "dNSHostName", "other.corp.example");
    Change(dn, "servicePrincipalName", "HOST/other");
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyResets, NameThatIsTakenInItsPlaceIsRefused) {
    MakeByAdmin(hosts, "OTHER$");
    EXPECT_EQ(Refused(host), "5 the host's name is another one's already");
    EXPECT_FALSE(Record(account)) << "nothing was meant to be done";
    EXPECT_EQ(Refused(host, web), "given") << "in another place nothing has that name";
    Disable(account);
    EXPECT_EQ(Refused(host, web), "given") << "it is no obstacle to itself";
}

TEST_F(LabProxyResets, AccountThatSomebodyElseMakesAtThatMomentIsRefused) {
    interference::BeforeNextChange([] { MakeByAdmin(hosts); });
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr("somebody else has just made it"));
}

TEST_F(LabProxyResets, NameThatSomebodyElseTakesAtThatMomentIsRefused) {
    interference::BeforeNextChange([] { MakeByAdmin(web, "OTHER$", "HOST/web1"); });
    const Answer answer = Ask(host);
    EXPECT_EQ(answer.code, 5u);
    EXPECT_EQ(answer.text, "the host's name is another one's already") << answer.detail;
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxyResets, AccountThatSomebodyElseChangesAtThatMomentIsLeftAlone) {
    for (const bool isThere : {false, true}) {
        if (isThere)
            Release();
        interference::AfterNextChange([] { Change(Only(account).dn, "adminDescription", "mine"); });
        const Answer answer = Ask(host);
        EXPECT_EQ(answer.code, 1359u) << isThere;
        EXPECT_EQ(answer.text, "the account was changed by somebody else meanwhile") << isThere;
        EXPECT_EQ(Only(account).Value("adminDescription"), "mine") << isThere;
        DeleteAccount();
        Make(host);
    }
}

TEST_F(LabProxyResets, AccountThatNobodyHasHeardOfForADayIsMadeAgain) {
    Make(host);
    ChangePassword(account);
    Pass(std::chrono::minutes(11));
    DeleteAccount();
    Pass(std::chrono::hours(25));
    const PdcEmulatorIsHidden hidden;
    Restart();
    EXPECT_EQ(Refused(host), "given");
}

struct Elevation {
    const char* name;
    std::function<void(const std::string& dn)> give;
    const char* reason;
};

class LabProxyElevated : public ProxyLab, public testing::WithParamInterface<Elevation> {
protected:
    static void Set(const std::string& dn, const char* attribute, const char* value) {
        Change(dn, attribute, value);
    }
    static void MakeGroup(const std::string& dn, const std::string& member) {
        directory::Session& admin = Admin();
        admin.Ldap().Delete(dn, admin.End());
        admin.Ldap().Add(
            dn, {{LDAP_MOD_ADD, "objectClass", {"group"}}, {LDAP_MOD_ADD, "member", {member}}},
            admin.End());
    }

public:
    static void JoinNestedGroup(const std::string& dn) {
        const std::string inner = std::string("CN=inner,CN=Users,") + base;
        const std::string outer = std::string("CN=outer,CN=Users,") + base;
        MakeGroup(inner, dn);
        MakeGroup(outer, inner);
        directory::Session& admin = Admin();
        admin.Ldap().Modify(std::string("CN=Domain Admins,CN=Users,") + base,
                            {{LDAP_MOD_ADD, "member", {outer}}}, admin.End());
    }
    static void JoinPolicyCreators(const std::string& dn) {
        directory::Session& admin = Admin();
        const std::string group = std::string("CN=Group Policy Creator Owners,CN=Users,") + base;
        admin.Ldap().Modify(group, {{LDAP_MOD_REPLACE, "adminCount", {}}}, admin.End());
        admin.Ldap().Modify(group, {{LDAP_MOD_ADD, "member", {dn}}}, admin.End());
    }
    static void SetAdminCount(const std::string& dn) { Set(dn, "adminCount", "1"); }
    static void TrustForDelegation(const std::string& dn) {
        Set(dn, "userAccountControl", "528386"); // a disabled workstation that is trusted
    }
    static void TrustToActForUsers(const std::string& dn) {
        Set(dn, "userAccountControl", "16781314"); // the same, for some services
    }
    static void AllowDelegation(const std::string& dn) {
        Set(dn, "msDS-AllowedToDelegateTo", "cifs/dc1.corp.example");
    }
    static void MakeServer(const std::string& dn) { Set(dn, "userAccountControl", "8194"); }
};

TEST_P(LabProxyElevated, AccountIsRefusedThoughItIsOursAndDisabledAndReleased) {
    Make(host);
    Disable(account);
    proxy::ReleaseAccount(stateDirectory_, host);
    GetParam().give(Only(account).dn);
    const std::string before = Only(account).Value("pwdLastSet");
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr(GetParam().reason));
    EXPECT_EQ(Only(account).Value("pwdLastSet"), before);
    EXPECT_TRUE(Record(account).value().released);
}

INSTANTIATE_TEST_SUITE_P(
    By, LabProxyElevated,
    testing::Values(
        Elevation{"NestedGroup", LabProxyElevated::JoinNestedGroup,
                  "is a member of an administrators' group"},
        Elevation{"PolicyCreators", LabProxyElevated::JoinPolicyCreators,
                  "is a member of an administrators' group"},
        Elevation{"AdminCount", LabProxyElevated::SetAdminCount, "has an administrator's rights"},
        Elevation{"Delegation", LabProxyElevated::TrustForDelegation, "may act for users"},
        Elevation{"ProtocolTransition", LabProxyElevated::TrustToActForUsers, "may act for users"},
        Elevation{"Services", LabProxyElevated::AllowDelegation, "may act for users"},
        Elevation{"ControllersAccount", LabProxyElevated::MakeServer, "is a domain controller's"}),
    [](const testing::TestParamInfo<Elevation>& instance) { return instance.param.name; });

} // namespace
