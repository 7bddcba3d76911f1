// Exchanges with proxies that answer, fail and hang in every way.

#include "apxhttps_proxy_fixture.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

namespace {

using namespace proxied;
using namespace std::chrono_literals;
using Step = ProxyScript::Step;
using Then = ProxyScript::Then;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// A host whose own rules would let older TLS be, and that of this program's servers.
const bool lenient = [] {
    constexpr const char* rules = "/run/apxhttps_exchange_test.cnf";
    std::ofstream(rules) << "openssl_conf = all\n[all]\nssl_conf = tls\n[tls]\n"
                            "system_default = lenient\n[lenient]\nMinProtocol = TLSv1\n"
                            "CipherString = ALL:@SECLEVEL=0\n";
    return setenv("OPENSSL_CONF", rules, 1) == 0; // read when TLS is first needed
}();
using testing::StartsWith;

std::string BodyOf(const std::string& request) {
    return request.substr(request.find("\r\n\r\n") + 4);
}

TEST(Exchange, AsksForTheDomain) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(200, domainBody)});
    const auto domain = AskForDomain(Trusting(server.Address()), patient);
    EXPECT_EQ(domain.netbiosName, "CORP");
    EXPECT_EQ(domain.dnsName, "corp.example");
    EXPECT_EQ(domain.sid, "S-1-5-21-1-2-3");
    EXPECT_THAT(server.Requests(), ElementsAre("GET /v1/domain HTTP/1.1\r\nHost: " +
                                               server.Address() + "\r\nAccept: */*\r\n\r\n"));
}

TEST(Exchange, AsksForAMachineAccount) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(201, accountBody)});
    const auto account = AskForMachineAccount(Trusting(server.Address()), "web\"1.corp.example",
                                              "OU=Höfe,DC=corp,DC=example", patient);
    EXPECT_EQ(account.name, "WEB1$");
    EXPECT_EQ(account.password, "a-password-of-thirty-two-letters");
    AskForMachineAccount(Trusting(server.Address()), "web1", "", patient);
    const auto requests = server.Requests();
    ASSERT_THAT(requests, SizeIs(2));
    EXPECT_THAT(requests[0], StartsWith("POST /v1/machine-accounts HTTP/1.1\r\n"));
    EXPECT_THAT(requests[0], HasSubstr("\r\nContent-Type: application/json\r\n"));
    EXPECT_EQ(nlohmann::json::parse(BodyOf(requests[0])),
              (nlohmann::json{{"hostName", "web\"1.corp.example"},
                              {"container", "OU=Höfe,DC=corp,DC=example"}}));
    EXPECT_EQ(nlohmann::json::parse(BodyOf(requests[1])), (nlohmann::json{{"hostName", "web1"}}));
}

TEST(Exchange, SendsALargeRequestWithoutWaitingForLeave) {
    const std::string hostName(2'000'000, 'h');
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(413, R"({"code":87})")});
    EXPECT_EQ(
        StatusOf([&] { AskForMachineAccount(Trusting(server.Address()), hostName, "", patient); }),
        badRequest);
    const auto requests = server.Requests();
    ASSERT_THAT(requests, SizeIs(1));
    EXPECT_THAT(requests[0], Not(HasSubstr("Expect")));
    EXPECT_THAT(requests[0], EndsWith(hostName + "\"}"));
}

TEST(Exchange, TextThatIsNotUtf8IsABadRequest) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(201, accountBody)});
    const Proxy proxy = Trusting(server.Address());
    EXPECT_EQ(StatusOf([&] { AskForMachineAccount(proxy, "web\xff", "", patient); }), badRequest);
    EXPECT_EQ(StatusOf([&] { AskForMachineAccount(proxy, "web", "OU=\xc3", patient); }),
              badRequest);
    EXPECT_EQ(server.Connections(), 0);
}

TEST(Exchange, UnusableAddressIsABadRequest) {
    EXPECT_EQ(DomainStatus(Trusting("user@host")), badRequest);
}

TEST(Exchange, ReachesProxiesByNameAndByIpv6Address) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(200, domainBody)});
    const std::string port = ":" + std::to_string(server.Port());
    EXPECT_EQ(DomainStatus(Trusting("[::1]" + port)), success);
    EXPECT_EQ(DomainStatus(Trusting("localhost" + port)), success);
}

