// What goes wrong on the way: the proxy's connection, its controller, its own account, its disk.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include <sys/mount.h>

#include <filesystem>
#include <fstream>

namespace {

using namespace tessary;
using proxy::AccountState;
using std::chrono::minutes;
using testing::HasSubstr;

constexpr char host[] = "web1.corp.example";
constexpr char account[] = "WEB1$";
constexpr char noController[] = "1311 no domain controller answers";
constexpr char internal[] = "1359 the proxy cannot do this at the moment; its log says why";

using LabProxyFailures = ProxyLab;

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

TEST_F(LabProxyFailures, PasswordBeforeAResetThatIsNotAnsweredEndsInTime) {
    const proxy::NewAccount made = Make(host);
    proxy::ReleaseAccount(stateDirectory_, host);
    interference::BusyFor(Record(account).value().guid);
    EXPECT_EQ(Refused(host), noController);
    interference::BusyFor("");
    EXPECT_EQ(Record(account).value().state, AccountState::Pending);
    Pass(minutes(9));
    EXPECT_TRUE(Takes(account, made.password.View())) << "the host may be joining with it";
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxyFailures, PasswordBeforeAResetThatIsRefusedEndsInTime) {
    Make(host);
    Pass(minutes(9));
    proxy::ReleaseAccount(stateDirectory_, host);
    interference::RefuseNextChange();
    EXPECT_EQ(Refused(host), internal);
    Pass(minutes(2));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
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

TEST_F(LabProxyFailures, NamelessDomainIsNotRemembered) {
    interference::HideOnce("nETBIOSName=*");
    try {
        Keeper().Domain();
        FAIL() << "it was described";
    } catch (const proxy::Refusal& refusal) {
        EXPECT_EQ(refusal.WhichCode(), proxy::Code::Internal);
        EXPECT_THAT(refusal.Detail(), HasSubstr("tells no NetBIOS name"));
    }
    EXPECT_EQ(Keeper().Domain().netbiosName, "CORP");
}

class LabProxyFullDisk : public ProxyLab {
protected:
    LabProxyFullDisk() {
        EXPECT_EQ(mount("tmpfs", stateDirectory_.c_str(), "tmpfs", 0, "size=256k"), 0);
    }
    ~LabProxyFullDisk() override {
        End();
        umount(stateDirectory_.c_str());
    }
    void Fill() const {
        std::ofstream filler(stateDirectory_ + "/filler");
        while (filler << 'x' << std::flush) {
        }
    }
    void MakeRoom() const { std::filesystem::remove(stateDirectory_ + "/filler"); }
};

TEST_F(LabProxyFullDisk, NothingIsMadeThatCannotBeRecorded) {
    Keeper().Domain();
    Fill();
    const Answer answer = Ask(host);
    EXPECT_EQ(answer.code, 1359u);
    EXPECT_THAT(answer.detail, HasSubstr("/accounts.db: cannot write the record of WEB1$"));
    EXPECT_EQ(Count(account), 0u);
    MakeRoom();
    EXPECT_EQ(Refused(host), "given");
}

TEST_F(LabProxyFullDisk, AccountThatCannotBeGivenIsRemovedAtOnce) {
    interference::AfterNextChange([this] { Fill(); });
    const Answer answer = Ask(host);
    EXPECT_EQ(answer.code, 1359u);
    EXPECT_THAT(answer.detail, HasSubstr("/accounts.db: cannot write the record of WEB1$"));
    EXPECT_EQ(Count(account), 0u);
}

TEST_F(LabProxyFullDisk, PasswordsThatWereHandedOutEndAllTheSame) {
    Make(host);
    Make("web2.corp.example");
    Fill();
    interference::TakeLog();
    Pass(minutes(11));
    EXPECT_EQ(Only(account).Value("userAccountControl"), "4098");
    EXPECT_EQ(Only("WEB2$").Value("userAccountControl"), "4098");
    EXPECT_EQ(Record(account).value().state, AccountState::Given);
    Pass(minutes(1));
    int said = 0;
    for (const std::string& line : interference::TakeLog())
        said += line.find("cannot write the record of WEB1$") != std::string::npos ? 1 : 0;
    EXPECT_EQ(said, 1);
    MakeRoom();
    Restart();
    Pass(minutes(1));
    EXPECT_EQ(Record(account).value().state, AccountState::Withdrawn);
    Pass(minutes(16));
    EXPECT_EQ(Count(account), 0u);
    EXPECT_EQ(Count("WEB2$"), 0u);
}

} // namespace
