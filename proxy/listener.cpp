#include "listener.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace tessary::proxy {

directory::UniqueFd Listen(const IpAddress& address, std::uint16_t port) {
    sockaddr_storage storage{};
    const socklen_t length = address.ToSocketAddress(port, storage);
    directory::UniqueFd fd(
        socket(storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int yes = 1;
    const int no = 0;
    // Without the first, a server that was ended could not start again for a minute.
    if (!fd || setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        (storage.ss_family == AF_INET6 &&
         setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no) != 0) ||
        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&storage), length) != 0 ||
        listen(fd.Get(), SOMAXCONN) != 0)
        throw std::system_error(errno, std::generic_category(),
                                "cannot listen at " + Peer{address, port}.Text());
    return fd;
}

std::uint16_t PortOf(int socket) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    auto* const address = reinterpret_cast<sockaddr*>(&storage);
    if (getsockname(socket, address, &length) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot tell the port");
    return Peer::Of(address).port;
}

} // namespace tessary::proxy
