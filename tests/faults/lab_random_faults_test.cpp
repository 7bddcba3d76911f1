// Joins of many hosts at once, while their only domain controller is killed, frozen or cut off at a
// random moment. Whatever a host's join got to, the host is joined or it is not, knows which, and a
// plain join puts it right.

#include "lab_commands.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using lab::Command;
using lab::Result;
using lab::Setting;
using lab::Words;
using testing::AnyOf;
using Clock = std::chrono::steady_clock;

constexpr int newHosts = 25;   // join for the first time
constexpr int allHosts = 30;   // the others are members and join once more
constexpr auto spread = 300ms; // in which the joins begin

std::string NameOf(int host) {
    return "host" + std::to_string(host);
}

std::string AccountOf(int host) {
    return "HOST" + std::to_string(host) + "$";
}

bool IsMemberBefore(int host) {
    return host > newHosts;
}

/// What can be seen of a host's membership on the host itself.
struct HostState {
    bool joined = false;    ///< by its own account
    std::string trust;      ///< the trust state's name
    bool hasState = false;  ///< the membership is recorded
    bool hasKeys = false;   ///< the keytab has the account's keys
    bool leftovers = false; ///< files that were to become one of these
};

class LabRandomFaults : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const char* given = std::getenv("TESAUTH_TEST_SEED");
        const unsigned seed =
            given ? static_cast<unsigned>(std::atoi(given)) : std::random_device{}();
        std::cout << "TESAUTH_TEST_SEED=" << seed << std::endl;
        random_.seed(seed);
        RunOnAll(allHosts, {"true"});
        // These know where the controller was also while it answers nobody.
        for (int host = 1; host <= allHosts; host += 2)
            lab::UseOwnNameServer(NameOf(host));

        for (const Result& joined : JoinAll("", {}))
            ASSERT_EQ(joined.status, 0) << joined.err;
        duration_ = lastDuration_;
        LeaveNewHosts();
    }

    /// Runs a command on the hosts 1 to `count`, all at once.
    static std::vector<Result> RunOnAll(int count, const Words& words,
                                        const std::string& input = "") {
        std::vector<Command> commands;
        for (int host = 1; host <= count; ++host) {
            commands.emplace_back(lab::WordsOn(NameOf(host), words));
            commands.back().Write(input);
        }
        std::vector<Result> results;
        for (Command& command : commands)
            results.push_back(command.Finish());
        return results;
    }

    /// Joins all hosts, each at a moment of its own, with one verb of the lab in between.
    static std::vector<Result> JoinAll(const std::string& fault, Clock::duration faultMoment) {
        const std::string join = "echo ready; read -r go; exec tesauthctl join " +
                                 Setting("DOMAIN") + " -U " + Setting("ADMIN") +
                                 " --password-stdin --json";
        std::vector<Command> commands;
        std::multimap<Clock::duration, int> starts; // 0 stands for the fault
        for (int host = 1; host <= allHosts; ++host) {
            commands.emplace_back(lab::WordsOn(NameOf(host), {"sh", "-c", join}));
            starts.emplace(Random(0ms, spread), host);
        }
        for (const Command& command : commands)
            command.AwaitOutput();
        if (!fault.empty())
            starts.emplace(faultMoment, 0);

        std::vector<Command> faults;
        const auto beginning = Clock::now();
        for (const auto& [moment, host] : starts) {
            std::this_thread::sleep_until(beginning + moment);
            if (host == 0)
                faults.emplace_back(Words{std::getenv("TESAUTH_LAB"), fault, "dc1"});
            else
                commands[static_cast<std::size_t>(host - 1)].Write("go\n" + Setting("PASSWORD") +
                                                                   "\n");
        }
        std::vector<Result> results;
        for (Command& command : commands) {
            results.push_back(command.Finish());
            results.back().out.erase(0, std::string("ready\n").size());
        }
        lastDuration_ =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - beginning);
        for (Command& each : faults)
            EXPECT_EQ(each.Finish().status, 0);
        return results;
    }

    static void LeaveNewHosts() {
        for (const Result& left :
             RunOnAll(newHosts, {"tesauthctl", "leave", "-U", Setting("ADMIN"), "--password-stdin"},
                      Setting("PASSWORD") + "\n"))
            ASSERT_EQ(left.status, 0) << left.err;
        std::vector<std::string> members;
        for (int host = newHosts + 1; host <= allHosts; ++host)
            members.push_back(AccountOf(host));
        ASSERT_THAT(lab::Computers("dc1", Setting("DOMAIN")),
                    testing::UnorderedElementsAreArray(members));
    }

    static Clock::duration Random(std::chrono::milliseconds from, std::chrono::milliseconds to) {
        return std::chrono::milliseconds(
            std::uniform_int_distribution<long>(from.count(), to.count())(random_));
    }

    static std::vector<HostState> LookAtHosts() {
        std::vector<HostState> states;
        for (const Result& told :
             RunOnAll(allHosts, {"tesauthctl", "status", "--timeout", "20", "--json"})) {
            EXPECT_EQ(told.status, 0) << told.err;
            const auto status = told.Json();
            EXPECT_TRUE(status["trustState"]["live"].get<bool>());
            states.push_back({status["joined"], status["trustState"]["name"], false, false, false});
        }
        const auto files =
            RunOnAll(allHosts, {"sh", "-c", "ls /etc /var/lib/tessary; klist -k /etc/krb5.keytab"});
        for (std::size_t i = 0; i < files.size(); ++i) {
            const auto holds = [&](const std::string& text) {
                return files[i].out.find(text) != std::string::npos;
            };
            states[i].hasState = holds("\ndomain_state\n");
            states[i].hasKeys = holds(" " + AccountOf(static_cast<int>(i) + 1) + "@");
            states[i].leftovers = holds("tessary-new");
        }
        return states;
    }

    static void ExpectWhole(int host, const Result& join, const HostState& state,
                            const std::set<std::string>& accounts) {
        SCOPED_TRACE(NameOf(host) + ": " + join.err);
        const bool succeeded = join.status == 0;
        const bool member = succeeded || IsMemberBefore(host);
        EXPECT_THAT(join.status, AnyOf(0, 1));
        EXPECT_EQ(state.joined, member);
        EXPECT_EQ(state.hasState, member);
        EXPECT_EQ(state.hasKeys, member);
        EXPECT_FALSE(state.leftovers);
        EXPECT_TRUE(!member || accounts.count(AccountOf(host)));
        if (succeeded) {
            EXPECT_EQ(state.trust, "good");
        } else if (member) { // the account may have got its new key with nobody left to say so
            EXPECT_THAT(state.trust, AnyOf("good", "key rejected"));
        } else {
            EXPECT_EQ(state.trust, "not joined");
        }
    }

    /// \return how many joins the fault hit
    static int Round(const std::string& fault, const std::string& recovery,
                     Clock::duration moment) {
        const std::vector<Result> joins = JoinAll(fault, moment);
        lab::Lab({recovery, "dc1"});

        const auto names = lab::Computers("dc1", Setting("DOMAIN"));
        const std::set<std::string> accounts(names.begin(), names.end());
        const std::vector<HostState> states = LookAtHosts();
        std::map<std::string, int> outcomes;
        int failed = 0;
        for (int host = 1; host <= allHosts; ++host) {
            const auto i = static_cast<std::size_t>(host - 1);
            ExpectWhole(host, joins[i], states[i], accounts);
            if (joins[i].status == 0) {
                ++outcomes["joined"];
                continue;
            }
            ++failed;
            const auto code = joins[i].Json()["error"]["code"];
            EXPECT_THAT(code, AnyOf(1225, 1311, 10060)) << joins[i].err;
            ++outcomes["failed with " + code.dump()];
            outcomes["account left"] += !IsMemberBefore(host) && accounts.count(AccountOf(host));
            outcomes["key rejected"] += states[i].trust == "key rejected";
        }
        std::cout << fault << " after "
                  << std::chrono::duration_cast<std::chrono::milliseconds>(moment).count()
                  << " ms of " << duration_.count() << ":";
        for (const auto& [outcome, count] : outcomes)
            std::cout << " " << count << " " << outcome << ";";
        std::cout << std::endl;
        return failed;
    }

    static void ExpectJoinPutsAllRight() {
        for (const Result& joined : JoinAll("", {}))
            EXPECT_EQ(joined.status, 0) << joined.err;
        for (const HostState& state : LookAtHosts()) {
            EXPECT_TRUE(state.joined);
            EXPECT_EQ(state.trust, "good");
        }
        LeaveNewHosts();
    }

    /// Two rounds: one early, when most joins are still to begin or under way, one late.
    static void TwoRounds(const std::string& fault, const std::string& recovery) {
        int failed = Round(fault, recovery, Random(duration_ * 15 / 100, duration_ / 2));
        ExpectJoinPutsAllRight();
        failed += Round(fault, recovery, Random(duration_ / 2, duration_ * 85 / 100));
        ExpectJoinPutsAllRight();
        EXPECT_GT(failed, 0) << "the fault came too late to matter";
    }

    static std::mt19937 random_;
    static std::chrono::milliseconds lastDuration_; ///< of all joins together
    static std::chrono::milliseconds duration_;     ///< the same, when nothing is wrong
};

std::mt19937 LabRandomFaults::random_;
std::chrono::milliseconds LabRandomFaults::lastDuration_;
std::chrono::milliseconds LabRandomFaults::duration_;

TEST_F(LabRandomFaults, KilledController) {
    TwoRounds("kill", "start");
}

TEST_F(LabRandomFaults, FrozenController) {
    TwoRounds("freeze", "thaw");
}

TEST_F(LabRandomFaults, ControllerThatIsCutOff) {
    TwoRounds("cut", "join");
}

} // namespace
