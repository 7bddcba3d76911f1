// Domain controllers of which most are dead, or worse; and one that only one of two protocols
// reaches. The host finds those that work, and says what is wrong where there are none.

#include "hostile_controller.h"
#include "lab_commands.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using lab::HostileAddress;
using lab::HostileController;
using lab::NamedController;
using lab::Result;
using lab::Setting;
using lab::Words;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds longestJoin{6}; // whatever becomes of four controllers of five
constexpr int hostCount = 6;                   // that are tested side by side
constexpr int refusing = 48;                   // hostile addresses where nothing listens
constexpr int dropping = 49;

#if defined(__SANITIZE_ADDRESS__)
constexpr char memory[] = "--data=unlimited"; // the sanitizer's own takes terabytes of addresses
#else
constexpr char memory[] = "--data=134217728"; // bytes; far more than a join needs
#endif

std::string HostName(std::size_t number) {
    return "host" + std::to_string(number + 1);
}

/// A command with an upper limit of memory and time, neither of which it is to reach.
Words Limited(const Words& words) {
    Words limited{"prlimit", memory, "timeout", "30"};
    limited.insert(limited.end(), words.begin(), words.end());
    return limited;
}

Words JoinWords() {
    return Limited({"tesauthctl", "join", Setting("DOMAIN"), "-U", Setting("ADMIN"),
                    "--password-stdin", "--json"});
}

class LabControllers : public testing::Test {
protected:
    static void SetUpTestSuite() {
        // A host that is there and refuses, and one that no frame reaches.
        lab::Run({"ip", "address", "replace", HostileAddress(refusing) + "/24", "dev", "lan"});
        for (int i = 0; i < hostCount; ++i) {
            const std::string host = HostName(static_cast<std::size_t>(i));
            const Result result =
                lab::RunOn(host, {"ip", "neigh", "replace", HostileAddress(dropping), "lladdr",
                                  "02:00:00:00:00:99", "dev", "eth0", "nud", "permanent"});
            ASSERT_EQ(result.status, 0) << result.err;
        }
        for (std::size_t i = 0; i < lab::mannerCount; ++i)
            hostile_.push_back(
                std::make_unique<HostileController>(static_cast<int>(i), lab::manners[i]));
        silent_ = {"silent.corp.example", AddressOf("silent")};
    }
    static void TearDownTestSuite() { hostile_.clear(); }

    static const std::string& AddressOf(const std::string& manner) {
        return Find(manner).Address();
    }
    static const HostileController& Find(const std::string& manner) {
        const auto found =
            std::find_if(lab::manners, lab::manners + lab::mannerCount,
                         [&](const lab::Manner& each) { return each.name == manner; });
        return *hostile_.at(static_cast<std::size_t>(found - lab::manners));
    }

    /// A controller of each dead kind: one refuses, one drops packets, one is silent, and one is of
    /// that manner.
    static std::vector<NamedController> Dead(std::size_t manner) {
        return {{"refusing.corp.example", HostileAddress(refusing)},
                {"dropping.corp.example", HostileAddress(dropping)},
                silent_,
                {"hostile.corp.example", hostile_[manner]->Address()}};
    }

    /// Runs a command on the first hosts, all at once.
    static std::vector<Result> OnEach(std::size_t count, const Words& words,
                                      const std::string& input = "") {
        std::vector<lab::Command> commands;
        for (std::size_t i = 0; i < count; ++i) {
            commands.emplace_back(lab::WordsOn(HostName(i), words));
            commands.back().Write(input);
        }
        std::vector<Result> results;
        for (lab::Command& command : commands)
            results.push_back(command.Finish());
        return results;
    }

    /// Looks at the first hosts, which are members of the domain, and has them leave it.
    /// \param names what tells the hosts apart to a person
    static void ExpectMembersThatLeave(const std::vector<std::string>& names) {
        const std::size_t count = names.size();
        const auto states = OnEach(count, {"tesauthctl", "status", "--json"});
        const auto controllers = OnEach(count, {"tesauthctl", "dc", Setting("DOMAIN")});
        const auto left =
            OnEach(count, {"tesauthctl", "leave", "-U", Setting("ADMIN"), "--password-stdin"},
                   Setting("PASSWORD") + "\n");
        for (std::size_t i = 0; i < count; ++i) {
            SCOPED_TRACE(names[i]);
            const nlohmann::json status = states[i].Json();
            EXPECT_EQ(status["joined"], true);
            EXPECT_EQ(status["trustState"],
                      (nlohmann::json{{"value", 1}, {"name", "good"}, {"live", true}}));
            EXPECT_EQ(status["domainController"], Setting("DC1"));
            EXPECT_EQ(controllers[i].out, Setting("DC1") + "\n");
            EXPECT_EQ(left[i].status, 0) << left[i].err;
            lab::ExpectNothingLeft(HostName(i));
        }
    }

    static std::vector<std::unique_ptr<HostileController>> hostile_; // one of each manner
    static NamedController silent_;
};

std::vector<std::unique_ptr<HostileController>> LabControllers::hostile_;
NamedController LabControllers::silent_;

