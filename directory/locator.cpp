#include "locator.h"

#include "controller_candidates.h"
#include "error.h"
#include "preferred_controllers.h"
#include "text.h"

#include <algorithm>
#include <optional>

namespace tessary::directory {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds headStart = 250ms; // of one controller over the next
constexpr std::chrono::milliseconds patience = 5s;     // with one controller

/// A controller that has been asked and has not answered yet.
class Attempt {
public:
    Attempt(Candidate candidate, const Deadline& deadline)
        : candidate_(std::move(candidate)), deadline_(deadline.AtMost(patience)),
          connecting_(StartConnect(candidate_.address)) {}

    const Deadline& End() const { return deadline_; }
    const std::string& Host() const { return candidate_.host; }
    /// What there is to say of a controller that has kept us waiting too long.
    const char* Silence() const {
        return connection_ ? "it takes the connection and says nothing"
                           : "no answer to the attempt to connect";
    }
    pollfd Wanted() const {
        return connection_ ? pollfd{connection_->Socket(), POLLIN, 0}
                           : pollfd{connecting_.Get(), POLLOUT, 0};
    }

    /// Goes on as far as it can without waiting.
    /// \return the controller's answer once it is there
    /// \throws Error when the controller cannot be talked to
    std::optional<LdapEntry> Advance() {
        static const char* const attributes[] = {
            "defaultNamingContext", "configurationNamingContext", "dnsHostName", nullptr};
        if (!connection_) {
            FinishConnect(connecting_.Get());
            connection_ = std::make_unique<LdapConnection>(std::move(connecting_), candidate_.host);
            question_ = connection_->StartRootSearch(attributes);
            return std::nullopt;
        }
        return connection_->TryFinishSearch(question_);
    }

    /// Makes up for time in which nobody looked after the attempt, as far as the limit allows.
    void Extend(Deadline::Clock::duration time, const Deadline& limit) {
        deadline_ = limit.NoLaterThan(deadline_.Later(time));
    }

    /// The controller that gave this answer, of the domain that was looked for. A login takes the
    /// connection's name for the controller's: a controller that calls itself by another name is
    /// connected to again.
    Controller Take(const LdapEntry& answer, const std::string& domain) {
        const std::string& host = answer.Value("dnsHostName");
        if (!EqualNames(host, candidate_.host))
            connection_ =
                std::make_unique<LdapConnection>(Connect(candidate_.address, deadline_), host);
        return {host,
                domain,
                UpperCase(domain),
                answer.Value("defaultNamingContext"),
                answer.Value("configurationNamingContext"),
                candidate_.address,
                std::move(connection_)};
    }

private:
    Candidate candidate_;
    Deadline deadline_;
    UniqueFd connecting_;
    std::unique_ptr<LdapConnection> connection_;
    int question_ = 0;
};

/// "DC=corp,DC=example" for "corp.example".
std::string BaseDnOf(const std::string& domain) {
    std::string dn = "DC=";
    for (char c : domain)
        c == '.' ? dn += ",DC=" : dn += c;
    return dn;
}

/// Asks the candidates, and remembers why those that did not answer did not.
class Race {
public:
    Race(const std::string& domain, const std::vector<std::string>& known, const Deadline& deadline)
        : domain_(domain), baseDn_(BaseDnOf(domain)), deadline_(deadline),
          candidates_(domain, known, deadline), nextStart_(Deadline::In(0ms)) {}

    Controller Run() {
        for (;;) {
            while (!exhausted_ && (nextStart_.Passed() || attempts_.empty()))
                StartNext();
            if (attempts_.empty())
                ThrowFailure();
            if (auto controller = AdvanceAll(Wait()))
                return std::move(*controller);
        }
    }

private:
    void StartNext() {
        const Deadline::Clock::time_point before = Deadline::Clock::now();
        std::optional<Candidate> candidate = candidates_.Next(); // may wait for name servers
        for (Attempt& attempt : attempts_)
            attempt.Extend(Deadline::Clock::now() - before, deadline_);
        exhausted_ = !candidate;
        nextStart_ = Deadline::In(headStart);
        if (candidate)
            Guarded(candidate->host, [&] { attempts_.push_back(Attempt(*candidate, deadline_)); });
    }

