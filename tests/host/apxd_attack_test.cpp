#include "apxd_fixture.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <future>
#include <thread>

/// What may come from a network. Nothing is given to those who must not have it, and honest hosts
/// are served all the while.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using testing::Each;
using testing::HasSubstr;

constexpr std::size_t megabyte = 1024 * 1024;

class AttackTest : public ServerTest {
protected:
    void ExpectNothingGivenBut(const std::vector<std::string>& hosts) {
        EXPECT_EQ(accounts_.Asked(), hosts);
    }
};

TEST_F(AttackTest, RefusesAnAddressThatIsNotListed) {
    settings_.front.allowedNetworks = {*Network::Parse("127.0.0.8/29")};
    Start();
    for (const std::string& request :
         {AccountRequestOf("web1.corp.example"), GetRequest("/v1/domain"), GetRequest("/healthz"),
          std::string("nonsense\r\n\r\n")}) {
        const Reply reply = Ask(Port(), request);
        EXPECT_EQ(reply.status, 403) << request;
        EXPECT_EQ(reply.Code(), "5");
    }
    EXPECT_EQ(log_.Count("refused: not an allowed address"), 4u);
    EXPECT_EQ(ServeHonestHost(), 201);
    ExpectNothingGivenBut({"honest.corp.example|"});
}

TEST_F(AttackTest, RefusesEverybodyUntilToldOtherwise) {
    settings_.front.allowedNetworks.clear();
    Start();
    EXPECT_EQ(ServeHonestHost(), 403);
    ExpectNothingGivenBut({});
}

TEST_F(AttackTest, RefusesNamesThatAreNone) {
    Start();
    for (const char* name : {"*)(",
                             "web1*)(objectClass=*.corp.example",
                             "web1,OU=Other.corp.example",
                             "../etc/passwd.corp.example",
                             "web1/../dc1.corp.example",
                             "web1\\u0000.corp.example",
                             "web1.corp.example\\u0000",
                             "web1.corp.example\\n",
                             "w\\u0435b1.corp.example",
                             "wеb1.corp.example",
                             "web1。corp.example",
                             "web1%2ecorp.example",
                             "web1 .corp.example",
                             "web1..example",
                             ".corp.example",
                             "web1",
                             "",
                             ".",
                             "127.0.0.1",
                             "[::1]",
                             "::1",
                             "-web1.corp.example",
                             "web1-.corp.example",
                             "web_1.corp.example",
                             "web1$.corp.example"}) {
        const Reply reply = Ask(Port(), AccountRequestOf(name));
        EXPECT_EQ(reply.status, 400) << name;
        EXPECT_EQ(reply.Code(), "87") << name;
    }
    EXPECT_EQ(ServeHonestHost(), 201);
    ExpectNothingGivenBut({"honest.corp.example|"});
    for (const std::string& line : log_.All())
        EXPECT_EQ(line.find_first_of("\n\r\x1b"), std::string::npos) << line;
}

TEST_F(AttackTest, KeepsClientsFromWritingTheLog) {
    Start();
    Ask(Port(), AccountRequestOf("x\\nSep 1 root: fine \\u001b[2J" + std::string(4000, 'a')));
    const auto lines = log_.All();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr(" \"x?Sep 1 root: fine ?[2Jaaaa"));
    EXPECT_LT(lines[0].size(), 400u);
    Ask(Port(), AccountRequestOf("web1.corp.example\\\": given the account DC1$"));
    EXPECT_THAT(log_.All()[1],
                HasSubstr(" \"web1.corp.example\\\": given the account DC1$\": refused: "));
}

