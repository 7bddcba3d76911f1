#include "socket.h"

#include "error.h"
#include "operation.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tessary::directory {
namespace {

[[noreturn]] void ThrowConnectError(int error) {
    Status status = Status::NoController;
    if (error == ECONNREFUSED || error == ECONNRESET) // the latter of one just going down
        status = Status::ConnectionRefused;
    else if (error == ETIMEDOUT)
        status = Status::TimedOut;
    else if (error == ENOMEM || error == ENOBUFS)
        status = Status::NotEnoughMemory;
    throw Error(status, "cannot connect: " + std::generic_category().message(error));
}

} // namespace

SocketAddress::SocketAddress(const sockaddr* address, socklen_t length, std::uint16_t port)
    : length_(length) {
    std::memcpy(&storage_, address, length);
    if (storage_.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in*>(&storage_)->sin_port = htons(port);
    else
        reinterpret_cast<sockaddr_in6*>(&storage_)->sin6_port = htons(port);
}

std::string SocketAddress::Text() const {
    char text[NI_MAXHOST] = "";
    getnameinfo(Get(), length_, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

SocketAddress SocketAddress::WithPort(std::uint16_t port) const {
    return SocketAddress(Get(), length_, port);
}

bool Poll(std::vector<pollfd>& descriptors, const Deadline& deadline) {
    const Waiting waiting;
    for (;;) {
        const int ready = poll(descriptors.data(), descriptors.size(), deadline.Milliseconds());
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            ThrowFileError(errno, "cannot wait for the network");
        if (ready == 0 && deadline.Passed())
            return false;
    }
}

bool WaitFor(int fd, short events, const Deadline& deadline) {
    // A peer that always has a little more to say does not outlast the deadline.
    std::vector<pollfd> descriptors{{fd, events, 0}};
    return !deadline.Passed() && Poll(descriptors, deadline);
}

UniqueFd StartConnect(const SocketAddress& address) {
    UniqueFd fd(socket(address.Get()->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        ThrowConnectError(errno);
    const int on = 1;
    setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd.Get(), address.Get(), address.Length()) != 0 && errno != EINPROGRESS)
        ThrowConnectError(errno);
    return fd;
}

void FinishConnect(int fd) {
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    if (error != 0)
        ThrowConnectError(error);
}

void TakeBackUnsentOnClose(int fd) {
    const linger none{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

UniqueFd Connect(const SocketAddress& address, const Deadline& deadline) {
    UniqueFd fd = StartConnect(address);
    if (!WaitFor(fd.Get(), POLLOUT, deadline))
        ThrowConnectError(ETIMEDOUT);
    FinishConnect(fd.Get());
    return fd;
}

} // namespace tessary::directory
