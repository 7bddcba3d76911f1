#include "apxd_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <system_error>

#include "network.h"

namespace apxd_test {
namespace {

using tessary::directory::UniqueFd;

struct ContextDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using UniqueContext = std::unique_ptr<SSL_CTX, ContextDeleter>;

void Check(bool holds, const char* what) {
    if (!holds)
        throw std::system_error(errno, std::generic_category(), what);
}

/// An address and a port, as the system takes them.
class SocketAddress {
public:
    SocketAddress(const std::string& text, std::uint16_t port)
        : length_(tessary::proxy::IpAddress::Parse(text).value().ToSocketAddress(port, storage_)) {}

    int Family() const { return storage_.ss_family; }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage_); }
    socklen_t Length() const { return length_; }

private:
    sockaddr_storage storage_{};
    socklen_t length_;
};

/// Old versions as well: what the server takes is what is tested.
SSL_CTX& Context() {
    static const UniqueContext context = [] {
        UniqueContext made(SSL_CTX_new(TLS_client_method()));
        SSL_CTX_set_verify(made.get(), SSL_VERIFY_NONE, nullptr);
        SSL_CTX_set_security_level(made.get(), 0);
        SSL_CTX_set_min_proto_version(made.get(), TLS1_VERSION);
        return made;
    }();
    return *context;
}

} // namespace

UniqueFd ConnectFrom(const std::string& from, std::uint16_t port) {
    std::signal(SIGPIPE, SIG_IGN);
    const SocketAddress own(from, 0);
    const SocketAddress server(own.Family() == AF_INET ? "127.0.0.1" : "::1", port);
    UniqueFd fd(socket(own.Family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    Check(static_cast<bool>(fd), "socket");
    const timeval limit{patience.count(), 0};
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const int yes = 1;
    setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    Check(bind(fd.Get(), own.Get(), own.Length()) == 0, "bind");
    Check(connect(fd.Get(), server.Get(), server.Length()) == 0, "connect");
    return fd;
}

bool SendRaw(int socket, std::string_view text) {
    return send(socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}

std::string ReceiveRaw(int socket) {
    std::string text;
    std::array<char, 4096> buffer{};
    ssize_t size = 0;
    while ((size = recv(socket, buffer.data(), buffer.size(), 0)) > 0)
        text.append(buffer.data(), static_cast<std::size_t>(size));
    return text;
}

bool IsEnded(int socket) {
    pollfd watched{socket, POLLIN, 0};
    const auto limit = std::chrono::milliseconds(patience).count();
    while (poll(&watched, 1, static_cast<int>(limit)) == 1) {
        std::array<char, 4096> buffer{};
        if (recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT) <= 0)
            return true;
    }
    return false;
}

std::string UnfinishedGreeting(std::size_t perRecord) {
    constexpr std::size_t longest = 131'000;
    const auto number = [](std::size_t value, int bytes) {
        std::string text;
        for (int i = bytes - 1; i >= 0; --i)
            text += static_cast<char>(value >> (8 * i));
        return text;
    };
    const std::string message = '\x01' + number(longest, 3) + std::string(longest - 1, '\0');
    std::string records;
    for (std::size_t begin = 0; begin < message.size(); begin += perRecord) {
        const std::string part = message.substr(begin, perRecord);
        records += "\x16\x03\x01" + number(part.size(), 2) + part;
    }
    return records;
}

std::string Reply::Code() const {
    const std::string name = "\"code\":";
    const std::size_t begin = body.find(name);
    if (begin == std::string::npos)
        return "";
    const std::size_t digits = begin + name.size();
    return body.substr(digits, body.find_first_not_of("0123456789", digits) - digits);
}

Client::Client(std::uint16_t port, const std::string& from, int version, const char* groups,
               SSL_SESSION* session)
    : socket_(ConnectFrom(from, port)), tls_(SSL_new(&Context())) {
    SSL_set_fd(tls_.get(), socket_.Get());
    if (version != 0) {
        SSL_set_max_proto_version(tls_.get(), version);
        SSL_set_cipher_list(tls_.get(), "ALL:@SECLEVEL=0");
    }
    if (groups != nullptr)
        SSL_set1_groups_list(tls_.get(), groups);
    if (session != nullptr)
        SSL_set_session(tls_.get(), session);
    ERR_clear_error();
    up_ = SSL_connect(tls_.get()) == 1;
    if (!up_) {
        const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
        failure_ = reason == nullptr ? "closed" : reason;
    }
}

std::string Client::CertificateThumbprint() const {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        SSL_get1_peer_certificate(tls_.get()), X509_free);
    std::array<unsigned char, 20> digest{};
    unsigned size = 0;
    X509_digest(certificate.get(), EVP_sha1(), digest.data(), &size);
    std::string text;
    for (const unsigned char byte : digest) {
        std::array<char, 4> pair{};
        std::snprintf(pair.data(), pair.size(), "%s%02X", text.empty() ? "" : ":", byte);
        text += pair.data();
    }
    return text;
}

bool Client::Send(std::string_view text) {
    return up_ && SSL_write(tls_.get(), text.data(), static_cast<int>(text.size())) > 0;
}

Reply Client::Receive() {
    std::string text;
    std::array<char, 4096> buffer{};
    int size = 0;
    while (up_ && (size = SSL_read(tls_.get(), buffer.data(), buffer.size())) > 0)
        text.append(buffer.data(), static_cast<std::size_t>(size));
    Reply reply = ParseReply(text);
    reply.failure = failure_;
    return reply;
}

Reply ParseReply(const std::string& text) {
    Reply reply;
    const std::size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos || text.compare(0, 9, "HTTP/1.1 ") != 0)
        return reply;
    reply.head = text.substr(0, end);
    reply.body = text.substr(end + 4);
    reply.status = std::stoi(text.substr(9, 3));
    return reply;
}

