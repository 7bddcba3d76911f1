#include <gmock/gmock.h>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using testing::HasSubstr;
using testing::Not;

const std::string noServer =
    "Exception 0x0000051f: There are currently no logon servers available to service the logon "
    "request.";
const std::string noServerHint =
    "no domain controller answered: check the network and the name servers in /etc/resolv.conf";

class CauseTest : public CtlTest {
protected:
    static Result TryJoin() {
        return Ctl({"join", "corp.example", "-U", "bob", "--password-stdin",
                    "--skip-hostname-check", "--json"},
                   {.input = "secret\n"});
    }
    static Json Error(const Result& result) { return Json::parse(result.out)["error"]; }
};

TEST_F(CauseTest, StandsBetweenTextAndHint) {
    Script("joinDomain.status=1311\n"
           "describeFailure.cause.1311=dc1.corp.example (192.0.2.7) did not answer in 5 s\n");
    const Result result = TryJoin();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tesauthctl: " + noServer +
                              "\ncause: dc1.corp.example (192.0.2.7) did not answer in 5 s\n"
                              "hint: " +
                              noServerHint + "\n");
    EXPECT_EQ(Error(result), Json({{"text", noServer},
                                   {"code", 1311},
                                   {"cause", "dc1.corp.example (192.0.2.7) did not answer in 5 s"},
                                   {"hint", noServerHint}}));
    EXPECT_EQ(Calls("describeFailure"), "describeFailure|1311\n");
}

TEST_F(CauseTest, StandsWithoutAHintToo) {
    Script("joinDomain.status=4242\ndescribeFailure.cause.4242=the moon is full\n");
    const Result result = TryJoin();
    EXPECT_THAT(result.err, testing::EndsWith("\ncause: the moon is full\n"));
    EXPECT_FALSE(Error(result).contains("hint")) << result.out;
}

/// Everything that a provider fails is told with its cause, however the verb asks it.
struct Asked {
    Words words;
    const char* operation;
};

class EveryVerbTest : public CauseTest, public testing::WithParamInterface<Asked> {};

TEST_P(EveryVerbTest, TellsTheCause) {
    Script(std::string(GetParam().operation) +
           ".status=1331\ndescribeFailure.cause.1331=HOST1$ was disabled in the directory\n");
    Words words = GetParam().words;
    words.push_back("--json");
    const Result result = Ctl(words, {.input = "secret\n"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("\ncause: HOST1$ was disabled in the directory\nhint: "));
    EXPECT_EQ(Error(result)["cause"], "HOST1$ was disabled in the directory");
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, EveryVerbTest,
    testing::Values(Asked{{"leave"}, "partDomain"},
                    Asked{{"leave", "-U", "bob", "--password-stdin"}, "partDomain"},
                    Asked{{"trusts"}, "getTrustedDomains"},
                    Asked{{"dc", "lab.example"}, "getAnyDomainController"},
                    Asked{{"user", "alice"}, "convertCanonicalUsername"},
                    Asked{{"principal", "corp.example"}, "getHostPrincipalForDomain"},
                    Asked{{"dcs", "get"}, "getPreferredDomainControllers"},
                    Asked{{"dcs", "set", "dc1"}, "setPreferredDomainControllers"},
                    Asked{{"smartcard", "get"}, "getSmartCardEnabledServices"},
                    Asked{{"smartcard", "set", "login"}, "setSmartCardEnabledServices"},
                    Asked{{"rotate-key"}, "rotateMachineKey"}));

TEST_F(CauseTest, ALongOneIsToldWhole) {
    const std::string sentence = std::string(256, 'a') + ' ' + std::string(200, 'b');
    Script("joinDomain.status=1311\ndescribeFailure.cause.1311=" + sentence + "\n");
    EXPECT_EQ(Error(TryJoin())["cause"], sentence);
}

TEST_F(CauseTest, OneThatJustFitsIsToldWholeToo) {
    for (const std::size_t length : {254, 255, 256}) {
        const std::string sentence(length, 'a');
        Script("joinDomain.status=1311\ndescribeFailure.cause.1311=" + sentence + "\n");
        EXPECT_EQ(Error(TryJoin())["cause"], sentence);
    }
}

TEST_F(CauseTest, WhatATerminalWouldObeyIsNotPassedOn) {
    Script("joinDomain.status=1311\n"
           "describeFailure.cause.1311=a\033[2J\tb\xc2\x9b"
           "2J\xc2\x85\xc3\x84\x7f\n");
    const Result result = TryJoin();
    EXPECT_THAT(result.err, HasSubstr("\ncause: a?[2J?b?2J?\xc3\x84?\n"));
    EXPECT_THAT(result.out, HasSubstr("a\\u001b[2J\\tb\\u009b2J\\u0085\xc3\x84\\u007f\""));
    EXPECT_EQ(Error(result)["cause"], "a\033[2J\tb\xc2\x9b"
                                      "2J\xc2\x85\xc3\x84\x7f");
}

TEST_F(CauseTest, StatusTellsItBesideEachFailure) {
    Join("corp.example");
    Script("getAnyDomainController.status=1311\ndescribeFailure.cause.1311=nobody is there\n");
    EXPECT_THAT(Ctl({"status"}).out, HasSubstr("none: " + noServer + " (nobody is there)\n"));
    EXPECT_EQ(JsonOf(Ctl({"status", "--json"}))["errors"]["domainController"],
              Json({{"text", noServer},
                    {"code", 1311},
                    {"cause", "nobody is there"},
                    {"hint", noServerHint}}));
}

class NoCauseTest : public CauseTest {
protected:
    static void ExpectNoCause(const Result& result) {
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, Not(HasSubstr("cause")));
        EXPECT_FALSE(Error(result).contains("cause")) << result.out;
    }
};

