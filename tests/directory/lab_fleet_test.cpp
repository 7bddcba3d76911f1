// A whole fleet joins one domain controller at once, and leaves it at once.

#include "lab_commands.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using lab::Command;
using lab::Result;
using lab::Setting;
using lab::Words;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t fleet = 50;

std::string HostName(std::size_t number) {
    return "host" + std::to_string(number + 1);
}

/// Runs a bash script on every host, all at once.
std::vector<Result> OnAll(const std::string& script, const std::string& input = "") {
    std::vector<Command> commands;
    for (std::size_t i = 0; i < fleet; ++i)
        commands.emplace_back(
            lab::WordsOn(HostName(i), {"bash", "-c", "echo ready; read -r input;" + script}));
    for (const Command& command : commands)
        command.AwaitOutput();
    for (Command& command : commands)
        command.Write(input + "\n");
    std::vector<Result> results;
    for (Command& command : commands)
        results.push_back(command.Finish());
    return results;
}

void ExpectAllSucceed(const std::vector<Result>& results) {
    for (std::size_t i = 0; i < fleet; ++i)
        EXPECT_EQ(results[i].status, 0) << HostName(i) << ": " << results[i].err;
}

/// Runs `tesauthctl` on every host at once, with the administrator's password.
/// \return the milliseconds that it took on each, sorted
std::vector<long> TimeOnAll(const std::string& words) {
    const std::vector<Result> results =
        OnAll("start=${EPOCHREALTIME/[^0-9]/}; tesauthctl " + words + " -U " + Setting("ADMIN") +
                  " --password-stdin <<<\"$input\" >&2; status=$?; "
                  "echo $(((${EPOCHREALTIME/[^0-9]/} - start) / 1000)); exit $status",
              Setting("PASSWORD"));
    ExpectAllSucceed(results);
    std::vector<long> times;
    for (const Result& result : results)
        times.push_back(std::atol(result.out.c_str() + result.out.find('\n')));
    std::sort(times.begin(), times.end());
    return times;
}

void Report(const std::string& what, const std::vector<long>& times) {
    const long median = (times[(fleet - 1) / 2] + times[fleet / 2]) / 2;
    testing::Test::RecordProperty(what + "_median_ms", std::to_string(median));
    testing::Test::RecordProperty(what + "_slowest_ms", std::to_string(times.back()));
    std::cout << fleet << " hosts " << what << " at once, time per host: median " << median
              << " ms, slowest " << times.back() << " ms" << std::endl;
}

TEST(LabFleet, FiftyHostsJoinAtOnceAndLeaveAtOnce) {
    ExpectAllSucceed(OnAll("true")); // every host is up

    Report("join", TimeOnAll("join " + Setting("DOMAIN")));
    const std::vector<std::string> accounts = lab::Computers("dc1", Setting("DOMAIN"));
    EXPECT_THAT(accounts, SizeIs(fleet));
    EXPECT_THAT(std::set<std::string>(accounts.begin(), accounts.end()), SizeIs(fleet));

    // Each host's own key opens the account of that host.
    ExpectAllSucceed(OnAll("kinit -k \"${HOSTNAME^^}\\$@" + Setting("REALM") + "\" && kdestroy"));

    Report("leave", TimeOnAll("leave"));
    EXPECT_THAT(lab::Computers("dc1", Setting("DOMAIN")), IsEmpty());
    for (std::size_t i = 0; i < fleet; ++i)
        lab::ExpectNothingLeft(HostName(i));
}

} // namespace
