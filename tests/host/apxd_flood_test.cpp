#include "apxd_fixture.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>

namespace {
std::atomic<bool> nothingMoreToWatch = false;
}

/// In place of the C library's, so that the system can seem to watch no descriptor more.
extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
    if (operation == EPOLL_CTL_ADD && nothingMoreToWatch) {
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, fd, event));
}

/// More connections than there may be, and slower ones. Honest hosts are served all the while.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using std::chrono::milliseconds;
using testing::Each;

constexpr std::size_t megabyte = 1024 * 1024;

/// Whether the server has not ended the connection so far.
bool IsOpen(int socket) {
    char byte = 0;
    return recv(socket, &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
}

class FloodTest : public ServerTest {
protected:
    FloodTest() {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }

    /// So many connections that have begun a request and go on with a byte at a time.
    std::vector<std::unique_ptr<Client>> HoldSlowly(std::size_t count, const std::string& from) {
        std::vector<std::unique_ptr<Client>> slow;
        for (std::size_t i = 0; i < count; ++i) {
            slow.push_back(std::make_unique<Client>(Port(), from));
            slow.back()->Send("P");
        }
        return slow;
    }
};

TEST_F(FloodTest, ServesBesideTwoThousandConnectionsOfAByteNowAndThen) {
    settings_.front.requestTime = std::chrono::hours(1); // however busy this machine is
    Start();
    const std::size_t before = ResidentBytes();
    const auto slow = HoldSlowly(2000, "127.0.0.1");
    ASSERT_EQ(server_->Connections(), 2000u);
    for (const char& c : std::string("OST /v1/machine-accounts HTTP/1.1\r\n")) {
        for (const auto& client : slow)
            ASSERT_TRUE(client->Send({&c, 1}));
        ASSERT_EQ(ServeHonestHost(), 201);
    }
    EXPECT_GE(server_->Connections(), 2000u) << "they were to be held";
    // Both ends of each are this process's.
    EXPECT_LT(ResidentBytes(), before + 400 * megabyte);
    RecordProperty("mebibytes", std::to_string((ResidentBytes() - before) / megabyte));
    EXPECT_THAT(accounts_.Asked(), Each("honest.corp.example|"));
}

TEST_F(FloodTest, GivesNobodyMoreTimeThanThereIs) {
    settings_.front.requestTime = milliseconds(300);
    Start();
    const auto silent = ConnectFrom("127.0.0.1", Port());
    Client greeted(Port());
    Client begun(Port());
    begun.Send("POST /v1/machine-accounts HTTP/1.1\r\n");
    Client slow(Port());
    // The time is for all of it: what arrives in between does not prolong it.
    const auto end = std::chrono::steady_clock::now() + patience;
    while (slow.Send("a") && server_->Connections() > 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(milliseconds(10));
    EXPECT_TRUE(IsEnded(silent.Get()));
    EXPECT_TRUE(IsEnded(greeted.Socket()));
    EXPECT_TRUE(IsEnded(begun.Socket()));
    EXPECT_TRUE(WaitForConnections(0));
    EXPECT_EQ(log_.Count("closed: too slow"), 4u);
}

TEST_F(FloodTest, GivesAnAddressItsShareOfTheConnections) {
    settings_.front.connectionsPerAddress = 8;
    Start();
    const auto slow = HoldSlowly(8, "127.0.0.1");
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(IsEnded(ConnectFrom("127.0.0.1", Port()).Get()));
    EXPECT_EQ(server_->Connections(), 8u);
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_EQ(log_.Count("closed: too many connections"), NuisanceLog::linesPerMinute);
}

TEST_F(FloodTest, MakesRoomWhenAllConnectionsAreTaken) {
    settings_.front.connections = 32;
    Start();
    const auto slow = HoldSlowly(32, "127.0.0.1");
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_TRUE(IsEnded(slow.front()->Socket())) << "the oldest was to give way";
    EXPECT_TRUE(slow.back()->Send("O"));
    EXPECT_EQ(log_.Count("closed: made room"), 1u);
}

TEST_F(FloodTest, HasTheOldestOneGiveWayOfThoseWhoHoldAsMuch) {
    settings_.front.connections = 2;
    Start();
    const auto older = HoldSlowly(1, "127.0.0.2");
    const auto newer = HoldSlowly(1, "127.0.0.1");
    EXPECT_EQ(ServeHonestHost("127.0.0.9"), 201);
    EXPECT_TRUE(IsEnded(older.front()->Socket()));
    EXPECT_TRUE(IsOpen(newer.front()->Socket()));
}

TEST_F(FloodTest, HasThoseGiveWayWhoHoldTheMost) {
    settings_.front.connections = 16;
    settings_.front.requestsPerMinuteAndAddress = 5;
    Start();
    const auto modest = HoldSlowly(1, "127.0.0.1");
    const auto first = HoldSlowly(15, "127.0.0.2");
    std::vector<tessary::directory::UniqueFd> more;
    for (int i = 0; i < 9; ++i) {
        more.push_back(ConnectFrom("127.0.0.2", Port()));
        ASSERT_TRUE(IsEnded(first[static_cast<std::size_t>(i)]->Socket()));
    }
    EXPECT_TRUE(IsOpen(modest.front()->Socket())) << "the oldest, but of one that holds little";
    EXPECT_EQ(log_.Count("closed: too many connections"), 0u);
    // Whoever fills the house does so for a minute.
    for (int i = 0; i < 9; ++i)
        more.push_back(ConnectFrom("127.0.0.2", Port()));
    EXPECT_TRUE(IsEnded(more.back().Get()));
    EXPECT_GE(log_.Count("closed: too many connections"), 1u);
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_TRUE(IsOpen(modest.front()->Socket()));
    EXPECT_TRUE(IsOpen(first.back()->Socket()));
}

TEST_F(FloodTest, GivesStrangersAShareOfTheConnections) {
    settings_.front.allowedNetworks = {*Network::Parse("127.0.0.9/32")};
    settings_.front.connections = 32;
    Start();
    std::vector<tessary::directory::UniqueFd> strangers;
    for (int i = 0; i < 100; ++i)
        strangers.push_back(ConnectFrom("127.0.1." + std::to_string(i), Port()));
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_TRUE(WaitForConnections(8));
    EXPECT_EQ(log_.Count("closed: made room"), 0u);
}

TEST_F(FloodTest, HasStrangersGiveWayAndNobodyGiveWayToThem) {
    settings_.front.allowedNetworks = {*Network::Parse("127.0.0.0/24")};
    settings_.front.connections = 4;
    Start();
    const auto two = HoldSlowly(2, "127.0.0.1");
    const auto one = HoldSlowly(1, "127.0.0.2");
    const auto stranger = HoldSlowly(1, "127.0.1.1");
    const auto another = HoldSlowly(1, "127.0.0.3");
    EXPECT_TRUE(IsEnded(stranger.front()->Socket()));
    EXPECT_TRUE(IsEnded(ConnectFrom("127.0.1.2", Port()).Get()));
    for (const auto* held : {&two, &one, &another})
        for (const auto& client : *held)
            EXPECT_TRUE(IsOpen(client->Socket()));
    EXPECT_EQ(log_.Count("closed: made room"), 1u);
    EXPECT_EQ(log_.Count("127.0.1.1:"), 1u);
}

TEST_F(FloodTest, KeepsAHostsShareFromStrangersOfItsNetwork) {
    if (access("/proc/net/if_inet6", F_OK) != 0)
        GTEST_SKIP() << "this kernel has no IPv6";
    ASSERT_EQ(std::system("ip address replace fd00::9/128 dev lo nodad && "
                          "ip address replace fd00::1/128 dev lo nodad"),
              0);
    settings_.front.listen = *IpAddress::Parse("::");
    settings_.front.allowedNetworks = {*Network::Parse("fd00::9")};
    settings_.front.connectionsPerAddress = 8;
    names_["honest.corp.example"] = {"fd00::9"};
    Start();
    const auto strangers = HoldSlowly(8, "fd00::1");
    EXPECT_TRUE(IsEnded(ConnectFrom("fd00::1", Port()).Get()));
    EXPECT_EQ(ServeHonestHost("fd00::9"), 201);
}

TEST_F(FloodTest, ServesWhenDescriptorsRunOut) {
    Start();
    const auto slow = HoldSlowly(8, "127.0.0.1");
    ASSERT_EQ(ServeHonestHost(), 201);
    ASSERT_TRUE(WaitForConnections(8));
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const tessary::directory::UniqueFd highest(dup(STDERR_FILENO));
    // One more, which is the client's end of the next connection.
    const rlimit few{static_cast<rlim_t>(highest.Get()) + 2, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(log_.Count("closed: made room"), 1u);
    EXPECT_TRUE(IsEnded(slow.front()->Socket()));
}

TEST_F(FloodTest, ServesOnceTheSystemCanWatchMoreAgain) {
    settings_.front.requestTime = std::chrono::hours(1);
    Start();
    nothingMoreToWatch = true;
    EXPECT_TRUE(IsEnded(ConnectFrom("127.0.0.1", Port()).Get()));
    nothingMoreToWatch = false;
    EXPECT_EQ(server_->Connections(), 0u);
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_EQ(log_.Count("closed: too many connections: cannot wait for connections: "), 1u);
}

TEST_F(FloodTest, HoldsUnfinishedGreetingsInTheMemoryThatIsAllowedFor) {
    constexpr std::size_t allowedForEach = 200 * 1024; // by the service's limit on memory
    constexpr std::size_t held = 16'000; // of a longer one, the rest is not waited for
    constexpr std::size_t count = 2000;  // beside them, what else the process takes is little
    settings_.front.requestTime = std::chrono::hours(1);
    Start();
    ASSERT_EQ(ServeHonestHost(), 201);
    const std::string greeting = UnfinishedGreeting(4096).substr(0, held);
    const std::size_t before = ResidentBytes();
    std::vector<tessary::directory::UniqueFd> clients;
    for (std::size_t i = 0; i < count; ++i) {
        clients.push_back(ConnectFrom("127.0.0.1", Port()));
        ASSERT_EQ(send(clients.back().Get(), greeting.data(), greeting.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(greeting.size()));
    }
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_GE(server_->Connections(), count) << "they were to be held";
    EXPECT_LT(ResidentBytes(), before + count * allowedForEach);
    RecordProperty("kibibytes", std::to_string((ResidentBytes() - before) / count / 1024));
}

TEST_F(FloodTest, EndsAClientThatDoesNotEndItsSide) {
    settings_.front.lingerTime = milliseconds(200);
    Start();
    Client client(Port());
    client.Send(GetRequest("/healthz"));
    EXPECT_EQ(client.Receive().status, 200);
    EXPECT_TRUE(WaitForConnections(0)) << "it is to be closed though the client stays";
    EXPECT_EQ(log_.Count("closed"), 0u);
}

} // namespace
} // namespace apxd_test