TEST_F(NoCauseTest, ForAnotherStatus) {
    Script("joinDomain.status=1311\ndescribeFailure.cause.1355=no such domain\n");
    ExpectNoCause(TryJoin());
    EXPECT_EQ(Calls("describeFailure"), "describeFailure|1311\n");
}

TEST_F(NoCauseTest, WithoutTheTable) {
    RemoveMaintenance();
    Script("joinDomain.status=1311\ndescribeFailure.cause.1311=nobody is there\n");
    ExpectNoCause(TryJoin());
}

TEST_F(NoCauseTest, WithoutTheEntry) {
    Script("joinDomain.status=1311\ndescribeFailure.missing=1\n"
           "describeFailure.cause.1311=nobody is there\n");
    ExpectNoCause(TryJoin());
}

TEST_F(NoCauseTest, FromATableOfAnotherVersion) {
    for (const char* version : {"0", "2"}) {
        Script(std::string("joinDomain.status=1311\nmaintenance.version=") + version +
               "\ndescribeFailure.cause.1311=nobody is there\n");
        ExpectNoCause(TryJoin());
        EXPECT_EQ(Calls("describeFailure"), "");
    }
}

TEST_F(NoCauseTest, ForAnOperationThatTheProviderLacks) {
    Script("getHostPrincipalForDomain.missing=1\ndescribeFailure.cause.120=not this one\n");
    ExpectNoCause(Ctl({"principal", "corp.example", "--json"}));
    EXPECT_EQ(Calls("describeFailure"), "");
}

TEST_F(NoCauseTest, ForFailuresWithoutANumber) {
    Script("describeFailure.cause.0=not this one\ngetTrustedDomains.hang=1\n");
    ExpectNoCause(Ctl({"trusts", "--timeout", "1", "--json"}));
    ExpectNoCause(Ctl({"store", "activate", "nosuch", "--json"}));
    EXPECT_EQ(Calls("describeFailure"), "");
}

/// What to do next depends on who acts in the directory.
struct Hinted {
    const char* operation;
    int status;
    Words words;
    const char* hint;
};

const Words joinWords = {"join", "corp.example",     "-U",
                         "bob",  "--password-stdin", "--skip-hostname-check"};
const Words setWords = {"dcs", "set", "dc1"};

class HintTest : public CtlTest, public testing::WithParamInterface<Hinted> {};

