// Questions to a key distribution centre that drops connections, or worse.

#include "directory/error.h"
#include "directory/kdc_exchange.h"
#include "directory/kerberos.h"
#include "directory/kerberos_profile.h"
#include "directory/keytab.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <krb5.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace {
std::atomic<int> unreachable{0}; // so many connections fail as where there is no way
std::atomic<int> attempts{0};
} // namespace

// The library under test calls this in place of the C library's.
extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    static const auto real = reinterpret_cast<decltype(&connect)>(dlsym(RTLD_NEXT, "connect"));
    ++attempts;
    if (unreachable > 0) {
        --unreachable;
        errno = EHOSTUNREACH;
        return -1;
    }
    return real(fd, address, length);
}

namespace tessary::directory {
namespace {

using testing::HasSubstr;

/// What a server does with one connection; it is closed afterwards.
using Treatment = std::function<void(int client, int number)>;

/// Treats one connection after the other, the first as number 1.
class Server {
public:
    explicit Server(Treatment treatment)
        : treatment_(std::move(treatment)), listener_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address_;
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &length), 0);
        thread_ = std::thread([this] { Serve(); });
    }
    ~Server() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    SocketAddress Address() const {
        return {reinterpret_cast<const sockaddr*>(&address_), sizeof address_,
                ntohs(address_.sin_port)};
    }
    int Connections() const { return connections_; }

private:
    void Serve() {
        for (;;) {
            const int client = accept(listener_, nullptr, nullptr);
            if (client < 0)
                return;
            treatment_(client, ++connections_);
            close(client);
        }
    }

    Treatment treatment_;
    int listener_;
    sockaddr_in address_{};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

/// Reads a whole question.
std::string Question(int client) {
    std::uint32_t length = 0;
    EXPECT_EQ(recv(client, &length, sizeof length, MSG_WAITALL),
              static_cast<ssize_t>(sizeof length));
    std::string question(ntohl(length), '\0');
    EXPECT_EQ(recv(client, question.data(), question.size(), MSG_WAITALL),
              static_cast<ssize_t>(question.size()));
    return question;
}

void Send(int client, const std::string& bytes) {
    EXPECT_EQ(send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

std::string Framed(const std::string& message) {
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(message.size()));
    return std::string(reinterpret_cast<const char*>(&length), sizeof length) + message;
}

void Drop(int, int) {}
void DropUnanswered(int client, int) {
    Question(client);
}
void Echo(int client, int) {
    Send(client, Framed(Question(client)));
}

std::string Ask(const Server& server, Repeat repeat = Repeat::WhenDropped,
                std::chrono::milliseconds time = std::chrono::seconds(5)) {
    const auto answer = ExchangeWithKdc(server.Address(), "question", Deadline::In(time), repeat);
    return {answer.begin(), answer.end()};
}

/// The text of the failure, which must be a NoController.
std::string Failure(const std::function<void()>& ask) {
    try {
        ask();
        ADD_FAILURE() << "there was no failure";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::NoController) << error.what();
        return error.what();
    }
    return "";
}

TEST(KdcExchange, AsksAgainWhenTheConnectionIsClosed) {
    for (const Treatment& drop : {Treatment(Drop), Treatment(DropUnanswered)}) {
        Server server([&](int client, int number) { (number > 2 ? Echo : drop)(client, number); });
        EXPECT_EQ(Ask(server), "question");
        EXPECT_EQ(server.Connections(), 3);
    }
}

TEST(KdcExchange, DoesNotAskForEver) {
    Server server(Drop);
    EXPECT_THAT(Failure([&] { Ask(server); }), HasSubstr("closed the connection"));
    EXPECT_EQ(server.Connections(), 3);
}

TEST(KdcExchange, AsksOnceWhatMayNotBeRepeated) {
    Server server(DropUnanswered);
    EXPECT_THAT(Failure([&] { Ask(server, Repeat::Never); }), HasSubstr("closed the connection"));
    EXPECT_EQ(server.Connections(), 1);
}

TEST(KdcExchange, AnswerThatWasBrokenOffIsNoReasonToAskAgain) {
    const std::string whole = Framed("an answer");
    for (std::size_t size = 1; size < whole.size(); ++size) {
        Server server([&](int client, int) {
            Question(client);
            Send(client, whole.substr(0, size));
        });
        EXPECT_THAT(Failure([&] { Ask(server); }), HasSubstr("broke off")) << size;
        EXPECT_EQ(server.Connections(), 1) << size;
    }
}

TEST(KdcExchange, WhatIsNoKeyDistributionCentreIsNotAskedAgain) {
    Server server([](int client, int) {
        Question(client);
        Send(client, "HTTP/1.1 400 Bad Request\r\n");
    });
    EXPECT_THAT(Failure([&] { Ask(server); }), HasSubstr("does not answer as one"));
    EXPECT_EQ(server.Connections(), 1);
}

