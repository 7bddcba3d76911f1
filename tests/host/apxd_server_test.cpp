#include "apxd_fixture.h"

#include <nlohmann/json.hpp>

/// What the proxy answers to those who may ask, and who may.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class ServiceTest : public ServerTest {
protected:
    void SetUp() override { Start(); }

    void ExpectRefused(const Reply& reply, int status, const std::string& code) {
        EXPECT_EQ(reply.status, status) << reply.head << reply.body;
        EXPECT_EQ(reply.Code(), code) << reply.body;
        EXPECT_TRUE(json::accept(reply.body)) << reply.body;
    }
};

TEST_F(ServiceTest, SaysThatItServes) {
    const Reply reply = Ask(Port(), GetRequest("/healthz"));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(json::parse(reply.body), json({{"status", "ok"}}));
    EXPECT_THAT(log_.All(), IsEmpty());
}

TEST_F(ServiceTest, TellsAboutTheDomain) {
    const Reply reply = Ask(Port(), GetRequest("/v1/domain"));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(
        json::parse(reply.body),
        json({{"netbiosName", "CORP"}, {"dnsName", "corp.example"}, {"sid", "S-1-5-21-1-2-3"}}));
    EXPECT_THAT(log_.All(), ElementsAre(AllOf(StartsWith("127.0.0.1:"),
                                              EndsWith(": told about the domain corp.example"))));
}

TEST_F(ServiceTest, GivesAnAccountAndLogsWhoGotIt) {
    const Reply reply =
        Ask(Port(), PostRequest(R"({"hostName":"WEB1.corp.example.","container":"Hosts/Web"})"));
    EXPECT_EQ(reply.status, 201);
    EXPECT_THAT(reply.head, HasSubstr("Connection: close"));
    EXPECT_EQ(json::parse(reply.body),
              json({{"accountName", "WEB1$"}, {"password", ScriptedAccounts::password}}));
    EXPECT_THAT(accounts_.Asked(), ElementsAre("web1.corp.example|Hosts/Web"));
    EXPECT_THAT(log_.All(),
                ElementsAre(AllOf(StartsWith("127.0.0.1:"),
                                  EndsWith(" web1.corp.example: given the account WEB1$"),
                                  Not(HasSubstr(ScriptedAccounts::password)))));
}

TEST_F(ServiceTest, TakesANullContainerForNone) {
    EXPECT_EQ(
        Ask(Port(), PostRequest(R"({"container":null,"hostName":"web1.corp.example"})")).status,
        201);
    EXPECT_THAT(accounts_.Asked(), ElementsAre("web1.corp.example|"));
}

TEST_F(ServiceTest, PassesRefusalsOnWithTheirCodesAndKeepsTheCauseToItself) {
    const struct {
        Code code;
        int status;
        const char* number;
    } cases[] = {{Code::NotAllowed, 403, "5"},
                 {Code::BadRequest, 400, "87"},
                 {Code::NoController, 503, "1311"},
                 {Code::NoSuchDomain, 502, "1355"},
                 {Code::Internal, 500, "1359"}};
    for (const auto& one : cases) {
        accounts_.refusal = std::make_unique<Refusal>(one.code, "Not today.", "the cause\n\x1b[0m");
        ExpectRefused(Ask(Port(), AccountRequestOf("web1.corp.example")), one.status, one.number);
        const Reply reply = Ask(Port(), GetRequest("/v1/domain"));
        ExpectRefused(reply, one.status, one.number);
        EXPECT_EQ(json::parse(reply.body)["message"], "Not today.");
    }
    EXPECT_EQ(log_.Count("refused: Not today. (the cause??[0m)"), 10u);
}

TEST_F(ServiceTest, RefusesOtherPathsAndMethods) {
    ExpectRefused(Ask(Port(), GetRequest("/")), 404, "87");
    ExpectRefused(Ask(Port(), GetRequest("/v1/domain/")), 404, "87");
    ExpectRefused(Ask(Port(), GetRequest("/v1/../healthz")), 404, "87");
    const Reply reply = Ask(Port(), GetRequest("/v1/machine-accounts"));
    ExpectRefused(reply, 405, "87");
    EXPECT_THAT(reply.head, HasSubstr("Allow: POST"));
    ExpectRefused(Ask(Port(), PostRequest("{}", "/v1/domain")), 405, "87");
    for (const char* method : {"DELETE", "HEAD", "PROPFIND"})
        ExpectRefused(Ask(Port(), method + std::string(" /healthz HTTP/1.1\r\nHost: a\r\n\r\n")),
                      501, "87");
    ExpectRefused(Ask(Port(), GetRequest("/healthz??")), 400, "87");
}

