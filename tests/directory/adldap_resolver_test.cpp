// Name servers that don't answer, on a private host whose name server the test is.

#include "directory/diagnosis_host.h"
#include "directory/diagnosis_probe.h"
#include "directory/error.h"
#include "directory/resolver.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <fstream>
#include <thread>

namespace tessary::directory {
namespace {

/// A name server that takes questions and says nothing.
class SilentNameServer {
public:
    explicit SilentNameServer(const std::string& options = "")
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bound_ = bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        std::ofstream("/etc/resolv.conf")
            << "nameserver 127.0.0.1\noptions timeout:1 attempts:1 " << options << "\n";
    }

    bool IsBound() const { return bound_; }

    /// How many questions have come in since the last call.
    int TakeQuestions() {
        int count = 0;
        char question[512];
        while (recv(socket_.Get(), question, sizeof question, MSG_DONTWAIT) >= 0)
            ++count;
        return count;
    }

    /// Gives a question that has come, or comes within a moment, an answer with no record in it, or
    /// one for an IPv4 address where there is one to tell, also to those who ask for a service.
    /// \param isCut the answer says that more was to come
    void AnswerOne(int code, bool knowsIpv4, bool isCut) {
        pollfd wanted{socket_.Get(), POLLIN, 0};
        if (poll(&wanted, 1, 10) != 1)
            return;
        unsigned char message[512];
        sockaddr_in client{};
        socklen_t length = sizeof client;
        const auto to = reinterpret_cast<sockaddr*>(&client);
        const ssize_t got = recvfrom(socket_.Get(), message, sizeof message, 0, to, &length);
        if (got < HFIXEDSZ)
            return;
        message[2] |= isCut ? 0x82 : 0x80; // the question is its own answer
        std::string answer(reinterpret_cast<const char*>(message), static_cast<std::size_t>(got));
        const std::size_t type = answer.find('\0', HFIXEDSZ) + 1;
        const int asked = answer.at(type + 1);
        if (knowsIpv4 && (asked == ns_t_a || asked == ns_t_srv)) {
            answer.resize(type + 4);
            answer.replace(6, 6, {'\0', '\1', '\0', '\0', '\0', '\0'}); // one record
            answer += {'\xc0', HFIXEDSZ, '\0', ns_t_a, '\0', ns_c_in, '\0', '\0',
                       '\0',   '\0',     '\0', '\4',   127,  '\0',    '\0', '\1'};
        } else {
            answer.at(3) = static_cast<char>(code);
        }
        sendto(socket_.Get(), answer.data(), answer.size(), 0, to, length);
    }

private:
    UniqueFd socket_;
    bool bound_ = false;
};

/// A name server that gives every question the same answer: a code, and no record. It may know
/// 127.0.0.1 for each host.
class CurtNameServer {
public:
    explicit CurtNameServer(int code, bool knowsIpv4 = false, bool isCut = false)
        : thread_([=, this] { Serve(code, knowsIpv4, isCut); }) {}
    ~CurtNameServer() {
        end_ = true;
        thread_.join();
    }

    bool IsBound() const { return server_.IsBound(); }

private:
    void Serve(int code, bool knowsIpv4, bool isCut) {
        while (!end_)
            server_.AnswerOne(code, knowsIpv4, isCut);
    }

