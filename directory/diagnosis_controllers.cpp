#include "diagnosis_controllers.h"

#include "text.h"

#include <unistd.h>

#include <algorithm>

namespace tessary::directory {
namespace {

/// The ports with their latency, or what is wrong with them.
std::string PortsText(const AddressReport& report) {
    std::vector<std::string> ports;
    for (std::size_t i = 0; i < servicePortCount; ++i) {
        const PortReport& port = report.ports[i];
        const std::string name = std::string(servicePorts[i].service) + " (" +
                                 std::to_string(servicePorts[i].number) + ") ";
        if (!port.failure)
            ports.push_back(name + LatencyText(port.latency));
        else if (port.failure->Code() == Status::ConnectionRefused)
            ports.push_back(name + "refused");
        else
            ports.push_back(name + port.failure->what());
    }
    return Listed(ports);
}

std::string RootText(const AddressReport& report, const std::string& domain) {
    const RootReport& root = report.root;
    if (root.failure)
        return std::string("; LDAP takes the connection, then: ") + root.failure->what();
    if (!root.domain.empty())
        return "; serves " + root.domain +
               (EqualNames(root.domain, domain) ? "" : ", not " + domain);
    return report.ports[ldapPort].failure ? "" : "; serves no domain";
}

std::string AddressText(const AddressReport& report, const std::string& domain) {
    const std::string address = report.address.Text() + ": ";
    if (report.NoRoute())
        return address + "not asked, " + report.ports.front().failure->what();
    return address + PortsText(report) + RootText(report, domain);
}

/// The numbers of the ports that failed with this status.
std::string PortsThat(const AddressReport& report, Status status) {
    std::vector<std::string> numbers;
    for (std::size_t i = 0; i < servicePortCount; ++i)
        if (report.ports[i].failure && report.ports[i].failure->Code() == status)
            numbers.push_back(std::to_string(servicePorts[i].number));
    return Listed(numbers);
}

bool AnyPortFails(const AddressReport& report) {
    return std::any_of(report.ports.begin(), report.ports.end(),
                       [](const PortReport& port) { return port.failure.has_value(); });
}

/// How this host comes to ask a controller no more, by where it has the name from.
std::string Removal(const ControllerReport& controller, const std::string& domain) {
    const std::string fromRecords =
        "take " + controller.host + " out of the service records of " + domain;
    const std::string fromPreferred =
        "take " + controller.host +
        " out of the preferred controllers: tesauthctl dcs get shows them, tesauthctl dcs set "
        "takes the ones to keep";
    if (!controller.origin.preferred)
        return fromRecords;
    return controller.origin.record ? fromRecords + ", and " + fromPreferred : fromPreferred;
}

Finding WithoutAddress(const ControllerReport& controller, const std::string& domain) {
    const std::string check = "controller " + controller.host;
    if (controller.lookupFailure)
        return {check, Severity::Failure,
                std::string("its address could not be looked up: ") +
                    controller.lookupFailure->what(),
                "mend what is said of the name servers"};
    const std::string giveOne =
        "give " + controller.host + " an address on the domain's name server, or ";
    return {check, Severity::Failure,
            "has no address: neither /etc/hosts nor a name server knows one",
            (controller.origin.record ? giveOne : "") + Removal(controller, domain)};
}

/// What mends an address; empty when nothing is wrong with it.
std::string AddressRemedy(const ControllerReport& controller, const AddressReport& report,
                          const std::string& domain) {
    const std::string& host = controller.host;
    const std::string address = report.address.Text();
    if (report.NoRoute())
        return "give this host a way to " + address + "; this says what it has: ip route get " +
               address;
    if (const std::string ports = PortsThat(report, Status::TimedOut); !ports.empty())
        return "see that " + host + " runs and that firewalls let TCP to " + address +
               " pass, port " + ports;
    if (const std::string ports = PortsThat(report, Status::ConnectionRefused); !ports.empty())
        return "start the domain controller's services on " + host +
               ": nothing takes connections on port " + ports;
    if (AnyPortFails(report))
        return "see that " + host + " runs, and look at the way to it: ip route get " + address;
    if (report.root.failure)
        return "start the domain controller's services on " + host + " anew";
    if (!EqualNames(report.root.domain, domain))
        return Removal(controller, domain);
    return "";
}

/// An address that there is no way to costs nobody time when there is another one.
bool Matters(const AddressReport& address, const ControllerReport& controller) {
    return !address.NoRoute() ||
           std::all_of(controller.addresses.begin(), controller.addresses.end(),
                       [](const AddressReport& each) { return each.NoRoute(); });
}

Finding ControllerFinding(const ControllerReport& controller, const std::string& domain) {
    if (controller.addresses.empty())
        return WithoutAddress(controller, domain);
    Finding finding{"controller " + controller.host, Severity::Ok, "", ""};
    for (const AddressReport& address : controller.addresses) {
        finding.text += (finding.text.empty() ? "" : "; ") + AddressText(address, domain);
        if (finding.remedy.empty() && Matters(address, controller))
            finding.remedy = AddressRemedy(controller, address, domain);
    }
    if (!finding.remedy.empty())
        finding.severity = Severity::Failure;
    return finding;
}

constexpr std::chrono::seconds clockWarning{60};
constexpr std::chrono::seconds clockFailure{300}; // what Kerberos bears

std::chrono::milliseconds Size(std::chrono::milliseconds time) {
    return std::chrono::abs(time);
}

long Seconds(std::chrono::milliseconds time) {
    return static_cast<long>(std::chrono::round<std::chrono::seconds>(time).count());
}

/// A controller and its clock.
struct Clock {
    const std::string& host;
    ClockReading reading;

