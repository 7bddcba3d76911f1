#include "account_database.h"

#include <stdexcept>
#include <system_error>
#include <utility>

namespace tessary::proxy {
namespace {

// A writer holds the file for milliseconds: who waits this long waits for a process that hangs.
constexpr int busyTime = 5000; // milliseconds

} // namespace

AccountDatabase::AccountDatabase(const std::string& path) : path_(path) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(
        path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
        nullptr);
    handle_.reset(opened);
    if (result != SQLITE_OK)
        Fail("open the record of accounts");
    sqlite3_busy_timeout(opened, busyTime);
}

void AccountDatabase::Execute(const std::string& sql, const std::string& action) {
    if (sqlite3_exec(handle_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        Fail(action);
}

void AccountDatabase::Fail(const std::string& action) const {
    std::string text = path_ + ": cannot " + action + ": " + sqlite3_errmsg(handle_.get());
    if (const int cause = handle_ ? sqlite3_system_errno(handle_.get()) : 0)
        text += " (" + std::generic_category().message(cause) + ")";
    throw std::runtime_error(text);
}

AccountStatement::AccountStatement(AccountDatabase& database, const char* sql, std::string action)
    : database_(database), action_(std::move(action)) {
    sqlite3_stmt* prepared = nullptr;
    Check(sqlite3_prepare_v2(database_.Handle(), sql, -1, &prepared, nullptr));
    handle_.reset(prepared);
}

AccountStatement& AccountStatement::Bind(const std::string& text) {
    Check(sqlite3_bind_text64(handle_.get(), ++bound_, text.data(), text.size(), SQLITE_STATIC,
                              SQLITE_UTF8));
    return *this;
}

AccountStatement& AccountStatement::Bind(std::int64_t number) {
    Check(sqlite3_bind_int64(handle_.get(), ++bound_, number));
    return *this;
}

bool AccountStatement::Step() {
    const int result = sqlite3_step(handle_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        database_.Fail(action_);
    return result == SQLITE_ROW;
}

void AccountStatement::Run() {
    while (Step()) {
    }
}

std::int64_t AccountStatement::Number(int column) const {
    return sqlite3_column_int64(handle_.get(), column);
}

std::string AccountStatement::Text(int column) const {
    const unsigned char* text = sqlite3_column_text(handle_.get(), column);
    const int size = sqlite3_column_bytes(handle_.get(), column);
    return text ? std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size))
                : std::string();
}

void AccountStatement::Check(int result) const {
    if (result != SQLITE_OK)
        database_.Fail(action_);
}

} // namespace tessary::proxy