TEST_F(ServiceTest, RefusesAHostThatLivesElsewhere) {
    const Reply reply = Ask(Port(), AccountRequestOf("honest.corp.example"));
    ExpectRefused(reply, 403, "5");
    EXPECT_THAT(reply.body, Not(HasSubstr("127.0.0.9"))) << "where it lives is nobody's business";
    EXPECT_THAT(accounts_.Asked(), IsEmpty());
    EXPECT_THAT(log_.All(), ElementsAre(HasSubstr("honest.corp.example: refused: ")));
    EXPECT_THAT(log_.All(), ElementsAre(EndsWith("(its addresses: 127.0.0.9)")));
}

TEST_F(ServiceTest, RefusesAHostWithoutAnAddress) {
    ExpectRefused(Ask(Port(), AccountRequestOf("nobody.corp.example")), 403, "5");
    EXPECT_THAT(accounts_.Asked(), IsEmpty());
}

TEST_F(ServiceTest, GivesNothingWhileNamesCannotBeLookedUp) {
    names_["web1.corp.example"] = {"fails"};
    ExpectRefused(Ask(Port(), AccountRequestOf("web1.corp.example")), 500, "1359");
    EXPECT_THAT(accounts_.Asked(), IsEmpty());
    EXPECT_THAT(log_.All(), ElementsAre(HasSubstr("(no name server answers)")));
}

TEST_F(ServiceTest, TakesAHostAtTheAddressThatIsKnownWhileOthersAreNot) {
    names_["web1.corp.example"] = {"127.0.0.1", "fails"};
    names_["honest.corp.example"] = {"127.0.0.9", "fails"};
    EXPECT_EQ(Ask(Port(), AccountRequestOf("web1.corp.example")).status, 201);
    ExpectRefused(Ask(Port(), AccountRequestOf("honest.corp.example")), 500, "1359");
}

TEST_F(ServiceTest, TakesAnyOfAHostsAddresses) {
    names_["web1.corp.example"] = {"2001:db8::1", "127.0.0.1"};
    EXPECT_EQ(Ask(Port(), AccountRequestOf("web1.corp.example")).status, 201);
}

TEST_F(ServiceTest, AnswersARequestThatComesByteByByte) {
    Client client(Port());
    for (const char& c : AccountRequestOf("web1.corp.example"))
        ASSERT_TRUE(client.Send({&c, 1}));
    EXPECT_EQ(client.Receive().status, 201);
}

TEST_F(ServiceTest, AnswersARequestThatIsSplitAnywhere) {
    const std::string request = AccountRequestOf("web1.corp.example");
    for (std::size_t i = 1; i < request.size(); ++i) {
        Client client(Port());
        ASSERT_TRUE(client.Send(request.substr(0, i)) && client.Send(request.substr(i)));
        ASSERT_EQ(client.Receive().status, 201) << "split at " << i;
    }
}

class ExemptionTest : public ServerTest {};

TEST_F(ExemptionTest, LeavesTheForwardEntryOfNamedHostsAlone) {
    settings_.hostsWithoutForwardEntry = {"nobody.corp.example"};
    Start();
    EXPECT_EQ(Ask(Port(), AccountRequestOf("Nobody.corp.example")).status, 201);
    EXPECT_EQ(Ask(Port(), AccountRequestOf("nobody2.corp.example")).status, 403);
}

TEST_F(ExemptionTest, LeavesAllForwardEntriesAloneForAStar) {
    settings_.hostsWithoutForwardEntry = {"*"};
    Start();
    EXPECT_EQ(Ask(Port(), AccountRequestOf("nobody.corp.example")).status, 201);
    EXPECT_EQ(Ask(Port(), AccountRequestOf("nobody")).status, 400) << "it still has to be a name";
}

class StopTest : public ServerTest {};

TEST_F(StopTest, AnswersWhatIsUnderWayAndNothingElse) {
    settings_.front.lingerTime = std::chrono::milliseconds(100);
    Start();
    const std::uint16_t port = Port();
    accounts_.Hold("web1.corp.example");
    Client running(port);
    running.Send(AccountRequestOf("web1.corp.example"));
    Client unfinished(port);
    unfinished.Send("POST ");
    ASSERT_TRUE(accounts_.WaitForHeld(1));
    EXPECT_FALSE(server_->Stop(tessary::directory::Deadline::In(std::chrono::milliseconds(50))));
    EXPECT_TRUE(IsEnded(unfinished.Socket()));
    EXPECT_THROW(ConnectFrom("127.0.0.1", port), std::system_error);
    accounts_.LetGo();
    EXPECT_EQ(running.Receive().status, 201);
    EXPECT_TRUE(server_->Stop(tessary::directory::Deadline::In(patience)));
}

} // namespace
} // namespace apxd_test