    bool IsOff() const { return Size(reading.ahead) >= clockWarning; }
};

std::vector<Clock> ClocksOf(const std::vector<ControllerReport>& controllers,
                            const std::string& domain) {
    std::vector<Clock> clocks;
    for (const ControllerReport& controller : controllers)
        if (const AddressReport* address = controller.Serving(domain))
            if (address->root.clock)
                clocks.push_back({controller.host, *address->root.clock});
    return clocks;
}

Finding ClockFinding(const Clock& clock, bool anyAgrees) {
    const std::string check = "clock of " + clock.host;
    const std::chrono::milliseconds ahead = clock.reading.ahead;
    if (Size(ahead) <= clock.reading.doubt) {
        const auto doubt = std::chrono::ceil<std::chrono::seconds>(clock.reading.doubt).count();
        return {check, Severity::Ok,
                "agrees with this host's within " + std::to_string(doubt) + " s", ""};
    }
    Finding finding{check, Severity::Ok,
                    "this host's clock is " + std::to_string(Seconds(Size(ahead))) + " s " +
                        (ahead.count() > 0 ? "ahead of it" : "behind it"),
                    ""};
    if (!clock.IsOff())
        return finding;
    const bool refused = Size(ahead) >= clockFailure;
    finding.severity = refused ? Severity::Failure : Severity::Warning;
    finding.text += refused ? ": Kerberos refuses more than 300 s"
                            : "; from 300 s on, Kerberos refuses every login";
    finding.remedy = anyAgrees ? "set the clock of " + clock.host +
                                     ": another controller's agrees with this host's"
                               : SetClockCommand();
    return finding;
}

} // namespace

std::string SetClockCommand() {
    // Where it is installed, it is what keeps the clock.
    return access("/usr/bin/chronyc", X_OK) == 0 ? "chronyc makestep" : "timedatectl set-ntp true";
}

Findings ControllerFindings(const std::vector<ControllerReport>& controllers,
                            const std::string& domain) {
    const bool anyServes = std::any_of(
        controllers.begin(), controllers.end(),
        [&](const ControllerReport& controller) { return controller.Serving(domain) != nullptr; });
    Findings findings;
    for (const ControllerReport& controller : controllers) {
        findings.push_back(ControllerFinding(controller, domain));
        if (anyServes && findings.back().severity == Severity::Failure)
            findings.back().severity = Severity::Warning;
    }
    return findings;
}

Findings ClockFindings(const std::vector<ControllerReport>& controllers,
                       const std::string& domain) {
    const std::vector<Clock> clocks = ClocksOf(controllers, domain);
    const bool anyAgrees = std::any_of(clocks.begin(), clocks.end(),
                                       [](const Clock& clock) { return !clock.IsOff(); });
    Findings findings;
    for (const Clock& clock : clocks)
        findings.push_back(ClockFinding(clock, anyAgrees));
    return findings;
}

} // namespace tessary::directory