    SilentNameServer server_;
    std::atomic<bool> end_ = false;
    std::thread thread_;
};

/// Why a host's addresses are not known; empty when it is known that there are none.
std::string FailureOf(const std::string& host) {
    Resolver resolver(Deadline::In(std::chrono::seconds(20)));
    const HostAddresses& lookup = resolver.LookUp(host);
    EXPECT_TRUE(lookup.addresses.empty());
    EXPECT_EQ(&resolver.LookUp(host), &lookup) << "it is asked for once";
    return lookup.failure ? lookup.failure->what() : "";
}

TEST(Resolver, TellsAHostWithoutAddressFromOneThatCouldNotBeLookedUp) {
    const struct {
        int code;
        const char* failure;
    } cases[] = {{ns_r_noerror, ""},
                 {ns_r_nxdomain, ""},
                 {ns_r_servfail, "no name server can tell"},
                 {ns_r_refused, "no name server can tell"}};
    for (const auto& each : cases) {
        CurtNameServer server(each.code);
        ASSERT_TRUE(server.IsBound());
        EXPECT_EQ(FailureOf("dc1.corp.example"), each.failure) << each.code;
    }
    EXPECT_EQ(FailureOf("dc1.corp.example"), "no name server can tell") << "nobody listens";
    SilentNameServer server;
    ASSERT_TRUE(server.IsBound());
    EXPECT_EQ(FailureOf("dc1.corp.example"), "no name server answers");
}

TEST(Resolver, TellsAnAddressAndThatThereMayBeMore) {
    for (const int code : {ns_r_noerror, ns_r_servfail}) {
        CurtNameServer server(code, true);
        ASSERT_TRUE(server.IsBound());
        Resolver resolver(Deadline::In(std::chrono::seconds(20)));
        const HostAddresses& lookup = resolver.LookUp("web1.corp.example");
        ASSERT_EQ(lookup.addresses.size(), 1u);
        EXPECT_EQ(lookup.addresses.front().Text(), "127.0.0.1");
        EXPECT_EQ(lookup.failure.has_value(), code == ns_r_servfail);
        // An address is enough for a diagnosis.
        ASSERT_EQ(sethostname("web1.corp.example", 17), 0);
        const Finding finding = CheckHostName("corp.example", std::nullopt,
                                              [] { return std::vector<SocketAddress>(); });
        EXPECT_EQ(finding.severity, Severity::Ok) << finding.text;
        const auto reports = ProbeControllers({{"web1.corp.example", lookup, {}}});
        EXPECT_FALSE(reports.at(0).lookupFailure);
    }
}

void ExpectNobodyTellsAService() {
    Resolver resolver(Deadline::In(std::chrono::seconds(20)));
    try {
        resolver.ServiceHosts("_ldap._tcp.dc._msdcs.corp.example");
        ADD_FAILURE() << "an answer out of nothing";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::NoController) << error.what();
    }
}

TEST(Resolver, DoesNotTakeWhatIsMissingForWhatThereIsNot) {
    {
        CurtNameServer server(ns_r_noerror, false, true);
        ASSERT_TRUE(server.IsBound());
        EXPECT_EQ(FailureOf("dc1.corp.example"), "no name server can tell");
        ExpectNobodyTellsAService();
    }
    CurtNameServer server(ns_r_noerror, true, true);
    ASSERT_TRUE(server.IsBound());
    Resolver resolver(Deadline::In(std::chrono::seconds(20)));
    const HostAddresses& lookup = resolver.LookUp("web1.corp.example");
    EXPECT_EQ(lookup.addresses.size(), 1u);
    EXPECT_TRUE(lookup.failure) << "there may be more";
    ExpectNobodyTellsAService();
}

TEST(Resolver, AsksSilentServersNothingMore) {
    SilentNameServer server;
    ASSERT_TRUE(server.IsBound());
    Resolver resolver(Deadline::In(std::chrono::seconds(20)));
    EXPECT_TRUE(resolver.Addresses("dc1.corp.example").empty());
    EXPECT_EQ(server.TakeQuestions(), 1);
    EXPECT_TRUE(resolver.Addresses("dc2.corp.example").empty());
    try {
        resolver.ServiceHosts("_ldap._tcp.dc._msdcs.corp.example");
        FAIL() << "an answer out of nothing";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::NoController);
    }
    EXPECT_EQ(server.TakeQuestions(), 0);
}

TEST(Resolver, GoesOnAskingServersThatRefuse) {
    std::ofstream("/etc/resolv.conf") << "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n";
    Resolver resolver(Deadline::In(std::chrono::seconds(20)));
    EXPECT_TRUE(resolver.Addresses("dc1.corp.example").empty()); // nobody listens: refused at once
    SilentNameServer server;
    ASSERT_TRUE(server.IsBound());
    EXPECT_TRUE(resolver.Addresses("dc2.corp.example").empty());
    EXPECT_EQ(server.TakeQuestions(), 1);
}

TEST(Resolver, AsksByDatagramWhateverTheHostPrefers) {
    SilentNameServer server("use-vc"); // over TCP nobody listens
    ASSERT_TRUE(server.IsBound());
    Resolver resolver(Deadline::In(std::chrono::seconds(20)));
    EXPECT_TRUE(resolver.Addresses("dc1.corp.example").empty());
    EXPECT_EQ(server.TakeQuestions(), 1);
}

} // namespace
} // namespace tessary::directory
