// Proxies that break off, hang or cannot be reached.

#include "apxhttps_proxy_fixture.h"
#include "run.h"

#include <fstream>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace proxied;
using namespace std::chrono_literals;
using Step = ProxyScript::Step;
using Then = ProxyScript::Then;

struct BrokenOff {
    Step step;
    Then then;

    friend void PrintTo(const BrokenOff& broken, std::ostream* stream) {
        *stream << "step " << static_cast<int>(broken.step) << ", then "
                << static_cast<int>(broken.then);
    }
};

class ProxyThatBreaksOff : public testing::TestWithParam<BrokenOff> {};

// No signal is ignored here: a write to a connection that is gone must not end the process.
TEST_P(ProxyThatBreaksOff, IsAnInvalidConnection) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        EXPECT_EQ(StatusWith({.answer = HttpAnswer(200, domainBody),
                              .step = GetParam().step,
                              .then = GetParam().then,
                              .highestVersion = version}),
                  invalidConnection);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, ProxyThatBreaksOff,
    testing::Values(BrokenOff{Step::Accept, Then::Close}, BrokenOff{Step::Accept, Then::Reset},
                    BrokenOff{Step::Handshake, Then::CutOff},
                    BrokenOff{Step::Handshake, Then::Reset}, BrokenOff{Step::Request, Then::Close},
                    BrokenOff{Step::Request, Then::CutOff}, BrokenOff{Step::Request, Then::Reset},
                    BrokenOff{Step::Head, Then::CutOff}, BrokenOff{Step::Head, Then::Reset},
                    BrokenOff{Step::Body, Then::Close}, BrokenOff{Step::Body, Then::CutOff},
                    BrokenOff{Step::Body, Then::Reset}));

TEST(Failures, ChunksThatAreNoneAreAnInvalidConnection) {
    EXPECT_EQ(StatusWith({"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n"}),
              invalidConnection);
}

TEST(Failures, AnswerThatIsCutShortIsNone) {
    const std::string answer = "HTTP/1.0 200 OK\r\n\r\n" + domainBody + "\n\n";
    const std::string shorter = answer.substr(0, answer.size() - 1);
    EXPECT_EQ(StatusWith({.answer = answer, .step = Step::Body, .then = Then::CutOff}), success)
        << "what it says is there as a whole";
    EXPECT_EQ(StatusWith({.answer = shorter, .step = Step::Body, .then = Then::CutOff}),
              internalError);
}

class ProxyThatHangs : public testing::TestWithParam<Step> {};

TEST_P(ProxyThatHangs, TimesOut) {
    EXPECT_EQ(
        StatusWith({.answer = HttpAnswer(200, domainBody), .step = GetParam(), .then = Then::Hang},
                   shortLimits),
        timedOut);
}

INSTANTIATE_TEST_SUITE_P(Failures, ProxyThatHangs,
                         testing::Values(Step::Accept, Step::Handshake, Step::Request, Step::Head,
                                         Step::Body));

TEST(Failures, ConnectingHasALimitOfItsOwn) {
    // With the limit of the whole the test would time out itself.
    EXPECT_EQ(StatusWith({.step = Step::Accept, .then = Then::Hang}, {100ms, 1h}), timedOut);
    EXPECT_EQ(StatusWith({.step = Step::Handshake, .then = Then::Hang}, {100ms, 1h}), timedOut);
    EXPECT_EQ(
        StatusWith({.answer = HttpAnswer(200, domainBody), .step = Step::Body, .then = Then::Hang},
                   {1h, 300ms}),
        timedOut);
}

TEST(Failures, LimitsInEarnest) {
    EXPECT_EQ(Limits().connect, 5s);
    EXPECT_EQ(Limits().whole, 30s);
}

/// A socket on a free port of 127.0.0.1, closed in the end.
class Socket {
public:
    explicit Socket(int type, int port = 0) : socket_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address_.sin_port = htons(static_cast<std::uint16_t>(port));
        socklen_t size = sizeof address_;
        EXPECT_EQ(bind(socket_, Address(), size), 0);
        EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&address_), &size), 0);
    }
    ~Socket() { close(socket_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Descriptor() const { return socket_; }
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address_); }
    std::string Text() const { return "127.0.0.1:" + std::to_string(ntohs(address_.sin_port)); }

private:
    int socket_;
    sockaddr_in address_{};
};

TEST(Failures, NobodyListeningIsARefusal) {
    const Socket unused(SOCK_STREAM);
    EXPECT_EQ(DomainStatus(Trusting(unused.Text())), refused);
}

TEST(Failures, UnansweredConnectionTimesOut) {
    const Socket full(SOCK_STREAM);
    ASSERT_EQ(listen(full.Descriptor(), 0), 0);
    const Socket first(SOCK_STREAM);
    ASSERT_EQ(connect(first.Descriptor(), full.Address(), sizeof(sockaddr_in)), 0);
    EXPECT_EQ(DomainStatus(Trusting(full.Text()), {300ms, 1h}), timedOut);
}

TEST(Failures, NoRouteIsAnInvalidConnection) {
    EXPECT_EQ(DomainStatus(Trusting("192.0.2.1")), invalidConnection);
    EXPECT_EQ(DomainStatus(Trusting("[2001:db8::1]")), invalidConnection);
}

TEST(Failures, FailureWithoutAReasonHasNotTheOneBefore) {
    using tessary::apxhttps::DescribeFailure, tessary::apxhttps::Failure, tessary::apxhttps::Status;
    const auto run = [](auto function) { return tessary::apxhttps::Run(function); };
    const auto reason = [](std::uint32_t status) { return DescribeFailure(status, nullptr, 0); };
    EXPECT_EQ(run([] { throw Failure(Status::OutOfMemory, "out of memory"); }), 8u);
    EXPECT_GT(reason(8), 0u);
    EXPECT_EQ(run([] { throw std::bad_alloc(); }), 8u);
    EXPECT_EQ(reason(8), 0u);
    EXPECT_EQ(run([] { throw Failure(Status::InternalError, "garbled"); }), internalError);
    EXPECT_GT(reason(internalError), 0u);
    EXPECT_EQ(run([] { throw std::exception(); }), internalError);
    EXPECT_EQ(reason(internalError), 0u);
}

TEST(Failures, UnknownNameIsAnInvalidConnection) {
    EXPECT_EQ(DomainStatus(Trusting("nowhere.invalid")), invalidConnection);
}

TEST(Failures, UnansweredNameLookUpTimesOutAndIsNotWaitedFor) {
    std::ofstream("/etc/resolv.conf") << "nameserver 127.0.0.1\noptions timeout:30 attempts:5\n";
    const Socket nameServer(SOCK_DGRAM, 53);
    EXPECT_EQ(DomainStatus(Trusting("silent.example"), {200ms, 1h}), timedOut);
    pollfd query{nameServer.Descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&query, 1, 10'000), 1) << "was not even asked";
}

} // namespace
