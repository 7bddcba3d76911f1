// What a proxy's answers come out as.

#include "answers.h"
#include "apxhttps_proxy_fixture.h"

#include <cerrno>
#include <new>
#include <ostream>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using namespace proxied;
using tessary::apxhttps::Answer;
using tessary::apxhttps::ReadDomainInfo;
using tessary::apxhttps::ReadMachineAccount;
using tessary::apxhttps::SecretString;
using tessary::apxhttps::StatusOfTransfer;

Answer Given(long httpStatus, const std::string& body) {
    return {httpStatus, SecretString(body.begin(), body.end())};
}

std::uint32_t DomainAnswerStatus(long httpStatus, const std::string& body) {
    return StatusOf([&] { ReadDomainInfo(Given(httpStatus, body)); });
}

std::uint32_t AccountAnswerStatus(long httpStatus, const std::string& body) {
    return StatusOf([&] { ReadMachineAccount(Given(httpStatus, body)); });
}

TEST(Answers, DomainIsRead) {
    const auto domain = ReadDomainInfo(Given(200, domainBody));
    EXPECT_EQ(domain.netbiosName, "CORP");
    EXPECT_EQ(domain.dnsName, "corp.example");
    EXPECT_EQ(domain.sid, "S-1-5-21-1-2-3");
}

TEST(Answers, MachineAccountIsRead) {
    const auto account = ReadMachineAccount(Given(201, accountBody));
    EXPECT_EQ(account.name, "WEB1$");
    EXPECT_EQ(account.password, "a-password-of-thirty-two-letters");
}

TEST(Answers, EscapesAndForeignLettersAreRead) {
    const auto account = ReadMachineAccount(Given(
        201,
        " {\"password\": \"\\u00e4\xc3\xa4\\\"\\\\\\/\\ud83d\\ude00\", \"accountName\": \"W\"}\n"));
    EXPECT_EQ(account.password, "\xc3\xa4\xc3\xa4\"\\/\xf0\x9f\x98\x80");
}

TEST(Answers, OtherMembersDoNotMatter) {
    EXPECT_EQ(DomainAnswerStatus(200, R"({"sid":"S","x":{"y":[null,1.5]},"netbiosName":"C",)"
                                      R"("dnsName":"c"})"),
              success);
}

class GarbledDomain : public testing::TestWithParam<std::string> {};

TEST_P(GarbledDomain, IsAnInternalError) {
    EXPECT_EQ(DomainAnswerStatus(200, GetParam()), internalError) << GetParam();
}

const std::string nul(1, '\0');
INSTANTIATE_TEST_SUITE_P(
    Answers, GarbledDomain,
    testing::Values(
        "", "x", "<html></html>", "null", "[]", "{}", "\"text\"", "17", domainBody + "x",
        domainBody + domainBody, domainBody.substr(1), domainBody.substr(0, domainBody.size() - 1),
        std::string(60'000, '['), std::string(60'000, '{'), nul, domainBody + nul,
        R"({"netbiosName":"CORP","dnsName":"corp.example"})",
        R"({"netbiosName":"CORP","sid":"S-1-5-21-1-2-3"})",
        R"({"dnsName":"corp.example","sid":"S-1-5-21-1-2-3"})",
        R"({"netbiosName":"","dnsName":"corp.example","sid":"S-1-5-21-1-2-3"})",
        R"({"netbiosName":"CORP","dnsName":"","sid":"S-1-5-21-1-2-3"})",
        R"({"netbiosName":"CORP","dnsName":"corp.example","sid":""})",
        R"({"netbiosName":7,"dnsName":"corp.example","sid":"S-1-5-21-1-2-3"})",
        R"({"netbiosName":"CORP","dnsName":null,"sid":"S-1-5-21-1-2-3"})",
        R"({"netbiosName":"CORP","dnsName":"corp.example","sid":["S-1-5-21-1-2-3"]})",
        R"({"netbiosName":"CO\u0000RP","dnsName":"corp.example","sid":"S-1-5-21-1-2-3"})",
        "{\"netbiosName\":\"CO" + nul + R"(RP","dnsName":"corp.example","sid":"S"})",
        "{\"netbiosName\":\"C\xffRP\",\"dnsName\":\"corp.example\",\"sid\":\"S\"}",
        R"({"NETBIOSNAME":"CORP","dnsName":"corp.example","sid":"S-1-5-21-1-2-3"})",
        R"({"code":5,"message":"not allowed"})"));

TEST(Answers, GarbledAccountIsAnInternalError) {
    for (const char* body :
         {"", "{}", R"({"accountName":"WEB1$"})", R"({"password":"secret"})",
          R"({"accountName":"WEB1$","password":""})", R"({"accountName":"","password":"secret"})",
          R"({"accountName":"WEB1$","password":1})", R"({"accountName":{},"password":"secret"})",
          R"({"accountName":"WEB1$","password":"se\u0000cret"})"}) {
        EXPECT_EQ(AccountAnswerStatus(201, body), internalError) << body;
    }
}

TEST(Answers, SuccessHasOneHttpStatusEach) {
    EXPECT_EQ(DomainAnswerStatus(201, domainBody), internalError);
    EXPECT_EQ(AccountAnswerStatus(200, accountBody), internalError);
    EXPECT_EQ(DomainAnswerStatus(204, ""), internalError);
}

struct Refusal {
    long httpStatus;
    const char* body;
    std::uint32_t status;

    friend void PrintTo(const Refusal& refusal, std::ostream* stream) {
        *stream << refusal.httpStatus << ' ' << refusal.body;
    }
};

