/// One request at a time for each account.
#ifndef TESSARY_PROXY_ACCOUNT_LOCKS_H
#define TESSARY_PROXY_ACCOUNT_LOCKS_H

#include "directory/deadline.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace tessary::proxy {

/// Any number of threads may use one at once. Names are compared as they are.
class AccountLocks {
public:
    /// Lets go of the account when it goes; must not outlive the locks.
    class Hold {
    public:
        Hold(AccountLocks& locks, const std::string& account) : locks_(&locks), account_(account) {}
        Hold(Hold&& other) noexcept : locks_(other.locks_), account_(std::move(other.account_)) {
            other.locks_ = nullptr;
        }
        Hold& operator=(Hold&&) = delete;
        ~Hold();

    private:
        AccountLocks* locks_;
        std::string account_;
    };

    /// \throws directory::Error TimedOut when others hold it until the deadline
    Hold Take(const std::string& account, const directory::Deadline& deadline);

    /// Nothing when somebody holds it.
    std::optional<Hold> TryTake(const std::string& account);

private:
    std::mutex mutex_;
    std::condition_variable released_;
    std::set<std::string> held_;
};

} // namespace tessary::proxy

#endif
