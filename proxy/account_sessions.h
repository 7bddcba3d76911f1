/// Being logged in as the proxy's service account, by many threads at once.
#ifndef TESSARY_PROXY_ACCOUNT_SESSIONS_H
#define TESSARY_PROXY_ACCOUNT_SESSIONS_H

#include "account_refusals.h"
#include "directory/session.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tessary::proxy {

/// Sessions that are kept for the next request. Logging in takes several times as long as what a
/// request has to ask.
class AccountSessions {
public:
    class Lease;

    /// \param keytab path of a file
    AccountSessions(std::string domain, std::string account, std::string keytab);

    /// A session of the caller's own for a time: one that was kept, or a new one. Waits for one of
    /// the others when there are as many as there may be.
    /// \throws directory::Error TimedOut; else what logging in throws
    Lease Take(const directory::Deadline& deadline);

    /// A session that is not kept.
    std::unique_ptr<directory::Session> LogIn(const directory::Deadline& deadline) {
        return LogInAt("", deadline);
    }

    /// A session of its own for what only one controller knows for sure: the domain has one that
    /// hears of every new password at once, wherever it was set.
    struct Informed {
        std::unique_ptr<directory::Session> session;
        bool first; ///< at that controller; else it did not answer, and another one did
    };
    Informed LogInAtFirstToKnow(const directory::Deadline& deadline);

    /// Ends those that nobody has used for longer than this.
    void EndIdle(std::chrono::seconds time);

private:
    using Clock = std::chrono::steady_clock;

    struct Kept {
        std::unique_ptr<directory::Session> session;
        Clock::time_point since;
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
        Clock::time_point until;
    };

    /// \param first a controller to be asked before others; empty for none
    std::unique_ptr<directory::Session> LogInAt(const std::string& first,
                                                const directory::Deadline& deadline);
    void Return(std::unique_ptr<directory::Session> session) noexcept;
    std::unique_ptr<directory::Session> TakeKept();
    KeytabVersion VersionOfKeytab() const;
    void ExpectNotRejected(const KeytabVersion& keytab);

    const std::string domain_;
    const std::string account_;
    const std::string keytab_;
    std::mutex mutex_;
    std::condition_variable returned_;
    int out_ = 0;            // leases
    std::vector<Kept> kept_; // the one used last comes last
    std::optional<Rejection> rejection_;
};

/// Use by one thread at a time. Must not outlive the sessions it comes from.
class AccountSessions::Lease {
public:
    Lease(AccountSessions& sessions, std::unique_ptr<directory::Session> session, bool kept)
        : sessions_(&sessions), session_(std::move(session)), kept_(kept) {}
    Lease(Lease&& other) noexcept
        : sessions_(other.sessions_), session_(std::move(other.session_)), kept_(other.kept_) {
        other.sessions_ = nullptr;
    }
    Lease& operator=(Lease&&) = delete;
    ~Lease();

    directory::Session& Get() { return *session_; }

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
            session_ = sessions_->LogIn(deadline);
            kept_ = false;
        }
        return OnSession(deadline, function);
    }

    /// Runs a function on this session. After a failure below the session is not kept.
    template <typename Function>
    auto OnSession(const directory::Deadline& deadline, Function function) {
        session_->Extend(deadline);
        try {
            return function(*session_);
        } catch (const directory::Error&) {
            broken_ = true;
            throw;
        }
    }

private:
    /// With a session that was kept: its controller may be gone, and there may be others.
    static constexpr std::chrono::seconds patience{4};

    AccountSessions* sessions_;
    std::unique_ptr<directory::Session> session_;
    bool kept_;
    bool broken_ = false;
};

} // namespace tessary::proxy

#endif