class RefusedByTheProxy : public testing::TestWithParam<Refusal> {};

TEST_P(RefusedByTheProxy, ComesOutAsItsStatus) {
    const Refusal& refusal = GetParam();
    EXPECT_EQ(DomainAnswerStatus(refusal.httpStatus, refusal.body), refusal.status);
    EXPECT_EQ(AccountAnswerStatus(refusal.httpStatus, refusal.body), refusal.status);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, RefusedByTheProxy,
    testing::Values(
        // The proxy's own code decides, whatever the HTTP status.
        Refusal{403, R"({"code":5,"message":"not allowed"})", notAllowed},
        Refusal{429, R"({"code":5,"message":"too many"})", notAllowed},
        Refusal{400, R"({"code":87,"message":"bad request"})", badRequest},
        Refusal{502, R"({"code":1355,"message":"no such domain"})", noSuchDomain},
        Refusal{503, R"({"code":1311,"message":"no controller"})", noController},
        Refusal{500, R"({"code":1359,"message":"see the log"})", internalError},
        Refusal{500, R"({"code":5})", notAllowed}, Refusal{404, R"({"code":2453})", 2453},
        Refusal{302, R"({"code":1311})", noController},
        Refusal{500, R"({"code":4294967295})", 4294967295},
        // Nothing that this host alone can know.
        Refusal{500, R"({"code":8})", internalError},
        Refusal{500, R"({"code":1225})", internalError},
        Refusal{500, R"({"code":1229})", internalError},
        Refusal{500, R"({"code":10060})", internalError},
        Refusal{500, R"({"code":2148074277})", internalError},
        // No code, or none that can be one.
        Refusal{401, "", notAllowed}, Refusal{403, "<html>", notAllowed},
        Refusal{429, "[]", notAllowed}, Refusal{403, R"({"code":0})", notAllowed},
        Refusal{400, R"({"code":"5"})", badRequest}, Refusal{400, R"({"code":-5})", badRequest},
        Refusal{404, R"({"code":5.0})", badRequest}, Refusal{405, R"({"code":null})", badRequest},
        Refusal{413, R"({"code":4294967296})", badRequest},
        Refusal{431, R"({"code":99999999999999999999})", badRequest},
        Refusal{499, R"([{"code":5}])", badRequest}, Refusal{400, R"({"code":5}x)", badRequest},
        Refusal{500, "", internalError}, Refusal{501, "", internalError},
        Refusal{502, "", internalError}, Refusal{503, "busy", internalError},
        Refusal{302, "", internalError}, Refusal{600, "", internalError}));

struct TransferEnd {
    CURLcode result;
    long systemError;
    std::uint32_t status;

    friend void PrintTo(const TransferEnd& end, std::ostream* stream) {
        *stream << curl_easy_strerror(end.result) << ", errno " << end.systemError;
    }
};

class EndOfTransfer : public testing::TestWithParam<TransferEnd> {};

TEST_P(EndOfTransfer, ComesOutAsItsStatus) {
    EXPECT_EQ(
        static_cast<std::uint32_t>(StatusOfTransfer(GetParam().result, GetParam().systemError)),
        GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, EndOfTransfer,
    testing::Values(TransferEnd{CURLE_OPERATION_TIMEDOUT, 0, timedOut},
                    TransferEnd{CURLE_COULDNT_CONNECT, ECONNREFUSED, refused},
                    TransferEnd{CURLE_COULDNT_CONNECT, ETIMEDOUT, timedOut},
                    TransferEnd{CURLE_COULDNT_CONNECT, EHOSTUNREACH, invalidConnection},
                    TransferEnd{CURLE_COULDNT_CONNECT, ENETUNREACH, invalidConnection},
                    TransferEnd{CURLE_COULDNT_RESOLVE_HOST, 0, invalidConnection},
                    TransferEnd{CURLE_RECV_ERROR, ECONNRESET, invalidConnection},
                    TransferEnd{CURLE_RECV_ERROR, ETIMEDOUT, timedOut},
                    TransferEnd{CURLE_SEND_ERROR, EPIPE, invalidConnection},
                    TransferEnd{CURLE_GOT_NOTHING, 0, invalidConnection},
                    TransferEnd{CURLE_PARTIAL_FILE, 0, invalidConnection},
                    TransferEnd{CURLE_SSL_CONNECT_ERROR, 0, invalidConnection},
                    TransferEnd{CURLE_PEER_FAILED_VERIFICATION, 0, invalidConnection},
                    TransferEnd{CURLE_OUT_OF_MEMORY, 0, outOfMemory},
                    TransferEnd{CURLE_URL_MALFORMAT, 0, badRequest},
                    TransferEnd{CURLE_WEIRD_SERVER_REPLY, 0, internalError},
                    TransferEnd{CURLE_WRITE_ERROR, 0, internalError},
                    TransferEnd{CURLE_FAILED_INIT, ECONNREFUSED, internalError}));

TEST(Answers, FailuresComeOutAsTheirStatus) {
    EXPECT_EQ(StatusOf([] { throw std::bad_alloc(); }), outOfMemory);
    EXPECT_EQ(StatusOf([] { throw std::runtime_error("any"); }), internalError);
    EXPECT_EQ(StatusOf([] { throw 7; }), internalError);
    EXPECT_EQ(StatusOf([] { throw tessary::apxhttps::Failure(tessary::apxhttps::Status(4711)); }),
              4711);
    EXPECT_EQ(StatusOf([] {}), success);
}

} // namespace
