/// TCP connections that never keep their caller beyond a deadline.
#ifndef TESSARY_DIRECTORY_SOCKET_H
#define TESSARY_DIRECTORY_SOCKET_H

#include "deadline.h"
#include "unique_fd.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tessary::directory {

/// An IPv4 or IPv6 address with a port.
class SocketAddress {
public:
    SocketAddress(const sockaddr* address, socklen_t length, std::uint16_t port);

    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage_); }
    socklen_t Length() const { return length_; }

    /// The address without the port, as people write it.
    std::string Text() const;

    /// The same host, another port.
    SocketAddress WithPort(std::uint16_t port) const;

private:
    sockaddr_storage storage_{};
    socklen_t length_;
};

/// poll() up to the deadline, whatever signals arrive.
/// \return whether one of the descriptors has something to report
bool Poll(std::vector<pollfd>& descriptors, const Deadline& deadline);

/// Waits for one event of one descriptor.
/// \return false when the deadline passed first
bool WaitFor(int fd, short events, const Deadline& deadline);

/// Begins to connect, without waiting. The socket is non-blocking and stays so.
/// \throws Error (NoController or ConnectionRefused) when that fails at once
UniqueFd StartConnect(const SocketAddress& address);

/// Ends what StartConnect() began, when poll() reports the socket writable.
/// \throws Error ConnectionRefused, TimedOut or NoController
void FinishConnect(int fd);

/// Lets a close, be it by the end of the process, take back what the peer has not received yet.
/// Otherwise the kernel goes on sending it for minutes, and a change that was given up is made when
/// the network is back.
void TakeBackUnsentOnClose(int fd);

/// StartConnect() and FinishConnect() in one.
UniqueFd Connect(const SocketAddress& address, const Deadline& deadline);

} // namespace tessary::directory

#endif
