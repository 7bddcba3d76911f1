// What a diagnosis makes of controllers that no test lab has at hand.

#include "directory/diagnosis_controllers.h"

#include <arpa/inet.h>

#include <gmock/gmock.h>

namespace tessary::directory {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr char domain[] = "corp.example";

AddressReport Working(const char* address) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    inet_pton(AF_INET, address, &ipv4.sin_addr);
    AddressReport report{SocketAddress(reinterpret_cast<sockaddr*>(&ipv4), sizeof ipv4, 0), {}, {}};
    for (PortReport& port : report.ports)
        port.latency = Latency(340);
    report.root.domain = "CORP.example";
    report.root.clock = ClockReading{0ms, 501ms};
    return report;
}

ControllerReport Working(const std::string& host, const char* address) {
    return {host, {Working(address)}};
}

const Error silent(Status::TimedOut, "no answer within 5 s");
const Error refused(Status::ConnectionRefused, "cannot connect: Connection refused");
const Error noRoute(Status::NoController, "cannot connect: Network is unreachable");

Finding FindingOn(const ControllerReport& controller) {
    return ControllerFindings({controller}, domain).at(0);
}

TEST(ControllerFindings, TellsEachPort) {
    const Finding finding = FindingOn(Working("dc1", "10.1.2.3"));
    EXPECT_EQ(finding.check, "controller dc1");
    EXPECT_EQ(finding.severity, Severity::Ok);
    EXPECT_EQ(finding.text, "10.1.2.3: Kerberos (88) 0.4 ms, LDAP (389) 0.4 ms, password changes "
                            "(464) 0.4 ms; serves CORP.example");
    EXPECT_EQ(finding.remedy, "");
}

TEST(ControllerFindings, WithoutPasswordChangesAControllerStillWorks) {
    ControllerReport controller = Working("dc1", "10.1.2.3");
    controller.addresses[0].ports[2].failure = silent;
    const Finding finding = FindingOn(controller);
    EXPECT_EQ(finding.severity, Severity::Warning);
    EXPECT_THAT(finding.text, HasSubstr("password changes (464) no answer within 5 s"));
    EXPECT_THAT(finding.remedy, HasSubstr("firewalls let TCP to 10.1.2.3 pass, port 464"));
}

TEST(ControllerFindings, WithoutAVitalPortItDoesNot) {
    for (const std::size_t port : {0u, 1u}) {
        ControllerReport controller = Working("dc1", "10.1.2.3");
        controller.addresses[0].ports[port].failure = refused;
        const Finding finding = FindingOn(controller);
        EXPECT_EQ(finding.severity, Severity::Failure) << port;
        EXPECT_THAT(finding.remedy, HasSubstr("services on dc1")) << port;
        EXPECT_THAT(finding.remedy, HasSubstr(std::to_string(servicePorts[port].number))) << port;
        EXPECT_EQ(controller.Serving(domain), nullptr);
    }
}

TEST(ControllerFindings, OneThatWorksMakesTheOthersWarnings) {
    ControllerReport dead = Working("dc1", "10.1.2.3");
    dead.addresses[0].ports[1].failure = silent;
    ControllerReport stranger = Working("dc2", "10.1.2.4");
    stranger.addresses[0].root.domain = "other.example";
    const ControllerReport nameless{"dc3", {}};
    const std::vector<ControllerReport> all{dead, stranger, nameless};
    for (const Finding& finding : ControllerFindings(all, domain))
        EXPECT_EQ(finding.severity, Severity::Failure) << finding.text;

    std::vector<ControllerReport> more(all);
    more.push_back(Working("dc4", "10.1.2.5"));
    const Findings findings = ControllerFindings(more, domain);
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(findings.at(i).severity, Severity::Warning) << findings[i].text;
    EXPECT_EQ(findings.at(3).severity, Severity::Ok);
}

TEST(ControllerFindings, AddressWithoutARouteMattersOnlyWhereThereIsNoOther) {
    AddressReport unreachable = Working("10.9.9.9");
    for (PortReport& port : unreachable.ports)
        port = {true, noRoute, {}};
    ControllerReport controller = Working("dc1", "10.1.2.3");
    controller.addresses.insert(controller.addresses.begin(), unreachable);
    EXPECT_EQ(FindingOn(controller).severity, Severity::Ok);

    const Finding only = FindingOn({"dc1", {unreachable}});
    EXPECT_EQ(only.severity, Severity::Failure);
    EXPECT_THAT(only.remedy, HasSubstr("ip route get 10.9.9.9"));
}

ControllerReport WithClock(const std::string& host, std::chrono::milliseconds ahead) {
    ControllerReport controller = Working(host, "10.1.2.3");
    controller.addresses[0].root.clock = ClockReading{ahead, 501ms};
    return controller;
}

TEST(ClockFindings, LimitsAreOneAndFiveMinutes) {
    struct Case {
        std::chrono::milliseconds ahead;
        Severity severity;
        const char* text;
    };
    for (const Case& each : {Case{500ms, Severity::Ok, "agrees with this host's within 1 s"},
                             Case{-59900ms, Severity::Ok, "60 s behind it"},
                             Case{60s, Severity::Warning, "60 s ahead of it"},
                             Case{-299s, Severity::Warning, "299 s behind it"},
                             Case{300s, Severity::Failure, "300 s ahead of it"}}) {
        const Findings findings = ClockFindings({WithClock("dc1", each.ahead)}, domain);
        ASSERT_EQ(findings.size(), 1u);
        EXPECT_EQ(findings[0].severity, each.severity) << findings[0].text;
        EXPECT_THAT(findings[0].text, HasSubstr(each.text));
        EXPECT_EQ(findings[0].remedy, each.severity == Severity::Ok ? "" : SetClockCommand());
    }
}

TEST(ClockFindings, WhereAnotherControllerAgreesWithTheHostTheHostIsRight) {
    const Findings findings = ClockFindings({WithClock("dc1", 600s), WithClock("dc2", 1s)}, domain);
    ASSERT_EQ(findings.size(), 2u);
    EXPECT_EQ(findings[0].severity, Severity::Failure);
    EXPECT_THAT(findings[0].remedy, HasSubstr("set the clock of dc1"));
    EXPECT_EQ(findings[1].severity, Severity::Ok);
}

TEST(ClockFindings, ControllersThatDoNotWorkAreNotAsked) {
    ControllerReport controller = WithClock("dc1", 600s);
    controller.addresses[0].ports[0].failure = silent;
    EXPECT_TRUE(ClockFindings({controller}, domain).empty());
}

} // namespace
} // namespace tessary::directory
