/// Looking after accounts that no host has taken over.
#ifndef TESSARY_PROXY_ACCOUNT_SWEEP_H
#define TESSARY_PROXY_ACCOUNT_SWEEP_H

#include "account_locks.h"
#include "account_records.h"
#include "account_search.h"
#include "account_sessions.h"
#include "directory_accounts.h"

#include <functional>
#include <map>
#include <memory>
#include <stop_token>
#include <string>

namespace tessary::proxy {

/// Goes through the accounts that it is time for. What it does is said in the system's log, and
/// what it cannot do is said once and tried again every minute.
///
/// An account that was made for a host, and whose password nobody has changed, is disabled, which
/// ends that password and can be undone, and is deleted a quarter of an hour later.
///
/// It stays disabled instead
/// - when a host had used it before it got a new password, or may have: what the domain knows of
///   it, its groups among that, may be wanted;
/// - when somebody else has changed its mark, or it cannot be deleted;
/// - when the PDC emulator was not to be reached for a day.
/// Disabled, by whomever, it is given a new password as soon as its host asks again: to keep a host
/// from that, move its account out of the proxy's container.
///
/// It is left alone, with the password that was handed out, when it was moved out of the proxy's
/// container or has got rights that no plain host has: the log warns of that, and it is for an
/// administrator of the domain to put right.
///
/// Controllers learn of one another's changes after a while, the PDC emulator as a rule of new
/// passwords first. What the one that is asked does not show is waited for, for a day; nothing is
/// deleted but on the PDC emulator's word; and a host whose new password comes to light has its
/// account enabled again.
///
/// Use by one thread at a time.
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
    /// Why an account is to be tried again later only.
    struct Trouble {
        std::string text;
        AccountRecords::Time until;
    };

    AccountRecords::Time LatestDue() const;
    bool LookAt(const std::string& account);
    bool IsPutOff(const std::string& account) const;
    void PutOff(const std::string& account, const std::string& text);
    void Decide(AccountRecord record);
    void DecidePending(AccountRecord record);
    void DecideMade(AccountRecord record, const std::optional<AccountFacts>& account);
    void DecideGiven(AccountRecord record, const std::optional<AccountFacts>& account);
    void DecideUnclaimed(AccountRecord record, const AccountFacts& account);
    void Withdraw(AccountRecord record, const AccountFacts& account);
    void Disable(AccountRecord record, const AccountFacts& account);
    void Delete(AccountRecord record, const AccountFacts& account);
    void Take(AccountRecord record, const AccountFacts& account);
    void Enable(const AccountRecord& record, const AccountFacts& account);
    const char* ObstacleTo(const AccountFacts& account);
    void Await(const AccountRecord& record);
    bool IsOver(const AccountRecord& record) const;
    void Settle(AccountRecord record, AccountState state);

    AccountRecords& records_;
    AccountLocks& locks_;
    AccountSessions& sessions_;
    const AccountSettings& settings_;
    const std::function<AccountRecords::Time()>& clock_;
    std::unique_ptr<directory::Session> session_; // once it is needed
    bool first_ = false;                          // it is at the PDC emulator
    std::map<std::string, Trouble> troubles_;     // by account
};

} // namespace tessary::proxy

#endif
