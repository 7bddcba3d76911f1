#include "operation.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace tessary::directory {
namespace {

std::atomic<bool> exiting{false};
std::atomic<int> running{0}; // operations between two waits

constexpr timespec pollInterval{0, 1'000'000};
constexpr int longestExitDelay = 500; // in poll intervals; what runs between two waits is short

void HoldOperationsAtExit() {
    exiting = true;
    for (int i = 0; i < longestExitDelay && running > 0; ++i)
        nanosleep(&pollInterval, nullptr);
}

// A forked child has none of its parent's other threads, so no operation of theirs to wait for.
void ForgetOperationsInChild() {
    running = 0;
}

void InstallHandlersOnce() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        std::atexit(HoldOperationsAtExit);
        pthread_atfork(nullptr, nullptr, ForgetOperationsInChild);
    });
}

void Enter() {
    ++running;
    if (exiting) {
        --running;
        for (;;)
            pause();
    }
}

void Leave() {
    --running;
}

sigset_t OnlySigpipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool SigpipePending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

} // namespace

Operation::Operation() : sigpipeWasPending_(SigpipePending()) {
    InstallHandlersOnce();
    const sigset_t sigpipe = OnlySigpipe();
    pthread_sigmask(SIG_BLOCK, &sigpipe, &previousMask_);
    Enter();
}

Operation::~Operation() {
    Leave();
    const sigset_t sigpipe = OnlySigpipe();
    const timespec none{0, 0};
    if (!sigpipeWasPending_ && SigpipePending())
        sigtimedwait(&sigpipe, nullptr, &none);
    pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

Waiting::Waiting() {
    Leave();
}

Waiting::~Waiting() {
    Enter();
}

} // namespace tessary::directory