TEST_F(AttackTest, RefusesTheSameRequestAgainWhereItIsAnswered) {
    // The one who asks again may ask, so it is up to the accounts; a copy of what went over the
    // wire is worth nothing.
    Start();
    struct Relay {
        tessary::directory::UniqueFd client;
        tessary::directory::UniqueFd server;
    };
    std::string recorded;
    {
        const tessary::directory::UniqueFd door(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_storage storage{};
        const socklen_t length = IpAddress::Parse("127.0.0.1")->ToSocketAddress(0, storage);
        auto* const address = reinterpret_cast<sockaddr*>(&storage);
        ASSERT_EQ(bind(door.Get(), address, length), 0);
        ASSERT_EQ(listen(door.Get(), 1), 0);
        socklen_t size = sizeof storage;
        getsockname(door.Get(), address, &size);
        const std::uint16_t port = Peer::Of(address).port;
        auto honest = std::async(std::launch::async, [&] {
            return Ask(port, AccountRequestOf("web1.corp.example")).status;
        });
        const Relay relay{tessary::directory::UniqueFd(accept(door.Get(), nullptr, nullptr)),
                          ConnectFrom("127.0.0.1", Port())};
        std::thread back([&] {
            char buffer[4096];
            for (ssize_t got; (got = recv(relay.server.Get(), buffer, sizeof buffer, 0)) > 0;)
                send(relay.client.Get(), buffer, static_cast<std::size_t>(got), MSG_NOSIGNAL);
            shutdown(relay.client.Get(), SHUT_WR);
        });
        char buffer[4096];
        for (ssize_t got; (got = recv(relay.client.Get(), buffer, sizeof buffer, 0)) > 0;) {
            recorded.append(buffer, static_cast<std::size_t>(got));
            send(relay.server.Get(), buffer, static_cast<std::size_t>(got), MSG_NOSIGNAL);
        }
        shutdown(relay.server.Get(), SHUT_WR);
        back.join();
        ASSERT_EQ(honest.get(), 201);
    }
    ExpectNothingGivenBut({"web1.corp.example|"});
    for (int i = 0; i < 20; ++i) {
        const auto replay = ConnectFrom("127.0.0.1", Port());
        SendRaw(replay.Get(), recorded);
        EXPECT_TRUE(IsEnded(replay.Get()));
    }
    ExpectNothingGivenBut({"web1.corp.example|"});
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(AttackTest, SurvivesTenThousandMalformedRequests) {
    settings_.front.connectionsPerAddress = 64;
    Start();
    const std::vector<std::string> malformed = MalformedRequests();
    std::atomic<int> answered = 0;
    std::atomic<int> served = 0;
    std::vector<std::thread> attackers;
    for (int attacker = 0; attacker < 4; ++attacker)
        attackers.emplace_back([&, attacker] {
            for (int i = attacker; i < 10'000; i += 4) {
                const std::string& request =
                    malformed[static_cast<std::size_t>(i) % malformed.size()];
                const int status = Ask(Port(), request).status;
                answered += status >= 400 && status != 404 && status < 506;
            }
        });
    for (int i = 0; i < 20; ++i)
        served += ServeHonestHost() == 201;
    for (std::thread& attacker : attackers)
        attacker.join();
    EXPECT_EQ(answered, 10'000);
    EXPECT_EQ(served, 20);
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_THAT(accounts_.Asked(), Each("honest.corp.example|"));
    EXPECT_LT(log_.Count("refused: not a request"), 20u) << "a flood of lines";
}

TEST_F(AttackTest, RefusesABodyOfAGibibyteAtItsHead) {
    Start();
    const std::size_t before = ResidentBytes();
    Client client(Port());
    client.Send(
        "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\n"
        "Content-Length: 1073741824\r\n\r\n");
    // As long as the server takes it, which is not long.
    const std::string piece(65536, ' ');
    std::size_t sent = 0;
    while (sent < (std::size_t{1} << 30) && SendRaw(client.Socket(), piece))
        sent += piece.size();
    EXPECT_EQ(client.Receive().status, 413);
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_LT(ResidentBytes(), before + 16 * megabyte);
    ExpectNothingGivenBut({"honest.corp.example|"});
}

TEST_F(AttackTest, RefusesABodyOfAGibibyteOfWhichNothingWasSaid) {
    Start();
    Client client(Port());
    client.Send(
        "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\n"
        "Transfer-Encoding: chunked\r\n\r\n40000000\r\n");
    EXPECT_EQ(client.Receive().status, 501);
    Client endless(Port());
    const std::string field = "X: " + std::string(1000, 'x') + "\r\n";
    endless.Send("GET / HTTP/1.1\r\n");
    for (int i = 0; i < 10; ++i)
        endless.Send(field);
    EXPECT_EQ(endless.Receive().status, 431);
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(AttackTest, UnpacksNothing) {
    // A few bytes can be packed that are gigabytes unpacked.
    Start();
    const std::string begin = "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\n"
                              "Content-Type: application/json\r\nContent-Length: 4\r\n";
    for (const char* packing : {"gzip", "br", "deflate", "identity"})
        EXPECT_EQ(
            Ask(Port(), begin + "Content-Encoding: " + packing + "\r\n\r\n\x1f\x8b\x08\x01").status,
            415);
    EXPECT_EQ(Ask(Port(),
                  "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\n"
                  "Content-Type: multipart/form-data; boundary=x\r\nContent-Length: 4\r\n\r\n"
                  "--x\r")
                  .status,
              415);
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(AttackTest, AnswersNoOldTls) {
    Start();
    for (const int version : {TLS1_VERSION, TLS1_1_VERSION}) {
        const Client client(Port(), "127.0.0.1", version);
        EXPECT_FALSE(client.IsUp());
        EXPECT_THAT(client.Failure(), HasSubstr("protocol version")) << "it was to be the reason";
    }
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        Client client(Port(), "127.0.0.1", version);
        client.Send(GetRequest("/healthz"));
        EXPECT_EQ(client.Receive().status, 200) << client.Failure();
    }
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(AttackTest, DoesNoCostlyKeyExchange) {
    Start();
    for (const char* groups : {"ffdhe2048", "ffdhe8192", "P-384", "P-521", "X448"}) {
        EXPECT_FALSE(Client(Port(), "127.0.0.1", 0, groups).IsUp()) << groups;
    }
    for (const char* groups : {"X25519", "P-256"}) {
        Client client(Port(), "127.0.0.1", 0, groups);
        client.Send(GetRequest("/healthz"));
        EXPECT_EQ(client.Receive().status, 200) << groups;
    }
}

TEST_F(AttackTest, StartsNoConnectionOver) {
    Start();
    const Client client(Port(), "127.0.0.1", TLS1_2_VERSION);
    ASSERT_TRUE(client.IsUp());
    ASSERT_EQ(SSL_renegotiate(client.Tls()), 1);
    EXPECT_LE(SSL_do_handshake(client.Tls()), 0);
}

TEST_F(AttackTest, GoesOnWithNoConnectionThatHasEnded) {
    Start();
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        Client client(Port(), "127.0.0.1", version);
        client.Send(GetRequest("/healthz"));
        ASSERT_EQ(client.Receive().status, 200);
        const std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)> session(
            SSL_get1_session(client.Tls()), SSL_SESSION_free);
        EXPECT_EQ(SSL_SESSION_is_resumable(session.get()), 0);
        const Client again(Port(), "127.0.0.1", version, nullptr, session.get());
        EXPECT_TRUE(again.IsUp());
        EXPECT_EQ(SSL_session_reused(again.Tls()), 0);
    }
}

TEST_F(AttackTest, EndsAGreetingOfCrumbs) {
    Start();
    const auto socket = ConnectFrom("127.0.0.1", Port());
    const std::string greeting = UnfinishedGreeting(1);
    send(socket.Get(), greeting.data(), greeting.size(), MSG_NOSIGNAL);
    EXPECT_TRUE(IsEnded(socket.Get()));
    EXPECT_EQ(log_.Count("closed: no TLS connection: it is too long"), 1u);
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(AttackTest, EndsARequestOfCrumbs) {
    Start();
    Client client(Port());
    client.Send("GET /");
    for (std::size_t i = 0; i < RequestReader::headLimit / 2 && client.Send("a"); ++i) {
    }
    EXPECT_TRUE(IsEnded(client.Socket()));
    EXPECT_EQ(log_.Count("refused: not a request: it is too long"), 1u);
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST(ConnectionTest, WorksThroughATurnsWorthAtOnce) {
    // What is a client's own affair must not keep the thread from the others.
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const tessary::directory::UniqueFd client(ends[0]);
    Connection connection(tessary::directory::UniqueFd(ends[1]), Peer{});
    const UniqueTlsContext context = MakeTlsContext(TestIdentity());
    ASSERT_TRUE(SendRaw(client.Get(), UnfinishedGreeting(1).substr(0, 20'000)));
    int turns = 0;
    auto step = Connection::Step::Waits;
    for (int left = 20'000; step == Connection::Step::Waits && left > 0; ++turns) {
        const int before = left;
        step = connection.Advance(*context);
        ioctl(connection.Socket(), FIONREAD, &left);
        EXPECT_LT(before - left, 4200);
    }
    EXPECT_EQ(step, Connection::Step::TooMuch);
    EXPECT_EQ(turns, 4);
}

TEST_F(AttackTest, AsksNoNameServerAboutHostsThatItMakesNoAccountsFor) {
    accounts_.foreignHost = "web1.elsewhere.example";
    names_["web1.elsewhere.example"] = {"127.0.0.1"};
    Start();
    EXPECT_EQ(Ask(Port(), AccountRequestOf("web1.elsewhere.example")).Code(), "5");
    EXPECT_EQ(looksUp_, 0);
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_EQ(looksUp_, 1);
    ExpectNothingGivenBut({"honest.corp.example|"});
}

TEST_F(AttackTest, AnswersNothingThatIsNotTls) {
    Start();
    for (const std::string& text :
         {AccountRequestOf("web1.corp.example"), std::string("\0\0\0\0\0\0\0\0", 8),
          std::string("SSH-2.0-OpenSSH_9.2\r\n"), std::string(65536, '\x16')}) {
        const auto socket = ConnectFrom("127.0.0.1", Port());
        SendRaw(socket.Get(), text);
        shutdown(socket.Get(), SHUT_WR);
        EXPECT_EQ(ReceiveRaw(socket.Get()).find("HTTP/"), std::string::npos);
    }
    EXPECT_EQ(ServeHonestHost(), 201);
    ExpectNothingGivenBut({"honest.corp.example|"});
    EXPECT_GE(log_.Count("closed: no TLS connection"), 3u);
}

} // namespace
} // namespace apxd_test