Reply Ask(std::uint16_t port, std::string_view request, const std::string& from) {
    Client client(port, from);
    client.Send(request);
    return client.Receive();
}

std::string GetRequest(const std::string& path) {
    return "GET " + path + " HTTP/1.1\r\nHost: proxy\r\n\r\n";
}

std::string PostRequest(const std::string& body, const std::string& path) {
    return "POST " + path +
           " HTTP/1.1\r\nHost: proxy\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string AccountRequestOf(const std::string& hostName) {
    return PostRequest("{\"hostName\":\"" + hostName + "\"}");
}

std::vector<std::string> MalformedRequests() {
    return {
        "\r\n\r\n",
        "GET\r\n\r\n",
        "GET / HTTP/9.9\r\nHost: a\r\n\r\n",
        "G\tT / HTTP/1.1\r\nHost: a\r\n\r\n",
        "GET / HTTP/1.1\nHost: a\n\n",
        "GET / HTTP/1.1\r\nHost: a\rb\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\r\n folded\r\n\r\n",
        "GET / HTTP/1.1\r\nHost : a\r\n\r\n",
        std::string("GET / HTTP/1.1\r\nHost: a\0\r\n\r\n", 28),
        "GET / HTTP/1.1\r\n\r\n",
        "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n",
        "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\n"
        "Content-Length: 1\r\n\r\na",
        "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n",
        "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\n\r\n",
        GetRequest("/healthz") + GetRequest("/v1/domain"),
        std::string(10'000, 'a'),
        PostRequest("{\"hostName\":\"web1.corp.example\"} x"),
        PostRequest("{\"hostName\":\"web1.corp.example\",\"hostName\":\"web1.corp.example\"}"),
        PostRequest("{\"hostName\":\"web1.corp.example\",\"more\":1}"),
        PostRequest("{\"hostName\":[\"web1.corp.example\"]}"),
        PostRequest(std::string(8000, '[')),
        PostRequest("\xff\xfe{}"),
    };
}

} // namespace apxd_test
