// What a diagnosis makes of controllers, name servers and networks that no test lab has at hand.

#include "directory/diagnosis_address.h"
#include "directory/diagnosis_controllers.h"
#include "directory/diagnosis_name_servers.h"
#include "directory/diagnosis_text.h"

#include <arpa/inet.h>
#include <poll.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <functional>

namespace {
std::function<void()> beforePoll;
}

/// The C library's, with something to do first.
extern "C" int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    if (beforePoll)
        beforePoll();
    const timespec time{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    return ppoll(descriptors, count, milliseconds < 0 ? nullptr : &time, nullptr);
}

namespace tessary::directory {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr char domain[] = "corp.example";

SocketAddress Ipv4(const char* text, std::uint16_t port = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, text, &address.sin_addr);
    return {reinterpret_cast<sockaddr*>(&address), sizeof address, port};
}

SocketAddress Ipv6(const char* text) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    inet_pton(AF_INET6, text, &address.sin6_addr);
    return {reinterpret_cast<sockaddr*>(&address), sizeof address, 0};
}

AddressReport Working(const char* address) {
    AddressReport report{Ipv4(address), {}, {}};
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

TEST(ControllerFindings, WithoutAddressTheRemedyGoesByWhereTheNameIsFrom) {
    const std::string records = "take dc1 out of the service records of corp.example";
    const struct {
        Origin origin;
        bool recorded, listed;
    } cases[] = {
        {{true, false}, true, false}, {{true, true}, true, true}, {{false, true}, false, true}};
    for (const auto& each : cases) {
        const Finding finding = FindingOn({"dc1", {}, each.origin});
        EXPECT_EQ(finding.text, "has no address: neither /etc/hosts nor a name server knows one");
        for (const char* step :
             {"give dc1 an address", "out of the service records of corp.example"})
            EXPECT_EQ(finding.remedy.find(step) != std::string::npos, each.recorded)
                << finding.remedy;
        EXPECT_EQ(finding.remedy.find("tesauthctl dcs set") != std::string::npos, each.listed)
            << finding.remedy;
    }
    ControllerReport stranger = Working("dc1", "10.1.2.3");
    stranger.addresses[0].root.domain = "other.example";
    stranger.origin = {false, true};
    EXPECT_THAT(FindingOn(stranger).remedy,
                AllOf(HasSubstr("tesauthctl dcs set"), Not(HasSubstr("service records"))));
}

TEST(ControllerFindings, AddressThatNobodyToldIsNotMissing) {
    const Finding finding =
        FindingOn({"dc1", {}, {}, Error(Status::NoController, "no name server answers")});
    EXPECT_EQ(finding.severity, Severity::Failure);
    EXPECT_EQ(finding.text, "its address could not be looked up: no name server answers");
    EXPECT_EQ(finding.remedy, "mend what is said of the name servers");
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

TEST(ShellWord, NothingFromElsewhereIsRunByAShell) {
    for (const char* plain : {"dc1.corp.example", "_sites.x", "10.1.2.3", "A-b"})
        EXPECT_EQ(ShellWord(plain), plain);
    for (const std::string odd :
         {"", "-U", ".x", "a b", "a;reboot", "$(reboot)", "`reboot`", "it's", "'", "''x", "a\nb"}) {
        const std::string word = ShellWord(odd);
        EXPECT_FALSE(IsPlainName(odd)) << odd;
        EXPECT_NE(word, odd);
        // Let the shell itself tell what the word means.
        ASSERT_EQ(setenv("ODD", odd.c_str(), 1), 0);
        EXPECT_EQ(std::system(("set -- " + word + "\n[ $# = 1 ] && [ \"$1\" = \"$ODD\" ]").c_str()),
                  0)
            << word;
    }
    EXPECT_EQ(JoinCommand(""), "tesauthctl join DOMAIN -U USER");
    EXPECT_EQ(JoinCommand("corp.example"), "tesauthctl join corp.example -U USER");
    EXPECT_EQ(JoinCommand("a;b"), "tesauthctl join 'a;b' -U USER");
}

/// A name server that sends without end, and never what it is asked for: whoever polls finds that
/// something has come.
class FloodingNameServer {
public:
    FloodingNameServer() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const SocketAddress address = Ipv4("127.0.0.1", 53);
        bound_ = bind(socket_.Get(), address.Get(), address.Length()) == 0;
        beforePoll = [this] { Send(); };
    }
    ~FloodingNameServer() { beforePoll = nullptr; }

    bool IsBound() const { return bound_; }
    /// Whether it stopped by itself, which it does in the end.
    bool HasGivenUp() const { return patience_.Passed(); }

private:
    void Send() {
        const auto to = reinterpret_cast<sockaddr*>(&client_);
        char question[512];
        recvfrom(socket_.Get(), question, sizeof question, MSG_DONTWAIT, to, &length_);
        if (!HasGivenUp())
            sendto(socket_.Get(), "no answer", 9, 0, to, length_);
    }

    UniqueFd socket_;
    bool bound_ = false;
    sockaddr_in client_{};
    socklen_t length_ = sizeof client_;
    Deadline patience_ = Deadline::In(20s);
};

TEST(NameServerFindings, ServerThatNeverStopsSendingIsLeft) {
    std::ofstream("/etc/resolv.conf") << "nameserver 127.0.0.1\n";
    const FloodingNameServer server;
    ASSERT_TRUE(server.IsBound());
    const Findings findings = CheckNameServers(domain);
    EXPECT_FALSE(server.HasGivenUp()) << "not the server was to end it";
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].severity, Severity::Failure);
    EXPECT_THAT(findings[0].text, HasSubstr("does not answer within 3 s"));
}

