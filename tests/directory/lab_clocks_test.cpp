// A domain controller whose clock is off: that is what is said, and nothing else.

#include "lab_commands.h"

#include <string>

#include <gmock/gmock.h>

namespace {

using lab::Result;
using lab::Setting;
using testing::IsEmpty;

constexpr int clockSkew = 1398;

class LabClocks : public testing::TestWithParam<const char*> {
protected:
    static void SetUpTestSuite() {
        lab::Lab({"fresh", "host1"});
        lab::Lab({"fresh", "host2"});
        const Result joined = lab::JoinAsAdmin("host2");
        ASSERT_EQ(joined.status, 0) << joined.err;
    }
    static void TearDownTestSuite() {
        const Result left = lab::LeaveAsAdmin("host2");
        EXPECT_EQ(left.status, 0) << left.err;
        EXPECT_THAT(lab::Computers("dc1", Setting("DOMAIN")), IsEmpty());
    }

    void SetUp() override { lab::Lab({"clock", "dc1", GetParam()}); }
    void TearDown() override {
        lab::Lab({"clock", "dc1", "0"});
        EXPECT_EQ(TrustState(), "good");
    }

    static void ExpectSkew(const Result& result) {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.Json()["error"]["code"], clockSkew) << result.err;
        EXPECT_THAT(result.err, testing::HasSubstr("set this host's clock"));
    }

    static std::string TrustState() {
        const nlohmann::json status = lab::Ctl("host2", {"status", "--json"}).Json();
        EXPECT_EQ(status["trustState"]["live"], true);
        return status["trustState"]["name"];
    }
};

TEST_P(LabClocks, IsWhatIsToldOfIt) {
    ExpectSkew(lab::JoinAsAdmin("host1"));
    // The controller itself says so only of a right password. A person who is told to check the
    // password would look in the wrong place.
    for (const std::string& user : {Setting("ADMIN"), std::string("alice")})
        ExpectSkew(lab::Ctl("host1",
                            {"join", Setting("DOMAIN"), "-U", user, "--password-stdin", "--json"},
                            "wrong\n"));
    lab::ExpectNothingLeft("host1");

    EXPECT_EQ(TrustState(), "clock skew");
    ExpectSkew(lab::LeaveAsAdmin("host2"));
    EXPECT_EQ(lab::Ctl("host2", {"status", "--json"}).Json()["joined"], true);
}

INSTANTIATE_TEST_SUITE_P(BothWays, LabClocks, testing::Values("+10m", "-10m"),
                         [](const auto& each) {
                             return std::string(*each.param == '+' ? "Ahead" : "Behind");
                         });

} // namespace
