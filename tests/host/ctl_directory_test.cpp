#include <sys/stat.h>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using DirectoryTest = CtlTest;

TEST_F(DirectoryTest, ListsTrustedDomains) {
    Script("getTrustedDomains.items=lab.example:LAB,dev.example:DEV\n");
    const Result text = Ctl({"trusts"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "lab.example  LAB\ndev.example  DEV\n");
    EXPECT_EQ(JsonOf(Ctl({"trusts", "--json"})), Json::parse(R"({"trustedDomains": [
        {"dnsName": "lab.example", "netbiosName": "LAB"},
        {"dnsName": "dev.example", "netbiosName": "DEV"}], "live": true})"));
}

TEST_F(DirectoryTest, NoTrustedDomainsAreAnEmptyList) {
    Script("getTrustedDomains.missing=1\n");
    EXPECT_EQ(JsonOf(Ctl({"trusts", "--json"}))["trustedDomains"], Json::array());
    EXPECT_EQ(Ctl({"trusts"}).out, "");
}

TEST_F(DirectoryTest, EveryTrustRelationshipHasItsName) {
    const char* const names[] = {"not implemented", "inbound",       "outbound",
                                 "two-way",         "within forest", "joined domain",
                                 "unknown",         "none",          "relationship 8"};
    for (int number = 0; number < 9; ++number) {
        Script("getDomainTrustRelationship.value=" + std::to_string(number) + "\n");
        const std::string name = names[number];
        EXPECT_EQ(Ctl({"trust", "lab.example"}).out, name + "\n");
        EXPECT_EQ(JsonOf(Ctl({"trust", "lab.example", "--json"})),
                  Json({{"domain", "lab.example"},
                        {"relationship", {{"value", number}, {"name", name}}},
                        {"live", true}}));
    }
    EXPECT_NE(Calls("getDomainTrustRelationship").find("|lab.example\n"), std::string::npos);
}

TEST_F(DirectoryTest, FindsADomainController) {
    Script("getAnyDomainController.text=dc7.lab.example\n");
    EXPECT_EQ(Ctl({"dc", "lab.example"}).out, "dc7.lab.example\n");
    EXPECT_EQ(JsonOf(Ctl({"dc", "lab.example", "--json"})),
              Json::parse(R"({"domain": "lab.example", "domainController": "dc7.lab.example",
                              "live": true})"));
    EXPECT_EQ(Calls("getAnyDomainController"), "getAnyDomainController|(null)|lab.example\n"
                                               "getAnyDomainController|(null)|lab.example\n");
}

TEST_F(DirectoryTest, PrintsAUsersCanonicalName) {
    Script("convertCanonicalUsername.text=LAB\\alice\n");
    EXPECT_EQ(Ctl({"user", "alice@lab.example"}).out, "LAB\\alice\n");
    EXPECT_EQ(
        JsonOf(Ctl({"user", "alice@lab.example", "--json"})),
        Json({{"user", "alice@lab.example"}, {"canonicalName", "LAB\\alice"}, {"live", true}}));
    EXPECT_EQ(Calls("convertCanonicalUsername"), "convertCanonicalUsername|alice@lab.example\n"
                                                 "convertCanonicalUsername|alice@lab.example\n");
}

TEST_F(DirectoryTest, PrintsTheHostsPrincipal) {
    EXPECT_EQ(Ctl({"principal", "corp.example"}).out, "host/host1.corp.example@CORP.EXAMPLE\n");
    EXPECT_EQ(JsonOf(Ctl({"principal", "corp.example", "--json"})),
              Json::parse(R"({"domain": "corp.example",
                              "principal": "host/host1.corp.example@CORP.EXAMPLE", "live": true})"));
    EXPECT_EQ(Calls("getHostPrincipalForDomain"), "getHostPrincipalForDomain|corp.example\n"
                                                  "getHostPrincipalForDomain|corp.example\n");
}

TEST_F(DirectoryTest, NobodyMayAskToo) {
    const Result result = Ctl({"dc", "lab.example"}, {.asNobody = true});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "dc1.corp.example\n");
}

struct Question {
    Words words;
    const char* operation;
};

class QuestionTest : public CtlTest, public testing::WithParamInterface<Question> {
protected:
    static Result Ask() {
        Words words = GetParam().words;
        words.insert(words.end(), {"--json", "--timeout", "1"});
        return Ctl(words);
    }
};

TEST_P(QuestionTest, NoAnswerInTimeIsAFailure) {
    Script(std::string(GetParam().operation) + ".hang=1\n");
    const Result result = Ask();
    ExpectFailure(result, 1, "tesauthctl: no answer within 1 s\nhint: ");
    EXPECT_EQ(Json::parse(result.out)["error"],
              Json({{"text", "no answer within 1 s"},
                    {"code", 0},
                    {"hint", "is a domain controller running? a longer --timeout waits longer"}}));
}

