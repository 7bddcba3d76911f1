#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <stdexcept>
#include <thread>

#include "faults.h"
#include "scripted_host.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using scripted::TestStore;
using scripted::TextOf;

std::unique_ptr<Exception> Error(const std::string& text) {
    return std::make_unique<IOError>(text);
}

TEST(RequestStateTest, FinishedRequestAnswersAtOnceWhateverTheTimeOut) {
    for (const int seconds : {60, 1, 0, -5}) {
        RequestState state;
        state.Done(nullptr);
        EXPECT_NO_THROW(state.WaitResult(seconds));
        EXPECT_NO_THROW(state.WaitResult(seconds)) << "and again";
    }
}

TEST(RequestStateTest, UnfinishedRequestTimesOut) {
    for (const int seconds : {0, -1}) {
        RequestState state;
        EXPECT_EQ(TextOf<ProviderCallTimedOutException>([&] { state.WaitResult(seconds); }),
                  "Provider call timed out.");
        state.Done(nullptr);
        EXPECT_NO_THROW(state.WaitResult(seconds)) << "a time-out ends only that wait";
    }
}

TEST(RequestStateTest, TimesOutAfterTheSecondsGiven) {
    RequestState state;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(state.WaitResult(1), ProviderCallTimedOutException);
    EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST(RequestStateTest, DeadlineIsTheWallClockPlusTheSeconds) {
    RequestState state;
    timespec seen = {};
    const faults::Scope scope;
    faults::hooks.waitOnCondition = [&](const timespec& deadline) {
        seen = deadline;
        return ETIMEDOUT;
    };
    timeval before, after;
    gettimeofday(&before, nullptr);
    EXPECT_THROW(state.WaitResult(3600), ProviderCallTimedOutException);
    gettimeofday(&after, nullptr);
    const auto microseconds = [](const timeval& time) {
        return time.tv_sec * 1000000LL + time.tv_usec;
    };
    const long long deadline = seen.tv_sec * 1000000LL + seen.tv_nsec / 1000;
    EXPECT_GE(deadline, microseconds(before) + 3600000000LL);
    EXPECT_LE(deadline, microseconds(after) + 3600000000LL);
    EXPECT_EQ(seen.tv_nsec % 1000, 0);
}

TEST(RequestStateTest, ErrorIsThrownToEachWaiterWithItsOwnType) {
    RequestState state;
    state.Done(std::make_unique<NoSuchDomainException>());
    const Exception* first = nullptr;
    try {
        state.WaitResult(0);
    } catch (const NoSuchDomainException& caught) {
        first = &caught;
        try {
            state.WaitResult(0);
        } catch (const NoSuchDomainException& other) {
            EXPECT_NE(&other, first) << "each its own copy";
            EXPECT_EQ(other.GetCode(), 1355u);
            EXPECT_STREQ(other.what(), caught.what());
        }
    }
    EXPECT_NE(first, nullptr);
}

TEST(RequestStateTest, LaterErrorReplacesTheFirstAndNoErrorKeepsIt) {
    RequestState state;
    state.Done(Error("first"));
    state.Done(nullptr);
    EXPECT_EQ(TextOf<IOError>([&] { state.WaitResult(0); }), "first");
    state.Done(Error("second"));
    EXPECT_EQ(TextOf<IOError>([&] { state.WaitResult(0); }), "second");
}

TEST(RequestStateTest, DoneTakesTheErrorOver) {
    RequestState state;
    std::unique_ptr<Exception> error = Error("mine");
    state.Done(std::move(error));
    EXPECT_EQ(error, nullptr);
}

TEST(RequestStateTest, DoneWakesAllWaiters) {
    for (const bool fails : {false, true}) {
        RequestState state;
        std::atomic<int> succeeded(0), failed(0);
        std::vector<std::thread> waiters;
        for (int i = 0; i < 8; ++i) {
            waiters.emplace_back([&] {
                try {
                    state.WaitResult(60);
                    ++succeeded;
                } catch (const IOError&) {
                    ++failed;
                }
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // lets them wait; not needed
        state.Done(fails ? Error("gone") : nullptr);
        for (std::thread& waiter : waiters) {
            waiter.join();
        }
        EXPECT_EQ(succeeded, fails ? 0 : 8);
        EXPECT_EQ(failed, fails ? 8 : 0);
    }
}

TEST(RequestStateTest, SpuriousWakeUpsAreWaitedThrough) {
    RequestState state;
    int waits = 0;
    const faults::Scope scope;
    faults::hooks.waitOnCondition = [&](const timespec&) { return ++waits < 5 ? 0 : ETIMEDOUT; };
    EXPECT_THROW(state.WaitResult(60), ProviderCallTimedOutException);
    EXPECT_EQ(waits, 5);
}

TEST(RequestStateTest, FailedWaitTellsTheRestOfItsText) {
    const std::string text = "pthread_cond_timedwait failed. RC=";
    const faults::Scope scope;
    for (const int rc : {1, 12, 22, 34}) {
        RequestState state;
        faults::hooks.waitOnCondition = [rc](const timespec&) { return rc; };
        EXPECT_EQ(TextOf<ThreadErrorException>([&] { state.WaitResult(60); }),
                  "Thread Error: " + text.substr(static_cast<std::size_t>(rc)));
    }
    RequestState state;
    faults::hooks.waitOnCondition = [](const timespec&) { return EINVAL; };
    EXPECT_EQ(TextOf<ThreadErrorException>([&] { state.WaitResult(60); }),
              "Thread Error:  failed. RC=");
    faults::hooks.waitOnCondition = [](const timespec&) { return 1000; };
    EXPECT_EQ(TextOf<ThreadErrorException>([&] { state.WaitResult(60); }), "Thread Error: ")
        << "nothing behind the literal is read";
}

TEST(RequestStateTest, MutexIsFreeAfterEveryKindOfWait) {
    RequestState state;
    EXPECT_THROW(state.WaitResult(0), ProviderCallTimedOutException);
    {
        const faults::Scope scope;
        faults::hooks.waitOnCondition = [](const timespec&) { return EPERM; };
        EXPECT_THROW(state.WaitResult(0), ThreadErrorException);
    }
    state.Done(Error("gone"));
    EXPECT_THROW(state.WaitResult(0), IOError);
    EXPECT_THROW(state.WaitResult(0), IOError);
}

/// Restores detached threads at the end.
class SchedulerTest : public testing::Test {
protected:
    ~SchedulerTest() override { TesauthThreadUtil::SetScheduler(nullptr); }
};

TEST_F(SchedulerTest, FunctionsRunOnDetachedThreadsOfTheirOwn) {
    std::promise<std::pair<std::thread::id, int>> promise;
    TesauthThreadUtil::ScheduleFunctor([&] {
        pthread_attr_t attributes;
        int state = -1;
        pthread_getattr_np(pthread_self(), &attributes);
        // The scheduler detaches after the start; wait until it has.
        for (int i = 0; i < 1000 && state != PTHREAD_CREATE_DETACHED; ++i) {
            pthread_attr_destroy(&attributes);
            pthread_getattr_np(pthread_self(), &attributes);
            pthread_attr_getdetachstate(&attributes, &state);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        pthread_attr_destroy(&attributes);
        promise.set_value({std::this_thread::get_id(), state});
    });
    const auto [id, state] = promise.get_future().get();
    EXPECT_NE(id, std::this_thread::get_id());
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
}

TEST_F(SchedulerTest, FunctorIsDeletedWhenItHasRun) {
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = token;
    TesauthThreadUtil::ScheduleFunctor([token = std::move(token)] { ++*token; });
    for (int i = 0; i < 10000 && !watch.expired(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(watch.expired());
}

TEST_F(SchedulerTest, ThreadThatCannotBeStarted) {
    const std::string text = "pthread_create failed. RC=";
    auto token = std::make_shared<int>(0);
    const faults::Scope scope;
    for (const int rc : {1, 11, 12, 25, 26}) {
        faults::hooks.createThread = [rc] { return rc; };
        EXPECT_EQ(TextOf<ThreadErrorException>(
                      [&] { TesauthThreadUtil::ScheduleFunctor([token] { ADD_FAILURE(); }); }),
                  "Thread Error: " + text.substr(static_cast<std::size_t>(rc)));
    }
    EXPECT_EQ(token.use_count(), 1) << "the functor is not leaked";
    faults::hooks.createThread = [] { return 11; };
    EXPECT_EQ(TextOf<ThreadErrorException>([] { TesauthThreadUtil::ScheduleFunctor([] {}); }),
              "Thread Error: ate failed. RC=");
    faults::hooks.createThread = [] { return 110; };
    EXPECT_EQ(TextOf<ThreadErrorException>([] { TesauthThreadUtil::ScheduleFunctor([] {}); }),
              "Thread Error: ");
}

TEST_F(SchedulerTest, NothingToRunEndsTheProcess) {
    EXPECT_DEATH(
        {
            TesauthThreadUtil::ScheduleFunctor(nullptr);
            std::this_thread::sleep_for(std::chrono::seconds(10));
        },
        "bad_function_call");
}

TEST_F(SchedulerTest, WhateverLeavesAFunctionEndsThere) {
    std::promise<void> afterwards;
    TesauthThreadUtil::ScheduleFunctor([] { throw std::runtime_error("not ours"); });
    TesauthThreadUtil::ScheduleFunctor([] { throw 42; });
    TesauthThreadUtil::ScheduleFunctor([] { throw IOError("ours"); });
    TesauthThreadUtil::ScheduleFunctor([] { pthread_exit(nullptr); });
    TesauthThreadUtil::ScheduleFunctor([&] { afterwards.set_value(); });
    EXPECT_EQ(afterwards.get_future().wait_for(std::chrono::seconds(10)),
              std::future_status::ready);
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // time for the others to end us
}

TEST_F(SchedulerTest, HostSchedulerGetsEveryFunction) {
    std::vector<std::function<void()>> queue;
    TesauthThreadUtil::SetScheduler(
        [&](std::function<void()> functor) { queue.push_back(std::move(functor)); });
    const faults::Scope scope;
    faults::hooks.createThread = [] { return 11; }; // no thread is started any more
    int ran = 0;
    TesauthThreadUtil::ScheduleFunctor([&] { ran += 1; });
    TesauthThreadUtil::ScheduleFunctor([&] { ran += 10; });
    EXPECT_EQ(ran, 0);
    ASSERT_EQ(queue.size(), 2u);
    queue[1]();
    queue[0]();
    EXPECT_EQ(ran, 11);
}

TEST_F(SchedulerTest, ReplacedSchedulerIsDestroyedAndAnEmptyOneRestoresThreads) {
    auto token = std::make_shared<int>(0);
    TesauthThreadUtil::SetScheduler([token](std::function<void()>) {});
    EXPECT_EQ(token.use_count(), 2);
    int second = 0;
    TesauthThreadUtil::SetScheduler([&](std::function<void()>) { ++second; });
    EXPECT_EQ(token.use_count(), 1);
    TesauthThreadUtil::ScheduleFunctor([] {});
    EXPECT_EQ(second, 1);
    TesauthThreadUtil::SetScheduler(TesauthThreadUtil::Scheduler());
    std::promise<std::thread::id> promise;
    TesauthThreadUtil::ScheduleFunctor([&] { promise.set_value(std::this_thread::get_id()); });
    EXPECT_NE(promise.get_future().get(), std::this_thread::get_id());
    EXPECT_EQ(second, 1);
}

TEST_F(SchedulerTest, ExceptionOfTheHostSchedulerReachesTheCaller) {
    TesauthThreadUtil::SetScheduler(
        [](std::function<void()>) { throw std::runtime_error("queue is full"); });
    EXPECT_EQ(TextOf<std::runtime_error>([] { TesauthThreadUtil::ScheduleFunctor([] {}); }),
              "queue is full");
}

/// The table of requests, with work that the test itself carries out.
class RequestTableTest : public SchedulerTest {
protected:
    RequestTableTest() {
        TesauthThreadUtil::SetScheduler(
            [this](std::function<void()> functor) { queue.push_back(std::move(functor)); });
    }
    ~RequestTableTest() override { EXPECT_EQ(TestStore::InFlight(), 0u); }

    std::function<void(const std::string&)> Work() {
        return [this](const std::string& key) { worked.push_back(key); };
    }

    std::vector<std::function<void()>> queue;
    std::vector<std::string> worked;
};

TEST_F(RequestTableTest, OneKeyStartsOneWorkerUntilItIsFinished) {
    const auto first = TestStore::StartOrAttachToRequest("k", Work());
    const auto second = TestStore::StartOrAttachToRequest("k", Work());
    EXPECT_EQ(first, second);
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_TRUE(TestStore::IsInFlight("k"));
    queue.at(0)();
    EXPECT_EQ(worked, std::vector<std::string>{"k"});
    EXPECT_THROW(first->WaitResult(0), ProviderCallTimedOutException);

    TestStore::FinishRequest("k", nullptr);
    EXPECT_NO_THROW(first->WaitResult(0));
    EXPECT_FALSE(TestStore::IsInFlight("k"));
    EXPECT_EQ(first.use_count(), 2) << "the table has dropped it";

    const auto third = TestStore::StartOrAttachToRequest("k", Work());
    EXPECT_NE(third, first);
    EXPECT_EQ(queue.size(), 2u);
    EXPECT_THROW(third->WaitResult(0), ProviderCallTimedOutException);
    TestStore::FinishRequest("k", nullptr);
}

TEST_F(RequestTableTest, KeysAreIndependent) {
    const auto one = TestStore::StartOrAttachToRequest("one", Work());
    const auto two = TestStore::StartOrAttachToRequest("ONE", Work());
    EXPECT_NE(one, two);
    EXPECT_EQ(TestStore::InFlight(), 2u);
    TestStore::FinishRequest("one", nullptr);
    EXPECT_THROW(two->WaitResult(0), ProviderCallTimedOutException);
    TestStore::FinishRequest("ONE", Error("gone"));
    EXPECT_EQ(TextOf<IOError>([&] { two->WaitResult(0); }), "gone");
    EXPECT_NO_THROW(one->WaitResult(0));
}

TEST_F(RequestTableTest, WorkerOwnsCopiesOfKeyAndWork) {
    auto token = std::make_shared<int>(0);
    {
        std::string key = "a key that is long enough not to be stored in place";
        TestStore::StartOrAttachToRequest(
            key, [this, token](const std::string& told) { worked.push_back(told); });
        key.assign(key.size(), 'x');
    }
    EXPECT_EQ(token.use_count(), 2);
    queue.at(0)();
    EXPECT_EQ(worked.at(0), "a key that is long enough not to be stored in place");
    TestStore::FinishRequest(worked.at(0), nullptr);
    queue.clear();
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(RequestTableTest, AttachingDropsTheSecondWork) {
    auto token = std::make_shared<int>(0);
    TestStore::StartOrAttachToRequest("k", Work());
    TestStore::StartOrAttachToRequest("k", [token](const std::string&) { ADD_FAILURE(); });
    EXPECT_EQ(token.use_count(), 1);
    queue.at(0)();
    TestStore::FinishRequest("k", nullptr);
}

TEST_F(RequestTableTest, WorkIsScheduledUnderTheLock) {
    bool wasHeld = false;
    TesauthThreadUtil::SetScheduler([&](std::function<void()>) {
        wasHeld = std::async(std::launch::async, [] {
                      const bool free = TestStore::Lock().try_lock();
                      if (free) {
                          TestStore::Lock().unlock();
                      }
                      return !free;
                  }).get();
    });
    TestStore::StartOrAttachToRequest("k", Work());
    EXPECT_TRUE(wasHeld);
    TestStore::FinishRequest("k", nullptr);
}

TEST_F(RequestTableTest, RequestThatCannotBeStartedIsForgotten) {
    TesauthThreadUtil::SetScheduler(nullptr);
    {
        const faults::Scope scope;
        faults::hooks.createThread = [] { return 11; };
        EXPECT_EQ(
            TextOf<ThreadErrorException>([&] { TestStore::StartOrAttachToRequest("k", Work()); }),
            "Thread Error: ate failed. RC=");
    }
    EXPECT_FALSE(TestStore::IsInFlight("k"));
    TesauthThreadUtil::SetScheduler([](std::function<void()>) { throw 42; });
    EXPECT_THROW(TestStore::StartOrAttachToRequest("k", Work()), int);
    EXPECT_FALSE(TestStore::IsInFlight("k")) << "the lock is free as well";
}

TEST_F(RequestTableTest, FinishingTakesTheErrorToAllWhoWait) {
    const auto first = TestStore::StartOrAttachToRequest("k", Work());
    const auto second = TestStore::StartOrAttachToRequest("k", Work());
    TestStore::FinishRequest("k", std::make_unique<TimeSkewException>());
    EXPECT_THROW(first->WaitResult(60), TimeSkewException);
    EXPECT_THROW(second->WaitResult(60), TimeSkewException);
}

TEST_F(RequestTableTest, ConcurrentCallersShareOneWorker) {
    TesauthThreadUtil::SetScheduler(nullptr);
    std::atomic<int> started(0), finished(0), ready(0);
    std::vector<std::thread> callers;
    for (int i = 0; i < 16; ++i) {
        callers.emplace_back([&] {
            const auto state = TestStore::StartOrAttachToRequest("k", [&](const std::string& key) {
                ++started;
                while (ready < 16) {
                    std::this_thread::yield();
                }
                TestStore::FinishRequest(key, nullptr);
            });
            ++ready;
            state->WaitResult(10);
            ++finished;
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(started, 1);
    EXPECT_EQ(finished, 16);
}

} // namespace
