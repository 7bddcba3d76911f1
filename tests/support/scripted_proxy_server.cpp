#include "scripted_proxy_server.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void Require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

/// The connection of one client: TLS once it stands, the bare socket before that and without it.
class Connection {
public:
    Connection(int socket, int stop) : socket_(socket), stop_(stop) {
        const int on = 1;
        setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Connection() {
        tls_.reset();
        close(socket_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool Handshake(SSL_CTX* context) {
        tls_.reset(SSL_new(context));
        return tls_ && SSL_set_fd(tls_.get(), socket_) == 1 && SSL_accept(tls_.get()) == 1;
    }

    /// Whether something can be read; false when the server stops.
    bool Wait() const {
        if (tls_ && SSL_pending(tls_.get()) > 0) {
            return true;
        }
        pollfd waits[] = {{socket_, POLLIN, 0}, {stop_, POLLIN, 0}};
        return poll(waits, 2, -1) > 0 && waits[1].revents == 0;
    }

    /// What comes next; "" at the end.
    std::string Receive() const {
        char buffer[4096];
        if (!Wait()) {
            return "";
        }
        const ssize_t size = tls_ ? SSL_read(tls_.get(), buffer, sizeof buffer)
                                  : recv(socket_, buffer, sizeof buffer, 0);
        return std::string(buffer, size > 0 ? static_cast<std::size_t>(size) : 0);
    }

    bool Send(const std::string& text) const {
        const auto size = static_cast<ssize_t>(text.size());
        return size == 0 || (tls_ ? SSL_write(tls_.get(), text.data(), static_cast<int>(size))
                                  : send(socket_, text.data(), text.size(), MSG_NOSIGNAL)) == size;
    }

    void EndTls() const {
        if (tls_) {
            SSL_shutdown(tls_.get());
        }
    }

    void Reset() const {
        const linger atOnce{1, 0};
        setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }

private:
    int socket_;
    int stop_;
    std::unique_ptr<SSL, decltype(&SSL_free)> tls_{nullptr, SSL_free};
};

/// A whole request, or as much of it as came.
std::string ReadRequest(const Connection& connection) {
    std::string request;
    while (true) {
        const std::size_t headEnd = request.find("\r\n\r\n");
        if (headEnd != std::string::npos) {
            const std::size_t length = request.find("Content-Length: ");
            const std::size_t body = length < headEnd ? std::stoul(request.substr(length + 16)) : 0;
            if (request.size() >= headEnd + 4 + body) {
                return request;
            }
        }
        const std::string part = connection.Receive();
        if (part.empty()) {
            return request;
        }
        request += part;
    }
}

bool SendAnswer(const Connection& connection, const std::string& answer, bool byteByByte) {
    if (!byteByByte) {
        return connection.Send(answer);
    }
    return std::all_of(answer.begin(), answer.end(),
                       [&](char byte) { return connection.Send(std::string(1, byte)); });
}

/// Takes the connection as far as the script says.
/// \return whether it got there; if not, the client is gone
bool Proceed(Connection& connection, const ProxyScript& script, SSL_CTX* context,
             std::string& request) {
    using Step = ProxyScript::Step;
    if (script.step == Step::Accept) {
        return true;
    }
    if (script.step == Step::Handshake) {
        connection.Receive();
        return connection.Send(std::string("\x16\x03\x03\x00\x7a\x02\x00\x00\x76", 9));
    }
    if (!script.plain && !connection.Handshake(context)) {
        return false;
    }
    if (script.step == Step::Request) {
        return true;
    }
    request = script.plain ? connection.Receive() : ReadRequest(connection);
    if (request.empty()) {
        return false;
    }
    const std::size_t size = script.step == Step::Head   ? 8
                             : script.step == Step::Body ? script.answer.size() - 2
                                                         : script.answer.size();
    return SendAnswer(connection, script.answer.substr(0, size), script.byteByByte);
}

void Finish(const Connection& connection, ProxyScript::Then then) {
    switch (then) {
    case ProxyScript::Then::Close:
        connection.EndTls();
        break;
    case ProxyScript::Then::CutOff:
        break;
    case ProxyScript::Then::Reset:
        connection.Reset();
        break;
    case ProxyScript::Then::Hang:
        while (!connection.Receive().empty()) {
        }
        break;
    case ProxyScript::Then::SendMore:
        while (connection.Send(std::string(1000, 'a'))) {
        }
        break;
    }
}

} // namespace

ServerCertificate::ServerCertificate(Key key, int firstDay, int lastDay,
                                     const std::string& commonName)
    : key_(key == Key::Rsa ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256")), certificate_(X509_new()) {
    Require(key_ && certificate_, "no key or certificate");
    X509* const x = certificate_.get();
    static std::atomic<long> serial = 1;
    X509_NAME* const name = X509_get_subject_name(x);
    const auto text = reinterpret_cast<const unsigned char*>(commonName.c_str());
    Require(X509_set_version(x, X509_VERSION_3) == 1 &&
                ASN1_INTEGER_set(X509_get_serialNumber(x), serial++) == 1 &&
                X509_time_adj_ex(X509_getm_notBefore(x), firstDay, 0, nullptr) != nullptr &&
                X509_time_adj_ex(X509_getm_notAfter(x), lastDay, 0, nullptr) != nullptr &&
                X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, text, -1, -1, 0) == 1 &&
                X509_set_issuer_name(x, name) == 1 && X509_set_pubkey(x, key_.get()) == 1 &&
                X509_sign(x, key_.get(), EVP_sha256()) > 0,
            "cannot make a certificate");
}

std::string ServerCertificate::Pem() const {
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
    Require(bio && PEM_write_bio_X509(bio.get(), certificate_.get()) == 1, "no PEM");
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
}

std::string ServerCertificate::Thumbprint() const {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    Require(X509_digest(certificate_.get(), EVP_sha1(), digest, &size) == 1, "no digest");
    const std::unique_ptr<char, void (*)(char*)> text(
        OPENSSL_buf2hexstr(digest, static_cast<long>(size)), [](char* t) { OPENSSL_free(t); });
    return text.get();
}

std::string HttpAnswer(int status, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) +
           " Some Reason\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

ScriptedProxyServer::ScriptedProxyServer(const ServerCertificate& certificate, ProxyScript script)
    : script_(std::move(script)), context_(SSL_CTX_new(TLS_server_method()), SSL_CTX_free),
      stop_(eventfd(0, EFD_CLOEXEC)) {
    Require(context_ && SSL_CTX_use_certificate(context_.get(), certificate.Certificate()) == 1 &&
                SSL_CTX_use_PrivateKey(context_.get(), certificate.PrivateKey()) == 1,
            "the certificate cannot be used");
    if (script_.highestVersion != 0) {
        SSL_CTX_set_security_level(context_.get(), 0); // old versions are too weak for any other
        SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
        SSL_CTX_set_max_proto_version(context_.get(), script_.highestVersion);
    }
    Listen(AF_INET, 0);
    Listen(AF_INET6, port_);
    for (const int listener : listeners_) {
        listening_.emplace_back([this, listener] { Accept(listener); });
    }
}

ScriptedProxyServer::~ScriptedProxyServer() {
    eventfd_write(stop_, 1);
    for (std::thread& thread : listening_) {
        thread.join();
    }
    for (std::thread& thread : serving_) {
        thread.join();
    }
    for (const int listener : listeners_) {
        close(listener);
    }
    close(stop_);
}

void ScriptedProxyServer::Listen(int family, int port) {
    const int listener = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(listener >= 0, "no socket");
    listeners_.push_back(listener);
    const int on = 1;
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    v6.sin6_family = AF_INET6;
    v6.sin6_addr = in6addr_loopback;
    v6.sin6_port = htons(static_cast<std::uint16_t>(port));
    if (family == AF_INET6) {
        setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    Require((family == AF_INET
                 ? bind(listener, reinterpret_cast<const sockaddr*>(&v4), sizeof v4)
                 : bind(listener, reinterpret_cast<const sockaddr*>(&v6), sizeof v6)) == 0 &&
                listen(listener, 64) == 0,
            "cannot listen");
    if (family == AF_INET) {
        socklen_t size = sizeof v4;
        getsockname(listener, reinterpret_cast<sockaddr*>(&v4), &size);
        port_ = ntohs(v4.sin_port);
    }
}

void ScriptedProxyServer::Accept(int listener) {
    pollfd waits[] = {{listener, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(waits, 2, -1) > 0 && waits[1].revents == 0) {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        ++connections_;
        const std::lock_guard lock(mutex_);
        serving_.emplace_back([this, client] { Serve(client); });
    }
}

void ScriptedProxyServer::Serve(int socket) {
    // TLS writes to clients that are gone; this thread must not die of it, others may.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    Connection connection(socket, stop_);
    std::string request;
    if (Proceed(connection, script_, context_.get(), request)) {
        Finish(connection, script_.then);
    }
    ERR_clear_error();
    if (!request.empty()) {
        const std::lock_guard lock(mutex_);
        requests_.push_back(std::move(request));
    }
}

std::vector<std::string> ScriptedProxyServer::Requests() {
    std::vector<std::thread> serving;
    {
        const std::lock_guard lock(mutex_);
        serving = std::exchange(serving_, {});
    }
    for (std::thread& thread : serving) {
        thread.join();
    }
    const std::lock_guard lock(mutex_);
    return requests_;
}
