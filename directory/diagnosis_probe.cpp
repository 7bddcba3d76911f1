#include "diagnosis_probe.h"

#include "ldap_connection.h"
#include "text.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <ctime>
#include <memory>

namespace tessary::directory {
namespace {

using WallClock = std::chrono::system_clock;
using std::chrono::milliseconds;

struct TextDeleter {
    void operator()(char* text) const { ldap_memfree(text); }
};

/// "corp.example" for "DC=corp,DC=example"; empty for what is no domain's name.
std::string DomainOf(const std::string& baseDn) {
    char* text = nullptr;
    if (ldap_dn2domain(baseDn.c_str(), &text) != 0)
        return "";
    const std::unique_ptr<char, TextDeleter> owned(text);
    return LowerCase(text ? text : "");
}

/// The time written as "20261120094500.0Z". Controllers leave out what is less than a second.
std::optional<WallClock::time_point> ParseTime(const std::string& text) {
    std::tm time{};
    const char* const end = strptime(text.c_str(), "%Y%m%d%H%M%S", &time);
    if (!end || text.back() != 'Z')
        return std::nullopt;
    return WallClock::from_time_t(timegm(&time));
}

/// \param asked, answered the host's clock when it asked for the controller's time and got it
std::optional<ClockReading> Compare(const std::string& currentTime, WallClock::time_point asked,
                                    WallClock::time_point answered) {
    const auto time = ParseTime(currentTime);
    if (!time)
        return std::nullopt;
    const auto least = asked - (*time + std::chrono::seconds(1));
    const auto most = answered - *time;
    return ClockReading{std::chrono::round<milliseconds>((least + most) / 2),
                        std::chrono::ceil<milliseconds>((most - least) / 2)};
}

/// How long the other end took to accept. The kernel's own measure: ours would have in it what was
/// done for other controllers meanwhile.
Latency RoundTrip(int connection) {
    tcp_info information{};
    socklen_t length = sizeof information;
    getsockopt(connection, IPPROTO_TCP, TCP_INFO, &information, &length);
    return Latency(information.tcpi_rtt);
}

/// One port of one address, and what is said there.
class PortProbe {
public:
    PortProbe(const std::string& host, AddressReport& report, std::size_t port)
        : host_(host), report_(report), port_(port) {
        try {
            socket_ = StartConnect(report.address.WithPort(servicePorts[port].number));
        } catch (const Error& error) {
            Port().failure = error;
            // A service on this very host refuses at once.
            Port().noRoute = error.Code() == Status::NoController;
        }
    }

    bool Waits() const { return socket_ || connection_; }
    pollfd Wanted() const {
        return connection_ ? pollfd{connection_->Socket(), POLLIN, 0}
                           : pollfd{socket_.Get(), POLLOUT, 0};
    }

    /// Goes on as far as it can without waiting.
    void Advance() {
        try {
            connection_ ? TakeAnswer() : TakeConnection();
        } catch (const Error& error) {
            Fail(error);
        }
    }

    void GiveUp() {
        Fail(Error(Status::TimedOut,
                   "no answer within " + std::to_string(probeTime.count()) + " s"));
    }

private:
    PortReport& Port() { return report_.ports[port_]; }

    void Fail(const Error& error) {
        if (connection_)
            report_.root.failure = error;
        else
            Port().failure = error;
        Stop();
    }

    void Stop() {
        connection_.reset();
        socket_ = UniqueFd();
    }

    void TakeConnection() {
        static const char* const attributes[] = {"defaultNamingContext", "currentTime", nullptr};
        FinishConnect(socket_.Get());
        Port().latency = RoundTrip(socket_.Get());
        if (port_ != ldapPort) {
            Stop();
            return;
        }
        connection_ = std::make_unique<LdapConnection>(std::move(socket_), host_);
        asked_ = WallClock::now();
        question_ = connection_->StartRootSearch(attributes);
    }

    void TakeAnswer() {
        const std::optional<LdapEntry> answer = connection_->TryFinishSearch(question_);
        if (!answer)
            return;
        report_.root.domain = DomainOf(answer->Value("defaultNamingContext"));
        report_.root.clock = Compare(answer->Value("currentTime"), asked_, WallClock::now());
        Stop();
    }

    const std::string& host_;
    AddressReport& report_;
    std::size_t port_;
    UniqueFd socket_;
    std::unique_ptr<LdapConnection> connection_;
    int question_ = 0;
    WallClock::time_point asked_;
};

void RunAll(std::vector<PortProbe>& probes) {
    const Deadline end = Deadline::In(probeTime);
    for (;;) {
        std::vector<pollfd> descriptors;
        std::vector<PortProbe*> waiting;
        for (PortProbe& probe : probes) {
            if (!probe.Waits())
                continue;
            descriptors.push_back(probe.Wanted());
            waiting.push_back(&probe);
        }
        if (waiting.empty())
            return;
        const bool inTime = Poll(descriptors, end) && !end.Passed();
        for (std::size_t i = 0; i < waiting.size(); ++i) {
            if (descriptors[i].revents != 0)
                waiting[i]->Advance();
            if (!inTime && waiting[i]->Waits())
                waiting[i]->GiveUp();
        }
    }
}

} // namespace

bool AddressReport::Serves(const std::string& domainName) const {
    for (std::size_t i = 0; i < servicePortCount; ++i)
        if (servicePorts[i].vital && ports[i].failure)
            return false;
    return !root.failure && EqualNames(root.domain, domainName);
}

const AddressReport* ControllerReport::Serving(const std::string& domain) const {
    for (const AddressReport& address : addresses)
        if (address.Serves(domain))
            return &address;
    return nullptr;
}

std::vector<ControllerReport> ProbeControllers(const std::vector<NamedController>& controllers) {
    std::vector<ControllerReport> reports;
    for (const NamedController& controller : controllers) {
        ControllerReport& report = reports.emplace_back();
        report.host = controller.host;
        report.origin = controller.origin;
        if (controller.lookup.addresses.empty())
            report.lookupFailure = controller.lookup.failure;
        for (const SocketAddress& address : controller.lookup.addresses)
            report.addresses.push_back({address, {}, {}});
    }
    // The reports don't move any more.
    std::vector<PortProbe> probes;
    for (ControllerReport& report : reports)
        for (AddressReport& address : report.addresses)
            for (std::size_t port = 0; port < servicePortCount; ++port)
                probes.emplace_back(report.host, address, port);
    RunAll(probes);
    return reports;
}

} // namespace tessary::directory
