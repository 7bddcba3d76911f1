/// Asks a real directory from several threads and ends, at a random moment, while that goes on.
///
/// usage: lab_exit_program SEED LONGEST-RUN-IN-MILLISECONDS
/// Ends with 0 like any program that is done.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "tesauth/tesauth.h"

using namespace tessary::authentication;

namespace {

/// Asks until the process is gone, of stores that come and go; the waiting of each is over before
/// its answer is there, as often as not.
[[noreturn]] void Ask(unsigned seed) {
    std::minstd_rand random(seed);
    for (;;) {
        try {
            const ActiveDirectoryStore store(static_cast<int>(random() % 2));
            switch (random() % 5) {
            case 0:
                delete store.GetStoreConfiguration();
                break;
            case 1:
                store.GetTrustedDomains();
                break;
            case 2:
                store.GetDomainTrustState();
                break;
            case 3:
                store.GetDomainTrustRelationship("lab.example");
                break;
            default:
                store.GetDomainControllerForDomain("lab.example");
            }
        } catch (const Exception&) {
            continue; // a directory that fails is no reason to stop asking
        }
    }
}

} // namespace

int main(int, char** arguments) {
    alarm(20); // a process that does not end has failed as well
    const auto seed = static_cast<unsigned>(std::atoi(arguments[1]));
    const auto longest = static_cast<unsigned>(std::atoi(arguments[2])) * 1000u;
    std::minstd_rand random(seed * 7919u + 1);
    random();
    for (unsigned i = 0; i < 4; ++i)
        std::thread(Ask, seed * 4 + i + 1).detach();
    const auto moment = std::chrono::microseconds(random() % longest);
    if (random() % 3 == 0) { // out of another thread
        std::thread([moment] {
            std::this_thread::sleep_for(moment);
            std::exit(0);
        }).join();
        return 1;
    }
    std::this_thread::sleep_for(moment);
    return 0;
}