TEST(KdcExchange, ConnectionThatCannotBeMadeIsTriedOnce) {
    Server server(Echo);
    attempts = 0;
    unreachable = 1;
    EXPECT_THAT(Failure([&] { Ask(server); }), HasSubstr(std::strerror(EHOSTUNREACH)));
    EXPECT_EQ(attempts, 1);

    std::optional<SocketAddress> nobody;
    {
        const Server gone(Drop);
        nobody = gone.Address();
    }
    attempts = 0;
    try {
        ExchangeWithKdc(*nobody, "question", Deadline::In(std::chrono::seconds(5)),
                        Repeat::WhenDropped);
        ADD_FAILURE() << "nobody was there";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::ConnectionRefused);
    }
    EXPECT_EQ(attempts, 1);
}

TEST(KdcExchange, DeadlineHoldsAcrossRepeats) {
    Server server(Drop);
    attempts = 0;
    EXPECT_THROW(Ask(server, Repeat::WhenDropped, std::chrono::milliseconds(90)), Error);
    EXPECT_EQ(attempts, 1) << "a repeat would have come too late";
}

/// A refusal as a key distribution centre words it.
std::string Refusal(krb5_error_code code, std::string data = "") {
    const KerberosContext context(MakeKerberosContext("CORP.EXAMPLE"));
    krb5_principal server = nullptr;
    EXPECT_EQ(krb5_parse_name(context.get(), "krbtgt/CORP.EXAMPLE@CORP.EXAMPLE", &server), 0);
    krb5_error refusal{};
    refusal.error = static_cast<krb5_ui_4>(code - ERROR_TABLE_BASE_krb5);
    refusal.stime = static_cast<krb5_timestamp>(std::time(nullptr));
    refusal.server = server;
    refusal.e_data = {KV5M_DATA, static_cast<unsigned>(data.size()), data.data()};
    krb5_data encoded{};
    EXPECT_EQ(krb5_mk_error(context.get(), &refusal, &encoded), 0);
    const std::string bytes(encoded.data, encoded.length);
    krb5_free_data_contents(context.get(), &encoded);
    krb5_free_principal(context.get(), server);
    return bytes;
}

/// Asks for the proof of a password: a list of two kinds of pre-authentication data, the kind of
/// encryption (with the usual salt) and the proof that is wanted.
std::string AskForProof() {
    constexpr char kinds[] = "\x30\x1F"
                             "\x30\x12\xA1\x03\x02\x01\x13\xA2\x0B\x04\x09"
                             "\x30\x07\x30\x05\xA0\x03\x02\x01\x12"
                             "\x30\x09\xA1\x03\x02\x01\x02\xA2\x02\x04\x00";
    return Refusal(KRB5KDC_ERR_PREAUTH_REQUIRED, std::string(kinds, sizeof kinds - 1));
}

KdcFinder Always(const Server& server) {
    return [address = server.Address()](const std::string&) { return address; };
}

TEST(KdcExchange, ProofOfAUsersPasswordIsSentOnce) {
    const std::string proofWanted = AskForProof();
    Server server([&](int client, int number) {
        Question(client);
        if (number == 2) // the first question is repeated
            Send(client, Framed(proofWanted));
    });
    KerberosSession session("CORP.EXAMPLE", Always(server), Deadline::In(std::chrono::seconds(5)));
    EXPECT_THAT(Failure([&] {
                    session.LogIn({"alice", ""}, "corp.example", "Password.of.alice.1");
                }),
                HasSubstr("closed the connection"));
    EXPECT_EQ(server.Connections(), 3);
}

TEST(KdcExchange, ProofOfAKeyIsSentAgain) {
    Server server(DropUnanswered);
    KerberosSession session("CORP.EXAMPLE", Always(server), Deadline::In(std::chrono::seconds(5)));
    krb5_keyblock key{};
    ASSERT_EQ(krb5_c_make_random_key(session.Context(), encryptionTypes[0], &key), 0);
    std::vector<AccountKey> keys;
    keys.emplace_back(session.Context(), key);
    KeytabInMemory keytab(session.Context());
    keytab.Add({"WEB1$@CORP.EXAMPLE"}, 1, keys);
    Failure([&] { session.LogInWithKeytab("WEB1$", keytab.Name()); });
    EXPECT_EQ(server.Connections(), 3);
}

TEST(KdcExchange, AccountWithoutAnAesKeyIsToldSo) {
    const std::string refusal = Refusal(KRB5KDC_ERR_ETYPE_NOSUPP);
    Server server([&](int client, int) {
        Question(client);
        Send(client, Framed(refusal));
    });
    KerberosSession session("CORP.EXAMPLE", Always(server), Deadline::In(std::chrono::seconds(5)));
    try {
        session.LogIn({"alice", ""}, "corp.example", "Password.of.alice.1");
        ADD_FAILURE() << "the account has no such key";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::InternalError);
        EXPECT_THAT(error.what(), HasSubstr("alice"));
        EXPECT_THAT(error.what(), HasSubstr("the account has no AES key"));
    }
}

} // namespace
} // namespace tessary::directory
