// Name servers that don't answer, on a private host whose name server the test is.

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

    /// Gives a question that has come, or comes within a moment, an answer with no record in it.
    void AnswerOne(int code) {
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
        message[2] |= 0x80; // the question is its own answer
        message[3] = static_cast<unsigned char>(code);
        sendto(socket_.Get(), message, static_cast<std::size_t>(got), 0, to, length);
    }

private:
    UniqueFd socket_;
    bool bound_ = false;
};

/// A name server that gives every question the same answer: a code, and no record.
class CurtNameServer {
public:
    explicit CurtNameServer(int code) : thread_([this, code] { Serve(code); }) {}
    ~CurtNameServer() {
        end_ = true;
        thread_.join();
    }

    bool IsBound() const { return server_.IsBound(); }

private:
    void Serve(int code) {
        while (!end_)
            server_.AnswerOne(code);
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
