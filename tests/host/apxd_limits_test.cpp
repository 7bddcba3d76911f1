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
        EXPECT_TRUE(limits.Charge(one, true, start));
    EXPECT_FALSE(limits.Charge(one, true, start));
    EXPECT_TRUE(limits.Charge(other, true, start)) << "it is another's";
    EXPECT_FALSE(limits.Charge(one, true, start + seconds(10))) << "that one was charged, too";
    EXPECT_TRUE(limits.Charge(one, true, start + seconds(30)));
}

TEST(RequestLimitsTest, HoldNoMoreThanAMinutesWorth) {
    RequestLimits limits(2, 1000);
    limits.Charge(one, true, start);
    const auto later = start + std::chrono::hours(10);
    EXPECT_TRUE(limits.Charge(one, true, later));
    EXPECT_TRUE(limits.Charge(one, true, later));
    EXPECT_FALSE(limits.Charge(one, true, later));
}

TEST(RequestLimitsTest, CountAllTogether) {
    RequestLimits limits(10, 3);
    EXPECT_TRUE(limits.Charge(one, true, start));
    EXPECT_TRUE(limits.Charge(other, true, start));
    EXPECT_TRUE(limits.Charge(other, false, start)) << "not counted among all";
    EXPECT_TRUE(limits.Charge(one, true, start));
    EXPECT_FALSE(limits.Charge(one, true, start));
    EXPECT_TRUE(limits.Charge(one, true, start + seconds(20)));
}

TEST(RequestLimitsTest, TellWhoGoesOnAndOn) {
    RequestLimits limits(3, 1000);
    EXPECT_FALSE(limits.IsFlooding(one, start));
    for (int i = 0; i < 5; ++i)
        limits.Charge(one, true, start);
    EXPECT_FALSE(limits.IsFlooding(one, start));
    for (int i = 0; i < 1000; ++i)
        limits.Charge(one, true, start);
    EXPECT_TRUE(limits.IsFlooding(one, start));
    EXPECT_FALSE(limits.IsFlooding(other, start));
    EXPECT_FALSE(limits.IsFlooding(one, start + seconds(21))) << "the debt has an end";
    EXPECT_TRUE(limits.Charge(one, true, start + seconds(81)));
}

TEST(RequestLimitsTest, RememberSoManyAddressesAndForgetTheOldest) {
    RequestLimits limits(1, 1'000'000);
    EXPECT_TRUE(limits.Charge(one, true, start));
    EXPECT_TRUE(limits.Charge(other, true, start));
    for (unsigned i = 0; i < RequestLimits::mostAddresses - 1; ++i) {
        const std::string text = "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256);
        EXPECT_TRUE(limits.Charge(*IpAddress::Parse(text), true, start));
        if (i == 0) {
            EXPECT_FALSE(limits.Charge(other, true, start));
        }
    }
    EXPECT_EQ(limits.Addresses(), RequestLimits::mostAddresses);
    EXPECT_FALSE(limits.Charge(other, true, start)) << "it has asked since";
    EXPECT_TRUE(limits.Charge(one, true, start));
    EXPECT_EQ(limits.Addresses(), RequestLimits::mostAddresses);
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
