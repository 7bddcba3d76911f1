#include "account_records.h"

#include "directory/error.h"
#include "directory/unique_fd.h"

#include <fcntl.h>

#include <cerrno>
#include <limits>
#include <stdexcept>

namespace tessary::proxy {
namespace {

constexpr int version = 1;
constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

// What has been answered to a host must not be forgotten when the power fails.
constexpr char connectionSettings[] = "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;";

constexpr char schema[] = "CREATE TABLE accounts ("
                          "  account TEXT PRIMARY KEY COLLATE NOCASE,"
                          "  host TEXT NOT NULL,"
                          "  mark TEXT NOT NULL,"
                          "  guid TEXT NOT NULL,"
                          "  password_set INTEGER NOT NULL,"
                          "  state INTEGER NOT NULL,"
                          "  used INTEGER NOT NULL,"
                          "  released INTEGER NOT NULL,"
                          "  started INTEGER NOT NULL," // seconds since 1970
                          "  due INTEGER NOT NULL"      // the same
                          ") STRICT, WITHOUT ROWID;"
                          "CREATE INDEX accounts_due ON accounts (due);"
                          "PRAGMA user_version = 1;";

// What is due later than that was written by a clock that was ahead.
#define IS_DUE "(due <= ? OR (due > ? AND due < 9223372036854775807))"
#define ACCOUNT_COLUMNS "account, host, mark, guid, password_set, state, used, released, started"

std::string PathIn(const std::string& stateDirectory) {
    return stateDirectory + "/accounts.db";
}

/// Nobody but the owner is to see which hosts there are.
std::string MakeIfMissing(const std::string& path) {
    constexpr mode_t ownersOnly = 0600;
    const directory::UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, ownersOnly));
    if (!file)
        directory::ThrowFileError(errno, "cannot open " + path);
    return path;
}

std::int64_t Seconds(AccountRecords::Time time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

std::int64_t Number(AccountDatabase& database, const char* sql) {
    AccountStatement statement(database, sql, "read the record of accounts");
    return statement.Step() ? statement.Number(0) : 0;
}

/// In one transaction, so that of two processes that begin at once one finds what the other made.
void MakeTables(AccountDatabase& database, bool make) {
    database.Execute("BEGIN IMMEDIATE", "read the record of accounts");
    const std::int64_t found = Number(database, "PRAGMA user_version");
    const bool empty = Number(database, "SELECT count(*) FROM sqlite_schema") == 0;
    if (found > version)
        throw std::runtime_error(database.Path() + ": a newer version has written this (" +
                                 std::to_string(found) + "; known is " + std::to_string(version) +
                                 ")");
    if (found < version && !(empty && make))
        throw std::runtime_error(database.Path() + ": this is no record of accounts");
    if (found < version)
        database.Execute(schema, "make the record of accounts");
    database.Execute("COMMIT", "make the record of accounts");
}

AccountRecord Row(const AccountStatement& row) {
    AccountRecord record;
    record.account = row.Text(0);
    record.host = row.Text(1);
    record.mark = row.Text(2);
    record.guid = row.Text(3);
    record.passwordSet = row.Number(4);
    record.state = static_cast<AccountState>(row.Number(5));
    record.used = row.Number(6) != 0;
    record.released = row.Number(7) != 0;
    record.started = row.Number(8);
    return record;
}

} // namespace

AccountRecords::AccountRecords(const std::string& stateDirectory)
    : AccountRecords(MakeIfMissing(PathIn(stateDirectory)), true) {}

AccountRecords AccountRecords::OpenExisting(const std::string& stateDirectory) {
    return {PathIn(stateDirectory), false};
}

AccountRecords::AccountRecords(const std::string& path, bool make) : database_(path) {
    database_.Execute(connectionSettings, "read the record of accounts");
    MakeTables(database_, make);
}

std::optional<AccountRecord> AccountRecords::Find(const std::string& account) {
    const std::lock_guard lock(mutex_);
    AccountStatement row(database_, "SELECT " ACCOUNT_COLUMNS " FROM accounts WHERE account = ?",
                         "read the record of " + account);
    row.Bind(account);
    return row.Step() ? std::optional(Row(row)) : std::nullopt;
}

void AccountRecords::Put(const AccountRecord& record, std::optional<Time> due) {
    Write(record, due, true);
}

void AccountRecords::PutRenewed(const AccountRecord& record, std::optional<Time> due) {
    Write(record, due, false);
}

void AccountRecords::Write(const AccountRecord& record, std::optional<Time> due,
                           bool staysReleased) {
    const std::lock_guard lock(mutex_);
    AccountStatement change(
        database_,
        "INSERT INTO accounts (" ACCOUNT_COLUMNS ", due) VALUES (?, ?, ?, ?, ?, ?, ?, 0, ?, ?) "
        "ON CONFLICT (account) DO UPDATE SET host = excluded.host, mark = excluded.mark, "
        "guid = excluded.guid, password_set = excluded.password_set, state = excluded.state, "
        "used = excluded.used, released = released AND ?, started = excluded.started, "
        "due = excluded.due",
        "write the record of " + record.account);
    change.Bind(record.account).Bind(record.host).Bind(record.mark).Bind(record.guid);
    change.Bind(record.passwordSet).Bind(static_cast<std::int64_t>(record.state));
    change.Bind(std::int64_t{record.used}).Bind(record.started).Bind(due ? Seconds(*due) : never);
    change.Bind(std::int64_t{staysReleased}).Run();
}

void AccountRecords::Postpone(const std::string& account, Time due) {
    const std::lock_guard lock(mutex_);
    AccountStatement change(database_, "UPDATE accounts SET due = ? WHERE account = ?",
                            "write the record of " + account);
    change.Bind(Seconds(due)).Bind(account).Run();
}

void AccountRecords::Remove(const std::string& account) {
    const std::lock_guard lock(mutex_);
    AccountStatement change(database_, "DELETE FROM accounts WHERE account = ?",
                            "write the record of " + account);
    change.Bind(account).Run();
}

std::vector<std::string> AccountRecords::Due(Time now, Time latest) {
    const std::lock_guard lock(mutex_);
    AccountStatement rows(database_, "SELECT account FROM accounts WHERE " IS_DUE " ORDER BY due",
                          "read the record of accounts");
    rows.Bind(Seconds(now)).Bind(Seconds(latest));
    std::vector<std::string> due;
    while (rows.Step())
        due.push_back(rows.Text(0));
    return due;
}

std::optional<AccountRecord> AccountRecords::FindDue(const std::string& account, Time now,
                                                     Time latest) {
    const std::lock_guard lock(mutex_);
    AccountStatement row(database_,
                         "SELECT " ACCOUNT_COLUMNS " FROM accounts WHERE account = ? AND " IS_DUE,
                         "read the record of " + account);
    row.Bind(account).Bind(Seconds(now)).Bind(Seconds(latest));
    return row.Step() ? std::optional(Row(row)) : std::nullopt;
}

bool AccountRecords::Release(const std::string& host) {
    const std::lock_guard lock(mutex_);
    AccountStatement change(database_,
                            "UPDATE accounts SET released = 1 WHERE host = ? AND guid <> ''",
                            "write the record of " + host);
    change.Bind(host).Run();
    return database_.Changes() > 0;
}

} // namespace tessary::proxy
