#include "account_locks.h"

#include "directory/error.h"
#include "directory/operation.h"

namespace tessary::proxy {

AccountLocks::Hold::~Hold() {
    if (!locks_)
        return;
    {
        const std::lock_guard lock(locks_->mutex_);
        locks_->held_.erase(account_);
    }
    locks_->released_.notify_all();
}

AccountLocks::Hold AccountLocks::Take(const std::string& account,
                                      const directory::Deadline& deadline) {
    const directory::Waiting waiting;
    std::unique_lock lock(mutex_);
    const std::chrono::milliseconds left(deadline.Milliseconds());
    if (!released_.wait_for(lock, left, [&] { return held_.count(account) == 0; }))
        throw directory::Error(directory::Status::TimedOut,
                               "earlier requests for " + account + " have not come to an end");
    held_.insert(account);
    return {*this, account};
}

std::optional<AccountLocks::Hold> AccountLocks::TryTake(const std::string& account) {
    const std::lock_guard lock(mutex_);
    if (!held_.insert(account).second)
        return std::nullopt;
    return std::optional<Hold>(std::in_place, *this, account);
}

} // namespace tessary::proxy
