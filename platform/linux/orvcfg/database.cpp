#include "orvcfg/database.h"

#include <system_error>
#include <utility>

#include "orvcfg/config_store.h"

namespace OrvConfigStore {
namespace {

// A writer holds the file for milliseconds: whoever waits this long waits for a hung process.
constexpr int kBusyTimeoutMs = 10000;

// EXTRA also syncs the directory after the rollback journal is gone, so that a committed write
// is not undone by a journal that a power failure brings back. These settings belong to the
// connection: none of them touches the file, which may yet prove to be another program's.
constexpr const char* kConnectionSettings = "PRAGMA foreign_keys = ON;"
                                            "PRAGMA synchronous = EXTRA;";

} // namespace

Database::Database(const std::string& path) : path_(path) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX |
                                           SQLITE_OPEN_PRIVATECACHE | SQLITE_OPEN_EXRESCODE,
                                       nullptr);
    handle_.reset(opened);
    if (result != SQLITE_OK)
        Fail("open the configuration store");
    sqlite3_busy_timeout(opened, kBusyTimeoutMs);
    Execute(kConnectionSettings, "open the configuration store");
}

void Database::Execute(const char* sql, const std::string& action) {
    if (sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        Fail(action);
}

void Database::Fail(const std::string& action) const {
    std::string text = path_ + ": cannot " + action + ": " + sqlite3_errmsg(handle_.get());
    if (const int cause = handle_ ? sqlite3_system_errno(handle_.get()) : 0)
        text += " (" + std::generic_category().message(cause) + ")";
    throw ConfigStoreException(text);
}

Statement::Statement(Database& database, const char* sql, std::string action)
    : database_(database), action_(std::move(action)) {
    sqlite3_stmt* prepared = nullptr;
    Check(sqlite3_prepare_v2(database_.Handle(), sql, -1, &prepared, nullptr));
    handle_.reset(prepared);
}

Statement& Statement::BindText(int index, const std::string& text) {
    Check(sqlite3_bind_text64(handle_.get(), index, text.data(), text.size(), SQLITE_STATIC,
                              SQLITE_UTF8));
    return *this;
}

Statement& Statement::BindBytes(int index, const std::string& bytes) {
    Check(sqlite3_bind_blob64(handle_.get(), index, bytes.data(), bytes.size(), SQLITE_STATIC));
    return *this;
}

Statement& Statement::BindInteger(int index, int64_t value) {
    Check(sqlite3_bind_int64(handle_.get(), index, value));
    return *this;
}

bool Statement::Step() {
    const int result = sqlite3_step(handle_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        database_.Fail(action_);
    return result == SQLITE_ROW;
}

void Statement::Run() {
    while (Step()) {
    }
    Check(sqlite3_reset(handle_.get()));
}

bool Statement::IsNull(int column) const {
    return sqlite3_column_type(handle_.get(), column) == SQLITE_NULL;
}

int64_t Statement::Integer(int column) const {
    return sqlite3_column_int64(handle_.get(), column);
}

std::string Statement::Bytes(int column) const {
    const void* bytes = sqlite3_column_blob(handle_.get(), column);
    const int size = sqlite3_column_bytes(handle_.get(), column);
    return bytes ? std::string(static_cast<const char*>(bytes), size) : std::string();
}

void Statement::Check(int result) const {
    if (result != SQLITE_OK)
        database_.Fail(action_);
}

WriteTransaction::WriteTransaction(Database& database, std::string action)
    : database_(database), action_(std::move(action)) {
    // The write lock is taken at once: a transaction that reads first and asks for it later could
    // be refused after another process has written in between.
    database_.Execute("BEGIN IMMEDIATE", action_);
}

WriteTransaction::~WriteTransaction() {
    // SQLite has rolled back by itself after the graver errors, a full disk among them.
    if (database_.InTransaction())
        sqlite3_exec(database_.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void WriteTransaction::Commit() {
    database_.Execute("COMMIT", action_);
}

} // namespace OrvConfigStore
