// Accounts that no host takes over.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include <thread>

namespace {

using namespace tessary;
using proxy::AccountState;
using std::chrono::hours;
using std::chrono::minutes;
using testing::HasSubstr;

constexpr char host[] = "web1.corp.example";
constexpr char account[] = "WEB1$";

using LabProxySweep = ProxyLab;

TEST_F(LabProxySweep, UnusedAccountIsRemoved) {
    Make(host);
    Pass(minutes(9));
    EXPECT_EQ(Count(account), 1u);
    Pass(minutes(2));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxySweep, TimeIsASetting) {
    settings_.unusedAfter = minutes(2);
    Make(host);
    Pass(minutes(1));
    EXPECT_EQ(Count(account), 1u);
    Pass(minutes(2));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, AccountOfAnEarlierProcessIsRemoved) {
    Make(host);
    Restart();
    Pass(minutes(11));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, AccountThatItsHostHasTakenStays) {
    Make(host);
    ChangePassword(account);
    Pass(minutes(11));
    EXPECT_EQ(Count(account), 1u);
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxySweep, AccountThatAHostHadUsedIsDisabledInstead) {
    Make(host);
    ChangePassword(account);
    proxy::ReleaseAccount(stateDirectory_, host); // before the proxy knows of the host's change
    const proxy::NewAccount again = Make(host);
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
    EXPECT_EQ(Refused(host), "given") << "disabled, it is the host's for the asking";
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
}

TEST_F(LabProxySweep, AccountThatNobodyHasUsedIsRemovedAlsoAfterAReset) {
    Make(host);
    proxy::ReleaseAccount(stateDirectory_, host);
    Make(host);
    Pass(minutes(11));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, AccountWhoseMarkIsGoneIsDisabledInstead) {
    Make(host);
    Change(Only(account).dn, "adminDescription", "mine");
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountThatWasMovedAwayIsLeftAlone) {
    Make(host);
    const lab::Result moved =
        lab::Run({std::getenv("TESAUTH_LAB"), "on", "dc1", "samba-tool", "computer", "move", "WEB1",
                  "OU=Servers,DC=corp,DC=example"});
    ASSERT_EQ(moved.status, 0) << moved.err;
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
}

TEST_F(LabProxySweep, AccountInThePlaceOfOneThatIsGoneStays) {
    Make(host);
    directory::Session& admin = Admin();
    admin.Ldap().Delete(Only(account).dn, admin.End());
    admin.Ldap().Add(std::string("CN=WEB1,") + hosts,
                     {{LDAP_MOD_ADD, "objectClass", {"computer"}},
                      {LDAP_MOD_ADD, "sAMAccountName", {account}},
                      {LDAP_MOD_ADD, "userAccountControl", {"4096"}}},
                     admin.End());
    Pass(minutes(11));
    EXPECT_EQ(Count(account), 1u);
    EXPECT_TRUE(Record(account)) << "another controller may know the first one still";
    Pass(hours(25));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxySweep, AccountWhosePasswordIsNotTheLatestYetIsLeftAlone) {
    Make(host);
    proxy::AccountRecord record = Record(account).value();
    record.passwordSet += 10'000'000;
    proxy::AccountRecords(stateDirectory_).Put(record, std::chrono::system_clock::now());
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Given);
    Pass(hours(25));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
}

TEST_F(LabProxySweep, NothingIsDeletedOnTheWordOfJustAnyController) {
    Make(host);
    {
        const FirstToKnowIsHidden hidden;
        Pass(minutes(11));
        EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
        EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
        Pass(minutes(2));
        EXPECT_EQ(Count(account), 1u);
    }
    Pass(minutes(2));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxySweep, AccountOfWhichNoOtherControllerIsHeardStaysDisabled) {
    Make(host);
    const FirstToKnowIsHidden hidden;
    Pass(minutes(11));
    Pass(hours(25));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
}

TEST_F(LabProxySweep, AccountThatAnotherControllerKnowsAsTakenIsEnabledAgain) {
    Make(host);
    {
        const FirstToKnowIsHidden hidden;
        Pass(minutes(11));
    }
    ChangePassword(account);
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxySweep, AccountThatItsHostTakesAtThatMomentStays) {
    for (const bool again : {false, true}) {
        if (again)
            proxy::ReleaseAccount(stateDirectory_, host);
        Make(host);
        interference::AfterNextChange([] { ChangePassword(account); });
        Pass(minutes(11));
        ASSERT_EQ(Count(account), 1u) << again;
        EXPECT_EQ(Only(account).Value("userAccountControl"), "4096") << again;
        EXPECT_EQ(Record(account).value().state, AccountState::Taken) << again;
    }
}

TEST_F(LabProxySweep, AccountThatIsDisabledByAnAdministratorStaysSo) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxySweep, AccountThatAlwaysFailsHoldsUpNoOther) {
    Make(host);
    Make("web2.corp.example");
    interference::BusyFor(Record(account).value().guid);
    Pass(minutes(11));
    Pass(minutes(0));
    EXPECT_EQ(Count("WEB2$"), 0u);
    EXPECT_EQ(Count(account), 1u);
    interference::BusyFor("");
    Pass(minutes(0));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, AccountThatHasGotRightsIsLeftAlone) {
    Make(host);
    Change(Only(account).dn, "adminCount", "1");
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
}

TEST_F(LabProxySweep, AccountThatCannotBeDeletedIsDisabled) {
    Make(host);
    directory::Session& admin = Admin();
    admin.Ldap().Add("CN=below," + Only(account).dn,
                     {{LDAP_MOD_ADD, "objectClass", {"serviceConnectionPoint"}}}, admin.End());
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountsAreLookedAtLaterWhenNoControllerAnswers) {
    Make(host);
    lab::Lab({"kill", "dc1"});
    Pass(minutes(11));
    EXPECT_EQ(Record(account).value().state, AccountState::Given);
    lab::Lab({"start", "dc1"});
    Pass(minutes(0));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, ProxyLooksAfterItsAccountsByItself) {
    settings_.unusedAfter = minutes(0);
    Make(host);
    End();
    const auto accounts = proxy::OpenDirectoryAccounts(settings_); // sets out at once
    for (int i = 0; i < 600 && Count(account) != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_EQ(accounts->Domain().netbiosName, "CORP");
    EXPECT_EQ(accounts->Create(host, "").accountName, account);
}

TEST_F(LabProxySweep, WhatIsDoneIsNotLookedAtAgain) {
    Make(host);
    ChangePassword(account);
    Pass(minutes(11));
    Disable(account);
    Pass(minutes(60 * 24));
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

} // namespace
