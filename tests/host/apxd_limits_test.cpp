#include "apxd_fixture.h"

#include "decision_log.h"
#include "request_limits.h"

namespace {

using namespace tessary::proxy;
using apxd_test::Lines;
using Clock = std::chrono::steady_clock;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;

const IpAddress one = *IpAddress::Parse("192.0.2.1");
const IpAddress other = *IpAddress::Parse("192.0.2.2");
const Clock::time_point start{std::chrono::hours(1)};

TEST(RequestLimitsTest, GrantAMinutesWorthAndFillEvenly) {
    RequestLimits limits(6, 1000);
    for (int i = 0; i < 6; ++i)
        EXPECT_TRUE(limits.ChargeRequest(one, start));
    EXPECT_FALSE(limits.ChargeRequest(one, start));
    EXPECT_TRUE(limits.ChargeRequest(other, start)) << "it is another's";
    EXPECT_FALSE(limits.ChargeRequest(one, start + seconds(10))) << "that one was charged, too";
    EXPECT_TRUE(limits.ChargeRequest(one, start + seconds(30)));
}

TEST(RequestLimitsTest, HoldNoMoreThanAMinutesWorth) {
    RequestLimits limits(2, 1000);
    limits.ChargeRequest(one, start);
    const auto later = start + std::chrono::hours(10);
    EXPECT_TRUE(limits.ChargeRequest(one, later));
    EXPECT_TRUE(limits.ChargeRequest(one, later));
    EXPECT_FALSE(limits.ChargeRequest(one, later));
}

TEST(RequestLimitsTest, CountAllTogether) {
    RequestLimits limits(10, 3);
    EXPECT_TRUE(limits.ChargeRequest(one, start));
    EXPECT_TRUE(limits.ChargeRequest(other, start));
    EXPECT_TRUE(limits.ChargeNuisance(other, true, start)) << "not counted among all";
    EXPECT_TRUE(limits.ChargeRequest(one, start));
    EXPECT_FALSE(limits.ChargeRequest(one, start));
    EXPECT_TRUE(limits.ChargeRequest(one, start + seconds(20)));
}

TEST(RequestLimitsTest, CountNuisancesAsRequests) {
    RequestLimits limits(2, 1000);
    EXPECT_TRUE(limits.ChargeNuisance(one, true, start));
    EXPECT_TRUE(limits.ChargeNuisance(one, true, start));
    EXPECT_FALSE(limits.ChargeRequest(one, start));
}

TEST(RequestLimitsTest, CountQuestionsAboutHealthByThemselves) {
    RequestLimits limits(2, 2);
    for (unsigned i = 0; i < 2 * RequestLimits::healthRequestsForOne; ++i)
        EXPECT_TRUE(limits.ChargeHealthRequest(one, start));
    EXPECT_FALSE(limits.ChargeHealthRequest(one, start));
    EXPECT_FALSE(limits.IsFlooding(one, true, start));
    EXPECT_TRUE(limits.ChargeHealthRequest(other, start));
    EXPECT_TRUE(limits.ChargeRequest(one, start));
    for (int i = 0; i < 1000; ++i)
        limits.ChargeHealthRequest(one, start);
    EXPECT_TRUE(limits.IsFlooding(one, true, start));
}

TEST(RequestLimitsTest, TellWhoGoesOnAndOn) {
    for (const bool isListed : {true, false}) {
        RequestLimits limits(3, 1000);
        EXPECT_FALSE(limits.IsFlooding(one, isListed, start));
        for (int i = 0; i < 5; ++i)
            limits.ChargeNuisance(one, isListed, start);
        EXPECT_FALSE(limits.IsFlooding(one, isListed, start));
        for (int i = 0; i < 1000; ++i)
            limits.ChargeNuisance(one, isListed, start);
        EXPECT_TRUE(limits.IsFlooding(one, isListed, start));
        EXPECT_FALSE(limits.IsFlooding(other, isListed, start));
        EXPECT_FALSE(limits.IsFlooding(one, isListed, start + seconds(21)))
            << "the debt has an end";
        EXPECT_TRUE(limits.ChargeNuisance(one, isListed, start + seconds(81)));
    }
}

/// A different address each time.
IpAddress Numbered(std::size_t number) {
    return *IpAddress::Parse("10.0." + std::to_string(number / 256) + "." +
                             std::to_string(number % 256));
}

TEST(RequestLimitsTest, RememberAnAddressWhateverStrangersDo) {
    RequestLimits limits(1, 1000);
    for (int i = 0; i < 5; ++i)
        limits.ChargeRequest(one, start);
    ASSERT_TRUE(limits.IsFlooding(one, true, start));
    for (std::size_t i = 0; i < 2 * Budgets::mostAddresses; ++i)
        limits.ChargeNuisance(Numbered(i), false, start);
    EXPECT_TRUE(limits.IsFlooding(one, true, start));
}

TEST(BudgetsTest, RememberSoManyAddressesAndForgetTheOldest) {
    Budgets budgets(1);
    EXPECT_TRUE(budgets.Charge(one, start));
    EXPECT_TRUE(budgets.Charge(other, start));
    for (std::size_t i = 0; i < Budgets::mostAddresses - 1; ++i) {
        EXPECT_TRUE(budgets.Charge(Numbered(i), start));
        if (i == 0) {
            EXPECT_FALSE(budgets.Charge(other, start));
        }
    }
    EXPECT_EQ(budgets.Size(), Budgets::mostAddresses);
    EXPECT_FALSE(budgets.Charge(other, start)) << "it has asked since";
    EXPECT_TRUE(budgets.Charge(one, start));
    EXPECT_EQ(budgets.Size(), Budgets::mostAddresses);
}

TEST(NuisanceLogTest, WritesTheFirstOnesAndOfTheOthersHowManyThereWere) {
    Lines lines;
    NuisanceLog log(lines.Sink());
    const Peer peer{one, 7};
    for (int i = 0; i < 1000; ++i)
        log.Write(Nuisance::Malformed, peer, "no line", start + std::chrono::milliseconds(i));
    log.Write(Nuisance::TooSlow, peer, "", start + seconds(1));
    EXPECT_EQ(lines.All().size(), NuisanceLog::linesPerMinute + 1);
    EXPECT_EQ(lines.All().front(), "192.0.2.1:7: refused: not a request: no line");
    EXPECT_EQ(lines.All().back(), "192.0.2.1:7: closed: too slow");
    log.Sum(start + seconds(59));
    EXPECT_EQ(lines.All().size(), NuisanceLog::linesPerMinute + 1);
    log.Sum(start + seconds(60));
    EXPECT_EQ(lines.All().back(), "not listed one by one: 995 times refused: not a request");
    log.Write(Nuisance::Malformed, peer, "again", start + seconds(61));
    EXPECT_THAT(lines.All().back(), HasSubstr("again"));
    const std::size_t before = lines.All().size();
    log.Sum(start + seconds(200));
    log.SumAll();
    EXPECT_EQ(lines.All().size(), before) << "nothing is left to say";
}

} // namespace
