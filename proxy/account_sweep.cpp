#include "account_sweep.h"

#include "account_place.h"
#include "account_refusals.h"
#include "account_rules.h"

#include "directory/error.h"
#include "directory/machine_account.h"

#include <syslog.h>

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
constexpr std::chrono::hours patience{1};

void Log(int priority, const AccountRecord& record, const std::string& text) {
    syslog(priority, "account %s of %s: %s", record.account.c_str(), record.host.c_str(),
           text.c_str());
}

} // namespace

void AccountSweep::Run(const std::stop_token& stop) {
    for (const AccountRecord& record : records_.Due(clock_()))
        if (stop.stop_requested() || !LookAt(record.account))
            return;
}

/// \return false when no controller answers
bool AccountSweep::LookAt(const std::string& account) {
    const auto hold = locks_.TryTake(account);
    if (!hold)
        return true;
    // What was due a moment ago may have been asked for again since.
    const std::optional<AccountRecord> record = records_.Find(account);
    if (!record)
        return true;
    try {
        Decide(*record);
    } catch (const Error& error) {
        session_.reset();
        if (IsUnanswered(error) || error.Code() == Status::NoSuchDomain) {
            // It may be this account alone that nobody answers for: others come first next time.
            records_.Postpone(account, clock_());
            return false;
        }
        Log(LOG_ERR, *record, error.what());
        records_.Postpone(account, clock_() + retryTime);
    }
    return true;
}

void AccountSweep::Decide(AccountRecord record) {
    if (record.state == AccountState::Taken || record.state == AccountState::Unclaimed)
        return records_.Put(record, std::nullopt);
    const Deadline deadline = Deadline::In(accountTime);
    if (!session_) {
        AccountSessions::Informed informed = sessions_.LogInAtFirstToKnow(deadline);
        session_ = std::move(informed.session);
        first_ = informed.first;
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
    record.passwordSet = account->passwordSet;
    if (!untouched)
        return Take(std::move(record), *account);
    DecideUnclaimed(std::move(record), *account);
}

void AccountSweep::DecideGiven(AccountRecord record, const std::optional<AccountFacts>& account) {
    if (!account)
        return Await(record);
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
    if (IsOver(record))
        records_.Remove(record.account);
    else
        records_.Postpone(record.account, clock_() + patience);
}

/// Whether nothing can come any more of what the record tells.
bool AccountSweep::IsOver(const AccountRecord& record) const {
    const auto started = std::chrono::system_clock::from_time_t(record.started);
    return clock_() - started > settings_.unusedAfter + oblivion;
}

void AccountSweep::DecideUnclaimed(AccountRecord record, const AccountFacts& account) {
    const std::string own =
        directory::OrganizationalUnitDn(settings_.container, session_->Where().baseDn);
    const char* obstacle = nullptr;
    if (!LiesWithin(account.dn, own))
        obstacle = "was moved to where it cannot be removed";
    else if (WhyElevated(account) || IsInElevatedGroup(*session_, account))
        obstacle = "has got rights that no plain host has";
    if (!obstacle)
        return Withdraw(std::move(record), account);
    Log(LOG_WARNING, record,
        std::string("no host has changed its password, and it ") + obstacle + ": " + account.dn);
    Settle(std::move(record), AccountState::Unclaimed);
}

/// A host may be joining with the account at this very moment, and a host that has joined keeps it:
/// only what is disabled, and has the same password then as before, is nobody's.
void AccountSweep::Withdraw(AccountRecord record, const AccountFacts& account) {
    if (!account.IsDisabled()) {
        record.state = AccountState::Withdrawn;
        records_.Put(record, clock_() + retryTime);
        directory::MachineAccounts(*session_).Disable(account.UniqueDn());
        Log(LOG_NOTICE, record, "disabled, since the host has not changed its password");
    }
    const auto now = FindByGuid(*session_, record.guid);
    if (!now)
        return Await(record);
    if (now->passwordSet != record.passwordSet)
        return Take(std::move(record), *now);
    // Another controller may know of a new password.
    if (!first_ && !IsOver(record))
        return records_.Postpone(record.account, clock_() + retryTime);
    if (!first_ || record.used || now->mark != record.mark)
        return Settle(std::move(record), AccountState::Unclaimed);
    Delete(std::move(record), *now);
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
    if (record.state == AccountState::Withdrawn && account.IsDisabled()) {
        const std::string enabled = std::to_string(account.control & ~accountDisabled);
        session_->Ldap().Modify(account.UniqueDn(),
                                {{LDAP_MOD_REPLACE, "userAccountControl", {enabled}}},
                                session_->End());
        Log(LOG_NOTICE, record, "enabled again: the host has changed its password meanwhile");
    }
    Settle(std::move(record), AccountState::Taken);
}

void AccountSweep::Settle(AccountRecord record, AccountState state) {
    record.state = state;
    record.started =
        std::chrono::duration_cast<std::chrono::seconds>(clock_().time_since_epoch()).count();
    record.used = record.used || state == AccountState::Taken;
    records_.Put(record, std::nullopt);
}

} // namespace tessary::proxy
