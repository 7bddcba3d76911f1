#include "directory_accounts.h"

#include "account_keeper.h"
#include "account_records.h"
#include "directory/error.h"
#include "directory/text.h"
#include "directory/unique_fd.h"

#include <fcntl.h>
#include <sys/file.h>
#include <syslog.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <stop_token>
#include <thread>
#include <utility>

namespace tessary::proxy {
namespace {

/// How long after its time an account may be looked at.
constexpr std::chrono::seconds interval{5};

/// One process at a time looks after accounts: what it is about to do to one, it knows only itself.
directory::UniqueFd LockDirectory(const std::string& path) {
    directory::UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory)
        directory::ThrowFileError(errno, "cannot open " + path);
    if (flock(directory.Get(), LOCK_EX | LOCK_NB) == 0)
        return directory;
    if (errno == EWOULDBLOCK)
        throw std::runtime_error("another process serves with " + path + " already");
    directory::ThrowFileError(errno, "cannot lock " + path);
}

/// The accounts, and the thread that looks after them.
class DirectoryAccounts : public AccountService {
public:
    explicit DirectoryAccounts(const AccountSettings& settings)
        : lock_(LockDirectory(settings.stateDirectory)), keeper_(settings) {
        thread_ = std::jthread([this](std::stop_token stop) { LookAfter(stop); });
    }

    DomainInfo Domain() override { return keeper_.Domain(); }
    void ExpectHost(const std::string& hostName) const override { keeper_.ExpectHost(hostName); }
    NewAccount Create(const std::string& hostName, const std::string& container) override {
        return keeper_.Create(hostName, container);
    }

private:
    void LookAfter(const std::stop_token& stop) {
        std::mutex mutex;
        std::condition_variable_any never;
        std::string told; // what does not change is said once
        while (!stop.stop_requested()) {
            try {
                keeper_.EndIdle();
                keeper_.Sweep(stop);
                told.clear();
            } catch (const std::exception& error) {
                if (std::exchange(told, error.what()) != error.what())
                    syslog(LOG_ERR, "cannot look after accounts: %s", error.what());
            }
            std::unique_lock lock(mutex);
            never.wait_for(lock, stop, interval, [] { return false; });
        }
    }

    const directory::UniqueFd lock_;
    AccountKeeper keeper_;
    std::jthread thread_; // ends before the keeper does
};

} // namespace

std::unique_ptr<AccountService> OpenDirectoryAccounts(const AccountSettings& settings) {
    return std::make_unique<DirectoryAccounts>(settings);
}

void ReleaseAccount(const std::string& stateDirectory, const std::string& hostName) {
    if (!AccountRecords::OpenExisting(stateDirectory).Release(directory::LowerCase(hostName)))
        throw std::runtime_error("the record in " + stateDirectory + " has no account of " +
                                 hostName);
}

} // namespace tessary::proxy