TEST_P(HintTest, FitsTheVerb) {
    const auto& [operation, status, words, hint] = GetParam();
    Script(std::string(operation) + ".status=" + std::to_string(status) + "\n");
    ExpectFailure(Ctl(words, {.input = "secret\n"}), 1, std::string("\nhint: ") + hint);
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, HintTest,
    testing::Values(
        Hinted{"joinDomain", 5, joinWords, "the account lacks the right"},
        Hinted{"rotateMachineKey", 5, {"rotate-key"}, "the host's own account lacks the right"},
        Hinted{"joinDomain", 8, joinWords, "the host is out of memory"},
        Hinted{"joinDomain", 86, joinWords, "the user name is known"},
        Hinted{
            "rotateMachineKey", 86, {"rotate-key"}, "the domain does not accept this host's key"},
        Hinted{"setPreferredDomainControllers", 87, setWords, "check what was given"},
        Hinted{"joinDomain", 120, joinWords, "the directory provider cannot do this"},
        Hinted{"joinDomain", 1222, joinWords, "bring up the host's network"},
        Hinted{"joinDomain", 1315, joinWords, "write the user name as NAME or NAME@DOMAIN"},
        Hinted{"convertCanonicalUsername", 1315, {"user", "x"}, "write the user as DOMAIN\\NAME"},
        Hinted{"joinDomain", 1317, joinWords, "check the user name, and that it is a user"},
        Hinted{"convertCanonicalUsername", 1317, {"user", "x"}, "check the name, and the domain"},
        Hinted{"joinDomain", 1324, joinWords, "the domain refuses a character"},
        Hinted{"joinDomain", 1325, joinWords, "the domain refuses the new machine password"},
        Hinted{
            "rotateMachineKey", 1326, {"rotate-key"}, "the domain does not accept this host's key"},
        Hinted{"joinDomain", 1330, joinWords, "change the user's password first"},
        Hinted{"rotateMachineKey", 1330, {"rotate-key"}, "the machine account's password"},
        Hinted{"joinDomain", 1331, joinWords, "the user is disabled, locked or expired"},
        Hinted{"rotateMachineKey", 1331, {"rotate-key"}, "the machine account is disabled"},
        Hinted{"joinDomain", 1355, joinWords, "check the name, and that the name servers"},
        Hinted{"convertCanonicalUsername",
               1355,
               {"user", "x@y.example"},
               "check the name, and that the name servers in /etc/resolv.conf know the domain; "
               "`tesauthctl trusts` lists the domains that the host's domain trusts\n"},
        Hinted{"joinDomain", 1359, joinWords, "`tesauthctl diagnose` looks"},
        Hinted{"rotateMachineKey", 1786, {"rotate-key"}, "join the host again"},
        Hinted{"joinDomain", 1791, joinWords, "another join, leave or change of the key"},
        Hinted{"joinDomain", 1810, joinWords, "the domain is not the one that it was"}),
    [](const auto& instance) {
        return instance.param.operation + std::to_string(instance.param.status);
    });

TEST_F(CauseTest, SettingsThatDoNotParseLeadToTheDiagnosis) {
    scripted::WriteFile(scripted::providerFile, "nonsense\n");
    ExpectFailure(Ctl({"trusts"}), 1, "\nhint: `tesauthctl diagnose` checks the settings files\n");
}

TEST_F(CauseTest, AHostThatCannotStoreAnOptionHasAHint) {
    scripted::WriteFile("/var/lib/tessary", "in the way\n");
    ExpectFailure(Ctl({"option", "set", "UserVars.ActiveDirectoryVerifyAPXCertificate", "1"}), 1,
                  "\nhint: check that /var/lib/tessary can be written");
}

TEST_F(CauseTest, ADamagedStoreLeadsToTheDiagnosis) {
    scripted::Shell("mkdir -m 0700 /var/lib/tessary && cd /var/lib/tessary && "
                    "echo nonsense > configstore.db && chmod 0600 configstore.db");
    ExpectFailure(Ctl({"status"}), 1,
                  "file is not a database\nhint: `tesauthctl diagnose` tells how to mend it\n");
}

} // namespace
} // namespace ctl_test
