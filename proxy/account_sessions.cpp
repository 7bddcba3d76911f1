#include "account_sessions.h"

#include "directory/operation.h"
#include "directory/resolver.h"
#include "directory/text.h"

#include <sys/stat.h>

#include <utility>

namespace tessary::proxy {
namespace {

using directory::Deadline;
using directory::Error;
using directory::Session;
using directory::Status;

/// More would only wait for the controller's processors instead of for us.
constexpr int mostLeases = 4;

/// Controllers end connections whose ticket is over.
constexpr std::chrono::minutes ticketReserve{5};

/// For finding out which controller is the PDC emulator.
constexpr std::chrono::seconds nameTime{5};

/// A key that was rejected is not tried again at once: that would lock the account out.
constexpr std::chrono::minutes rejectionTime{5};

bool IsRejection(const Error& error) {
    switch (error.Code()) {
    case Status::MachineKeyRejected:
    case Status::NoMachineAccount:
    case Status::AccountDisabled:
    case Status::PasswordExpired:
        return true;
    default:
        return false;
    }
}

bool IsWorthKeeping(Session& session) noexcept {
    try {
        return session.TicketEnd() - ticketReserve >= std::chrono::system_clock::now();
    } catch (const std::exception&) {
        return false;
    }
}

/// Empty when nobody says.
std::vector<std::string> PdcEmulator(const std::string& domain, const Deadline& deadline) {
    try {
        return directory::Resolver(deadline).ServiceHosts("_ldap._tcp.pdc._msdcs." + domain);
    } catch (const Error&) {
        return {}; // any other will do
    }
}

} // namespace

AccountSessions::AccountSessions(std::string domain, std::string account, std::string keytab,
                                 Clock clock)
    : domain_(std::move(domain)), account_(std::move(account)), keytab_(std::move(keytab)),
      clock_(std::move(clock)) {
    // No more sessions are kept than have been out at once, so that keeping one cannot fail.
    kept_.reserve(mostLeases);
}

AccountSessions::Lease::~Lease() {
    if (sessions_)
        sessions_->Return(broken_ ? Login() : std::move(login_));
}

AccountSessions::Lease AccountSessions::Take(const Deadline& deadline) {
    {
        const directory::Waiting waiting;
        std::unique_lock lock(mutex_);
        const std::chrono::milliseconds left(deadline.Milliseconds());
        if (!returned_.wait_for(lock, left, [this] { return out_ < mostLeases; }))
            throw Error(Status::TimedOut, "earlier requests have not come to an end");
        ++out_;
    }
    try {
        if (std::unique_ptr<Session> kept = TakeKept())
            return Lease(*this, {std::move(kept), true}, true);
        return Lease(*this, LogIn(deadline), false);
    } catch (...) {
        Return({});
        throw;
    }
}

std::unique_ptr<Session> AccountSessions::TakeKept() {
    const std::lock_guard lock(mutex_);
    if (kept_.empty())
        return nullptr;
    std::unique_ptr<Session> session = std::move(kept_.back().session);
    kept_.pop_back();
    return session;
}

void AccountSessions::Return(Login login) noexcept {
    // What is not kept is ended here, outside of the lock.
    if (login.session && !(login.first && IsWorthKeeping(*login.session)))
        login.session.reset();
    {
        const std::lock_guard lock(mutex_);
        --out_;
        if (login.session && kept_.size() < kept_.capacity())
            kept_.push_back({std::move(login.session), clock_()});
    }
    returned_.notify_one();
}

void AccountSessions::EndIdle(std::chrono::seconds time) {
    std::vector<Kept> ended;
    const std::lock_guard lock(mutex_);
    while (!kept_.empty() && clock_() - kept_.front().since > time) {
        ended.push_back(std::move(kept_.front()));
        kept_.erase(kept_.begin());
    }
}

AccountSessions::Login AccountSessions::LogIn(const Deadline& deadline) {
    const KeytabVersion keytab = VersionOfKeytab();
    ExpectNotRejected(keytab);
    const std::vector<std::string> first = PdcEmulator(domain_, deadline.AtMost(nameTime));
    directory::Controller controller = LocateController(domain_, first, deadline);
    const bool isFirst = !first.empty() && directory::EqualNames(controller.host, first.front());
    try {
        auto session = std::make_unique<Session>(
            std::move(controller), directory::KeytabLogin{account_, "FILE:" + keytab_}, deadline);
        return {std::move(session), isFirst};
    } catch (const Error& error) {
        if (IsRejection(error)) {
            const std::lock_guard lock(mutex_);
            rejection_ = Rejection{error, keytab, clock_() + rejectionTime};
        }
        throw;
    }
}

AccountSessions::KeytabVersion AccountSessions::VersionOfKeytab() const {
    struct stat found {};
    if (stat(keytab_.c_str(), &found) != 0)
        return {};
    return {found.st_ino, found.st_mtim.tv_sec, found.st_mtim.tv_nsec, found.st_size};
}

void AccountSessions::ExpectNotRejected(const KeytabVersion& keytab) {
    const std::lock_guard lock(mutex_);
    if (!rejection_)
        return;
    if (rejection_->keytab == keytab && clock_() < rejection_->until)
        throw rejection_->error;
    rejection_.reset();
}

} // namespace tessary::proxy
