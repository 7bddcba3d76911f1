// A new machine key while the host is in use.

#include "lab_key_rotation.h"

namespace lab_key_rotation {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

TEST_F(LabKeyRotation, NewKeyTakesTheOldOnesPlace) {
    const int before = VersionInDomain();
    LoginProgram program;
    ASSERT_EQ(program.KeepTicket("alice@CORP.EXAMPLE", Lab("USER_PASSWORD")), 0);
    EXPECT_TRUE(RotateKey(std::chrono::seconds(0)));
    EXPECT_EQ(VersionInDomain(), before + 1);
    const auto versions = Versions();
    EXPECT_THAT(versions, SizeIs(5));
    for (const auto& [principal, each] : versions)
        EXPECT_THAT(each, ElementsAre(before, before + 1)) << principal;
    EXPECT_EQ(program.UseKeptTicket(), 0) << "a ticket made with the old key";
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, YoungKeyIsLeftAlone) {
    const std::string before = Content(hostKeytab);
    EXPECT_FALSE(RotateKey(std::chrono::hours(1)));
    EXPECT_EQ(Content(hostKeytab), before);
    EXPECT_TRUE(RotateKey(std::chrono::seconds(0)));
}

TEST_F(LabKeyRotation, JoiningAgainKeepsOldTicketsGood) {
    LoginProgram program;
    ASSERT_EQ(program.KeepTicket("alice@CORP.EXAMPLE", Lab("USER_PASSWORD")), 0);
    Join();
    EXPECT_EQ(program.UseKeptTicket(), 0);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, JoinAsksForASaltThatItHasGuessedWrong) {
    LeaveDomain(Lab("ADMIN"), Lab("PASSWORD").c_str());
    wrongSalts = std::size(encryptionTypes);
    Join();
    EXPECT_EQ(wrongSalts, 0);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, NobodyNoticesIt) {
    std::atomic<bool> done{false};
    std::atomic<int> logins{0}, failed{0};
    const auto loop = [&](auto logIn) {
        return std::thread([&done, &logins, &failed, logIn] {
            while (!done) {
                failed += logIn() ? 0 : 1;
                ++logins;
            }
        });
    };
    LoginProgram first, second, third, fourth;
    ASSERT_EQ(third.KeepTicket("alice@CORP.EXAMPLE", Lab("USER_PASSWORD")), 0);
    std::vector<std::thread> loops;
    loops.push_back(loop([&] { return LogIn(first) == 0; }));
    loops.push_back(loop([&] { return LogIn(second) == 0; }));
    loops.push_back(loop([&] { return third.UseKeptTicket() == 0; }));
    loops.push_back(loop([] { return TestMachineTrust() == MachineTrust::Good; }));
    loops.push_back(loop([&] { return fourth.LogInAsHost() == 0; }));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(StatusOfRotation(), Status::Success);
    done = true;
    for (std::thread& each : loops)
        each.join();
    EXPECT_EQ(failed, 0) << "of " << logins;
    RecordProperty("logins", logins);
    RecordProperty("repeated", fourth.Repeated());
    EXPECT_GT(logins, 20);
}

} // namespace
} // namespace lab_key_rotation