void Ip(const std::string& words) {
    ASSERT_EQ(std::system(("ip " + words).c_str()), 0) << words;
}

/// The private host's network, for as long as the test takes.
class OwnAddress : public testing::Test {
protected:
    static void AddNetwork(const std::string& name, const std::string& address) {
        Ip("link add " + name + " type veth peer name " + name + "-far");
        Ip("address add " + address + " dev " + name);
        Ip("link set " + name + " up");
        Ip("link set " + name + "-far up");
        names_.push_back(name);
    }
    void TearDown() override {
        for (const std::string& name : names_)
            Ip("link delete " + name);
        names_.clear();
    }

    static std::vector<std::string> names_;
};
std::vector<std::string> OwnAddress::names_;

TEST_F(OwnAddress, IsTheOneTowardsThePeers) {
    EXPECT_EQ(OwnAddressTowards({}), "127.0.1.1") << "without a network";
    AddNetwork("local", "169.254.7.7/16");
    EXPECT_EQ(OwnAddressTowards({Ipv4("169.254.7.8")}), "127.0.1.1") << "good on one link only";
    AddNetwork("near", "198.51.100.7/24");
    AddNetwork("more", "203.0.113.7/24");
    EXPECT_EQ(OwnAddressTowards({}), "198.51.100.7") << "any, where there is no way out";

    Ip("route add default via 203.0.113.1");
    EXPECT_EQ(OwnAddressTowards({}), "203.0.113.7");
    EXPECT_EQ(OwnAddressTowards({Ipv4("10.1.2.3")}), "203.0.113.7");
    EXPECT_EQ(OwnAddressTowards({Ipv4("198.51.100.50")}), "198.51.100.7");
    EXPECT_EQ(OwnAddressTowards({Ipv4("127.0.0.1"), Ipv4("198.51.100.50")}), "198.51.100.7");
    EXPECT_EQ(OwnAddressTowards({Ipv4("169.254.7.8")}), "203.0.113.7");

    Ip("address add 2001:db8:1::7/64 dev near nodad");
    EXPECT_EQ(OwnAddressTowards({Ipv6("2001:db8:1::9")}), "2001:db8:1::7");
    EXPECT_EQ(OwnAddressTowards({Ipv6("2001:db8:1::9"), Ipv4("10.1.2.3")}), "203.0.113.7")
        << "IPv4 goes first";
}

} // namespace
} // namespace tessary::directory