/// Calls a function with the first number and the number of manners of one batch after the other:
/// each host takes one manner at a time.
template <typename Function>
void InBatches(Function function) {
    for (std::size_t first = 0; first < lab::mannerCount; first += hostCount)
        function(first, std::min<std::size_t>(hostCount, lab::mannerCount - first));
}

TEST_F(LabControllers, FourDeadOnesOfFiveCostAJoinLittle) {
    Clock::duration slowest{};
    InBatches([&](std::size_t first, std::size_t count) {
        std::vector<std::string> names;
        std::vector<int> visitors;
        for (std::size_t i = first; i < first + count; ++i) {
            std::vector<NamedController> all = Dead(i);
            std::rotate(all.begin(), all.begin() + static_cast<long>(i % all.size()), all.end());
            all.push_back(lab::RealController());
            lab::UseOwnNameServer(HostName(i - first), all);
            names.push_back(lab::manners[i].name);
            visitors.push_back(hostile_[i]->Visitors());
        }
        const auto start = Clock::now();
        const std::vector<Result> joined = OnEach(count, JoinWords(), Setting("PASSWORD") + "\n");
        slowest = std::max(slowest, Clock::now() - start);
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(joined[i].status, 0) << names[i] << ": " << joined[i].err;
            EXPECT_GT(hostile_[first + i]->Visitors(), visitors[i]) << "it came first";
        }
        ExpectMembersThatLeave(names);
    });
    EXPECT_LT(slowest, longestJoin);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(slowest).count();
    RecordProperty("slowest_join_ms", std::to_string(milliseconds));
    std::cout << "slowest join with four dead controllers of five, " << hostCount
              << " hosts at a time: " << milliseconds << " ms" << std::endl;
}

TEST_F(LabControllers, PreferredOnesMayBeDead) {
    lab::UseOwnNameServer("host1");
    std::string preferred;
    for (const NamedController& controller : Dead(0))
        preferred += controller.address + "\n";
    preferred += "nowhere.corp.example\n";
    ASSERT_EQ(lab::RunOn("host1", {"install", "-d", "-m", "0700", "/var/lib/tessary"}).status, 0);
    ASSERT_EQ(
        lab::RunOn("host1", {"tee", "/var/lib/tessary/preferred_controllers"}, preferred).status,
        0);
    const int visitors = Find("silent").Visitors();
    const auto start = Clock::now();
    const Result joined = lab::RunOn("host1", JoinWords(), Setting("PASSWORD") + "\n");
    EXPECT_LT(Clock::now() - start, longestJoin);
    EXPECT_EQ(joined.status, 0) << joined.err;
    EXPECT_GT(Find("silent").Visitors(), visitors) << "preferred ones come first";
    ExpectMembersThatLeave({"host1"});
    EXPECT_EQ(lab::RunOn("host1", {"cat", "/var/lib/tessary/preferred_controllers"}).out,
              preferred);
    lab::RunOn("host1", {"rm", "/var/lib/tessary/preferred_controllers"});
}

// There is no controller but that one: the command ends, in bounded time and memory, and blames the
// controller or the network.
TEST_F(LabControllers, HostileOneAloneIsNoController) {
    InBatches([&](std::size_t first, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            lab::UseOwnNameServer(HostName(i),
                                  {{"hostile.corp.example", hostile_[first + i]->Address()}});
        const std::vector<Result> joined = OnEach(count, JoinWords(), Setting("PASSWORD") + "\n");
        for (std::size_t i = 0; i < count; ++i) {
            SCOPED_TRACE(lab::manners[first + i].name);
            EXPECT_EQ(joined[i].status, 1);
            EXPECT_EQ(joined[i].Json()["error"]["code"], lab::manners[first + i].code)
                << joined[i].err;
            lab::ExpectNothingLeft(HostName(i));
        }
    });
}

TEST_F(LabControllers, OneReachedByIPv6OnlyServesAsWell) {
    if (Setting("DC1_ADDRESS6").empty())
        GTEST_SKIP() << "this kernel has no IPv6";
    // In the one case the host knows that it has no way there, in the other it has to find out.
    const Words barriers[] = {
        {"ip", "route", "add", "unreachable", Setting("DC1_ADDRESS")},
        {"ip", "neigh", "replace", Setting("DC1_ADDRESS"), "lladdr", "02:00:00:00:00:99", "dev",
         "eth0", "nud", "permanent"},
    };
    for (const Words& barrier : barriers) {
        SCOPED_TRACE(testing::PrintToString(barrier));
        lab::Lab({"fresh", "host1"});
        ASSERT_EQ(lab::RunOn("host1", barrier).status, 0);
        ASSERT_EQ(lab::RunOn("host1", {"tee", "/etc/resolv.conf"},
                             "nameserver " + Setting("DC1_ADDRESS6") + "\n")
                      .status,
                  0);
        const Result joined = lab::JoinAsAdmin("host1");
        EXPECT_EQ(joined.status, 0) << joined.err;
        ExpectMembersThatLeave({"host1"});
    }
    EXPECT_THAT(lab::Computers("dc1", Setting("DOMAIN")), IsEmpty());
}

} // namespace
