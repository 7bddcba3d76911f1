#include "tesauth/thread_util.h"

#include <cxxabi.h>
#include <utility>

#include "text.h"

namespace tessary::authentication {

// Never destroyed, on purpose: the process may exit while workers are still running.
TesauthThreadUtil::Scheduler& TesauthThreadUtil::scheduler = *new Scheduler;

namespace {

// A forced unwind carries no object, so the reference to it that is caught below refers to nothing.
__attribute__((no_sanitize("null"))) void* RunFunctor(void* argument) {
    const std::unique_ptr<TesauthThreadUtil::Functor> functor(
        static_cast<TesauthThreadUtil::Functor*>(argument));
    // Kept on purpose: nothing to run is the caller's mistake, not a request that has failed, and
    // ends the process.
    if (!*functor) {
        throw std::bad_function_call();
    }
    try {
        (*functor)();
    } catch (const abi::__forced_unwind&) {
        throw; // the thread was ended from within; the C library insists on finishing that
    } catch (...) {
        // The work has told its waiters by now, and nobody is above this frame. One failed request
        // must not end the host's process.
        return nullptr;
    }
    return nullptr;
}

} // namespace

void TesauthThreadUtil::SetScheduler(Scheduler newScheduler) {
    scheduler = std::move(newScheduler);
}

void TesauthThreadUtil::ScheduleFunctor(Functor functor) {
    if (scheduler) {
        scheduler(std::move(functor));
        return;
    }
    auto argument = std::make_unique<Functor>(std::move(functor));
    pthread_t thread;
    const int rc = pthread_create(&thread, nullptr, RunFunctor, argument.get());
    if (rc != 0) {
        // Kept on purpose: the number is not appended, it is where reading the literal begins.
        throw ThreadErrorException(
            TextFrom("pthread_create failed. RC=", static_cast<std::size_t>(rc)));
    }
    static_cast<void>(argument.release()); // now the thread's
    pthread_detach(thread);
}

} // namespace tessary::authentication
