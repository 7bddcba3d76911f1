#include "work_queue.h"

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <new>
#include <string>
#include <system_error>

namespace {
/// How many more threads the system starts; any number where it is negative.
std::atomic<int> threadsToBeHad = -1;
} // namespace

/// In place of the C library's.
extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* attributes,
                                                             void* (*start)(void*),
                                                             void* argument) {
    if (threadsToBeHad == 0)
        return EAGAIN;
    if (threadsToBeHad > 0)
        --threadsToBeHad;
    using Function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, start, argument);
}

namespace {

using namespace tessary::proxy;
using tessary::directory::Deadline;

const IpAddress one = *IpAddress::Parse("192.0.2.1");
const IpAddress other = *IpAddress::Parse("192.0.2.2");
const IpAddress third = *IpAddress::Parse("192.0.2.3");
constexpr std::chrono::seconds patience{20};

/// Holds jobs until it is opened.
struct Gate {
    std::promise<void> opening;
    std::shared_future<void> open = opening.get_future().share();
    std::atomic<int> waiting = 0;

    std::function<void()> Job() {
        return [this] {
            ++waiting;
            open.wait();
        };
    }
    bool HasWaiting(int count) const {
        const Deadline deadline = Deadline::In(patience);
        while (waiting < count && !deadline.Passed())
            std::this_thread::yield();
        return waiting == count;
    }
};

TEST(WorkQueueTest, LetsOthersPassASiteThatHasEnoughRunning) {
    WorkQueue queue(3, 2);
    Gate gate;
    std::promise<void> passed;
    for (std::uint64_t id = 1; id <= 5; ++id)
        queue.Add({id, one, false, gate.Job()});
    ASSERT_TRUE(gate.HasWaiting(2));
    queue.Add({6, other, false, [&] { passed.set_value(); }});
    EXPECT_EQ(passed.get_future().wait_for(patience), std::future_status::ready);
    EXPECT_EQ(gate.waiting, 2);
    EXPECT_FALSE(queue.WaitUntilIdle(Deadline::In(std::chrono::milliseconds(20))));
    gate.opening.set_value();
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
    EXPECT_EQ(gate.waiting, 5);
}

/// The order in which jobs were run.
class Order {
public:
    std::function<void()> Job(char who) {
        return [this, who] {
            const std::lock_guard lock(mutex_);
            done_ += who;
        };
    }
    std::string Done() {
        const std::lock_guard lock(mutex_);
        return done_;
    }

private:
    std::mutex mutex_;
    std::string done_;
};

TEST(WorkQueueTest, SitesWithNothingRunningGoFirst) {
    WorkQueue queue(2, 2);
    Gate held, first;
    Order order;
    queue.Add({1, one, false, held.Job()});
    queue.Add({2, other, false, first.Job()});
    ASSERT_TRUE(held.HasWaiting(1));
    ASSERT_TRUE(first.HasWaiting(1));
    queue.Add({3, one, false, order.Job('a')});
    queue.Add({4, one, false, order.Job('b')});
    queue.Add({5, third, false, order.Job('c')});
    first.opening.set_value(); // its worker finds all three
    const Deadline deadline = Deadline::In(patience);
    while (order.Done().size() < 3 && !deadline.Passed())
        std::this_thread::yield();
    EXPECT_EQ(order.Done(), "cab");
    held.opening.set_value();
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
}

TEST(WorkQueueTest, SitesTakeTurnsHoweverMuchTheyHaveWaiting) {
    WorkQueue queue(1, 2);
    Gate gate;
    Order order;
    queue.Add({1, one, false, gate.Job()});
    ASSERT_TRUE(gate.HasWaiting(1));
    for (std::uint64_t id = 2; id <= 4; ++id)
        queue.Add({id, one, false, order.Job('a')}); // nothing of it runs when these are considered
    queue.Add({5, other, false, order.Job('b')});
    queue.Add({6, other, false, order.Job('b')});
    queue.Add({7, third, false, order.Job('c')});
    gate.opening.set_value();
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
    EXPECT_EQ(order.Done(), "bcabaa");
}

TEST(WorkQueueTest, GoesOnAfterAJobThatFails) {
    WorkQueue queue(1, 1);
    Order order;
    queue.Add({1, one, false, [] { throw std::bad_alloc(); }});
    queue.Add({2, one, false, order.Job('a')});
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
    EXPECT_EQ(order.Done(), "a");
}

TEST(WorkQueueTest, FailsWhereThereAreNotSoManyThreads) {
    threadsToBeHad = 3;
    EXPECT_THROW(WorkQueue(4, 1), std::system_error);
    threadsToBeHad = -1;
}

TEST(WorkQueueTest, KeepsAThreadForQuickJobs) {
    WorkQueue queue(1, 2);
    Gate gate;
    std::promise<void> passed;
    queue.Add({1, one, false, gate.Job()});
    queue.Add({2, other, false, gate.Job()});
    ASSERT_TRUE(gate.HasWaiting(1));
    queue.Add({3, other, true, [&] { passed.set_value(); }});
    EXPECT_EQ(passed.get_future().wait_for(patience), std::future_status::ready);
    EXPECT_EQ(gate.waiting, 1) << "the quick thread takes no other job";
    gate.opening.set_value();
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
}

TEST(WorkQueueTest, ForgetsJobsThatAreCancelled) {
    WorkQueue queue(1, 1);
    Gate gate;
    std::atomic<bool> ran = false;
    queue.Add({1, one, false, gate.Job()});
    queue.Add({2, one, false, [&] { ran = true; }});
    ASSERT_TRUE(gate.HasWaiting(1));
    EXPECT_TRUE(queue.Cancel(2));
    EXPECT_FALSE(queue.Cancel(1)) << "it runs";
    gate.opening.set_value();
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
    EXPECT_FALSE(ran);
}

} // namespace
