#include "serving.h"

#include <syslog.h>

#include <iostream>

#include "apxd_fixture.h"

/// What the process does while it serves.
namespace apxd_test {
namespace {

using namespace std::chrono_literals;
using namespace tessary::proxy;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Logged = std::vector<std::pair<int, std::string>>;

Logged WarnOfExpiryIn(std::chrono::seconds time) {
    Identity identity;
    identity.certificate.reset(X509_new());
    X509_gmtime_adj(X509_getm_notAfter(identity.certificate.get()), time.count());
    Logged logged;
    WarnOfExpiry(identity, "/a.pem", [&](int priority, const std::string& line) {
        logged.emplace_back(priority, line);
    });
    return logged;
}

TEST(ServingTest, WarnsOfACertificateThatExpiresSoonAndOfOneThatHasExpired) {
    EXPECT_THAT(WarnOfExpiryIn(30 * 24h + 1h), IsEmpty());
    EXPECT_THAT(WarnOfExpiryIn(29 * 24h + 1h),
                ElementsAre(Pair(LOG_WARNING, "the certificate in /a.pem expires in 29 days")));
    EXPECT_THAT(WarnOfExpiryIn(1h),
                ElementsAre(Pair(LOG_WARNING, "the certificate in /a.pem expires in 0 days")));
    for (const auto past : {1h, 100 * 24h})
        EXPECT_THAT(
            WarnOfExpiryIn(-past),
            ElementsAre(
                Pair(LOG_ERR, "the certificate in /a.pem has expired: no host takes it any more")));
}

TEST(ServingTest, DoesItsChoreFromTimeToTimeUntilASignalComes) {
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    int times = 0;
    WaitForSignal(signals, 1ms, [&] {
        if (++times == 3)
            raise(SIGUSR2);
    });
    EXPECT_EQ(times, 3);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

class EndTest : public ServerTest {};

TEST_F(EndTest, WaitsForWhatIsBeingAnswered) {
    Start();
    EndServer(*server_, patience, log_.Sink());
    EXPECT_THAT(log_.All(), ElementsAre("ended"));
}

TEST_F(EndTest, EndsTheProcessWhenARequestIsNotAnsweredInTime) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe"; // the server has threads
    accounts_.Hold("web1.corp.example");
    EXPECT_EXIT(
        {
            Start();
            Client client(Port());
            client.Send(AccountRequestOf("web1.corp.example"));
            if (accounts_.WaitForHeld(1))
                EndServer(*server_, 50ms,
                          [](int, const std::string& line) { std::cerr << line << '\n'; });
            _exit(1);
        },
        testing::ExitedWithCode(0), "some requests are left without an answer");
}

} // namespace
} // namespace apxd_test
