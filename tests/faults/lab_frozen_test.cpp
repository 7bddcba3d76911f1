// A long-lived program and the command on a joined host, while its only domain controller is not
// there: both go on, say what they know, and recover by themselves.

#include "lab_commands.h"
#include "log_recorder.h"
#include "tesauth/tesauth.h"

#include <chrono>
#include <memory>
#include <string>

#include <gmock/gmock.h>

namespace tessary::authentication {
namespace {

using namespace std::chrono_literals;
using lab::Result;
using lab::Setting;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::Not;
using Clock = std::chrono::steady_clock;

constexpr int waitSeconds = 1;
constexpr auto hangGuard = 5s; // for what takes a second or two

auto TimedOut() {
    return Contains(Field(&LogMessage::text, HasSubstr("call timedout. Returning cached value")));
}

class LabFrozen : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const std::string admin = Setting("ADMIN"), password = Setting("PASSWORD");
        log_ = std::make_unique<LogRecorder>();
        store_ = std::make_unique<ActiveDirectoryStore>(waitSeconds);
        store_->JoinDomain(Setting("DOMAIN") + "/Servers/Hosts", {admin.c_str(), password.c_str()},
                           false);
        store_->MakeActive();
    }

    static void TearDownTestSuite() {
        const std::string admin = Setting("ADMIN"), password = Setting("PASSWORD");
        store_->PartDomain({admin.c_str(), password.c_str()});
        store_.reset();
        log_.reset();
    }

    void SetUp() override {
        ExpectLiveAnswers();
        ExpectLiveStatus();
    }

    void TearDown() override {
        if (HasFailure()) { // the next test finds a controller all the same
            lab::Lab({"thaw", "dc1"});
            lab::Lab({"join", "dc1"});
            lab::Lab({"start", "dc1"});
        }
    }

    static std::vector<std::string> TrustedNames() {
        std::vector<std::string> names;
        for (const Domain& domain : store_->GetTrustedDomains())
            names.push_back(domain.dnsName);
        return names;
    }

    static ActiveDirectoryStoreConfiguration Configuration() {
        const std::unique_ptr<StoreConfiguration> configuration(store_->GetStoreConfiguration());
        return dynamic_cast<const ActiveDirectoryStoreConfiguration&>(*configuration);
    }

    /// What this host knows by itself, whatever becomes of the controller.
    static void ExpectLocalAnswers() {
        const ActiveDirectoryStoreConfiguration configuration = Configuration();
        EXPECT_EQ(configuration.dnsDomainName, "corp.example");
        EXPECT_EQ(configuration.netbiosDomainName, "CORP");
        EXPECT_EQ(configuration.machineAccountDN,
                  "CN=HOST1,OU=Hosts,OU=Servers,DC=corp,DC=example");
    }

    static void ExpectLiveAnswers() {
        log_->Take();
        EXPECT_EQ(store_->GetDomainTrustState(), TrustStateGood);
        EXPECT_THAT(TrustedNames(), ElementsAre("lab.example"));
        EXPECT_EQ(store_->GetDomainTrustRelationship("lab.example"), TrustRelationshipTwoWay);
        ExpectLocalAnswers();
        EXPECT_THAT(log_->Take(), Not(TimedOut())) << "none of them came from the cache";
    }

    /// A controller that says nothing: every question is answered from the cache.
    static void ExpectCachedAnswers() {
        log_->Take();
        const auto start = Clock::now();
        EXPECT_THAT(TrustedNames(), ElementsAre("lab.example"));
        EXPECT_EQ(store_->GetDomainTrustRelationship("lab.example"), TrustRelationshipTwoWay);
        EXPECT_EQ(store_->GetDomainTrustState(), TrustStateTimedOut);
        ExpectLocalAnswers();
        EXPECT_LT(Clock::now() - start, 3 * hangGuard);
        EXPECT_THAT(
            log_->Take(),
            testing::IsSupersetOf(
                {Field(&LogMessage::text,
                       "GetTrustedDomains call timedout. Returning cached value."),
                 Field(&LogMessage::text,
                       "GetDomainTrustRelationship call timedout. Returning cached value for "
                       "lab.example."),
                 Field(&LogMessage::text,
                       "GetDomainTrustState call timedout. Returning cached value.")}));
    }

    static nlohmann::json Status() {
        const auto start = Clock::now();
        const Result result = lab::Run({"tesauthctl", "status", "--timeout", "1", "--json"});
        EXPECT_LT(Clock::now() - start, hangGuard);
        EXPECT_EQ(result.status, 0) << result.err;
        const nlohmann::json status = result.Json();
        EXPECT_EQ(status["store"], "Active Directory");
        EXPECT_EQ(status["joined"], true);
        EXPECT_EQ(status["domain"], "corp.example");
        EXPECT_EQ(status["organizationalUnit"], "Servers/Hosts");
        EXPECT_EQ(status["machineAccount"], "CN=HOST1,OU=Hosts,OU=Servers,DC=corp,DC=example");
        EXPECT_EQ(status["live"]["machineAccount"], true) << "the host knows it by itself";
        return status;
    }

