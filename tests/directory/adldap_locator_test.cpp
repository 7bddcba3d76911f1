// Finding a controller among ones that the test plays itself, on a private host.

#include "directory/error.h"
#include "directory/locator.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <lber.h>

#include <memory>
#include <thread>

namespace tessary::directory {
namespace {

struct BerDeleter {
    void operator()(BerElement* ber) const { ber_free(ber, 1); }
};
using Ber = std::unique_ptr<BerElement, BerDeleter>;

/// What a controller says of itself.
struct Description {
    std::string baseDn;
    std::string service;
    std::string host;
};

enum class Manner { Answers, ClosesWhenAsked, ClosesAtOnce };

/// A controller on a loopback address that talks to one client at a time, about one question.
class FakeController {
public:
    FakeController(const char* address, Manner manner, const Description& description = {})
        : manner_(manner), description_(description),
          listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in where{};
        where.sin_family = AF_INET;
        where.sin_port = htons(389);
        where.sin_addr.s_addr = inet_addr(address);
        listening_ =
            bind(listener_.Get(), reinterpret_cast<sockaddr*>(&where), sizeof where) == 0 &&
            listen(listener_.Get(), 8) == 0;
        thread_ = std::thread([this] { Serve(); });
    }
    FakeController(const FakeController&) = delete;
    FakeController& operator=(const FakeController&) = delete;
    ~FakeController() {
        shutdown(listener_.Get(), SHUT_RDWR);
        thread_.join();
    }

    bool IsListening() const { return listening_; }

private:
    void Serve() {
        UniqueFd last;
        for (;;) {
            UniqueFd peer(accept(listener_.Get(), nullptr, nullptr));
            if (!peer)
                return;
            if (manner_ == Manner::ClosesAtOnce)
                continue;
            char question[512];
            const ssize_t got = recv(peer.Get(), question, sizeof question, 0);
            if (manner_ == Manner::ClosesWhenAsked)
                continue;
            if (got > 0)
                Answer(peer.Get(), {static_cast<ber_len_t>(got), question});
            last = std::move(peer);
        }
    }

    void Answer(int peer, berval question) const {
        const Ber asked(ber_init(&question));
        ber_int_t number = 0;
        ber_scanf(asked.get(), "{i", &number);
        const Ber answer(ber_alloc_t(LBER_USE_DER));
        ber_printf(answer.get(), "{it{s{{s[s]}{s[s]}{s[s]}{s[s]}}}}", number,
                   static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY), "", "defaultNamingContext",
                   description_.baseDn.c_str(), "configurationNamingContext",
                   "CN=Configuration,DC=corp,DC=example", "ldapServiceName",
                   description_.service.c_str(), "dnsHostName", description_.host.c_str());
        ber_printf(answer.get(), "{it{ess}}", number,
                   static_cast<ber_tag_t>(LDAP_RES_SEARCH_RESULT), 0, "", "");
        berval bytes{};
        ber_flatten2(answer.get(), &bytes, 0);
        send(peer, bytes.bv_val, bytes.bv_len, MSG_NOSIGNAL);
    }

    Manner manner_;
    Description description_;
    UniqueFd listener_;
    bool listening_ = false;
    std::thread thread_;
};

Deadline Soon() {
    return Deadline::In(std::chrono::seconds(10));
}

Status FailureWith(const std::vector<std::string>& controllers) {
    try {
        LocateController("corp.example", controllers, Soon());
    } catch (const Error& error) {
        return error.Code();
    }
    return Status::Success;
}

TEST(Locator, ChildDomainIsItselfAndNotItsForest) {
    const Description child{"DC=Child,DC=corp,DC=example", "corp.example:dc3$@CHILD.CORP.EXAMPLE",
                            "dc3.child.corp.example"};
    const FakeController controller("127.0.0.2", Manner::Answers, child);
    ASSERT_TRUE(controller.IsListening());
    {
        const Controller found = LocateController("child.corp.example", {"127.0.0.2"}, Soon());
        EXPECT_EQ(found.domain, "child.corp.example");
        EXPECT_EQ(found.realm, "CHILD.CORP.EXAMPLE");
        EXPECT_EQ(found.host, "dc3.child.corp.example");
    }
    EXPECT_EQ(FailureWith({"127.0.0.2"}), Status::NoController) << "the parent's is another one";
}

TEST(Locator, OtherDomainsControllerDoesNotHideThatTheRightOnesRefuse) {
    const Description other{"DC=lab,DC=example", "lab.example:dc2$@LAB.EXAMPLE", "dc2.lab.example"};
    const FakeController controller("127.0.0.2", Manner::Answers, other);
    ASSERT_TRUE(controller.IsListening());
    EXPECT_EQ(FailureWith({"127.0.0.2", "127.0.0.3"}), Status::ConnectionRefused);
}

TEST(Locator, ConnectionThatIsClosedUnansweredCountsAsRefused) {
    const FakeController asked("127.0.0.2", Manner::ClosesWhenAsked);
    ASSERT_TRUE(asked.IsListening());
    EXPECT_EQ(FailureWith({"127.0.0.2"}), Status::ConnectionRefused);
    const FakeController unasked("127.0.0.3", Manner::ClosesAtOnce);
    ASSERT_TRUE(unasked.IsListening());
    EXPECT_EQ(FailureWith({"127.0.0.3"}), Status::ConnectionRefused);
}

} // namespace
} // namespace tessary::directory
