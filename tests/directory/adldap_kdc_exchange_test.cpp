// Questions to a key distribution centre that drops connections.

#include "directory/error.h"
#include "directory/kdc_exchange.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace tessary::directory {
namespace {

/// Answers the question with itself, after so many connections that it closes at once.
class DroppingServer {
public:
    explicit DroppingServer(int dropped) : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address_;
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &length), 0);
        thread_ = std::thread([this, dropped] { Serve(dropped); });
    }
    ~DroppingServer() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    DroppingServer(const DroppingServer&) = delete;
    DroppingServer& operator=(const DroppingServer&) = delete;

    SocketAddress Address() const {
        return {reinterpret_cast<const sockaddr*>(&address_), sizeof address_,
                ntohs(address_.sin_port)};
    }
    int Connections() const { return connections_; }

private:
    void Serve(int dropped) {
        for (;;) {
            const int client = accept(listener_, nullptr, nullptr);
            if (client < 0)
                return;
            if (++connections_ > dropped) {
                char text[64];
                const ssize_t size = recv(client, text, sizeof text, 0);
                EXPECT_EQ(send(client, text, static_cast<std::size_t>(size), 0), size);
            }
            close(client);
        }
    }

    int listener_;
    sockaddr_in address_{};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

std::string Ask(const DroppingServer& server) {
    const auto answer =
        ExchangeWithKdc(server.Address(), "question", Deadline::In(std::chrono::seconds(5)));
    return {answer.begin(), answer.end()};
}

TEST(KdcExchange, AsksAgainWhenTheConnectionIsClosed) {
    DroppingServer server(2);
    EXPECT_EQ(Ask(server), "question");
    EXPECT_EQ(server.Connections(), 3);
}

TEST(KdcExchange, DoesNotAskForEver) {
    DroppingServer server(100);
    try {
        Ask(server);
        ADD_FAILURE() << "there was no answer";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::NoController);
    }
    EXPECT_EQ(server.Connections(), 3);
}

} // namespace
} // namespace tessary::directory
