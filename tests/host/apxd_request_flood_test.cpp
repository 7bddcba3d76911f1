#include <sys/socket.h>

#include "apxd_fixture.h"

/// More requests than there may be, and slower ones. Honest hosts are served all the while.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

class RequestFloodTest : public ServerTest {};

TEST_F(RequestFloodTest, RefusesAnAddressThatAsksTooOften) {
    settings_.front.requestsPerMinuteAndAddress = 5;
    Start();
    std::vector<int> statuses;
    for (int i = 0; i < 8; ++i) {
        const Reply reply = Ask(Port(), AccountRequestOf("web1.corp.example"));
        statuses.push_back(reply.status);
        if (reply.status == 429) {
            EXPECT_EQ(reply.Code(), "5");
            EXPECT_THAT(reply.head, HasSubstr("Retry-After: 60"));
        }
    }
    EXPECT_THAT(statuses, ElementsAre(201, 201, 201, 201, 201, 429, 429, 429));
    EXPECT_EQ(Ask(Port(), GetRequest("/healthz")).status, 200) << "it is counted by itself";
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_EQ(accounts_.Asked().size(), 6u);
}

TEST_F(RequestFloodTest, RefusesAnAddressThatAsksForHealthTooOften) {
    settings_.front.requestsPerMinuteAndAddress = 2;
    Start();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(Ask(Port(), GetRequest("/healthz")).status, 200);
    EXPECT_EQ(Ask(Port(), GetRequest("/healthz")).status, 429);
    EXPECT_EQ(Ask(Port(), GetRequest("/v1/domain")).status, 200) << "it is counted by itself";
    EXPECT_EQ(Ask(Port(), GetRequest("/healthz"), "127.0.0.2").status, 200);
}

