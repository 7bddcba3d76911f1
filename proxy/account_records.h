/// The record of the accounts that the proxy has made, or means to.
#ifndef TESSARY_PROXY_ACCOUNT_RECORDS_H
#define TESSARY_PROXY_ACCOUNT_RECORDS_H

#include "account_database.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tessary::proxy {

/// How far an account has come. The numbers are stored.
enum class AccountState : std::int64_t {
    Pending = 0,   ///< the directory is being asked for it, or was and the answer is not known; its
                   ///< password has been given to nobody
    Given = 1,     ///< its host has the password, and may have changed it
    Taken = 2,     ///< its host has changed the password
    Unclaimed = 3, ///< no host changed the password in time, and the account is not to be removed,
                   ///< or cannot be
    Withdrawn = 4  ///< the proxy has disabled it, or is about to, and removes it next unless its
                   ///< host turns out to have changed the password
};

/// An account as the record knows it. Holds nothing secret.
struct AccountRecord {
    std::string account; ///< with the final '$'
    std::string host;    ///< whom it is for: fully qualified, in lower case
    std::string mark;    ///< what the account carries, once the directory has done what is pending
    std::string guid;    ///< its objectGUID in hexadecimal digits; empty while it is not known
    std::int64_t passwordSet = 0; ///< its pwdLastSet when the password was last given to a host
    AccountState state = AccountState::Pending;
    bool used = false;        ///< a host has changed its password, be it an earlier one, or
                              ///< may have
    bool released = false;    ///< it may be given a new password once
    std::int64_t started = 0; ///< when it was asked for, given, withdrawn or settled, in seconds
                              ///< since 1970
};

/// A database in the state directory. Every change is on the disk when its function returns. Any
/// number of threads and processes may use it at once; the files that it makes belong to the owner
/// of the database, also when root makes them.
///
/// All functions throw std::runtime_error, with the name of the file and the cause, when the file
/// cannot be read or written.
class AccountRecords {
public:
    using Time = std::chrono::system_clock::time_point;

    /// Opens the record; makes an empty one where there is none.
    /// \throws std::runtime_error also for a file that a newer version has written, or that is none
    ///         of ours
    explicit AccountRecords(const std::string& stateDirectory);

    /// The same without making one.
    static AccountRecords OpenExisting(const std::string& stateDirectory);

    /// \param account with the final '$'
    std::optional<AccountRecord> Find(const std::string& account);

    /// Replaces what is known of an account. That it is released, which anybody may have said just
    /// now, stays.
    /// \param due when it is to be looked at again; nothing for an account with which all is done
    void Put(const AccountRecord& record, std::optional<Time> due);
    /// The same for an account that has got a new password, or is a new one: it is released no
    /// more.
    void PutRenewed(const AccountRecord& record, std::optional<Time> due);

    /// Puts off when an account is looked at.
    void Postpone(const std::string& account, Time due);

    void Remove(const std::string& account);

    /// The accounts that it is time to look at, those that have waited longest first.
    /// \param latest when the last of all is to be looked at; one that is not by then is due as
    /// well
    std::vector<std::string> Due(Time now, Time latest);
    /// What is known of an account that it is time to look at; nothing when it is not.
    std::optional<AccountRecord> FindDue(const std::string& account, Time now, Time latest);

    /// Lets the account of a host be given a new password once.
    /// \return false when there is none
    bool Release(const std::string& host);

private:
    AccountRecords(const std::string& path, bool make);
    void Write(const AccountRecord& record, std::optional<Time> due, bool staysReleased);

    std::mutex mutex_;
    AccountDatabase database_;
};

} // namespace tessary::proxy

#endif
