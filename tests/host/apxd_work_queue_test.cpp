#include "work_queue.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>

namespace {

using namespace tessary::proxy;
using tessary::directory::Deadline;

const IpAddress one = *IpAddress::Parse("192.0.2.1");
const IpAddress other = *IpAddress::Parse("192.0.2.2");
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
    std::vector<int> order;
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

TEST(WorkQueueTest, SitesWithNothingRunningGoFirst) {
    WorkQueue queue(2, 2);
    Gate held, first;
    std::mutex mutex;
    std::string order;
    const auto note = [&](char who) {
        return [&, who] {
            const std::lock_guard lock(mutex);
            order += who;
        };
    };
    queue.Add({1, one, false, held.Job()});
    queue.Add({2, other, false, first.Job()});
    ASSERT_TRUE(held.HasWaiting(1));
    ASSERT_TRUE(first.HasWaiting(1));
    queue.Add({3, one, false, note('a')});
    queue.Add({4, one, false, note('b')});
    queue.Add({5, *IpAddress::Parse("192.0.2.3"), false, note('c')});
    first.opening.set_value(); // its worker finds all three
    const Deadline deadline = Deadline::In(patience);
    for (std::size_t done = 0; done < 3 && !deadline.Passed();) {
        const std::lock_guard lock(mutex);
        done = order.size();
    }
    EXPECT_EQ(order, "cab");
    held.opening.set_value();
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
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
    queue.Cancel(2);
    queue.Cancel(1); // it runs
    gate.opening.set_value();
    EXPECT_TRUE(queue.WaitUntilIdle(Deadline::In(patience)));
    EXPECT_FALSE(ran);
}

} // namespace
