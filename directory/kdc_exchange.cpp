#include "kdc_exchange.h"

#include "error.h"
#include "operation.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

namespace tessary::directory {
namespace {

constexpr std::uint32_t largestAnswer = 1 << 20;

constexpr int mostRepeated = 2;
constexpr timespec pause{0, 100'000'000};

void Wait(int fd, short events, const Deadline& deadline) {
    if (!WaitFor(fd, events, deadline))
        throw Error(Status::TimedOut, "the key distribution centre does not answer");
}

[[noreturn]] void ThrowBroken() {
    throw Error(Status::NoController, "the key distribution centre closed the connection");
}

void Send(int fd, std::string_view data, const Deadline& deadline) {
    while (!data.empty()) {
        const ssize_t sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            data.remove_prefix(static_cast<std::size_t>(sent));
        else if (errno == EAGAIN)
            Wait(fd, POLLOUT, deadline);
        else if (errno != EINTR)
            ThrowBroken();
    }
}

void Receive(int fd, char* data, std::size_t size, const Deadline& deadline) {
    while (size > 0) {
        const ssize_t got = recv(fd, data, size, 0);
        if (got > 0) {
            data += got;
            size -= static_cast<std::size_t>(got);
        } else if (got < 0 && errno == EAGAIN) {
            Wait(fd, POLLIN, deadline);
        } else if (got == 0 || errno != EINTR) {
            ThrowBroken();
        }
    }
}

std::vector<char> ExchangeOnce(const SocketAddress& kdc, std::string_view framed,
                               const Deadline& deadline) {
    const UniqueFd fd = Connect(kdc, deadline);
    Send(fd.Get(), framed, deadline);

    std::uint32_t answerLength = 0;
    Receive(fd.Get(), reinterpret_cast<char*>(&answerLength), sizeof answerLength, deadline);
    answerLength = ntohl(answerLength);
    if (answerLength > largestAnswer)
        ThrowBroken();
    std::vector<char> answer(answerLength);
    Receive(fd.Get(), answer.data(), answer.size(), deadline);
    return answer;
}

} // namespace

std::vector<char> ExchangeWithKdc(const SocketAddress& kdc, std::string_view message,
                                  const Deadline& deadline) {
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(message.size()));
    std::string framed(reinterpret_cast<const char*>(&length), sizeof length);
    framed += message;
    for (int repeated = 0;; ++repeated) {
        try {
            return ExchangeOnce(kdc, framed, deadline);
        } catch (const Error& error) {
            if (error.Code() != Status::NoController || repeated == mostRepeated ||
                deadline.Passed())
                throw;
        }
        // Busy with many hosts at once, it drops connections that it has just taken.
        const Waiting waiting;
        nanosleep(&pause, nullptr);
    }
}

} // namespace tessary::directory