    static void ExpectLiveStatus() {
        const nlohmann::json status = Status();
        EXPECT_EQ(status["trustState"],
                  (nlohmann::json{{"value", 1}, {"name", "good"}, {"live", true}}));
        EXPECT_EQ(status["domainController"], Setting("DC1"));
        EXPECT_EQ(status["live"]["domainController"], true);
    }

    static void ExpectStatusMarksWhatIsNotLive() {
        const nlohmann::json status = Status();
        EXPECT_EQ(status["trustState"],
                  (nlohmann::json{{"value", 2}, {"name", "timed out"}, {"live", false}}));
        EXPECT_EQ(status["live"]["trustState"], false);
        EXPECT_EQ(status["domainController"], nullptr);
        EXPECT_EQ(status["live"]["domainController"], false);

        const Result text = lab::Run({"tesauthctl", "status", "--timeout", "1"});
        EXPECT_EQ(text.status, 0);
        EXPECT_THAT(text.out,
                    HasSubstr("domain controller             (not live: no answer within 1 s)\n"));
        EXPECT_THAT(text.out, HasSubstr("trust state                   timed out (not live: no "
                                        "answer within 1 s)\n"));
    }

    /// Questions that were asked before the recovery may still have to run into their own limits.
    static void AwaitRecovery() {
        const auto end = Clock::now() + 30s;
        while (store_->GetDomainTrustState() != TrustStateGood)
            ASSERT_LT(Clock::now(), end);
        // Each of the others attaches at most once to a question from before.
        for (log_->Take(), TrustedNames(); Clock::now() < end; TrustedNames()) {
            store_->GetDomainTrustRelationship("lab.example");
            if (const auto messages = log_->Take(); !testing::Value(messages, TimedOut()))
                break;
        }
        ExpectLiveAnswers();
        ExpectLiveStatus();
    }

    static std::unique_ptr<LogRecorder> log_;
    static std::unique_ptr<ActiveDirectoryStore> store_;
};

std::unique_ptr<LogRecorder> LabFrozen::log_;
std::unique_ptr<ActiveDirectoryStore> LabFrozen::store_;

TEST_F(LabFrozen, FrozenController) {
    lab::Lab({"freeze", "dc1"});
    ExpectCachedAnswers();
    ExpectStatusMarksWhatIsNotLive();
    lab::Lab({"thaw", "dc1"});
    AwaitRecovery();
}

TEST_F(LabFrozen, ControllerThatIsCutOff) {
    lab::Lab({"cut", "dc1"});
    ExpectCachedAnswers();
    ExpectStatusMarksWhatIsNotLive();
    lab::Lab({"join", "dc1"});
    AwaitRecovery();
}

// A refusal is an answer: it is told as it is, at once, and the cache keeps its own. A name server
// that is somewhere else has to say first where the controller was.
TEST_F(LabFrozen, KilledController) {
    const std::string resolver = lab::Run({"cat", "/etc/resolv.conf"}).out;
    lab::UseOwnNameServer("host1");
    lab::Lab({"kill", "dc1"});
    EXPECT_THROW(store_->GetTrustedDomains(), ConnectionRefusedException);
    EXPECT_EQ(store_->GetDomainTrustState(), TrustStateNoController);
    ExpectLocalAnswers();
    const nlohmann::json status = Status();
    EXPECT_EQ(status["trustState"],
              (nlohmann::json{{"value", 8}, {"name", "no controller"}, {"live", true}}));
    EXPECT_EQ(status["domainController"], nullptr);
    EXPECT_EQ(status["errors"]["domainController"],
              (nlohmann::json{{"text", ConnectionRefusedException().what()},
                              {"cause", "every domain controller refuses the connection: "
                                        "dc1.corp.example: cannot connect: Connection refused"},
                              {"hint", "the domain controller's host answers, its directory "
                                       "service does not: is it running?"},
                              {"code", 1225}}));

    lab::Lab({"start", "dc1"});
    EXPECT_EQ(lab::Run({"tee", "/etc/resolv.conf"}, resolver).status, 0);
    AwaitRecovery();
}

// Whole hours of this must not pile up: one worker a question is all there is at any time.
TEST_F(LabFrozen, AskingOnAndOnStartsNoMoreWorkers) {
    lab::Lab({"freeze", "dc1"});
    const auto threads = [] {
        return std::stoi(
            lab::Run({"sh", "-c", "ls /proc/" + std::to_string(getpid()) + "/task | wc -l"}).out);
    };
    const int before = threads();
    for (int i = 0; i < 3; ++i)
        store_->GetDomainTrustState();
    EXPECT_LE(threads(), before + 2) << "trusted domains and trust state";
    lab::Lab({"thaw", "dc1"});
    AwaitRecovery();
}

} // namespace
} // namespace tessary::authentication
