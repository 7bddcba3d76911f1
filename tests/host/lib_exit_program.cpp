/// Starts queries from several threads and ends, at a random moment, while they are in flight.
///
/// usage: lib_exit_program SEED
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "tesauth/tesauth.h"

using namespace tessary::authentication;

namespace {

/// Asks until the process is gone, of stores that come and go.
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
                store.UpdateCache(true);
            }
        } catch (const Exception&) {
            continue; // a provider that fails is no reason to stop asking
        }
    }
}

/// What runs at exit asks as well.
struct Late {
    ~Late() {
        if (store != nullptr) {
            try {
                store->GetTrustedDomains();
            } catch (const Exception&) {
                store.reset();
            }
        }
    }
    std::unique_ptr<ActiveDirectoryStore> store;
};

Late late;

/// The very last thing before the process is gone: all that is destroyed at exit has been
/// destroyed, and the workers get a moment more with what is left.
void Linger() {
    usleep(3000);
}

/// Runs before any library is initialised, so that Linger() comes after whatever they do at exit.
void RegisterLinger(int, char**, char**) {
    std::atexit(Linger);
}

__attribute__((section(".preinit_array"),
               used)) void (*const beforeLibraries)(int, char**, char**) = RegisterLinger;

} // namespace

int main(int, char** arguments) {
    alarm(20); // a process that does not end has failed as well
    const auto seed = static_cast<unsigned>(std::atoi(arguments[1]));
    std::minstd_rand random(seed * 7919u + 1);
    if (random() % 3 == 0) {
        late.store = std::make_unique<ActiveDirectoryStore>(0);
    }
    for (int i = 0; i < 3; ++i) {
        std::thread(Ask, seed + static_cast<unsigned>(i)).detach();
    }
    const auto moment = std::chrono::microseconds(random() % 4000);
    switch (random() % 3) {
    case 0: // out of another thread
        std::thread([moment] {
            std::this_thread::sleep_for(moment);
            std::exit(0);
        }).join();
        return 1;
    case 1:
        std::this_thread::sleep_for(moment);
        std::exit(0);
    default:
        std::this_thread::sleep_for(moment);
        return 0;
    }
}