TEST_P(QuestionTest, WithoutAProviderFails) {
    scripted::WriteFile(scripted::providerFile, "provider = \"nosuch\"\n");
    ExpectFailure(Ask(), 1,
                  "The specified Active Directory provider 'nosuch' is invalid\n"
                  "hint: check the key \"provider\"");
}

TEST_P(QuestionTest, SettingsThatMayNotBeReadAreNotPermitted) {
    ASSERT_EQ(chmod(scripted::providerFile, 0600), 0);
    Words words = GetParam().words;
    const Result result = Ctl(words, {.asNobody = true});
    ExpectFailure(result, 3, "hint: try again as root");
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, QuestionTest,
    testing::Values(Question{{"trusts"}, "getTrustedDomains"},
                    Question{{"trust", "lab.example"}, "getDomainTrustRelationship"},
                    Question{{"dc", "lab.example"}, "getAnyDomainController"},
                    Question{{"user", "alice"}, "convertCanonicalUsername"},
                    Question{{"principal", "corp.example"}, "getHostPrincipalForDomain"},
                    Question{{"dcs", "get"}, "getPreferredDomainControllers"},
                    Question{{"smartcard", "get"}, "getSmartCardEnabledServices"}),
    [](const auto& instance) { return instance.param.words[0]; });

TEST_F(DirectoryTest, FailuresAreToldWithNumberAndHint) {
    Script("getAnyDomainController.status=1355\ngetTrustedDomains.status=2\n");
    const Result controller = Ctl({"dc", "lab.example", "--json"});
    const std::string text = "Exception 0x0000054b: The specified domain either does not exist or "
                             "could not be contacted.";
    ExpectFailure(controller, 1,
                  "tesauthctl: " + text +
                      "\nhint: check the name, and that the "
                      "name servers in /etc/resolv.conf");
    const Json error = Json::parse(controller.out)["error"];
    EXPECT_EQ(error["text"], text);
    EXPECT_EQ(error["code"], 1355);
    EXPECT_NE(controller.err.find("hint: " + error["hint"].get<std::string>() + "\n"),
              std::string::npos);
    ExpectFailure(Ctl({"trusts"}), 1, "hint: is the host joined to a domain?");
}

TEST_F(DirectoryTest, ADirectoryThatDeniesAccessIsAFailureLikeAnother) {
    Script("getTrustedDomains.status=5\n");
    ExpectFailure(Ctl({"trusts"}), 1, "Access is denied.");
    ExpectFailure(Ctl({"trusts"}, {.asNobody = true}), 1, "Access is denied.");
}

/// What of a host denies an ordinary user the answer.
class ClosedHostTest : public DirectoryTest, public testing::WithParamInterface<const char*> {
protected:
    ~ClosedHostTest() override { scripted::Shell("rm -rf /etc/krb5.keytab /var/lib/tessary"); }
};

TEST_P(ClosedHostTest, IsRootsBusiness) {
    scripted::Shell(GetParam());
    Script("getTrustedDomains.status=5\nconvertCanonicalUsername.status=5\n"
           "getHostPrincipalForDomain.status=5\ngetAnyDomainController.status=5\n"
           "getPreferredDomainControllers.status=5\n");
    for (const Words& words : {Words{"trusts"}, Words{"user", "alice"}, Words{"dcs", "get"},
                               Words{"principal", "corp.example"}, Words{"dc", "corp.example"}}) {
        ExpectFailure(Ctl(words, {.asNobody = true}), 3, "hint: try again as root\n");
        ExpectFailure(Ctl(words), 1, "hint: the host's own account lacks the right");
    }
}

INSTANTIATE_TEST_SUITE_P(Files, ClosedHostTest,
                         testing::Values("mkdir -m 0700 /var/lib/tessary",
                                         "install -m 0600 /dev/null /etc/krb5.keytab"));

TEST_F(DirectoryTest, ALineEndInANameStartsNoLine) {
    Script("getTrustedDomains.items=lab\v.example:L\vAB\n"
           "getAnyDomainController.text=dc1\vdc2\n"
           "convertCanonicalUsername.text=LAB\\al\vice\n");
    EXPECT_EQ(Ctl({"trusts"}).out, "lab .example  L AB\n");
    EXPECT_EQ(Ctl({"dc", "lab.example"}).out, "dc1 dc2\n");
    EXPECT_EQ(Ctl({"user", "alice"}).out, "LAB\\al ice\n");
}

} // namespace
} // namespace ctl_test
