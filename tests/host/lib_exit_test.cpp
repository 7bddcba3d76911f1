#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "scripted_host.h"

namespace {

using namespace scripted;

constexpr int processes = 1000;
constexpr int atATime = 4;

/// Runs the program and returns its wait status.
int StatusOf(int seed) {
    std::string program = LIB_EXIT_PROGRAM_FILE, number = std::to_string(seed);
    char* arguments[] = {program.data(), number.data(), nullptr};
    pid_t child;
    int status = -1;
    if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) == 0) {
        waitpid(child, &status, 0);
    }
    return status;
}

class ExitTest : public HostTest {
protected:
    ExitTest() {
        InstallPlugin(SCRIPTED_PROVIDER_FILE, "scripted");
        WriteFile(providerFile, "provider = scripted\n");
    }

    /// Ends many processes on a host whose provider follows a script.
    void EndMany(const std::string& script) {
        WriteFile("/etc/tessary/scripted-provider.conf", script);
        std::atomic<int> next(0), failed(0);
        std::vector<std::thread> starters;
        for (int i = 0; i < atATime; ++i) {
            starters.emplace_back([&] {
                for (int seed = next++; seed < processes / 2; seed = next++) {
                    const int status = StatusOf(seed);
                    if (status != 0) {
                        ++failed;
                        ADD_FAILURE() << "seed " << seed << ": wait status " << status;
                    }
                }
            });
        }
        for (std::thread& starter : starters) {
            starter.join();
        }
        EXPECT_EQ(failed, 0);
    }
};

TEST_F(ExitTest, WithCallsThatComeAndGo) {
    EndMany("getActiveDomain.delay_ms=0-2\ngetTrustedDomains.delay_ms=0-3\n"
            "getTrustedDomains.random_failure=30:1355\ngetDomainTrustState.delay_ms=0-1\n"
            "getDomainTrustRelationship.delay_ms=0-2\ngetSmartCardEnabledServices.delay_ms=0-1\n");
}

TEST_F(ExitTest, WithCallsThatDoNotReturn) {
    EndMany("getTrustedDomains.hang=1\ngetDomainTrustRelationship.hang=1\n");
}

} // namespace
