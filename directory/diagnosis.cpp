#include "diagnosis.h"

#include "deadline.h"
#include "diagnosis_controllers.h"
#include "diagnosis_host.h"
#include "diagnosis_membership.h"
#include "diagnosis_name_servers.h"
#include "diagnosis_probe.h"
#include "diagnosis_records.h"
#include "diagnosis_text.h"
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
    bool unknownIsTold = false;      ///< in place of the domain
};

/// Whether it can be nothing but a NetBIOS name; a DNS name of one label has a final dot.
bool IsShort(const std::string& domain) {
    return domain.find('.') == std::string::npos;
}

/// \param domain as it was asked for
void LoadState(Subject& subject, const std::string& domain) {
    constexpr char check[] = "membership";
    try {
        subject.state = DomainState::Load();
        if (!subject.state && DomainState::IsDamaged())
            subject.unknown =
                Finding{check, Severity::Failure, std::string(DomainState::Path()) + " is damaged",
                        JoinCommand(IsShort(domain) ? "" : domain)};
    } catch (const Error& error) {
        subject.unknown = Finding{
            check, Severity::Warning,
            "whether the host is joined to a domain is not known: " + std::string(error.what()),
            "run as root: tesauthctl diagnose" + (domain.empty() ? "" : " " + ShellWord(domain))};
    }
}

void LeaveOutDomain(Subject& subject) {
    subject.unknownIsTold = subject.unknown.has_value();
    subject.noDomain = subject.unknown.value_or(
        Finding{"domain", Severity::Failure,
                "the host is not joined to a domain, and none was named to look at",
                "tesauthctl diagnose DOMAIN"});
}

/// The name of a domain that the host is not joined to.
void SetForeignDomain(Subject& subject, const std::string& domain) {
    constexpr char check[] = "domain";
    if (IsShort(domain) && IsPlainName(domain)) {
        subject.noDomain = Finding{check, Severity::Failure,
                                   domain + " is a short name, and not one of a domain that this "
                                            "host is known to be joined to",
                                   "write the domain by its DNS name, such as corp.example"};
        return;
    }
    try {
        subject.domain = NormalizeDomainName(domain);
    } catch (const Error& error) {
        subject.noDomain = Finding{check, Severity::Failure, error.what(),
                                   "name the domain as its name servers know it: corp.example"};
    }
}

Subject Identify(const std::string& domain) {
    Subject subject;
    LoadState(subject, domain);
    if (subject.state && (domain.empty() || subject.state->IsNamed(domain)))
        subject.domain = subject.state->domain;
    else if (domain.empty())
        LeaveOutDomain(subject);
    else
        SetForeignDomain(subject, domain);
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
    if (subject.unknown && !subject.unknownIsTold)
        return {*subject.unknown};
    if (subject.noDomain)
        return {};
    if (!subject.state)
        return {{"membership", Severity::Warning, "the host is not joined to a domain",
                 JoinCommand(subject.domain)}};
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

/// The domain that the host's name goes by: one that is there.
std::string DomainOfHostName(const Subject& subject,
                             const std::shared_future<DomainRecords>& records) {
    if (subject.state)
        return subject.state->domain;
    return Await(records).found ? subject.domain : "";
}

std::vector<SocketAddress> AddressesOf(const std::vector<NamedController>& controllers) {
    std::vector<SocketAddress> addresses;
    for (const NamedController& controller : controllers)
        addresses.insert(addresses.end(), controller.lookup.addresses.begin(),
                         controller.lookup.addresses.end());
    return addresses;
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
    const auto records = Start([&] { return ReadDomainRecords(subject.domain); });
    const auto hostName = Start([&] {
        return CheckHostName(DomainOfHostName(subject, records), subject.state,
                             [&] { return AddressesOf(Await(records).controllers); });
    });
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
