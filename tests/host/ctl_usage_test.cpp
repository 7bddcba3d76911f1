#include <gmock/gmock.h>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using UsageTest = CtlTest;

class WrongUsageTest : public CtlTest, public testing::WithParamInterface<Words> {};

TEST_P(WrongUsageTest, IsRefusedBeforeAnythingHappens) {
    const Result result = Ctl(GetParam());
    EXPECT_EQ(result.status, 2) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err, "");
    EXPECT_EQ(scripted::ReadFile("/run/ctl-test-provider.log"), "(missing)") << "it called";
}

INSTANTIATE_TEST_SUITE_P(
    Lines, WrongUsageTest,
    testing::Values(
        Words{}, Words{"flub"}, Words{"--flub"}, Words{"store"}, Words{"store", "flub"},
        Words{"store", "activate"}, Words{"store", "list", "None"}, Words{"join"},
        Words{"join", "corp.example"}, Words{"join", "-U", "bob"}, Words{"join", "", "-U", "bob"},
        Words{"join", "corp.example", "-U", ""},
        Words{"join", "/Servers", "-U", "bob", "--password-stdin"},
        Words{"join", "corp.example", "-U", "bob", "--password", "secret"},
        Words{"join", "corp.example", "-U", "bob", "secret"},
        Words{"join", "corp.example", "-U", "bob"}, // no terminal, no password
        Words{"join", "corp.example", "-U", "bob", "--json"},
        Words{"join", "corp.example", "-U", "bob", "--password-stdin", "--password-file", "/f"},
        Words{"join", "corp.example", "-U", "bob", "--password-file", ""},
        Words{"join", "corp.example", "-U", "bob", "--timeout", "3"},
        Words{"leave", "--password-stdin"}, Words{"leave", "--password-file", "/f"},
        Words{"leave", "-U", "bob"}, Words{"leave", "corp.example"}, Words{"status", "x"},
        Words{"status", "--timeout", "0"}, Words{"status", "--timeout", "-1"},
        Words{"status", "--timeout", "two"}, Words{"status", "--timeout", "1.5"},
        Words{"status", "--timeout", "99999999999"}, Words{"status", "--timeout"}, Words{"trust"},
        Words{"trust", ""}, Words{"dc"}, Words{"trusts", "lab.example"}, Words{"option"},
        Words{"option", "get"}, Words{"option", "set", "UserVars.X"}, Words{"user"},
        Words{"user", ""}, Words{"user", "alice", "bob"}, Words{"user", "alice", "--timeout", "0"},
        Words{"principal"}, Words{"principal", ""}, Words{"principal", "a.example", "b.example"},
        Words{"dcs"}, Words{"dcs", "flub"}, Words{"dcs", "get", "dc1"}, Words{"dcs", "set", ""},
        Words{"dcs", "set", "dc1", ""}, Words{"dcs", "set", "dc1", "--timeout", "3"},
        Words{"smartcard"}, Words{"smartcard", "get", "login"}, Words{"smartcard", "set", ""},
        Words{"smartcard", "set", "--flub"}, Words{"diagnose", ""},
        Words{"diagnose", "a.example", "b.example"}, Words{"diagnose", "--timeout", "0"},
        Words{"rotate-key", "now"}, Words{"rotate-key", "--older-than"},
        Words{"rotate-key", "--older-than", "-1"}, Words{"rotate-key", "--older-than", "1.5"},
        Words{"rotate-key", "--older-than", "36501"}));

TEST_F(UsageTest, WordsThatMayBeAPasswordAreNotRepeated) {
    for (const Words& words : {Words{"join", "corp.example", "-U", "bob", "--password", "secret"},
                               Words{"join", "corp.example", "-U", "bob", "--password=secret"},
                               Words{"join", "corp.example", "-U", "bob", "secret"}}) {
        const Result result = Ctl(words);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ((result.out + result.err).find("secret"), std::string::npos) << result.err;
    }
}

class HelpTest : public CtlTest, public testing::WithParamInterface<Words> {};

TEST_P(HelpTest, TellsUsageAndExitCodes) {
    std::string usage = "Usage: tesauthctl";
    for (const std::string& word : GetParam()) {
        usage += " " + word;
    }
    Words words = GetParam();
    words.push_back("--help");
    const Result result = Ctl(words);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find(usage + " [OPTIONS]"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("Exit codes: 0 done, 1 failed, 2 wrong usage, 3 not permitted"),
              std::string::npos)
        << result.out;
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, HelpTest,
    testing::Values(Words{}, Words{"store"}, Words{"store", "list"}, Words{"store", "show"},
                    Words{"store", "activate"}, Words{"join"}, Words{"leave"}, Words{"status"},
                    Words{"trusts"}, Words{"trust"}, Words{"dc"}, Words{"user"}, Words{"principal"},
                    Words{"dcs"}, Words{"dcs", "get"}, Words{"dcs", "set"}, Words{"smartcard"},
                    Words{"smartcard", "get"}, Words{"smartcard", "set"}, Words{"diagnose"},
                    Words{"rotate-key"}, Words{"proxy"}, Words{"proxy", "domain"},
                    Words{"proxy", "import-certificate"}, Words{"proxy", "show"}, Words{"option"},
                    Words{"option", "get"}, Words{"option", "set"}, Words{"pam"},
                    Words{"pam", "show"}, Words{"pam", "find"}, Words{"pam", "add"},
                    Words{"pam", "remove"}, Words{"pam", "restore"}, Words{"nss"},
                    Words{"nss", "show"}, Words{"nss", "add"}, Words{"nss", "remove"},
                    Words{"nss", "restore"}));

TEST_F(UsageTest, VersionIsANumber) {
    const Result result = Ctl({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, testing::MatchesRegex("tesauthctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(UsageTest, AnAnswerThatCannotBeWrittenIsAFailure) {
    const Result result = Ctl({"store", "show"}, {.outputFile = "/dev/full"});
    ExpectFailure(result, 1, "standard output");
}

} // namespace
} // namespace ctl_test