    /// Notes the failure of one attempt, so that the others go on. Another domain's controller says
    /// nothing about those of the domain.
    template <typename Function>
    bool Guarded(const std::string& host, Function function) {
        try {
            function();
            return true;
        } catch (const Error& error) {
            if (error.Code() != Status::NoSuchDomain)
                failures_.emplace_back(error.Code(), host + ": " + error.what());
            nextStart_ = Deadline::In(0ms);
            return false;
        }
    }

    std::vector<pollfd> Wait() {
        std::vector<pollfd> descriptors;
        Deadline end = exhausted_ ? deadline_.AtMost(patience) : nextStart_;
        for (const Attempt& attempt : attempts_) {
            descriptors.push_back(attempt.Wanted());
            end = end.AtMost(std::chrono::milliseconds(attempt.End().Milliseconds()));
        }
        Poll(descriptors, end);
        return descriptors;
    }

    /// Drops the attempts that failed or ran out of time.
    std::optional<Controller> AdvanceAll(const std::vector<pollfd>& descriptors) {
        std::vector<Attempt> remaining;
        for (std::size_t i = 0; i < attempts_.size(); ++i) {
            Attempt& attempt = attempts_[i];
            std::optional<Controller> found;
            const bool usable = Guarded(attempt.Host(), [&] {
                if (descriptors[i].revents != 0)
                    found = Judge(attempt);
                // Also one that says something all the time, but not what it was asked for.
                if (!found && attempt.End().Passed())
                    throw Error(Status::TimedOut, attempt.Silence());
            });
            if (found)
                return found;
            if (usable)
                remaining.push_back(std::move(attempt));
        }
        attempts_ = std::move(remaining);
        return std::nullopt;
    }

    std::optional<Controller> Judge(Attempt& attempt) {
        const std::optional<LdapEntry> answer = attempt.Advance();
        if (!answer)
            return std::nullopt;
        if (!EqualNames(answer->Value("defaultNamingContext"), baseDn_) ||
            answer->Value("dnsHostName").empty())
            throw Error(Status::NoSuchDomain, "serves another domain");
        return attempt.Take(*answer, domain_);
    }

    [[noreturn]] void ThrowFailure() const {
        const auto is = [](Status status) {
            return [=](const Error& each) { return each.Code() == status; };
        };
        const auto silent = std::find_if(failures_.begin(), failures_.end(), is(Status::TimedOut));
        if (silent != failures_.end())
            ThrowFor(Status::TimedOut, "no domain controller answers in time", *silent);
        if (failures_.empty() && candidates_.DiscoveryError())
            throw *candidates_.DiscoveryError();
        if (failures_.empty())
            throw Error(Status::NoController,
                        "no domain controller of " + domain_ + " has an address");
        if (std::all_of(failures_.begin(), failures_.end(), is(Status::ConnectionRefused)))
            ThrowFor(Status::ConnectionRefused, "every domain controller refuses the connection",
                     failures_.front());
        ThrowFor(Status::NoController, "no domain controller can be reached", failures_.front());
    }

    /// \param example one of the failures
    [[noreturn]] void ThrowFor(Status status, const std::string& text, const Error& example) const {
        const std::string count =
            failures_.size() < 2 ? "" : " (one of " + std::to_string(failures_.size()) + " asked)";
        throw Error(status, text + ": " + example.what() + count);
    }

    std::string domain_;
    std::string baseDn_;
    Deadline deadline_;
    ControllerCandidates candidates_;
    Deadline nextStart_;
    bool exhausted_ = false;
    std::vector<Attempt> attempts_;
    std::vector<Error> failures_;
};

} // namespace

Controller LocateController(const std::string& domain, const std::vector<std::string>& first,
                            const Deadline& deadline) {
    std::vector<std::string> known(first);
    for (std::string& controller : PreferredIfVisible())
        known.push_back(std::move(controller));
    return Race(domain, known, deadline).Run();
}

} // namespace tessary::directory
