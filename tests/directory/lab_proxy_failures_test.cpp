// What goes wrong on the way: the proxy's process, its connection, its controller, its own account.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
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
constexpr char noController[] = "1311 no domain controller answers";
constexpr char internal[] = "1359 the proxy cannot do this at the moment; its log says why";

class LabProxyFailures : public ProxyLab {
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
    void SweepOneThatIsKilled() {
        DoInOneThatIsKilled(Point::AfterChange, [this] { Pass(minutes(11)); });
        Pass(minutes(11)); // for this one as well; what was begun is not due yet
        EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    }
    void AskOneThatIsKilled(Point point) {
        DoInOneThatIsKilled(point, [this] { Ask(host); });
        EXPECT_EQ(Record(account).value().state, AccountState::Pending);
    }
};

TEST_F(LabProxyFailures, KilledBeforeTheAccountIsMade) {
    AskOneThatIsKilled(Point::BeforeChange);
    EXPECT_EQ(Count(account), 0u);
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
}

TEST_F(LabProxyFailures, KilledAfterTheAccountIsMade) {
    AskOneThatIsKilled(Point::AfterChange);
    const directory::LdapEntry before = Only(account);
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
    EXPECT_EQ(Only(account).Value("objectGUID"), before.Value("objectGUID"));
    EXPECT_EQ(Record(account).value().state, AccountState::Given);
    EXPECT_THAT(Refused(host), HasSubstr("is in use")) << "it is as any other from now on";
}

TEST_F(LabProxyFailures, AccountThatOneWhoWasKilledHasMadeIsRemoved) {
    AskOneThatIsKilled(Point::AfterChange);
    Pass(minutes(0));
    EXPECT_EQ(Count(account), 1u) << "the process may still be at it";
    Pass(minutes(2));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxyFailures, AccountThatOneWhoWasKilledHasMadeIsNobodyElses) {
    settings_.hostDomains = {"other.example"};
    AskOneThatIsKilled(Point::AfterChange);
    EXPECT_THAT(WhyNoNewPassword("web1.other.example"),
                HasSubstr("is that of another host, web1.corp.example"));
    Change(Only(account).dn, "adminDescription", "mine");
    EXPECT_THAT(WhyNoNewPassword(host), HasSubstr("this proxy has not made it"));
}

TEST_F(LabProxyFailures, RecordOfWhatNeverCameToBeIsForgottenAfterADay) {
    AskOneThatIsKilled(Point::BeforeChange);
    Pass(minutes(2));
    EXPECT_TRUE(Record(account)) << "a controller may still have it before it";
    Pass(minutes(60 * 25));
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxyFailures, KilledBeforeAnAccountIsReset) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::BeforeChange);
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
}

TEST_F(LabProxyFailures, ResetThatWasOnlyMeantLeavesTheHostItsAccount) {
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

TEST_F(LabProxyFailures, KilledAfterAnAccountIsReset) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::AfterChange);
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
}

