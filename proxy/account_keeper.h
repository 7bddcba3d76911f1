/// Makes accounts, gives them new passwords, and removes those that no host has taken over.
#ifndef TESSARY_PROXY_ACCOUNT_KEEPER_H
#define TESSARY_PROXY_ACCOUNT_KEEPER_H

#include "account_locks.h"
#include "account_records.h"
#include "account_search.h"
#include "account_service.h"
#include "account_sessions.h"
#include "account_sweep.h"
#include "directory_accounts.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>

namespace tessary::proxy {

/// Any number of threads may use one at once, but for Sweep(). It has no thread of its own.
class AccountKeeper : public AccountService {
public:
    using Clock = std::function<AccountRecords::Time()>;

    /// \param clock tells the time
    /// \throws std::runtime_error when the record cannot be opened
    explicit AccountKeeper(
        const AccountSettings& settings,
        Clock clock = [] { return std::chrono::system_clock::now(); });

    ~AccountKeeper() override;

    DomainInfo Domain() override;
    void ExpectHost(const std::string& hostName) const override { NamesOf(hostName); }
    NewAccount Create(const std::string& hostName, const std::string& container) override;

    /// Ends connections that nobody has used for a while.
    void EndIdle();

    /// Looks at the accounts that it is time for: removes those that no host has taken over, and
    /// finds out what became of requests whose answer was lost. Whatever cannot be done now is left
    /// for another time. Ends early, between two accounts, when it is asked to stop. For one thread
    /// at a time.
    void Sweep(const std::stop_token& stop = {});

private:
    /// One request for an account.
    struct Request {
        const directory::HostNames& names;
        const directory::Deadline& deadline;
        AccountSessions::Lease& session;
        std::optional<AccountRecord> known; ///< what the record has of an account of that name
    };

    DomainInfo AskDomain();
    directory::HostNames NamesOf(const std::string& hostName) const;
    bool IsHostsDomain(const directory::HostNames& names) const;
    Findings Search(Request& request, const std::string& container);
    std::string ContainerDn(directory::Session& session, const std::string& container) const;
    void ExpectGone(Request& request);
    NewAccount Make(Request& request, const Findings& findings);
    static void Undo(Request& request, const AccountFacts& made) noexcept;
    NewAccount Reset(Request& request, const directory::LdapEntry& account);
    void ExpectReset(Request& request, const AccountFacts& account);
    AccountRecord Intend(const Request& request, const AccountFacts* account, bool used);
    NewAccount Give(Request& request, AccountRecord record, const AccountFacts& account,
                    directory::Secret password);
    AccountRecords::Time UnusedAt(const AccountRecord& record) const {
        return std::chrono::system_clock::from_time_t(record.started) + settings_.unusedAfter;
    }

    const AccountSettings settings_;
    const Clock clock_;
    const std::string domainName_;
    AccountRecords records_;
    AccountLocks locks_;
    AccountSessions sessions_;
    AccountSweep sweep_;

    std::mutex domainMutex_;
    std::optional<DomainInfo> domain_;
    std::shared_future<DomainInfo> asking_; // while somebody asks
};

} // namespace tessary::proxy

#endif
