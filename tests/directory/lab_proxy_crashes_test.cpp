// The proxy's process is killed on the way.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

namespace {

using namespace tessary;
using interference::Point;
using proxy::AccountState;
using std::chrono::minutes;
using testing::HasSubstr;

constexpr char host[] = "web1.corp.example";
constexpr char account[] = "WEB1$";

class LabProxyCrashes : public ProxyLab {
protected:
    /// A proxy's process of its own does something, and is killed on the way.
    void DoInOneThatIsKilled(Point point, const std::function<void()>& what) {
        End(); // an open database is not for two processes
        const pid_t process = fork();
        if (process == 0) {
            interference::KillAt(point);
            Restart();
            what();
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(process, &status, 0), process);
        ASSERT_TRUE(WIFSIGNALED(status)) << "it came to its end";
    }
    /// As if what is pending had been asked for a while ago.
    void MakePendingOlder() {
        proxy::AccountRecord record = Record(account).value();
        record.started -= 600;
        proxy::AccountRecords(stateDirectory_).Put(record, std::chrono::system_clock::now());
    }
    void SweepOneThatIsKilled(Point point) {
        DoInOneThatIsKilled(point, [this] { Pass(minutes(11)); });
        Advance(minutes(11)); // for this one as well
        EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    }
    void AskOneThatIsKilled(Point point) {
        DoInOneThatIsKilled(point, [this] { Ask(host); });
        EXPECT_EQ(Record(account).value().state, AccountState::Pending);
    }
};

TEST_F(LabProxyCrashes, KilledBeforeTheAccountIsMade) {
    AskOneThatIsKilled(Point::BeforeChange);
    EXPECT_EQ(Count(account), 0u);
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
}

TEST_F(LabProxyCrashes, KilledAfterTheAccountIsMade) {
    AskOneThatIsKilled(Point::AfterChange);
    const directory::LdapEntry before = Only(account);
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
    EXPECT_EQ(Only(account).Value("objectGUID"), before.Value("objectGUID"));
    EXPECT_EQ(Record(account).value().state, AccountState::Given);
    EXPECT_THAT(Refused(host), HasSubstr("was given to this host a moment ago"));
}

TEST_F(LabProxyCrashes, AccountThatOneWhoWasKilledHasMadeIsRemoved) {
    AskOneThatIsKilled(Point::AfterChange);
    Pass(minutes(0));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096") << "it may still be at it";
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxyCrashes, TwoThatAreKilledBlockNoHost) {
    for (const Point second : {Point::BeforeChange, Point::AfterChange}) {
        AskOneThatIsKilled(Point::AfterChange);
        AskOneThatIsKilled(second);
        const proxy::NewAccount made = Make(host);
        EXPECT_TRUE(Takes(account, made.password.View()));
        EXPECT_EQ(Count(account), 1u);
        PassUntilUnusedAreRemoved();
        EXPECT_EQ(Count(account), 0u);
    }
}

TEST_F(LabProxyCrashes, AccountThatTwoWhoWereKilledHaveMadeIsRemoved) {
    AskOneThatIsKilled(Point::AfterChange);
    AskOneThatIsKilled(Point::BeforeChange);
    PassUntilUnusedAreRemoved();
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxyCrashes, AccountThatOneWhoWasKilledHasMadeIsNobodyElses) {
    settings_.hostDomains = {"other.example"};
    AskOneThatIsKilled(Point::AfterChange);
    EXPECT_THAT(WhyNoNewPassword("web1.other.example"),
                HasSubstr("is that of another host, web1.corp.example"));
    Change(Only(account).dn, "adminDescription", "mine");
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr("this proxy has not made it"));
}

TEST_F(LabProxyCrashes, RecordOfWhatNeverCameToBeIsForgottenAfterADay) {
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(2));
    EXPECT_TRUE(Record(account)) << "a controller may still have it before it";
    Pass(minutes(60 * 25));
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxyCrashes, KilledBeforeAnAccountIsReset) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::BeforeChange);
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
}

TEST_F(LabProxyCrashes, ResetThatWasOnlyMeantLeavesTheHostItsAccount) {
    Make(host);
    ChangePassword(account);
    proxy::ReleaseAccount(stateDirectory_, host);
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Pending)
        << "another controller may have done it, or still have it before it";
    Pass(minutes(60 * 25));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
    EXPECT_TRUE(Record(account).value().released) << "nobody has made use of it";
}

