// A whole fleet joins through one authentication proxy at once.

#include "lab_proxy_machine.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using lab::Command;
using lab::ProxyMachine;
using lab::Result;
using lab::Setting;
using lab::Words;
using testing::SizeIs;

constexpr std::size_t fleet = 200;

Words FleetNames() {
    Words names;
    for (std::size_t i = 1; i <= fleet; ++i)
        names.push_back("host" + std::to_string(i));
    return names;
}

/// Runs a bash script on every host, all at once, as soon as every host is up.
std::vector<Result> OnAll(const Words& hosts, const std::string& script) {
    std::vector<Command> commands;
    for (const std::string& host : hosts) {
        commands.emplace_back(
            lab::WordsOn(host, {"bash", "-c", "echo ready; read -r input;" + script}));
        commands.back().AwaitOutput(); // one after the other: this is not what is measured
    }
    for (Command& command : commands)
        command.Write("\n");
    std::vector<Result> results;
    for (Command& command : commands)
        results.push_back(command.Finish());
    for (std::size_t i = 0; i < hosts.size(); ++i)
        EXPECT_EQ(results[i].status, 0) << hosts[i] << ": " << results[i].err;
    return results;
}

TEST(LabProxyFleet, TwoHundredHostsJoinAtOnce) {
    const Words hosts = FleetNames();
    const ProxyMachine proxy("host" + std::to_string(fleet + 1), hosts);
    const std::string certificate = proxy.Certificate();
    OnAll(hosts, "cat >/run/proxy.pem <<'END'\n" + certificate +
                     "END\ntesauthctl proxy import-certificate /run/proxy.pem >&2");
    ASSERT_EQ(lab::Ctl("host1", {"proxy", "domain", proxy.Address()}).status, 0);
    const std::size_t descriptors = proxy.Descriptors();
    const std::size_t threads = proxy.Threads();

    const std::vector<Result> results =
        OnAll(hosts, "start=${EPOCHREALTIME/[^0-9]/}; tesauthctl join --proxy " + proxy.Address() +
                         " >&2; status=$?; "
                         "echo $(((${EPOCHREALTIME/[^0-9]/} - start) / 1000)); exit $status");
    std::vector<long> times;
    for (const Result& result : results)
        times.push_back(std::atol(result.out.c_str() + result.out.find('\n')));
    std::sort(times.begin(), times.end());
    const long median = (times[(fleet - 1) / 2] + times[fleet / 2]) / 2;
    RecordProperty("median_ms", std::to_string(median));
    RecordProperty("slowest_ms", std::to_string(times.back()));
    std::cout << fleet << " hosts join through one proxy at once, time per host: median " << median
              << " ms, slowest " << times.back() << " ms" << std::endl;

    const std::vector<std::string> accounts = lab::Computers("dc1", Setting("DOMAIN"));
    EXPECT_THAT(accounts, SizeIs(fleet));
    EXPECT_THAT(std::set<std::string>(accounts.begin(), accounts.end()), SizeIs(fleet));
    OnAll(hosts, "kinit -k \"${HOSTNAME^^}\\$@" + Setting("REALM") + "\"");

    // What a request needs is given back when it is over; up to four sessions wait for the next.
    EXPECT_LE(proxy.Threads(), threads);
    EXPECT_LE(proxy.Descriptors(), descriptors + 2 * 4);
}

} // namespace
