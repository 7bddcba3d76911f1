// Accounts that no host takes over.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include <stop_token>
#include <thread>

namespace {

using namespace tessary;
using proxy::AccountState;
using std::chrono::hours;
using std::chrono::minutes;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char host[] = "web1.corp.example";
constexpr char account[] = "WEB1$";

class LabProxySweep : public ProxyLab {
protected:
    static void MoveAway() {
        const lab::Result moved =
            lab::Run({std::getenv("TESAUTH_LAB"), "on", "dc1", "samba-tool", "computer", "move",
                      "WEB1", "OU=Servers,DC=corp,DC=example"});
        ASSERT_EQ(moved.status, 0) << moved.err;
    }
};

TEST_F(LabProxySweep, UnusedAccountIsRemoved) {
    Make(host);
    Pass(minutes(9));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098") << "that can be undone";
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    Pass(minutes(0));
    EXPECT_EQ(Count(account), 1u) << "a new password may still come to light";
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxySweep, HostWhosePasswordComesToLightBeforeItsAccountIsRemovedKeepsIt) {
    Make(host);
    Pass(minutes(11));
    ChangePassword(account);
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxySweep, TimeIsASetting) {
    settings_.unusedAfter = minutes(2);
    Make(host);
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountOfAnEarlierProcessIsRemoved) {
    Make(host);
    Restart();
    PassUntilUnusedAreRemoved();
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
    Make(host);
    PassUntilUnusedAreRemoved();
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
    EXPECT_EQ(Refused(host), "given") << "disabled, it is the host's for the asking";
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
}

TEST_F(LabProxySweep, AccountThatNobodyHasUsedIsRemovedAlsoAfterAReset) {
    Make(host);
    proxy::ReleaseAccount(stateDirectory_, host);
    Make(host);
    PassUntilUnusedAreRemoved();
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, AccountWhoseMarkIsGoneIsDisabledInstead) {
    Make(host);
    Change(Only(account).dn, "adminDescription", "mine");
    PassUntilUnusedAreRemoved();
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
}

TEST_F(LabProxySweep, AccountThatWasMovedAwayIsLeftAloneAndNamed) {
    Make(host);
    MoveAway();
    interference::TakeLog();
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
    EXPECT_THAT(interference::TakeLog(),
                ElementsAre("account WEB1$ of web1.corp.example: no host has changed its password, "
                            "and the one that the proxy gave it stays valid: it is left alone, "
                            "since it was moved away: CN=WEB1,OU=Servers,DC=corp,DC=example"));
}

TEST_F(LabProxySweep, AccountThatWasMovedAwayIsNotEnabledThere) {
    Make(host);
    Pass(minutes(11));
    MoveAway();
    ChangePassword(account);
    interference::TakeLog();
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
    EXPECT_THAT(interference::TakeLog(),
                ElementsAre(HasSubstr("it stays disabled, since it was moved away: CN=WEB1")));
}

TEST_F(LabProxySweep, AccountThatHasGotRightsIsNotEnabled) {
    Make(host);
    Pass(minutes(11));
    Change(Only(account).dn, "adminCount", "1");
    ChangePassword(account);
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
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
        const PdcEmulatorIsHidden hidden;
        Pass(minutes(11));
        EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
        EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
        Pass(minutes(16));
        EXPECT_EQ(Count(account), 1u);
        EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    }
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxySweep, AccountOfWhichNoOtherControllerIsHeardStaysDisabled) {
    Make(host);
    const PdcEmulatorIsHidden hidden;
    Pass(minutes(11));
    Pass(hours(25));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
}

TEST_F(LabProxySweep, AccountThatAnotherControllerKnowsAsTakenIsEnabledAgain) {
    Make(host);
    {
        const PdcEmulatorIsHidden hidden;
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
    EXPECT_EQ(Only("WEB2$").Value("userAccountControl"), "4096") << "nobody may answer at all";
    Pass(minutes(0));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Only("WEB2$").Value("userAccountControl"), "4098");
    interference::BusyFor("");
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountThatIsNeverDeletedHoldsUpNoOther) {
    Make(host);
    Make("web2.corp.example");
    Pass(minutes(11));
    interference::BusyFor(Record(account).value().guid);
    Pass(minutes(16));
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    EXPECT_EQ(Count("WEB2$"), 1u) << "nobody may answer at all";
    Pass(minutes(0));
    EXPECT_EQ(Count("WEB2$"), 0u);
    interference::BusyFor("");
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, WhatWasGivenAgainMeanwhileIsLeftAlone) {
    Make(host);
    Make("web2.corp.example");
    interference::AfterNextChange([this] { // of the first one, when both were found
        proxy::ReleaseAccount(stateDirectory_, "web2.corp.example");
        Make("web2.corp.example");
    });
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Only("WEB2$").Value("userAccountControl"), "4096");
    EXPECT_EQ(Record("WEB2$").value().state, AccountState::Given);
}

