#include "account_sweep.h"

#include "account_place.h"
#include "account_refusals.h"
#include "account_rules.h"

#include "directory/error.h"
#include "directory/machine_account.h"

#include <syslog.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace tessary::proxy {
namespace {

using directory::Deadline;
using directory::Error;
using directory::Session;
using directory::Status;

constexpr std::chrono::seconds accountTime{15}; // for one account, logging in included
constexpr std::chrono::minutes retryTime{1};

/// Until what another controller has done is to be seen, or asked for again.
constexpr std::chrono::minutes patience{5};

/// Between disabling an account and deleting it: for as long, a controller elsewhere may keep it to
/// itself that a host has joined with it.
constexpr std::chrono::minutes deletionTime{15};

void Log(int priority, const AccountRecord& record, const std::string& text) {
    syslog(priority, "account %s of %s: %s", record.account.c_str(), record.host.c_str(),
           text.c_str());
}

std::int64_t SecondsOf(AccountRecords::Time time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

AccountRecords::Time StartOf(const AccountRecord& record) {
    return std::chrono::system_clock::from_time_t(record.started);
}

} // namespace

void AccountSweep::Run(const std::stop_token& stop) {
    for (const std::string& account : records_.Due(clock_(), LatestDue()))
        if (stop.stop_requested() || !LookAt(account))
            break;
    session_.reset();
}

/// No account is looked at later than this: what seems to be, was put off before the clock was set
/// back.
AccountRecords::Time AccountSweep::LatestDue() const {
    return clock_() + std::max<std::chrono::minutes>(settings_.unusedAfter, patience);
}

/// \return false when no controller answers
bool AccountSweep::LookAt(const std::string& account) {
    const auto hold = locks_.TryTake(account);
    if (!hold || IsPutOff(account))
        return true;
    try {
        // What was due a moment ago may have been given to a host again since.
        if (const auto record = records_.FindDue(account, clock_(), LatestDue()))
            Decide(*record);
        troubles_.erase(account);
    } catch (const Error& error) {
        session_.reset();
        const bool answered = !IsUnanswered(error) && error.Code() != Status::NoSuchDomain;
        // It may be this account alone that nobody answers for: others come first next time.
        PutOff(account, error.what());
        return answered;
    } catch (const std::exception& error) {
        session_.reset();
        PutOff(account, error.what());
    }
    return true;
}

bool AccountSweep::IsPutOff(const std::string& account) const {
    const auto trouble = troubles_.find(account);
    if (trouble == troubles_.end())
        return false;
    const auto left = trouble->second.until - clock_();
    return left > left.zero() && left <= retryTime; // else the clock was set back
}

/// Not by way of the record, which may be what fails.
/// \param text for the log, unless it is what was last said of that account
void AccountSweep::PutOff(const std::string& account, const std::string& text) {
    Trouble& trouble = troubles_[account];
    trouble.until = clock_() + retryTime;
    if (std::exchange(trouble.text, text) != text)
        syslog(LOG_ERR, "account %s: %s", account.c_str(), text.c_str());
}

void AccountSweep::Decide(AccountRecord record) {
    if (record.state == AccountState::Taken || record.state == AccountState::Unclaimed)
        return records_.Put(record, std::nullopt);
    const Deadline deadline = Deadline::In(accountTime);
    if (!session_) {
        AccountSessions::Login login = sessions_.LogIn(deadline);
        session_ = std::move(login.session);
        first_ = login.first;
    }
    session_->Extend(deadline);
    if (record.state == AccountState::Pending)
        return DecidePending(std::move(record));
    const auto account = FindByGuid(*session_, record.guid);
    DecideGiven(std::move(record), account);
}

/// Nobody has got the password of what is pending.
void AccountSweep::DecidePending(AccountRecord record) {
    if (record.guid.empty())
        return DecideMade(std::move(record), FindByName(*session_, record.account));
    const auto account = FindByGuid(*session_, record.guid);
    if (!account)
        return Await(record);
    if (IsDone(*account, record)) {
        record.passwordSet = account->passwordSet;
        return DecideUnclaimed(std::move(record), *account);
    }
    const std::optional<std::int64_t> set = account->PasswordSetAt();
    if (set && account->passwordSet == record.passwordSet) {
        // The reset has not been done, and the password that was handed out before it still counts.
        const auto end = std::chrono::system_clock::from_time_t(*set) + settings_.unusedAfter;
        if (clock_() < end)
            return records_.Postpone(record.account, end);
        record.mark = account->mark; // should it be done yet, that shows
        return DecideUnclaimed(std::move(record), *account);
    }
    if (IsSetSince(*account, record) && (first_ || account->mark == record.mark))
        return Take(std::move(record), *account);
    if (!IsOver(record))
        return Await(record);
    // It has still the password that it had before.
    record.state = AccountState::Given;
    DecideGiven(std::move(record), account);
}

void AccountSweep::DecideMade(AccountRecord record, const std::optional<AccountFacts>& account) {
    if (!account || !IsOurs(*account, record))
        return Await(record);
    const bool untouched = IsDone(*account, record);
    record.guid = account->guid;
    if (!untouched)
        return Take(std::move(record), *account);
    record.passwordSet = account->passwordSet;
    DecideUnclaimed(std::move(record), *account);
}

void AccountSweep::DecideGiven(AccountRecord record, const std::optional<AccountFacts>& account) {
    if (!account)
        return Await(record);
    // After a day it is more likely that the record is an old copy, and the host has asked again.
    const bool isLateReset = record.state == AccountState::Withdrawn && !IsOver(record) &&
                             account->mark != record.mark && account->mark.starts_with(markPrefix);
    if (account->passwordSet > record.passwordSet && isLateReset) {
        // One of ours that was done after all, whose password nobody has; or else the record is a
        // copy, and the host has asked again and is in: its account is to stay.
        record.mark = account->mark;
        record.passwordSet = account->passwordSet;
        record.used = true;
    }
    if (account->passwordSet > record.passwordSet)
        return Take(std::move(record), *account);
    if (account->passwordSet == record.passwordSet)
        return DecideUnclaimed(std::move(record), *account);
    if (!IsOver(record))
        return Await(record);
    Log(LOG_WARNING, record, "its password is older than the one that it was given");
    Settle(std::move(record), AccountState::Unclaimed);
}

/// What is not to be seen at this controller may be known to another one, and may be seen later.
void AccountSweep::Await(const AccountRecord& record) {
    if (!first_ || !IsOver(record))
        return records_.Postpone(record.account, clock_() + patience);
    if (record.passwordSet != 0)
        Log(LOG_WARNING, record,
            "it is not to be found; should it live where this proxy does not see it, the password "
            "that it was given may still be valid");
    records_.Remove(record.account);
}

/// Whether nothing can come any more of what the record tells.
bool AccountSweep::IsOver(const AccountRecord& record) const {
    return clock_() - StartOf(record) > settings_.unusedAfter + oblivion;
}

void AccountSweep::DecideUnclaimed(AccountRecord record, const AccountFacts& account) {
    const char* obstacle = ObstacleTo(account);
    if (!obstacle)
        return Withdraw(std::move(record), account);
    Log(LOG_WARNING, record,
        std::string("no host has changed its password, ") +
            (account.IsDisabled() ? "and it stays disabled"
                                  : "and the one that the proxy gave it stays valid") +
            ": it is left alone, since it " + obstacle + ": " + account.dn);
    Settle(std::move(record), AccountState::Unclaimed);
}

/// Why an account is an administrator's matter; null when it is not.
const char* AccountSweep::ObstacleTo(const AccountFacts& account) {
    const std::string own =
        directory::OrganizationalUnitDn(settings_.container, session_->Where().baseDn);
    if (!LiesWithin(account.dn, own))
        return "was moved away";
    if (WhyElevated(account) || IsInElevatedGroup(*session_, account))
        return "has got rights that no plain host has";
    return nullptr;
}

void AccountSweep::Withdraw(AccountRecord record, const AccountFacts& account) {
    if (record.state != AccountState::Withdrawn || !account.IsDisabled())
        return Disable(std::move(record), account);
    // Another controller may know of a new password.
    if (clock_() < StartOf(record) + deletionTime || (!first_ && !IsOver(record)))
        return records_.Postpone(record.account, clock_() + retryTime);
    // A mark may be that of an earlier request: the latest may not have been done.
    if (!first_ || record.used || !account.mark.starts_with(markPrefix))
        return Settle(std::move(record), AccountState::Unclaimed);
    Delete(std::move(record), account);
}

/// Ends the password that was handed out, be it that this cannot be recorded: then the next look
/// finds the account disabled, and records it.
void AccountSweep::Disable(AccountRecord record, const AccountFacts& account) {
    if (record.state != AccountState::Withdrawn || !account.IsDisabled())
        record.started = SecondsOf(clock_());
    record.state = AccountState::Withdrawn;
    std::exception_ptr unrecorded;
    try {
        records_.Put(record, clock_() + retryTime);
    } catch (const std::exception&) {
        unrecorded = std::current_exception();
    }
    if (!account.IsDisabled()) {
        directory::MachineAccounts(*session_).Disable(account.UniqueDn());
        Log(LOG_NOTICE, record, "disabled, since the host has not changed its password");
    }
    // A host may be joining with it at this very moment, and a host that has joined keeps it.
    const auto now = FindByGuid(*session_, record.guid);
    if (now && now->passwordSet != record.passwordSet)
        Take(std::move(record), *now);
    if (unrecorded)
        std::rethrow_exception(unrecorded);
}

void AccountSweep::Delete(AccountRecord record, const AccountFacts& account) {
    try {
        session_->Ldap().Delete(account.UniqueDn(), session_->End());
    } catch (const Error& error) {
        if (IsUnanswered(error))
            throw;
        Log(LOG_WARNING, record, error.what());
        return Settle(std::move(record), AccountState::Unclaimed);
    }
    Log(LOG_NOTICE, record, "removed, since the host has not changed its password");
    records_.Remove(record.account);
}

/// Somebody has changed its password: a host, or an administrator for it.
void AccountSweep::Take(AccountRecord record, const AccountFacts& account) {
    const bool withdrawn = record.state == AccountState::Withdrawn;
    // That it was disabled at another controller may come to be known here later than the password.
    // Whoever disables it within the day is taken for this proxy.
    if (withdrawn && !account.IsDisabled() && !IsOver(record))
        return records_.Postpone(record.account, clock_() + retryTime);
    if (withdrawn && account.IsDisabled())
        Enable(record, account);
    Settle(std::move(record), AccountState::Taken);
}

void AccountSweep::Enable(const AccountRecord& record, const AccountFacts& account) {
    if (const char* obstacle = ObstacleTo(account))
        return Log(LOG_WARNING, record,
                   std::string("the host has changed its password meanwhile; it stays disabled, "
                               "since it ") +
                       obstacle + ": " + account.dn);
    const std::string enabled = std::to_string(account.control & ~accountDisabled);
    session_->Ldap().Modify(account.UniqueDn(),
                            {{LDAP_MOD_REPLACE, "userAccountControl", {enabled}}}, session_->End());
    Log(LOG_NOTICE, record, "enabled again: the host has changed its password meanwhile");
}

void AccountSweep::Settle(AccountRecord record, AccountState state) {
    record.state = state;
    record.started = SecondsOf(clock_());
    record.used = record.used || state == AccountState::Taken;
    records_.Put(record, std::nullopt);
}

} // namespace tessary::proxy