TEST(Exchange, AnswerMayComeInSingleBytesAndInChunks) {
    EXPECT_EQ(StatusWith({.answer = HttpAnswer(200, domainBody), .byteByByte = true}), success);
    std::ostringstream chunks;
    chunks << "1\r\n{\r\n"
           << std::hex << domainBody.size() - 1 << "\r\n"
           << domainBody.substr(1) << "\r\n0\r\n\r\n";
    EXPECT_EQ(StatusWith(
                  {.answer = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks.str(),
                   .byteByByte = true}),
              success);
}

TEST(Exchange, AnswerEndsWithItsLengthOrWithTheConnection) {
    EXPECT_EQ(StatusWith({.answer = HttpAnswer(200, domainBody), .then = Then::Hang}), success);
    EXPECT_EQ(StatusWith({.answer = "HTTP/1.0 200 OK\r\n\r\n" + domainBody}), success);
}

TEST(Exchange, RefusalsComeOutByTheirCode) {
    for (const std::uint32_t code :
         {notAllowed, badRequest, noSuchDomain, noController, internalError}) {
        EXPECT_EQ(StatusWith({HttpAnswer(403, "{\"code\":" + std::to_string(code) + "}")}), code);
    }
    EXPECT_EQ(StatusWith({HttpAnswer(403, "")}), notAllowed);
}

TEST(Exchange, RedirectionIsNotFollowed) {
    ScriptedProxyServer elsewhere(AnyCertificate(), {HttpAnswer(200, domainBody)});
    for (const char* status : {"301", "302", "303", "307", "308"}) {
        EXPECT_EQ(StatusWith({"HTTP/1.1 " + std::string(status) + " Moved\r\nLocation: https://" +
                              elsewhere.Address() + "/v1/domain\r\nContent-Length: 0\r\n\r\n"}),
                  internalError);
    }
    EXPECT_EQ(elsewhere.Connections(), 0);
}

TEST(Exchange, EnvironmentDoesNotMatter) {
    ScriptedProxyServer detour(AnyCertificate(), {.step = Step::Accept});
    const std::string home = "/run/apxhttps";
    std::filesystem::create_directories(home);
    std::ofstream(home + "/.netrc") << "default login mallory password guessed\n";
    const std::array<std::pair<const char*, std::string>, 4> variables = {
        {{"https_proxy", "http://" + detour.Address()},
         {"HTTPS_PROXY", "http://" + detour.Address()},
         {"ALL_PROXY", "socks5://" + detour.Address()},
         {"HOME", home}}};
    for (const auto& [name, value] : variables) {
        setenv(name, value.c_str(), 1);
    }
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(200, domainBody)});
    EXPECT_EQ(DomainStatus(Trusting(server.Address())), success);
    for (const auto& [name, value] : variables) {
        unsetenv(name);
    }
    EXPECT_EQ(detour.Connections(), 0);
    ASSERT_THAT(server.Requests(), SizeIs(1));
    EXPECT_THAT(server.Requests()[0], Not(HasSubstr("Authorization")));
    // Set for the whole process, as the variable is read once.
    ASSERT_NE(std::getenv("SSLKEYLOGFILE"), nullptr);
    std::ifstream keys(std::getenv("SSLKEYLOGFILE"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(keys), {}), "");
}

TEST(Exchange, AnswersThatNoProxyGivesAreInternalErrors) {
    EXPECT_EQ(StatusWith({"SSH-2.0-OpenSSH_9.2p1 Debian\r\n"}), internalError);
    EXPECT_EQ(StatusWith({"\r\n\r\n"}), internalError);
    EXPECT_EQ(StatusWith({"HTTP/1.1 abc\r\n\r\n"}), internalError);
    EXPECT_EQ(StatusWith({"HTTP/7.1 200 OK\r\n\r\n" + domainBody}), internalError);
    EXPECT_EQ(StatusWith({HttpAnswer(200, "<html>")}), internalError);
    EXPECT_EQ(StatusWith({HttpAnswer(200, "")}), internalError);
    EXPECT_EQ(StatusWith({"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n" + domainBody}),
              internalError);
}