TEST_F(RequestFloodTest, ClosesTheDoorToAnAddressThatGoesOnAndOn) {
    settings_.front.requestsPerMinuteAndAddress = 5;
    Start();
    for (int i = 0; i < 20; ++i) {
        const auto socket = ConnectFrom("127.0.0.1", Port());
        SendRaw(socket.Get(), "nonsense that is no TLS");
        ASSERT_TRUE(IsEnded(socket.Get()));
    }
    const Client client(Port());
    EXPECT_FALSE(client.IsUp());
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(RequestFloodTest, ClosesTheDoorToAnAddressThatLeavesAgainAndAgain) {
    settings_.front.requestsPerMinuteAndAddress = 5;
    Start();
    for (int i = 0; i < 10; ++i) {
        const auto socket = ConnectFrom("127.0.0.1", Port());
        shutdown(socket.Get(), SHUT_WR);
        ASSERT_TRUE(IsEnded(socket.Get()));
    }
    EXPECT_GE(log_.Count("closed: the client left early"), 5u);
    EXPECT_FALSE(Client(Port()).IsUp());
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(RequestFloodTest, ClosesTheDoorToAnAddressThatIsSlowAgainAndAgain) {
    settings_.front.requestsPerMinuteAndAddress = 5;
    settings_.front.requestTime = milliseconds(900);
    Start();
    std::vector<tessary::directory::UniqueFd> silent;
    for (int i = 0; i < 10; ++i)
        silent.push_back(ConnectFrom("127.0.0.1", Port()));
    for (const auto& socket : silent)
        ASSERT_TRUE(IsEnded(socket.Get()));
    EXPECT_GE(log_.Count("closed: too slow"), 5u);
    EXPECT_FALSE(Client(Port()).IsUp());
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(RequestFloodTest, ClosesTheDoorToAStrangerThatGoesOnAndOn) {
    settings_.front.allowedNetworks = {*Network::Parse("127.0.0.9")};
    settings_.front.requestsPerMinuteAndAddress = 5;
    Start();
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(Ask(Port(), GetRequest("/v1/domain")).status, 403);
    EXPECT_FALSE(Client(Port()).IsUp());
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(RequestFloodTest, DoesNotLetNonsenseUseUpWhatThereIsForAll) {
    settings_.front.requestsPerMinute = 4;
    Start();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(Ask(Port(), "nonsense\r\n\r\n").status, 400);
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(RequestFloodTest, CountsRequestsThatNothingIsThereFor) {
    settings_.front.requestsPerMinute = 2;
    Start();
    EXPECT_EQ(Ask(Port(), GetRequest("/")).status, 404);
    EXPECT_EQ(Ask(Port(), GetRequest("/v1/machine-accounts")).status, 405);
    EXPECT_EQ(Ask(Port(), GetRequest("/v1/domain")).status, 429);
}

TEST_F(RequestFloodTest, RefusesMoreRequestsInAllThanThereMayBe) {
    settings_.front.requestsPerMinute = 4;
    Start();
    for (int i = 1; i <= 4; ++i)
        EXPECT_EQ(Ask(Port(), GetRequest("/v1/domain"), "127.0.0." + std::to_string(i)).status,
                  200);
    EXPECT_EQ(Ask(Port(), GetRequest("/v1/domain"), "127.0.0.5").status, 429);
}

TEST_F(RequestFloodTest, DoesNotLetStrangersUseUpWhatThereIsForAll) {
    settings_.front.allowedNetworks = {*Network::Parse("127.0.0.9")};
    settings_.front.requestsPerMinute = 4;
    Start();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(Ask(Port(), GetRequest("/v1/domain")).status, 403);
    EXPECT_EQ(ServeHonestHost(), 201);
}

TEST_F(RequestFloodTest, GivesAnAddressItsShareOfTheThreads) {
    // Whoever can have name servers or the directory answer slowly holds no others up.
    names_["slow.corp.example"] = {"127.0.0.1"};
    Start();
    accounts_.Hold("slow.corp.example");
    std::vector<std::unique_ptr<Client>> slow;
    for (unsigned i = 0; i < 3 * settings_.workers; ++i) {
        slow.push_back(std::make_unique<Client>(Port()));
        slow.back()->Send(AccountRequestOf("slow.corp.example"));
    }
    ASSERT_TRUE(accounts_.WaitForHeld(settings_.workersPerAddress));
    EXPECT_EQ(ServeHonestHost(), 201);
    accounts_.LetGo();
    for (const auto& client : slow)
        EXPECT_EQ(client->Receive().status, 201);
}

TEST_F(RequestFloodTest, SaysThatItServesWhileAllThreadsWaitForTheDirectory) {
    names_["slow.corp.example"] = {"127.0.0.1", "127.0.0.2", "127.0.0.3"};
    settings_.workers = 4;
    Start();
    accounts_.Hold("slow.corp.example");
    std::vector<std::unique_ptr<Client>> slow;
    for (const char* from : {"127.0.0.1", "127.0.0.2", "127.0.0.3"}) {
        for (int i = 0; i < 2; ++i) {
            slow.push_back(std::make_unique<Client>(Port(), from));
            slow.back()->Send(AccountRequestOf("slow.corp.example"));
        }
    }
    ASSERT_TRUE(accounts_.WaitForHeld(settings_.workers));
    EXPECT_EQ(Ask(Port(), GetRequest("/healthz")).status, 200);
}

TEST_F(RequestFloodTest, ForgetsRequestsWhoseClientsAreGone) {
    names_["slow.corp.example"] = {"127.0.0.1"};
    Start();
    accounts_.Hold("slow.corp.example");
    for (int i = 0; i < 100; ++i) {
        Client client(Port());
        client.Send(AccountRequestOf("slow.corp.example"));
        if (i == 0) {
            ASSERT_TRUE(accounts_.WaitForHeld(1));
        }
        const linger reset{1, 0};
        setsockopt(client.Socket(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    ASSERT_TRUE(WaitForConnections(0));
    accounts_.LetGo();
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_LE(accounts_.Asked().size(), 1 + settings_.workersPerAddress)
        << "what had begun, and the honest one's";
}

TEST_F(RequestFloodTest, ForgetsRequestsWhoseClientsHaveEndedInOrder) {
    names_["slow.corp.example"] = {"127.0.0.1"};
    settings_.workersPerAddress = 1;
    Start();
    accounts_.Hold("slow.corp.example");
    for (int i = 0; i < 10; ++i) {
        Client client(Port());
        client.Send(AccountRequestOf("slow.corp.example"));
        if (i == 0) {
            ASSERT_TRUE(accounts_.WaitForHeld(1));
        }
    }
    EXPECT_TRUE(WaitForConnections(0));
    accounts_.LetGo();
    EXPECT_EQ(ServeHonestHost(), 201);
    EXPECT_TRUE(server_->Stop(tessary::directory::Deadline::In(patience)));
    EXPECT_EQ(accounts_.Asked().size(), 2u) << "what had begun, and the honest one's";
    EXPECT_EQ(log_.Count("5 times closed: the client left early"), 1u) << "and five lines before";
    EXPECT_EQ(log_.Count(": the client left before it had its answer"), 1u);
}

TEST_F(RequestFloodTest, SendsThoseAwayWhoWouldWaitForTooLong) {
    settings_.workers = 1;
    settings_.front.waitTime = milliseconds(900);
    Start();
    accounts_.Hold("web1.corp.example");
    Client first(Port());
    first.Send(AccountRequestOf("web1.corp.example"));
    ASSERT_TRUE(accounts_.WaitForHeld(1));
    const Reply reply = Ask(Port(), AccountRequestOf("honest.corp.example"), "127.0.0.9");
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.Code(), "1359");
    EXPECT_THAT(reply.head, HasSubstr("Retry-After: 60"));
    EXPECT_EQ(log_.Count("refused: too many others wait"), 1u);
    accounts_.LetGo();
    EXPECT_EQ(first.Receive().status, 201) << "it had begun";
    EXPECT_THAT(accounts_.Asked(), ElementsAre("web1.corp.example|"));
    EXPECT_EQ(ServeHonestHost(), 201);
}

} // namespace
} // namespace apxd_test
