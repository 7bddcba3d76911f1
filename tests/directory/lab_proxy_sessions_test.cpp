// Being logged in, by many threads at once: how many may be, what is kept, what is tried again.

#include "proxy_interference.h"
#include "proxy_lab.h"

#include "account_sessions.h"

#include <thread>
#include <vector>

namespace {

using namespace tessary;
using directory::Deadline;
using proxy::AccountSessions;
using std::chrono::milliseconds;
using std::chrono::seconds;

class LabProxySessions : public ProxyLab {
protected:
    static Deadline Soon() { return Deadline::In(directory::queryTime); }

    /// Takes a session and gives it back.
    /// \return how many log-ins that took
    int Use() {
        const int before = interference::Logins();
        sessions_.Take(Soon());
        return interference::Logins() - before;
    }

    seconds passed_{0};
    AccountSessions sessions_{domain, settings_.account, settings_.keytab,
                              [this] { return std::chrono::steady_clock::now() + passed_; }};
};

TEST_F(LabProxySessions, SessionIsKeptForTheNext) {
    EXPECT_EQ(Use(), 1);
    EXPECT_EQ(Use(), 0);
}

TEST_F(LabProxySessions, SessionWhoseTicketEndsSoonIsNotKept) {
    interference::SetTicketLife(240);
    EXPECT_EQ(Use(), 1);
    EXPECT_EQ(Use(), 1);
    interference::SetTicketLife(420);
    EXPECT_EQ(Use(), 1);
    EXPECT_EQ(Use(), 0);
    interference::SetTicketLife(0);
}

TEST_F(LabProxySessions, SessionIsAtThePdcEmulatorOrNotKept) {
    {
        const PdcEmulatorIsHidden hidden;
        EXPECT_FALSE(sessions_.Take(Soon()).IsFirst());
        EXPECT_EQ(Use(), 1);
    }
    EXPECT_EQ(Use(), 1);
    EXPECT_TRUE(sessions_.Take(Soon()).IsFirst());
    EXPECT_EQ(Use(), 0);
}

TEST_F(LabProxySessions, SessionThatNobodyUsesIsEnded) {
    Use();
    passed_ += seconds(60);
    sessions_.EndIdle(seconds(61));
    EXPECT_EQ(Use(), 0);
    passed_ += seconds(60);
    sessions_.EndIdle(seconds(59));
    EXPECT_EQ(Use(), 1);
}

TEST_F(LabProxySessions, SessionThatBrokeIsReplacedAndItsSuccessorKept) {
    Use();
    lab::Lab({"kill", "dc1"});
    lab::Lab({"start", "dc1"});
    const int before = interference::Logins();
    {
        AccountSessions::Lease lease = sessions_.Take(Soon());
        lease.Ask(Soon(), [](directory::Session& session) {
            return session.Ldap().Read(base, {"objectClass"}, session.End()).dn;
        });
    }
    EXPECT_EQ(interference::Logins() - before, 1);
    EXPECT_EQ(Use(), 0);
}

TEST_F(LabProxySessions, FourAreOutAtMost) {
    std::vector<AccountSessions::Lease> out;
    for (int i = 0; i < 4; ++i)
        out.push_back(sessions_.Take(Soon()));
    try {
        sessions_.Take(Deadline::In(milliseconds(50)));
        FAIL() << "a fifth one";
    } catch (const directory::Error& error) {
        EXPECT_EQ(error.Code(), directory::Status::TimedOut);
        EXPECT_STREQ(error.what(), "earlier requests have not come to an end");
    }
    const int before = interference::Logins();
    std::thread waiting([this] { sessions_.Take(Soon()); });
    out.pop_back();
    waiting.join();
    EXPECT_EQ(interference::Logins(), before) << "it got the one that came back";
}

TEST_F(LabProxySessions, LogInThatFailsTakesNoPlace) {
    AccountSessions sessions(domain, "nosuch", settings_.keytab);
    for (int i = 0; i < 5; ++i) {
        try {
            sessions.Take(Deadline::In(seconds(5)));
            FAIL() << "there is no such key";
        } catch (const directory::Error& error) {
            EXPECT_EQ(error.Code(), directory::Status::MachineKeyRejected) << error.what();
        }
    }
}

TEST_F(LabProxySessions, KeyThatWasRejectedIsTriedAgainAfterAWhile) {
    const std::string keytab = stateDirectory_ + "/wrong.keytab";
    const lab::Result made =
        lab::Run({"ktutil"}, "add_entry -password -p svc-apxd@CORP.EXAMPLE -k 9 -e "
                             "aes256-cts-hmac-sha1-96\nwrong\nwrite_kt " +
                                 keytab + "\nquit\n");
    ASSERT_EQ(made.status, 0) << made.err;
    seconds passed{0};
    AccountSessions sessions(domain, settings_.account, keytab,
                             [&] { return std::chrono::steady_clock::now() + passed; });
    const int before = interference::Logins();
    EXPECT_THROW(sessions.Take(Soon()), directory::Error);
    passed = seconds(290);
    EXPECT_THROW(sessions.Take(Soon()), directory::Error);
    EXPECT_EQ(interference::Logins() - before, 1);
    passed = seconds(301);
    EXPECT_THROW(sessions.Take(Soon()), directory::Error);
    EXPECT_EQ(interference::Logins() - before, 2);
}

} // namespace
