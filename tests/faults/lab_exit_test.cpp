// A program that ends while its questions to the directory are still under way ends like any other.

#include "lab_commands.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using lab::Setting;

constexpr int atOnce = 4;

unsigned Seed() {
    const char* given = std::getenv("TESAUTH_TEST_SEED");
    return given ? static_cast<unsigned>(std::atoi(given)) : std::random_device{}() % 100000;
}

class LabExit : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const lab::Result joined = lab::Run(
            {"tesauthctl", "join", Setting("DOMAIN"), "-U", Setting("ADMIN"), "--password-stdin"},
            Setting("PASSWORD") + "\n");
        ASSERT_EQ(joined.status, 0) << joined.err;
    }

    /// Lets that many programs run, each for a random time, several at once.
    static void RunPrograms(int count, int longestMilliseconds) {
        const unsigned seed = Seed();
        SCOPED_TRACE("TESAUTH_TEST_SEED=" + std::to_string(seed));
        std::vector<std::thread> runners;
        std::vector<std::string> failures[atOnce];
        for (int runner = 0; runner < atOnce; ++runner)
            runners.emplace_back([=, &failures] {
                for (int i = runner; i < count; i += atOnce) {
                    const std::string own = std::to_string(seed + static_cast<unsigned>(i));
                    const lab::Result result =
                        lab::Run({LAB_EXIT_PROGRAM_FILE, own, std::to_string(longestMilliseconds)});
                    if (result.status != 0 || !result.err.empty())
                        failures[runner].push_back("seed " + own + ": status " +
                                                   std::to_string(result.status) + " " +
                                                   result.err);
                }
            });
        for (std::thread& runner : runners)
            runner.join();
        for (const auto& list : failures)
            EXPECT_THAT(list, testing::IsEmpty());
    }
};

TEST_F(LabExit, ControllerThatAnswers) {
    RunPrograms(800, 40);
}

TEST_F(LabExit, ControllerThatIsSilent) {
    lab::Lab({"freeze", "dc1"});
    RunPrograms(100, 100);
    lab::Lab({"thaw", "dc1"});
}

TEST_F(LabExit, ControllerThatIsGone) {
    lab::Lab({"kill", "dc1"});
    RunPrograms(100, 50);
    lab::Lab({"start", "dc1"});
}

// It stops and goes on all the time, so that programs end in the middle of every step.
TEST_F(LabExit, ControllerThatIsSlow) {
    std::atomic<bool> done{false};
    std::thread pace([&] {
        std::minstd_rand random(Seed() + 1);
        while (!done) {
            lab::Lab({"freeze", "dc1"});
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
            lab::Lab({"thaw", "dc1"});
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
        }
    });
    RunPrograms(200, 300);
    done = true;
    pace.join();
}

} // namespace
