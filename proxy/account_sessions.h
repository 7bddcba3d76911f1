/// Being logged in as the proxy's service account, by many threads at once.
#ifndef TESSARY_PROXY_ACCOUNT_SESSIONS_H
#define TESSARY_PROXY_ACCOUNT_SESSIONS_H

#include "account_refusals.h"
#include "directory/session.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tessary::proxy {

/// All are at one controller while it answers, the domain's PDC emulator: what one request wrote
/// the next one sees, and other controllers tell that one of new passwords before they tell the
/// rest. Any number of threads may use this at once.
///
/// Sessions are kept for the next request: logging in takes several times as long as what a request
/// has to ask. One at another controller is not kept, so that the right one is asked again as soon
/// as it answers.
class AccountSessions {
public:
    class Lease;
    using Time = std::chrono::steady_clock::time_point;
    using Clock = std::function<Time()>;

    struct Login {
        std::unique_ptr<directory::Session> session;
        bool first; ///< at the PDC emulator; else it did not answer, and another one did
    };

    /// \param keytab path of a file
    /// \param clock  tells the time, for what is kept and what is not tried again
    AccountSessions(std::string domain, std::string account, std::string keytab,
                    Clock clock = std::chrono::steady_clock::now);

    /// A session of the caller's own for a time: one that was kept, or a new one. Waits for one of
    /// the others when there are as many as there may be.
    /// \throws directory::Error TimedOut; else what logging in throws
    Lease Take(const directory::Deadline& deadline);

    /// A session that is not kept.
    Login LogIn(const directory::Deadline& deadline);

    /// Ends those that nobody has used for longer than this.
    void EndIdle(std::chrono::seconds time);

private:
    struct Kept {
        std::unique_ptr<directory::Session> session;
        Time since;
    };
    /// What tells one version of the keytab's file from the next.
    struct KeytabVersion {
        std::uint64_t inode = 0;
        std::int64_t seconds = 0;
        std::int64_t nanoseconds = 0;
        std::int64_t size = 0;
        bool operator==(const KeytabVersion&) const = default;
    };
    struct Rejection {
        directory::Error error;
        KeytabVersion keytab;
        Time until;
    };

    void Return(Login login) noexcept;
    std::unique_ptr<directory::Session> TakeKept();
    KeytabVersion VersionOfKeytab() const;
    void ExpectNotRejected(const KeytabVersion& keytab);

    const std::string domain_;
    const std::string account_;
    const std::string keytab_;
    const Clock clock_;
    std::mutex mutex_;
    std::condition_variable returned_;
    int out_ = 0;            // leases
    std::vector<Kept> kept_; // the one used last comes last
    std::optional<Rejection> rejection_;
};

/// Use by one thread at a time. Must not outlive the sessions it comes from.
class AccountSessions::Lease {
public:
    Lease(AccountSessions& sessions, Login login, bool kept)
        : sessions_(&sessions), login_(std::move(login)), kept_(kept) {}
    Lease(Lease&& other) noexcept
        : sessions_(other.sessions_), login_(std::move(other.login_)), kept_(other.kept_) {
        other.sessions_ = nullptr;
    }
    Lease& operator=(Lease&&) = delete;
    ~Lease();

    directory::Session& Get() { return *login_.session; }
    /// Whether it is at the PDC emulator.
    bool IsFirst() const { return login_.first; }

    /// Runs a function that only reads, on this session. A session that was kept may have broken
    /// since; then the function runs again on a new one.
    template <typename Function>
    auto Ask(const directory::Deadline& deadline, Function function) {
        if (kept_) {
            try {
                return OnSession(deadline.AtMost(patience), function);
            } catch (const directory::Error& error) {
                if (!IsUnanswered(error) || deadline.Passed())
                    throw;
            }
            login_ = sessions_->LogIn(deadline);
            kept_ = false;
            broken_ = false;
        }
        return OnSession(deadline, function);
    }

    /// Runs a function on this session. After a failure below the session is not kept.
    template <typename Function>
    auto OnSession(const directory::Deadline& deadline, Function function) {
        login_.session->Extend(deadline);
        try {
            return function(*login_.session);
        } catch (const directory::Error&) {
            broken_ = true;
            throw;
        }
    }

private:
    /// With a session that was kept: its controller may be gone, and there may be others.
    static constexpr std::chrono::seconds patience{4};

    AccountSessions* sessions_;
    Login login_;
    bool kept_;
    bool broken_ = false;
};

} // namespace tessary::proxy

#endif
