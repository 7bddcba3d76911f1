#include "hostile_controller.h"

#include "lab_commands.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <list>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include <lber.h>
#include <ldap.h>

namespace lab {
namespace {

constexpr int step = 20; // milliseconds in which a stop is noticed
constexpr std::size_t chunk = 4096;

// What comes of a domain with no other controller.
constexpr int refused = 1225;
constexpr int noController = 1311;
constexpr int timedOut = 10060;

/// A message of LDAP, in the notation of ber_printf().
template <typename... Arguments>
std::string Message(const char* format, Arguments... arguments) {
    const std::unique_ptr<BerElement, void (*)(BerElement*)> message(
        ber_alloc_t(LBER_USE_DER), [](BerElement* each) { ber_free(each, 1); });
    berval bytes{};
    if (ber_printf(message.get(), format, arguments...) < 0 ||
        ber_flatten2(message.get(), &bytes, 0) < 0)
        throw std::invalid_argument(format);
    return std::string(bytes.bv_val, bytes.bv_len);
}

std::string EntryOf(int number, const char* attribute, const char* value) {
    return Message("{it{s{{s[s]}}}}", number, LDAP_RES_SEARCH_ENTRY, "", attribute, value);
}

std::string ResultOf(int number, int result) {
    return Message("{it{ess}}", number, LDAP_RES_SEARCH_RESULT, result, "", "nonsense");
}

/// Always the same ones, and none of them begins like a message.
std::string Random(std::size_t size) {
    std::minstd_rand random;
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

void SendForever(const HostileController& controller, int connection, const std::string& data) {
    while (controller.Send(connection, data))
        continue;
}

void SendGarbage(const HostileController& controller, int connection) {
    controller.Send(connection, Random(chunk));
    controller.Hold(connection);
}

} // namespace

const Manner manners[] = {
    {"silent", timedOut, [](const auto& controller, int fd) { controller.Hold(fd); }},
    {"closes at once", refused, [](const auto&, int) {}},
    {"closes on the question", refused,
     [](const auto& controller, int fd) { controller.AwaitRequest(fd); }},
    {"random bytes at once", noController, SendGarbage},
    {"random bytes as the answer", noController,
     [](const auto& controller, int fd) {
         controller.AwaitRequest(fd);
         SendGarbage(controller, fd);
     }},
    {"random bytes without end", noController,
     [](const auto& controller, int fd) { SendForever(controller, fd, Random(chunk)); }},
    {"random bytes that begin well", noController,
     [](const auto& controller, int fd) {
         controller.AwaitRequest(fd);
         SendForever(controller, fd, "\x30\x0c\x02\x01\x01" + Random(chunk));
     }},
    {"text", noController,
     [](const auto& controller, int fd) {
         controller.Send(fd, "220 ready when you are\r\n");
         controller.Hold(fd);
     }},
    {"half an answer", noController,
     [](const auto& controller, int fd) {
         const std::string answer =
             EntryOf(controller.AwaitRequest(fd), "defaultNamingContext", "DC=corp,DC=example");
         controller.Send(fd, answer.substr(0, answer.size() / 2));
     }},
    {"half an answer, then silence", timedOut,
     [](const auto& controller, int fd) {
         const std::string answer =
             EntryOf(controller.AwaitRequest(fd), "defaultNamingContext", "DC=corp,DC=example");
         controller.Send(fd, answer.substr(0, answer.size() / 2));
         controller.Hold(fd);
     }},
    {"an answer byte by byte", timedOut,
     [](const auto& controller, int fd) {
         const std::string answer = EntryOf(controller.AwaitRequest(fd), "defaultNamingContext",
                                            std::string(60000, 'x').c_str());
         for (const char byte : answer)
             if (!controller.Send(fd, std::string(1, byte)) || poll(nullptr, 0, step) < 0)
                 return;
     }},
    {"a length of two gigabytes", noController,
     [](const auto& controller, int fd) {
         controller.AwaitRequest(fd);
         controller.Send(fd, std::string("\x30\x84\x7f\xff\xff\xff", 6));
         SendForever(controller, fd, std::string(16 * chunk, 'x'));
     }},
    {"another domain", noController,
     [](const auto& controller, int fd) {
         const int number = controller.AwaitRequest(fd);
         controller.Send(fd, EntryOf(number, "defaultNamingContext", "DC=non,DC=sense") +
                                 ResultOf(number, LDAP_SUCCESS));
         controller.Hold(fd);
     }},
    {"the domain, and no name of its own", noController,
     [](const auto& controller, int fd) {
         const int number = controller.AwaitRequest(fd);
         controller.Send(fd, EntryOf(number, "defaultNamingContext", "DC=corp,DC=example") +
                                 ResultOf(number, LDAP_SUCCESS));
         controller.Hold(fd);
     }},
    {"no entry", noController,
     [](const auto& controller, int fd) {
         controller.Send(fd, ResultOf(controller.AwaitRequest(fd), LDAP_SUCCESS));
         controller.Hold(fd);
     }},
    {"a refusal", noController,
     [](const auto& controller, int fd) {
         controller.Send(fd, ResultOf(controller.AwaitRequest(fd), LDAP_OPERATIONS_ERROR));
         controller.Hold(fd);
     }},
    {"an answer to another question", timedOut,
     [](const auto& controller, int fd) {
         const int number = controller.AwaitRequest(fd) + 7;
         controller.Send(fd, EntryOf(number, "defaultNamingContext", "DC=corp,DC=example") +
                                 ResultOf(number, LDAP_SUCCESS));
         controller.Hold(fd);
     }},
    {"answers to other questions without end", timedOut,
     [](const auto& controller, int fd) {
         const int number = controller.AwaitRequest(fd) + 7;
         const std::string entry =
             EntryOf(number, "defaultNamingContext", std::string(1000, 'x').c_str());
         SendForever(controller, fd, entry + entry + entry + entry);
     }},
    {"entries without end", noController,
     [](const auto& controller, int fd) {
         const std::string entry = EntryOf(controller.AwaitRequest(fd), "defaultNamingContext",
                                           std::string(1000, 'x').c_str());
         SendForever(controller, fd, entry + entry + entry + entry);
     }},
    {"a notice of disconnection", noController,
     [](const auto& controller, int fd) {
         controller.Send(fd, Message("{it{essts}}", 0, LDAP_RES_EXTENDED, LDAP_UNAVAILABLE, "", "",
                                     LDAP_TAG_EXOP_RES_OID, LDAP_NOTICE_OF_DISCONNECTION));
         controller.Hold(fd);
     }},
};

const std::size_t mannerCount = std::size(manners);

const Manner& MannerNamed(const std::string& name) {
    for (const Manner& manner : manners)
        if (name == manner.name)
            return manner;
    throw std::invalid_argument(name);
}

std::string HostileAddress(int number) {
    return "10.99.0." + std::to_string(200 + number);
}

HostileController::HostileController(int number, const Manner& manner)
    : address_(HostileAddress(number)), manner_(manner) {
    // An earlier one may have left the address behind.
    Run({"ip", "address", "replace", address_ + "/24", "dev", "lan"});
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(LDAP_PORT);
    inet_pton(AF_INET, address_.c_str(), &address.sin_addr);
    const int on = 1;
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0 || setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, SOMAXCONN) != 0)
        throw std::system_error(errno, std::generic_category(), address_);
    server_ = std::thread([this] { Serve(); });
}