TEST(Exchange, AnswerIsAtMost64KiB) {
    const std::string head = HttpAnswer(200, std::string(65'000, 'x'));
    const std::size_t headSize = head.size() - 65'000;
    const std::size_t room = 65'536 - headSize - domainBody.size();
    const auto padded = [](std::size_t blanks) {
        return HttpAnswer(200, domainBody + std::string(blanks, ' '));
    };
    ASSERT_EQ(padded(room).size(), 65'536u);
    EXPECT_EQ(StatusWith({padded(room)}), success);
    EXPECT_EQ(StatusWith({padded(room + 1)}), internalError);
    EXPECT_EQ(StatusWith({padded(1'000'000)}), internalError);
}

TEST(Exchange, AnswerThatDoesNotEndIsAnInternalError) {
    EXPECT_EQ(StatusWith({.answer = "HTTP/1.1 200 OK\r\n\r\n", .then = Then::SendMore}),
              internalError);
    EXPECT_EQ(StatusWith({.answer = "HTTP/1.1 200 OK\r\nX: ", .then = Then::SendMore}),
              internalError);
    std::string lines = "HTTP/1.1 200 OK\r\n";
    while (lines.size() < 66'000) {
        lines += "X: y\r\n";
    }
    EXPECT_EQ(StatusWith({.answer = lines, .then = Then::Hang}), internalError);
    std::string interim;
    while (interim.size() < 66'000) {
        interim += "HTTP/1.1 103 Early Hints\r\n\r\n";
    }
    EXPECT_EQ(StatusWith({.answer = interim, .then = Then::Hang}), internalError);
}

TEST(Exchange, OnlyTlsAndNoneOlderThan12) {
    ASSERT_TRUE(lenient);
    EXPECT_EQ(StatusWith({.answer = HttpAnswer(200, domainBody), .plain = true}),
              invalidConnection);
    EXPECT_EQ(StatusWith({.answer = HttpAnswer(200, domainBody), .highestVersion = TLS1_1_VERSION}),
              invalidConnection);
    EXPECT_EQ(StatusWith({.answer = HttpAnswer(200, domainBody), .highestVersion = TLS1_2_VERSION}),
              success);
    EXPECT_EQ(StatusWith({.answer = HttpAnswer(200, domainBody), .highestVersion = TLS1_3_VERSION}),
              success);
}

TEST(Exchange, PlainServerSeesNoRequest) {
    ScriptedProxyServer server(AnyCertificate(),
                               {.answer = HttpAnswer(200, domainBody), .plain = true});
    EXPECT_EQ(DomainStatus(Trusting(server.Address())), invalidConnection);
    ASSERT_THAT(server.Requests(), SizeIs(1)); // the beginning of TLS
    EXPECT_THAT(server.Requests()[0], Not(HasSubstr("/v1/domain")));
}

/// How many of this process's connections to the port a program that it starts would get.
int InheritedConnections(int port) {
    int inherited = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int descriptor = std::stoi(entry.path().filename());
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == port &&
            (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0) {
            ++inherited;
        }
    }
    return inherited;
}

TEST(Exchange, ConnectionIsNotForProgramsThatTheHostStarts) {
    ScriptedProxyServer server(AnyCertificate(), {.step = Step::Accept, .then = Then::Hang});
    auto status = std::async(std::launch::async, [&server] {
        return DomainStatus(Trusting(server.Address()), shortLimits);
    });
    while (server.Connections() == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(InheritedConnections(server.Port()), 0);
    EXPECT_EQ(status.get(), timedOut);
}

TEST(Exchange, ManyAtOnce) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(200, domainBody)});
    const ServerCertificate other;
    std::vector<std::future<std::uint32_t>> trusting, doubting;
    for (int i = 0; i < 8; ++i) {
        const auto ask = [](const Proxy& proxy) {
            return std::async(std::launch::async, [proxy] {
                std::uint32_t worst = DomainStatus(proxy);
                for (int again = 0; again < 5; ++again) {
                    worst = std::max(worst, DomainStatus(proxy));
                }
                return worst;
            });
        };
        trusting.push_back(ask(Trusting(server.Address())));
        doubting.push_back(ask(Trusting(server.Address(), other)));
    }
    for (auto& result : trusting) {
        EXPECT_EQ(result.get(), success);
    }
    for (auto& result : doubting) {
        EXPECT_EQ(result.get(), untrusted);
    }
    EXPECT_THAT(server.Requests(), SizeIs(48));
}

} // namespace
