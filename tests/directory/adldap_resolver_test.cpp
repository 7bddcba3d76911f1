// Name servers that don't answer, on a private host whose name server the test is.

#include "directory/error.h"
#include "directory/resolver.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>

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

private:
    UniqueFd socket_;
    bool bound_ = false;
};

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