TEST_F(LabProxyCrashes, KilledAfterAnAccountIsReset) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::AfterChange);
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
}

TEST_F(LabProxyCrashes, AccountWhosePasswordNobodyKnowsIsDisabled) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::AfterChange);
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyCrashes, AccountThatAHostWasJoinedWithInAnotherWayIsLeftAlone) {
    AskOneThatIsKilled(Point::AfterChange);
    // Times that differ by less may be one.
    for (int i = 0; i < 4; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(800));
    ChangePassword(account);
    EXPECT_THAT(Refused(host), HasSubstr("is in use"));
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
    // Nor is its password taken for one that was handed out when a later request comes to nothing.
    proxy::ReleaseAccount(stateDirectory_, host);
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(12));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
}

TEST_F(LabProxyCrashes, ResetThatIsDoneAfterItsAccountWasTakenBackIsNoHosts) {
    Make(host);
    Pass(minutes(11));
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(2));
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    // A controller that was frozen does it yet.
    ChangePassword(account);
    Change(Only(account).dn, "adminDescription", "tesauth-apxd late");
    Change(Only(account).dn, "userAccountControl", "4096");
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    // It stays: should the record be a copy from then, that was the host, which gets it back.
    Pass(minutes(16));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Unclaimed);
    Make(host);
}

TEST_F(LabProxyCrashes, AccountThatTheRecordKnowsOnlyFromLongAgoIsItsHosts) {
    Make(host);
    Pass(minutes(11));
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    Advance(
        minutes(26 * 60)); // the record is a copy from then: the host has asked again and joined
    ChangePassword(account);
    Change(Only(account).dn, "adminDescription", "tesauth-apxd another");
    Change(Only(account).dn, "userAccountControl", "4096");
    Pass(minutes(0));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyCrashes, AccountThatWasResetAndThenJoinedWithInAnotherWayIsLeftAlone) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::AfterChange);
    MakePendingOlder();
    ChangePassword(account);
    EXPECT_THAT(Refused(host), HasSubstr("is in use"));
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyCrashes, ResetThatWasOnlyMeantIsNotTakenForAnEarlierOne) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::AfterChange);
    MakePendingOlder();
    ChangePassword(account);
    proxy::ReleaseAccount(stateDirectory_, host);
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
}

TEST_F(LabProxyCrashes, KilledBetweenDisablingAnAccountAndRemovingIt) {
    Make(host);
    SweepOneThatIsKilled(Point::AfterChange);
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxyCrashes, AccountThatOneWhoWasKilledHasDisabledInVainIsEnabled) {
    Make(host);
    SweepOneThatIsKilled(Point::AfterChange);
    ChangePassword(account); // just before it was disabled, perhaps
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyCrashes, AccountThatOneWhoWasKilledWasAboutToDisableIsDisabledFirst) {
    Make(host);
    SweepOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxyCrashes, HostWhoseAccountIsDisabledAtAnotherControllerGetsItBack) {
    Make(host);
    SweepOneThatIsKilled(Point::BeforeChange);
    ChangePassword(account);
    Pass(minutes(1));
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn)
        << "that it was disabled may come to be known here";
    Disable(account);
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyCrashes, AccountThatWasNotDisabledAfterAllIsItsHostsAfterADay) {
    Make(host);
    SweepOneThatIsKilled(Point::BeforeChange);
    ChangePassword(account);
    Pass(minutes(16));
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    Pass(std::chrono::hours(25));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyCrashes, DisabledAccountThatOneWhoWasKilledMeantToResetIsRemoved) {
    Make(host);
    Pass(minutes(11));
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(2));
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxyCrashes, HostOfADisabledAccountThatOneWhoWasKilledMeantToResetGetsItBack) {
    Make(host);
    Pass(minutes(11));
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(2));
    ChangePassword(account); // elsewhere, before it was disabled
    Pass(minutes(1));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyCrashes, PasswordOfAnAccountThatWasNotResetIsItsHostsOnTheWordOfThePdcEmulator) {
    Make(host);
    ChangePassword(account);
    proxy::ReleaseAccount(stateDirectory_, host);
    AskOneThatIsKilled(Point::BeforeChange);
    MakePendingOlder();
    ChangePassword(account);
    {
        const PdcEmulatorIsHidden hidden;
        Pass(minutes(2));
        EXPECT_EQ(Record(account).value().state, AccountState::Pending)
            << "the reset may have been done elsewhere";
    }
    Pass(minutes(5));
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

} // namespace
