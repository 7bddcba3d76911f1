// One request at a time for each account.

#include "account_locks.h"

#include "directory/error.h"

#include <thread>

#include <gmock/gmock.h>

namespace tessary::proxy {
namespace {

using directory::Deadline;
using std::chrono::milliseconds;

TEST(ProxyAccountLocks, OneHoldsAnAccount) {
    AccountLocks locks;
    {
        const AccountLocks::Hold hold = locks.Take("WEB1$", Deadline::In(milliseconds(0)));
        EXPECT_FALSE(locks.TryTake("WEB1$"));
        EXPECT_TRUE(locks.TryTake("WEB2$"));
    }
    EXPECT_TRUE(locks.TryTake("WEB1$"));
}

TEST(ProxyAccountLocks, WhoWaitsInVainIsTold) {
    AccountLocks locks;
    const auto hold = locks.TryTake("WEB1$");
    try {
        locks.Take("WEB1$", Deadline::In(milliseconds(50)));
        FAIL() << "two hold it";
    } catch (const directory::Error& error) {
        EXPECT_EQ(error.Code(), directory::Status::TimedOut);
        EXPECT_STREQ(error.what(), "earlier requests for WEB1$ have not come to an end");
    }
    EXPECT_FALSE(locks.TryTake("WEB1$")) << "the other one holds it still";
}

TEST(ProxyAccountLocks, WhoWaitsIsNext) {
    AccountLocks locks;
    auto hold = locks.TryTake("WEB1$");
    bool took = false;
    std::thread waiting([&] {
        const AccountLocks::Hold mine = locks.Take("WEB1$", Deadline::In(std::chrono::minutes(1)));
        took = true;
    });
    hold.reset();
    waiting.join();
    EXPECT_TRUE(took);
}

} // namespace
} // namespace tessary::proxy