TEST_F(LabProxyFailures, AccountWhosePasswordNobodyKnowsIsDisabled) {
    Make(host);
    ChangePassword(account);
    Disable(account);
    AskOneThatIsKilled(Point::AfterChange);
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyFailures, AccountThatAHostWasJoinedWithInAnotherWayIsLeftAlone) {
    AskOneThatIsKilled(Point::AfterChange);
    // Times that differ by less may be one.
    for (int i = 0; i < 4; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(800));
    ChangePassword(account);
    EXPECT_THAT(Refused(host), HasSubstr("is in use"));
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyFailures, AccountThatWasResetAndThenJoinedWithInAnotherWayIsLeftAlone) {
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

TEST_F(LabProxyFailures, ResetThatWasOnlyMeantIsNotTakenForAnEarlierOne) {
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

TEST_F(LabProxyFailures, KilledBetweenDisablingAnAccountAndRemovingIt) {
    Make(host);
    SweepOneThatIsKilled();
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    Pass(minutes(2));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_FALSE(Record(account));
}

TEST_F(LabProxyFailures, AccountThatOneWhoWasKilledHasDisabledInVainIsEnabled) {
    Make(host);
    SweepOneThatIsKilled();
    ChangePassword(account); // just before it was disabled, perhaps
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4096");
    EXPECT_EQ(Record(account).value().state, AccountState::Taken);
}

TEST_F(LabProxyFailures, LostAnswerBlocksNoHost) {
    Keeper().Domain();
    interference::LoseNextAnswer();
    EXPECT_EQ(Refused(host), noController);
    EXPECT_EQ(Count(account), 1u) << "it was only the answer";
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
    EXPECT_EQ(Count(account), 1u);
}

TEST_F(LabProxyFailures, LostAnswerToAResetBlocksNoHost) {
    Make(host);
    proxy::ReleaseAccount(stateDirectory_, host);
    interference::LoseNextAnswer();
    EXPECT_EQ(Refused(host), noController);
    const proxy::NewAccount made = Make(host);
    EXPECT_TRUE(Takes(account, made.password.View()));
}

TEST_F(LabProxyFailures, ControllerThatIsGoneAndBackAgain) {
    Make("web2.corp.example");
    lab::Lab({"kill", "dc1"});
    EXPECT_EQ(Refused(host), noController);
    lab::Lab({"start", "dc1"});
    Make(host);
    lab::Lab({"kill", "dc1"});
    lab::Lab({"start", "dc1"});
    Make("web3.corp.example"); // over the connection that broke meanwhile
}

TEST_F(LabProxyFailures, ControllerThatIsFrozen) {
    Make("web2.corp.example");
    lab::Lab({"freeze", "dc1"});
    EXPECT_EQ(Refused(host), noController);
    lab::Lab({"thaw", "dc1"});
    Make(host);
}

TEST_F(LabProxyFailures, DomainThatIsNotThere) {
    settings_.domain = "nosuch.example";
    EXPECT_EQ(Refused("web1.nosuch.example"), "1355 the proxy's domain is not to be found");
    EXPECT_THROW(Keeper().Domain(), proxy::Refusal);
}

TEST_F(LabProxyFailures, RightsThatAreMissing) {
    settings_.container = "OU=Servers,DC=corp,DC=example";
    const Answer answer = Ask(host);
    EXPECT_EQ(answer.code, 1359u);
    EXPECT_THAT(answer.detail, HasSubstr("cannot create CN=WEB1,OU=Servers,DC=corp,DC=example"));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxyFailures, PlaceThatIsNotThere) {
    settings_.container = "OU=Nowhere,DC=corp,DC=example";
    const Answer answer = Ask(host);
    EXPECT_EQ(answer.code, 1359u);
    EXPECT_THAT(answer.detail, HasSubstr("OU=Nowhere"));
}

TEST_F(LabProxyFailures, KeytabThatIsMissing) {
    settings_.keytab = stateDirectory_ + "/none.keytab";
    EXPECT_EQ(Refused(host), internal);
    EXPECT_THAT(Ask(host).detail, HasSubstr("svc-apxd"));
    std::filesystem::copy(lab::Setting("PROXY_KEYTAB"), settings_.keytab);
    EXPECT_EQ(Refused(host), "given") << "what is put right counts at once";
}

TEST_F(LabProxyFailures, KeyThatIsRejectedIsTriedOnce) {
    settings_.keytab = stateDirectory_ + "/wrong.keytab";
    const lab::Result made =
        lab::Run({"ktutil"}, "add_entry -password -p svc-apxd@CORP.EXAMPLE -k 9 -e "
                             "aes256-cts-hmac-sha1-96\nwrong\nwrite_kt " +
                                 settings_.keytab + "\nquit\n");
    ASSERT_EQ(made.status, 0) << made.err;
    Change(base, "lockoutThreshold", "50"); // otherwise nobody counts
    const long before = Only("svc-apxd").Number("badPwdCount").value_or(0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Refused(host), internal);
    EXPECT_EQ(Only("svc-apxd").Number("badPwdCount"), before + 1);
    Change(base, "lockoutThreshold", "0");
    std::filesystem::copy(lab::Setting("PROXY_KEYTAB"), settings_.keytab,
                          std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyFailures, NothingIsMadeThatCannotBeRecorded) {
    ASSERT_EQ(mount("tmpfs", stateDirectory_.c_str(), "tmpfs", 0, "size=256k"), 0);
    Keeper().Domain();
    std::ofstream filler(stateDirectory_ + "/filler");
    while (filler << 'x' << std::flush) {
    }
    filler.close();
    const Answer answer = Ask(host);
    EXPECT_EQ(answer.code, 1359u);
    EXPECT_THAT(answer.detail, HasSubstr("/accounts.db: cannot write the record of WEB1$"));
    EXPECT_EQ(Count(account), 0u);
    std::filesystem::remove(stateDirectory_ + "/filler");
    EXPECT_EQ(Refused(host), "given");
    End();
    umount(stateDirectory_.c_str());
}

} // namespace
