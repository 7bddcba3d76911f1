#include <nlohmann/json.hpp>

#include "apxd_fixture.h"
#include "freed_memory.h"
#include "http_service.h"

/// The answers alone, without a network; and what becomes of them.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

/// What ScriptedAccounts::password has before the signs that JSON has another way of writing.
constexpr std::string_view password = "Abcdefghijklmnopqrstuvwxyz0123456789";

const Peer asker{*IpAddress::Parse("192.0.2.7"), 50123};

class AnswerTest : public testing::Test {
protected:
    Reply Answer(const std::string& request) {
        return ParseReply(std::string(service_.Answer(asker, request).View()));
    }

    ScriptedAccounts accounts_;
    Lines log_;
    HttpService service_{
        accounts_,
        HostCheck([](const std::string&,
                     const tessary::directory::Deadline&) { return KnownAddresses(); },
                  {anyHost}, std::chrono::seconds(1)),
        log_.Sink()};
};

TEST_F(AnswerTest, LeavesNoCopyOfThePasswordInMemory) {
    const std::string body = R"({"hostName":"web1.corp.example"})";
    const std::string request =
        "POST /v1/machine-accounts HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n\r\n" + body;
    const FreedMemoryWatch watch(password);
    {
        const SecretText answer = service_.Answer(asker, request);
        EXPECT_NE(answer.View().find(password), std::string_view::npos);
    }
    EXPECT_EQ(watch.Found(), 0);
    delete new std::string(password);
    EXPECT_EQ(watch.Found(), 1) << "it was to be seen";
}

TEST_F(AnswerTest, GivesAReasonAlsoWhereTheLibraryHasNone) {
    // No reader hands such requests on.
    for (const char* request : {"PROPFIND /healthz HTTP/1.1\r\n\r\n", "GET /a?b?c HTTP/1.1\r\n\r\n",
                                "GET /healthz HTTP/7\r\n\r\n"}) {
        const Reply reply = Answer(request);
        EXPECT_EQ(reply.status, 500) << request;
        EXPECT_EQ(reply.Code(), "1359") << reply.body;
        EXPECT_TRUE(json::accept(reply.body)) << reply.body;
    }
    const auto line = AllOf(StartsWith("192.0.2.7:50123: no answer was made: HTTP/1.1 400"));
    EXPECT_THAT(log_.All(), ElementsAre(line, line, line));
}

TEST_F(AnswerTest, CutsAPathForTheLog) {
    EXPECT_EQ(Answer("GET /" + std::string(8000, 'a') + " HTTP/1.1\r\n\r\n").status, 404);
    ASSERT_EQ(log_.All().size(), 1u);
    EXPECT_THAT(log_.All()[0], AllOf(StartsWith("192.0.2.7:50123: refused: there is no such path"),
                                     EndsWith("aaa")));
    EXPECT_EQ(log_.All()[0].size(), 1024u);
}

class LinesTest : public ServerTest {};

TEST_F(LinesTest, AreNoMoreThanTheLimitsOnRequestsAllow) {
    settings_.front.requestsPerMinuteAndAddress = 3;
    Start();
    for (int i = 0; i < 4; ++i) {
        Ask(Port(), GetRequest("/nowhere"));
        Ask(Port(), PostRequest("nonsense"));
        Ask(Port(), PostRequest(R"({"hostName":"*"})"));
        Ask(Port(), AccountRequestOf("honest.corp.example")); // which lives elsewhere
    }
    EXPECT_EQ(log_.Count("refused: ") - log_.Count("refused: too many requests"), 3u);
}

} // namespace
} // namespace apxd_test
