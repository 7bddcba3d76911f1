/// SQLite handles of the configuration store: connection, statement, transaction.
///
/// Failures are thrown as ConfigStoreException "FILE: cannot DO SOMETHING: CAUSE". None of these
/// objects may be shared between threads.
#ifndef ORVCFG_DATABASE_H
#define ORVCFG_DATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

namespace OrvConfigStore {

/// An open connection to one database file.
class Database {
public:
    /// Opens an existing file. A host that may only read the file gets a connection whose writes
    /// fail.
    explicit Database(const std::string& path);

    /// Runs statements that return no rows. `action` completes the sentence "cannot ..." of the
    /// exception.
    void Execute(const char* sql, const std::string& action);

    /// True while a transaction is open.
    bool InTransaction() const { return sqlite3_get_autocommit(handle_.get()) == 0; }

    /// Throws the connection's last error.
    [[noreturn]] void Fail(const std::string& action) const;

    const std::string& Path() const { return path_; }
    sqlite3* Handle() const { return handle_.get(); }

private:
    struct Closer {
        void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
    };

    std::string path_;
    std::unique_ptr<sqlite3, Closer> handle_;
};

/// A prepared statement. Bound strings are not copied: they must outlive the statement.
class Statement {
public:
    /// `action` completes the sentence "cannot ..." of the exception.
    Statement(Database& database, const char* sql, std::string action);

    Statement& BindText(int index, const std::string& text);
    Statement& BindBytes(int index, const std::string& bytes);
    Statement& BindInteger(int index, int64_t value);

    /// Moves to the next row; false after the last one.
    bool Step();

    /// Steps to the end and makes the statement ready to be bound and run again.
    void Run();

    bool IsNull(int column) const;
    int64_t Integer(int column) const;
    /// A copy of the column's bytes, embedded zero bytes included.
    std::string Bytes(int column) const;

private:
    struct Finaliser {
        void operator()(sqlite3_stmt* handle) const { sqlite3_finalize(handle); }
    };
    void Check(int result) const;

    Database& database_;
    std::string action_;
    std::unique_ptr<sqlite3_stmt, Finaliser> handle_;
};

/// A write transaction, rolled back unless committed.
class WriteTransaction {
public:
    WriteTransaction(Database& database, std::string action);
    ~WriteTransaction();
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;

    void Commit();

private:
    Database& database_;
    std::string action_;
};

} // namespace OrvConfigStore

#endif
