// Honest hosts join through an authentication proxy that is under attack from hosts that may ask.

#include "lab_proxy_machine.h"

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using lab::Command;
using lab::ProxyMachine;
using lab::Result;

constexpr int rounds = 12;
constexpr long servedWithin = 2000; // milliseconds
constexpr long mostMemory = 1024;   // mebibytes: the service's limit

/// Joins and leaves again, again and again.
/// \return the time that each join took, in milliseconds
std::vector<long> JoinAgainAndAgain(const ProxyMachine& proxy) {
    const std::string script = "start=${EPOCHREALTIME/[^0-9]/}; tesauthctl join --proxy " +
                               proxy.Address() +
                               " >&2 && echo $(((${EPOCHREALTIME/[^0-9]/} - start) / 1000)) && "
                               "tesauthctl leave >&2";
    std::vector<long> times;
    for (int i = 0; i < rounds; ++i) {
        const Result joined = lab::RunOn("host1", {"bash", "-c", script});
        EXPECT_EQ(joined.status, 0) << joined.err;
        if (joined.status != 0)
            break;
        times.push_back(std::stol(joined.out));
        const std::string host = "host1." + lab::Setting("DOMAIN");
        EXPECT_EQ(proxy.On({"tesauth-apxd", "release", host}).status, 0);
    }
    std::sort(times.begin(), times.end());
    return times;
}

class LabProxyAttack : public testing::TestWithParam<const char*> {};

TEST_P(LabProxyAttack, HonestHostsAreServed) {
    const std::string attack = GetParam();
    lab::MakeClient("host1");
    for (const std::string& left : lab::Computers("dc1", lab::Setting("DOMAIN")))
        lab::Lab({"on", "dc1", "samba-tool", "computer", "delete", left});
    const ProxyMachine proxy("host2", {"host1"}, "", R"("127.0.1.0/24")");
    lab::ImportCertificate("host1", proxy.Certificate());
    ASSERT_EQ(lab::Ctl("host1", {"proxy", "domain", proxy.Address()}).status, 0);

    std::string attempts = "0";
    std::vector<long> times;
    if (attack == "none") {
        times = JoinAgainAndAgain(proxy);
    } else {
        Command attacker(lab::WordsOn("host2", {LAB_PROXY_ATTACKER_FILE, attack}));
        attacker.AwaitOutput();
        times = JoinAgainAndAgain(proxy);
        const Result result = attacker.Finish();
        EXPECT_EQ(result.status, 0) << result.err;
        attempts = result.out.substr(result.out.find('\n') + 1);
        attempts.pop_back();
        EXPECT_GT(std::stol(attempts), 0);
    }
    ASSERT_EQ(times.size(), std::size_t{rounds});
    const long memory = proxy.PeakMemory();
    std::cout << "attack: " << attack << ", " << attempts << " attempts; " << rounds
              << " joins: median " << (times[rounds / 2 - 1] + times[rounds / 2]) / 2
              << " ms, slowest " << times.back()
              << " ms; the proxy's memory at its peak: " << memory << " MiB" << std::endl;
    EXPECT_LT(times.back(), servedWithin);
    EXPECT_LT(memory, mostMemory);
    EXPECT_THAT(lab::Computers("dc1", lab::Setting("DOMAIN")),
                testing::ElementsAre(testing::StrCaseEq("host1$")));
}

INSTANTIATE_TEST_SUITE_P(All, LabProxyAttack,
                         testing::Values("none", "malformed", "slow", "bodies", "greetings",
                                         "handshakes", "records", "health"),
                         [](const auto& attack) { return std::string(attack.param); });

} // namespace
