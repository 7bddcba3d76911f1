/// SQLite handles of the record of accounts: connection and statement.
///
/// Failures are thrown as std::runtime_error "FILE: cannot DO SOMETHING: CAUSE". None of these
/// objects may be used by two threads at once.
#ifndef TESSARY_PROXY_ACCOUNT_DATABASE_H
#define TESSARY_PROXY_ACCOUNT_DATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

namespace tessary::proxy {

/// An open connection to one database file.
class AccountDatabase {
public:
    /// Opens an existing file.
    explicit AccountDatabase(const std::string& path);

    /// Runs statements that return no rows.
    /// \param action completes the sentence "cannot ..." of an exception
    void Execute(const std::string& sql, const std::string& action);

    /// Throws the connection's last error.
    [[noreturn]] void Fail(const std::string& action) const;

    /// How many rows the last change changed.
    int Changes() const { return sqlite3_changes(handle_.get()); }

    sqlite3* Handle() const { return handle_.get(); }
    const std::string& Path() const { return path_; }

private:
    struct Closer {
        void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
    };

    std::string path_;
    std::unique_ptr<sqlite3, Closer> handle_;
};

/// A statement that is prepared, run once and gone. Bound texts are not copied: they must outlive
/// it.
class AccountStatement {
public:
    /// \param action as AccountDatabase::Execute() takes it
    AccountStatement(AccountDatabase& database, const char* sql, std::string action);

    /// Binds the next parameter.
    AccountStatement& Bind(const std::string& text);
    AccountStatement& Bind(std::int64_t number);

    /// Moves to the next row; false after the last one.
    bool Step();
    /// Runs one that returns no rows.
    void Run();

    std::int64_t Number(int column) const;
    std::string Text(int column) const;

private:
    struct Finaliser {
        void operator()(sqlite3_stmt* handle) const { sqlite3_finalize(handle); }
    };

    void Check(int result) const;

    AccountDatabase& database_;
    std::string action_;
    std::unique_ptr<sqlite3_stmt, Finaliser> handle_;
    int bound_ = 0;
};

} // namespace tessary::proxy

#endif