TEST_F(LabProxySweep, WhatIsBeingMadeIsLeftAlone) {
    interference::AfterNextChange([this] { Pass(minutes(2)); });
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
    EXPECT_EQ(Record(account).value().state, AccountState::Given);
}

TEST_F(LabProxySweep, EndsBetweenTwoAccounts) {
    Make(host);
    Make("web2.corp.example");
    std::stop_source stop;
    interference::AfterNextChange([&] { stop.request_stop(); });
    Advance(minutes(11));
    Keeper().Sweep(stop.get_token());
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Only("WEB2$").Value("userAccountControl"), "4096");
    Keeper().Sweep(stop.get_token());
    EXPECT_EQ(Only("WEB2$").Value("userAccountControl"), "4096");
    Keeper().Sweep();
    EXPECT_EQ(Only("WEB2$").Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountThatIsNotToBeSeenAfterItWasDisabledIsLookedAtAgain) {
    Make(host);
    const std::string guid = Record(account).value().guid;
    interference::AfterNextChange([&] { interference::HideOnce(guid); });
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, AccountThatAControllerDoesNotKnowIsAskedForAgainInMinutes) {
    Make(host);
    interference::HideOnce(Record(account).value().guid);
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    Pass(minutes(5));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountWhoseGroupsAreNotToldIsTriedAgain) {
    Make(host);
    interference::TakeLog();
    for (int i = 0; i < 3; ++i) {
        interference::HideOnce("tokenGroups");
        Pass(minutes(i == 0 ? 11 : 1));
        EXPECT_EQ(Record(account).value().state, AccountState::Given) << i;
    }
    EXPECT_THAT(interference::TakeLog(), ElementsAre("account WEB1$: cannot read which groups "
                                                     "CN=WEB1,OU=Hosts,DC=corp,DC=example is in"))
        << "it is said once";
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, ChangeThatIsRefusedForGoodIsSaidOnce) {
    Make(host);
    interference::TakeLog();
    for (int i = 0; i < 3; ++i) {
        interference::RefuseNextChange();
        Pass(minutes(i == 0 ? 11 : 1));
        EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    }
    EXPECT_THAT(interference::TakeLog(), ElementsAre(HasSubstr("Insufficient access")));
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    interference::TakeLog();
    Pass(minutes(0));
    EXPECT_THAT(interference::TakeLog(), IsEmpty());
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
    PassUntilUnusedAreRemoved();
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
}

TEST_F(LabProxySweep, AccountsAreLookedAtLaterWhenNoControllerAnswers) {
    Make(host);
    lab::Lab({"kill", "dc1"});
    interference::TakeLog();
    Pass(minutes(11));
    Pass(minutes(1));
    EXPECT_THAT(interference::TakeLog(), Contains(HasSubstr("account WEB1$: no name server ")));
    EXPECT_EQ(Record(account).value().state, AccountState::Given);
    lab::Lab({"start", "dc1"});
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountIsDeletedAWhileAfterItWasDisabledHoweverLongThatTook) {
    Make(host);
    interference::BusyFor(Record(account).value().guid);
    Pass(minutes(11));
    interference::BusyFor("");
    Pass(minutes(20));
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxySweep, AccountIsLookedAtAfterTheClockWasSetBack) {
    Make(host);
    interference::BusyFor(Record(account).value().guid);
    Pass(minutes(600));
    interference::BusyFor("");
    Pass(minutes(-589));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
}

TEST_F(LabProxySweep, AccountThatIsGoneIsForgottenAfterADayAndThatIsSaid) {
    Make(host);
    Admin().Ldap().Delete(Only(account).dn, Admin().End());
    Pass(minutes(11));
    EXPECT_TRUE(Record(account)) << "another controller may have it";
    {
        const PdcEmulatorIsHidden hidden;
        Pass(minutes(60 * 25));
        EXPECT_TRUE(Record(account)) << "as long as the one that knows best is not asked";
    }
    interference::TakeLog();
    Pass(minutes(6));
    EXPECT_FALSE(Record(account));
    EXPECT_THAT(interference::TakeLog(), ElementsAre(HasSubstr("it is not to be found")));
}

TEST_F(LabProxySweep, ProxyLooksAfterItsAccountsByItself) {
    settings_.unusedAfter = minutes(0);
    Make(host);
    End();
    const auto accounts = proxy::OpenDirectoryAccounts(settings_); // sets out at once
    const auto isEnabled = [] { return Only(account).Value("userAccountControl") == "4096"; };
    for (int i = 0; i < 600 && isEnabled(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(isEnabled());
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
