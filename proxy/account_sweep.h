/// Looking after accounts that no host has taken over.
#ifndef TESSARY_PROXY_ACCOUNT_SWEEP_H
#define TESSARY_PROXY_ACCOUNT_SWEEP_H

#include "account_locks.h"
#include "account_records.h"
#include "account_search.h"
#include "account_sessions.h"
#include "directory_accounts.h"

#include <functional>
#include <memory>
#include <stop_token>
#include <string>

namespace tessary::proxy {

/// Goes once through the accounts that it is time for. What it does is said in the system's log.
///
/// An account that was made for a host, and whose password nobody has changed, is disabled and then
/// deleted. One that a host had used before it got a new password stays disabled instead: what the
/// domain knows of it, its groups among that, may be wanted, and disabled it can be given a new
/// password as soon as the host asks again. The same holds for one that somebody else has changed
/// the mark of.
///
/// Controllers learn of one another's changes after a while. What the one that is asked does not
/// show is waited for, for a day; and nothing is deleted but on the word of the controller that
/// hears of every new password at once.
class AccountSweep {
public:
    /// Everything must outlive this.
    AccountSweep(AccountRecords& records, AccountLocks& locks, AccountSessions& sessions,
                 const AccountSettings& settings,
                 const std::function<AccountRecords::Time()>& clock)
        : records_(records), locks_(locks), sessions_(sessions), settings_(settings),
          clock_(clock) {}

    /// Ends early, between two accounts, when it is asked to stop, or when no controller answers.
    void Run(const std::stop_token& stop);

private:
    bool LookAt(const std::string& account);
    void Decide(AccountRecord record);
    void DecidePending(AccountRecord record);
    void DecideMade(AccountRecord record, const std::optional<AccountFacts>& account);
    void DecideGiven(AccountRecord record, const std::optional<AccountFacts>& account);
    void DecideUnclaimed(AccountRecord record, const AccountFacts& account);
    void Withdraw(AccountRecord record, const AccountFacts& account);
    void Delete(AccountRecord record, const AccountFacts& account);
    void Take(AccountRecord record, const AccountFacts& account);
    void Await(const AccountRecord& record);
    bool IsOver(const AccountRecord& record) const;
    void Settle(AccountRecord record, AccountState state);

    AccountRecords& records_;
    AccountLocks& locks_;
    AccountSessions& sessions_;
    const AccountSettings& settings_;
    const std::function<AccountRecords::Time()>& clock_;
    std::unique_ptr<directory::Session> session_; // once it is needed
    bool first_ = false;                          // at the controller that knows first
};

} // namespace tessary::proxy

#endif
