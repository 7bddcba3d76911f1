/// The two pieces that asynchronous provider calls are made of: a scheduler that starts work, and
/// an object that its callers wait on.
#ifndef TESAUTH_THREAD_UTIL_H
#define TESAUTH_THREAD_UTIL_H

#include <functional>
#include <memory>
#include <pthread.h>

#include "tesauth/exceptions.h"
#include "tesauth/export.h"

namespace tessary {
namespace authentication {

/// Runs functions asynchronously: on a detached thread of their own, or wherever the host says.
class TESAUTH_API TesauthThreadUtil {
public:
    using Functor = std::function<void()>;
    using Scheduler = std::function<void(Functor)>;

    /// Replaces the scheduler; an empty one restores detached threads. Takes no lock: call it
    /// before any request runs. The scheduler is called with the store's lock held and must not
    /// call back into the store before it returns.
    static void SetScheduler(Scheduler newScheduler);

    /// Starts a function and returns. Throws ThreadErrorException when no thread can be started.
    /// An exception that leaves the function on a thread of its own ends there; an empty function
    /// raises std::bad_function_call, which ends the process.
    static void ScheduleFunctor(Functor functor);

protected:
    static Scheduler& scheduler;
};

/// The completion of one request, shared by the worker that carries it out and by all who wait.
/// May be used from any thread.
class TESAUTH_API RequestState {
public:
    RequestState();
    ~RequestState();
    RequestState(const RequestState&) = delete;
    RequestState& operator=(const RequestState&) = delete;

    /// Marks the request finished, with the worker's error if there is one, and wakes all waiters.
    /// Called once a request: a later error replaces the one that a waiter may be throwing.
    void Done(std::unique_ptr<Exception>&& result);

    /// Waits until the request is finished, at most that many seconds. A request that is finished
    /// already answers at once, whatever the time-out. Throws a copy of the worker's error,
    /// ProviderCallTimedOutException when the time passes first, and ThreadErrorException when
    /// waiting fails.
    void WaitResult(int timeoutSeconds);

private:
    bool done;
    std::unique_ptr<Exception> error;
    pthread_mutex_t mutex;
    pthread_cond_t condition;
};

} // namespace authentication
} // namespace tessary

#endif
