#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <openssl/ssl.h>

/// A server's key and its self-signed certificate, made in memory.
class ServerCertificate {
public:
    enum class Key { P256, Rsa };

    /// \param firstDay, lastDay the validity, in days from today
    explicit ServerCertificate(Key key = Key::P256, int firstDay = -1, int lastDay = 30,
                               const std::string& commonName = "apxd.example");

    std::string Pem() const;
    /// SHA-1, upper-case hexadecimal pairs with ":" between them.
    std::string Thumbprint() const;
    X509* Certificate() const { return certificate_.get(); }
    EVP_PKEY* PrivateKey() const { return key_.get(); }

private:
    struct Deleter {
        void operator()(X509* certificate) const { X509_free(certificate); }
        void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    };
    std::unique_ptr<EVP_PKEY, Deleter> key_;
    std::unique_ptr<X509, Deleter> certificate_;
};

/// What a scripted proxy server does with every connection.
struct ProxyScript {
    /// How far it gets.
    enum class Step {
        Accept,    ///< the connection stands, nothing was exchanged
        Handshake, ///< the client's hello was read and the server's was begun
        Request,   ///< the handshake is complete, the request was not read
        Head,      ///< the request was read and half of the answer's first line was sent
        Body,      ///< all but the answer's last two bytes was sent
        End,       ///< the answer was sent
    };
    /// What comes then.
    enum class Then {
        Close,    ///< an orderly end, also of TLS where it stands
        CutOff,   ///< the connection is closed without ending TLS
        Reset,    ///< the connection is reset
        Hang,     ///< nothing, until the client is gone
        SendMore, ///< "a" without end
    };

    std::string answer = {}; ///< every byte of it, as on the wire
    Step step = Step::End;
    Then then = Then::Close;
    bool byteByByte = false;
    bool plain = false;     ///< HTTP without TLS; whatever comes is taken for a request
    int highestVersion = 0; ///< of TLS, as TLS1_1_VERSION; 0: what the library has
};

/// An HTTP answer with a body and its length.
std::string HttpAnswer(int status, const std::string& body);

/// A TLS server on a free port of 127.0.0.1 and of ::1 that follows a script, for many connections
/// at once.
class ScriptedProxyServer {
public:
    /// The certificate must live as long as the server.
    /// \throws std::runtime_error
    ScriptedProxyServer(const ServerCertificate& certificate, ProxyScript script);
    ~ScriptedProxyServer();
    ScriptedProxyServer(const ScriptedProxyServer&) = delete;
    ScriptedProxyServer& operator=(const ScriptedProxyServer&) = delete;

    int Port() const { return port_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
    /// How many connections were accepted.
    int Connections() const { return connections_; }
    /// What the connections that have ended were sent inside TLS, or without it by the script.
    /// Waits until all have ended.
    std::vector<std::string> Requests();

private:
    void Listen(int family, int port);
    void Accept(int listener);
    void Serve(int socket);

    ProxyScript script_;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
    int port_ = 0;
    int stop_ = -1; ///< an event descriptor
    std::vector<int> listeners_;
    std::vector<std::thread> listening_;
    std::atomic<int> connections_ = 0;
    std::mutex mutex_;
    std::vector<std::thread> serving_;
    std::vector<std::string> requests_;
};
