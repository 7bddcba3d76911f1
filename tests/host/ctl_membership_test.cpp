#include <csignal>
#include <thread>
#include <unistd.h>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using scripted::ReadFile;

const Words joinWords = {"join", "corp.example",     "-U",
                         "bob",  "--password-stdin", "--skip-hostname-check"};

class MembershipTest : public CtlTest {
protected:
    static Result TryJoin(bool asJson = false) {
        Words words = joinWords;
        if (asJson) {
            words.push_back("--json");
        }
        return Ctl(words, {.input = "secret\n"});
    }

    static std::string StoredDomain() {
        // Without a provider the command tells what the host has on record.
        scripted::WriteFile(scripted::providerFile, "provider = \"\"\n");
        const Json status = Json::parse(Ctl({"status", "--json"}).out);
        scripted::WriteFile(scripted::providerFile, "provider = \"scripted\"\n");
        return status["domain"].is_null() ? "" : status["domain"].get<std::string>();
    }
};

TEST_F(MembershipTest, JoinHandsEverythingToTheProviderAndPrintsOneLine) {
    const Result result = Ctl({"join", "corp.example/Servers/Hosts", "--user", "bob",
                               "--password-stdin", "--skip-hostname-check"},
                              {.input = "se cret\t$'\n"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "joined corp.example\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Calls("joinDomain"), "joinDomain|corp.example|Servers/Hosts|bob|se cret|$'\n");
    EXPECT_EQ(StoredDomain(), "corp.example");
}

TEST_F(MembershipTest, JoinInJson) {
    EXPECT_EQ(JsonOf(TryJoin(true)),
              Json::parse(R"({"joined": "corp.example", "organizationalUnit": null})"));
    const Result result = Ctl({"join", "corp.example/Servers", "-U", "bob", "--password-stdin",
                               "--skip-hostname-check", "--json"},
                              {.input = "secret\n"});
    EXPECT_EQ(JsonOf(result)["organizationalUnit"], "Servers");
}

TEST_F(MembershipTest, JoinLeavesTheActiveStoreAlone) {
    ASSERT_EQ(TryJoin().status, 0);
    EXPECT_EQ(Ctl({"store", "show"}).out, "None\n");
}

struct Hinted {
    int status;
    const char* hint;
};

class JoinFailureTest : public MembershipTest, public testing::WithParamInterface<Hinted> {};

TEST_P(JoinFailureTest, IsToldWithNumberTextAndHint) {
    const auto& [status, hint] = GetParam();
    Script("joinDomain.status=" + std::to_string(status) + "\n");
    const Result result = TryJoin(true);
    ExpectFailure(result, 1, std::string("\nhint: ") + hint);
    const Json error = Json::parse(result.out)["error"];
    EXPECT_EQ(error["code"], status);
    EXPECT_EQ(result.err.rfind("tesauthctl: " + error["text"].get<std::string>() + "\n", 0), 0U);
    EXPECT_EQ(StoredDomain(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, JoinFailureTest,
    testing::Values(Hinted{5, "the account lacks the right"}, Hinted{86, "the user name is known"},
                    Hinted{267, "check the organisational unit"}, Hinted{1210, "this host's name"},
                    Hinted{1212, "write the domain by"},
                    Hinted{1225, "the domain controller's host answers"},
                    Hinted{1311, "no domain controller answered"},
                    Hinted{1315, "write the user name as"}, Hinted{1317, "check the user name"},
                    Hinted{1330, "change the user's password first"},
                    Hinted{1331, "the user is disabled"},
                    Hinted{1355, "check the name, and that the name servers in /etc/resolv.conf"},
                    Hinted{1398, "set this host's clock"}, Hinted{2691, "leave that domain first"},
                    Hinted{10060, "the domain controllers don't answer"}),
    [](const auto& instance) { return "Status" + std::to_string(instance.param.status); });

TEST_F(MembershipTest, AFailureThatWeKnowNothingAboutHasNoHint) {
    Script("joinDomain.status=4242\n");
    const Result result = TryJoin();
    ExpectFailure(result, 1, "0x00001092");
    EXPECT_EQ(result.err.find("hint"), std::string::npos);
    EXPECT_EQ(result.out, "");
}

TEST_F(MembershipTest, AnUnusableHostNameIsAFailureWithAHint) {
    ASSERT_EQ(sethostname("nameless", 8), 0);
    const Result result =
        Ctl({"join", "corp.example", "-U", "bob", "--password-stdin"}, {.input = "secret\n"});
    ASSERT_EQ(sethostname("host1", 5), 0);
    ExpectFailure(result, 1, "tesauthctl: The current hostname is invalid: ");
    ExpectFailure(result, 1, "\nhint: give the host a name of its own");
    EXPECT_EQ(Calls("joinDomain"), "");
}

TEST_F(MembershipTest, AJoinThatCannotBeStoredIsTakenBack) {
    scripted::WriteFile("/var/lib/tessary", "in the way\n");
    const Result result = TryJoin();
    ExpectFailure(result, 1, "hint: check that /var/lib/tessary can be written");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(Calls("partDomain"), "partDomain|(null)|(null)\n");
}

TEST_F(MembershipTest, ThePasswordIsInNoArgumentAndNoEnvironment) {
    Script("joinDomain.delay_ms=300\n");
    static std::string seen;
    seen.clear();
    const auto look = [](pid_t child) {
        const std::string process = "/proc/" + std::to_string(child);
        while (Calls("joinDomain").empty()) {
            ASSERT_EQ(kill(child, 0), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        seen = ReadFile(process + "/cmdline") + ReadFile(process + "/environ");
    };
    const Result result = Ctl(joinWords, {.input = "hushhush\n", .whileRunning = look});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(seen.find("--password-stdin"), std::string::npos);
    EXPECT_EQ(seen.find("hushhush"), std::string::npos);
    EXPECT_EQ((result.out + result.err).find("hushhush"), std::string::npos);
}

TEST_F(MembershipTest, LeavingForgetsTheDomain) {
    Join("corp.example");
    const Result result = Ctl({"leave"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "left corp.example\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Calls("partDomain"), "partDomain|(null)|(null)\n");
    EXPECT_EQ(StoredDomain(), "");
}

TEST_F(MembershipTest, LeavingWithCredentialsForgetsTheDomainToo) {
    Join("corp.example");
    const Result result =
        Ctl({"leave", "-U", "bob", "--password-stdin", "--json"}, {.input = "secret\n"});
    EXPECT_EQ(JsonOf(result), Json::parse(R"({"left": "corp.example"})"));
    EXPECT_EQ(Calls("partDomain"), "partDomain|bob|secret\n");
    EXPECT_EQ(StoredDomain(), "");
}

TEST_F(MembershipTest, AFailureToLeaveForgetsNothing) {
    Join("corp.example");
    Script("partDomain.status=5\n");
    ExpectFailure(Ctl({"leave"}), 1, "Access is denied.");
    ExpectFailure(Ctl({"leave", "-U", "bob", "--password-stdin"}, {.input = "secret\n"}), 1,
                  "Access is denied.");
    EXPECT_EQ(StoredDomain(), "corp.example");
}

TEST_F(MembershipTest, LeavingWithoutBeingJoinedIsWhatTheProviderMakesOfIt) {
    PlayUnjoined();
    const Result result = Ctl({"leave"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "the host was not joined to a domain\n");
    EXPECT_EQ(JsonOf(Ctl({"leave", "--json"})), Json::parse(R"({"left": null})"));
    Script("getActiveDomain.null=1\npartDomain.status=1355\n");
    ExpectFailure(Ctl({"leave"}), 1, "0x0000054b");
}

} // namespace
} // namespace ctl_test