HostileController::~HostileController() {
    stopping_ = true;
    server_.join();
    close(listener_);
}

void HostileController::Serve() {
    std::list<std::thread> visits;
    while (!stopping_) {
        pollfd wanted{listener_, POLLIN, 0};
        if (poll(&wanted, 1, step) <= 0)
            continue;
        const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection < 0)
            continue;
        ++visitors_;
        visits.emplace_back([this, connection] {
            manner_.treat(*this, connection);
            close(connection);
        });
    }
    for (std::thread& visit : visits)
        visit.join();
}

bool HostileController::Send(int connection, const std::string& data) const {
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t count =
            send(connection, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
            continue;
        }
        pollfd wanted{connection, POLLOUT, 0};
        if (errno != EAGAIN || stopping_ || poll(&wanted, 1, step) < 0)
            return false;
    }
    return !stopping_;
}

int HostileController::AwaitRequest(int connection) const {
    char request[chunk];
    while (!stopping_) {
        pollfd wanted{connection, POLLIN, 0};
        if (poll(&wanted, 1, step) <= 0)
            continue;
        const ssize_t size = recv(connection, request, sizeof request, 0);
        if (size <= 0)
            return 0;
        berval bytes{static_cast<ber_len_t>(size), request};
        const std::unique_ptr<BerElement, void (*)(BerElement*)> message(
            ber_init(&bytes), [](BerElement* each) { ber_free(each, 1); });
        ber_int_t number = 0;
        return ber_scanf(message.get(), "{i", &number) == LBER_ERROR ? 0 : number;
    }
    return 0;
}

void HostileController::Hold(int connection) const {
    char ignored[chunk];
    while (!stopping_) {
        pollfd wanted{connection, POLLIN, 0};
        if (poll(&wanted, 1, step) > 0 && recv(connection, ignored, sizeof ignored, 0) <= 0)
            return;
    }
}

} // namespace lab
