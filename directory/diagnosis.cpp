#include "diagnosis.h"

#include "deadline.h"
#include "diagnosis_controllers.h"
#include "diagnosis_host.h"
#include "diagnosis_membership.h"
#include "diagnosis_name_servers.h"
#include "diagnosis_probe.h"
#include "diagnosis_records.h"
#include "domain_state.h"
#include "error.h"
#include "names.h"
#include "operation.h"

#include <future>
#include <new>
#include <optional>

namespace tessary::directory {
namespace {

constexpr std::chrono::seconds wholeTime{14};

/// What is to be looked at.
struct Subject {
    std::string domain; ///< empty for none
    std::optional<DomainState> state;
    std::optional<Finding> noDomain; ///< why there is none
    std::optional<Finding> unknown;  ///< why it is not known whether the host is joined
};

void LoadState(Subject& subject) {
    try {
        subject.state = DomainState::Load();
    } catch (const Error& error) {
        subject.unknown = Finding{"membership", Severity::Warning,
                                  "whether the host is joined to a domain is not known: " +
                                      std::string(error.what()),
                                  "run as root: sudo tesauthctl diagnose"};
    }
}

Finding NoDomain(const Subject& subject) {
    if (subject.unknown)
        return *subject.unknown;
    return {"domain", Severity::Failure,
            "the host is not joined to a domain, and none was named to look at",
            "tesauthctl diagnose DOMAIN"};
}

Subject Identify(const std::string& domain) {
    Subject subject;
    LoadState(subject);
    if (domain.empty() || (subject.state && subject.state->IsNamed(domain))) {
        if (subject.state)
            subject.domain = subject.state->domain;
        else
            subject.noDomain = NoDomain(subject);
        return subject;
    }
    try {
        subject.domain = NormalizeDomainName(domain);
    } catch (const Error& error) {
        subject.noDomain = Finding{"domain", Severity::Failure, error.what(),
                                   "name the domain as its name servers know it: corp.example"};
    }
    return subject;
}

/// Starts something on a thread of its own or, on a host that has none to spare, does it when the
/// result is asked for.
template <typename Function>
auto Start(Function function) {
    return std::async(std::launch::async | std::launch::deferred,
                      [function] {
                          const Operation operation;
                          return function();
                      })
        .share();
}

template <typename Result>
const Result& Await(const std::shared_future<Result>& future) {
    {
        const Waiting waiting;
        future.wait();
    }
    return future.get();
}

Findings RecordFindings(const Subject& subject, const DomainRecords& records) {
    return subject.noDomain ? Findings{*subject.noDomain} : records.findings;
}

Findings MembershipFindings(const Subject& subject,
                            const std::vector<ControllerReport>& controllers,
                            const Deadline& deadline) {
    if (subject.noDomain)
        return {};
    if (subject.unknown)
        return {*subject.unknown};
    if (!subject.state)
        return {{"membership", Severity::Warning, "the host is not joined to a domain",
                 "tesauthctl join " + subject.domain + " -U USER"}};
    if (subject.state->domain != subject.domain)
        return {{"membership", Severity::Ok,
                 "the host is joined to " + subject.state->domain +
                     ": its keytab and its trust have nothing to do with " + subject.domain,
                 ""}};
    for (const ControllerReport& controller : controllers)
        if (const AddressReport* address = controller.Serving(subject.domain))
            return CheckMembership(*subject.state, address->address.Text(), deadline);
    return CheckMembership(*subject.state, "", deadline);
}

/// \param findings makes them; an Error is a finding as well
template <typename Function>
void Report(const std::function<void(const Finding&)>& report, const char* check,
            Function findings) {
    Findings made;
    try {
        made = findings();
    } catch (const Error& error) {
        if (error.Code() == Status::NotEnoughMemory)
            throw std::bad_alloc();
        made = {{check, Severity::Failure, error.what(), "mend that, then look again"}};
    }
    for (const Finding& finding : made)
        report(finding);
}

} // namespace

void Diagnose(const std::string& domain, const std::function<void(const Finding&)>& report) {
    const Deadline deadline = Deadline::In(wholeTime);
    const Subject subject = Identify(domain);

    // Each is destroyed before what it uses, and only when it has come to its end.
    const auto nameServers = Start([&] { return CheckNameServers(subject.domain); });
    const auto hostName = Start([&] {
        return CheckHostName(subject.state ? subject.state->domain : subject.domain, subject.state);
    });
    const auto records = Start([&] { return ReadDomainRecords(subject.domain); });
    const auto controllers = Start([&] { return ProbeControllers(Await(records).controllers); });
    const auto membership =
        Start([&] { return MembershipFindings(subject, Await(controllers), deadline); });

    Report(report, "name servers", [&] { return Await(nameServers); });
    Report(report, "service records", [&] { return RecordFindings(subject, Await(records)); });
    Report(report, "controllers",
           [&] { return ControllerFindings(Await(controllers), subject.domain); });
    Report(report, "clock", [&] { return ClockFindings(Await(controllers), subject.domain); });
    Report(report, "host name", [&] { return Findings{Await(hostName)}; });
    Report(report, "membership", [&] { return Await(membership); });
}

} // namespace tessary::directory
