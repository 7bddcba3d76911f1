#include "kdc_exchange.h"

#include "error.h"
#include "operation.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <string>
#include <system_error>

namespace tessary::directory {
namespace {

constexpr std::uint32_t largestAnswer = 1 << 20;

constexpr int mostRepeated = 2;
constexpr std::chrono::milliseconds pauseTime{100};

/// The connection was closed before the first byte of an answer.
class Dropped : public Error {
public:
    Dropped()
        : Error(Status::NoController, "the key distribution centre closed the connection "
                                      "without an answer") {}
};

[[noreturn]] void ThrowBroken(const std::string& how) {
    throw Error(Status::NoController, "the key distribution centre " + how);
}

[[noreturn]] void ThrowConnectionError(int error) {
    throw Error(error == ETIMEDOUT ? Status::TimedOut : Status::NoController,
                "the connection to the key distribution centre failed: " +
                    std::generic_category().message(error));
}

bool MeansClosed(int error) {
    return error == ECONNRESET || error == EPIPE;
}

void Wait(int fd, short events, const Deadline& deadline) {
    if (!WaitFor(fd, events, deadline))
        throw Error(Status::TimedOut, "the key distribution centre does not answer");
}

void Send(int fd, std::string_view data, const Deadline& deadline) {
    while (!data.empty()) {
        const ssize_t sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            data.remove_prefix(static_cast<std::size_t>(sent));
        else if (errno == EAGAIN)
            Wait(fd, POLLOUT, deadline);
        else if (MeansClosed(errno))
            throw Dropped();
        else if (errno != EINTR)
            ThrowConnectionError(errno);
    }
}

/// \return how much there was until the connection was closed
std::size_t Receive(int fd, char* data, std::size_t size, const Deadline& deadline) {
    std::size_t received = 0;
    while (received < size) {
        const ssize_t got = recv(fd, data + received, size - received, 0);
        if (got > 0)
            received += static_cast<std::size_t>(got);
        else if (got == 0 || MeansClosed(errno))
            break;
        else if (errno == EAGAIN)
            Wait(fd, POLLIN, deadline);
        else if (errno != EINTR)
            ThrowConnectionError(errno);
    }
    return received;
}

std::vector<char> ExchangeOnce(const SocketAddress& kdc, std::string_view framed,
                               const Deadline& deadline) {
    const UniqueFd fd = Connect(kdc, deadline);
    Send(fd.Get(), framed, deadline);

    std::uint32_t length = 0;
    const std::size_t received =
        Receive(fd.Get(), reinterpret_cast<char*>(&length), sizeof length, deadline);
    if (received == 0)
        throw Dropped();
    length = ntohl(length);
    if (received == sizeof length && length > largestAnswer)
        ThrowBroken("does not answer as one");
    std::vector<char> answer(received == sizeof length ? length : 0);
    if (received < sizeof length ||
        Receive(fd.Get(), answer.data(), answer.size(), deadline) < answer.size())
        ThrowBroken("broke off its answer");
    return answer;
}

/// \return false when it would take until the deadline
bool Pause(const Deadline& deadline) {
    if (std::chrono::milliseconds(deadline.Milliseconds()) <= pauseTime)
        return false;
    const timespec pause{0, std::chrono::nanoseconds(pauseTime).count()};
    const Waiting waiting;
    nanosleep(&pause, nullptr);
    return true;
}

} // namespace

std::vector<char> ExchangeWithKdc(const SocketAddress& kdc, std::string_view message,
                                  const Deadline& deadline, Repeat repeat) {
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(message.size()));
    std::string framed(reinterpret_cast<const char*>(&length), sizeof length);
    framed += message;
    const int most = repeat == Repeat::WhenDropped ? mostRepeated : 0;
    for (int repeated = 0;; ++repeated) {
        try {
            return ExchangeOnce(kdc, framed, deadline);
        } catch (const Dropped&) {
            if (repeated == most || !Pause(deadline))
                throw;
        }
    }
}

} // namespace tessary::directory
