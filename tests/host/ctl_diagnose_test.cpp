#include <algorithm>
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <thread>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using scripted::WriteFile;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// What the command itself finds on a host that is in order.
const std::string hostInOrder =
    "ok       provider: scripted, interface version 3, maintenance version 1, "
    "/usr/libexec/tesauth/libscripted.so\n"
    "ok       authentication.conf: the active store is \"None\"\n"
    "ok       provider.conf: the directory provider is \"scripted\"\n"
    "ok       apxprovider.conf: the authentication-proxy client is \"apxhttps\", which is not "
    "installed\n"
    "ok       keytab's permissions: there is no /etc/krb5.keytab\n"
    "ok       state folder: /var/lib/tessary is not there yet\n"
    "ok       configuration store: /var/lib/tessary/configstore.db is not there yet\n";

class DiagnoseTest : public CtlTest {
protected:
    DiagnoseTest() { scripted::Shell("rm -f /etc/krb5.keytab"); }

    static Json Finding(const Json& findings, const std::string& check) {
        for (const Json& finding : findings["findings"]) {
            if (finding["check"] == check) {
                return finding;
            }
        }
        return {};
    }

    static auto Failures(const Json& findings) {
        return std::count_if(findings["findings"].begin(), findings["findings"].end(),
                             [](const Json& finding) { return finding["severity"] == "failure"; });
    }
};

TEST_F(DiagnoseTest, TellsTheProvidersFindingsAndThenItsOwn) {
    Script("diagnose.finding=0|name servers|192.0.2.1 answers in 3 ms|\n"
           "diagnose.finding=1|controller dc2.corp.example|it does not answer|start it\n");
    const Result result = Ctl({"diagnose"});
    EXPECT_EQ(result.status, 0) << "warnings only";
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "ok       name servers: 192.0.2.1 answers in 3 ms\n"
                          "warning  controller dc2.corp.example: it does not answer\n"
                          "         start it\n" +
                              hostInOrder);
    EXPECT_EQ(Calls("diagnose"), "diagnose|(null)\n");
}

TEST_F(DiagnoseTest, ADomainIsHandedOver) {
    EXPECT_EQ(Ctl({"diagnose", "lab.example"}).status, 0);
    EXPECT_EQ(Calls("diagnose"), "diagnose|lab.example\n");
}

TEST_F(DiagnoseTest, AnyFailureMakesTheExitCode) {
    Script("diagnose.finding=2|clock|it is 400 s behind|timedatectl set-ntp true\n"
           "diagnose.finding=0|host name|host1.corp.example|\n");
    const Result result = Ctl({"diagnose"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, StartsWith("failure  clock: it is 400 s behind\n"
                                       "         timedatectl set-ntp true\n"
                                       "ok       host name: host1.corp.example\n"
                                       "ok       provider: "));
}

TEST_F(DiagnoseTest, InJson) {
    Script("diagnose.finding=2|clock|it is 400 s behind|timedatectl set-ntp true\n"
           "diagnose.finding=0|host name|host1.corp.example|\n");
    const Result result = Ctl({"diagnose", "--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    const Json json = Json::parse(result.out);
    EXPECT_EQ(json["worst"], "failure");
    ASSERT_EQ(json["findings"].size(), 9U);
    EXPECT_EQ(json["findings"][0], Json::parse(R"({"check": "clock", "severity": "failure",
        "text": "it is 400 s behind", "remedy": "timedatectl set-ntp true"})"));
    EXPECT_EQ(json["findings"][1], Json::parse(R"({"check": "host name", "severity": "ok",
        "text": "host1.corp.example", "remedy": null})"));
    EXPECT_EQ(json["findings"][8]["check"], "configuration store");
    EXPECT_EQ(json.size(), 2U);

    Script("diagnose.finding=1|clock|it is 90 s behind|timedatectl set-ntp true\n");
    EXPECT_EQ(JsonOf(Ctl({"diagnose", "--json"}))["worst"], "warning");
    Script("");
    EXPECT_EQ(JsonOf(Ctl({"diagnose", "--json"}))["worst"], "ok");
}

TEST_F(DiagnoseTest, ASeverityThatWeDoNotKnowIsAFailure) {
    Script("diagnose.finding=3|stars|they stand badly|wait\n");
    const Result result = Ctl({"diagnose"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, StartsWith("failure  stars: they stand badly\n         wait\n"));
}

TEST_F(DiagnoseTest, WhatATerminalWouldObeyIsNotPassedOn) {
    Script("diagnose.finding=1|a\033[2J|b\x7f|c\033\n");
    EXPECT_THAT(Ctl({"diagnose"}).out, StartsWith("warning  a?[2J: b?\n         c?\n"));
}

TEST_F(DiagnoseTest, FindingsAreToldWhileTheProviderGoesOn) {
    static constexpr const char* file = "/run/ctl-diagnose-output";
    WriteFile(file, "");
    Script("diagnose.finding=0|name servers|192.0.2.1 answers|\ndiagnose.hang=1\n");
    const auto waitAndEnd = [](pid_t child) {
        while (scripted::ReadFile(file).empty() && kill(child, 0) == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        kill(child, SIGKILL);
    };
    const Result result =
        Ctl({"diagnose", "--timeout", "86400"}, {.outputFile = file, .whileRunning = waitAndEnd});
    EXPECT_EQ(result.status, 128 + SIGKILL) << "ended by itself";
    EXPECT_EQ(scripted::ReadFile(file), "ok       name servers: 192.0.2.1 answers\n");
    std::remove(file);
}

TEST_F(DiagnoseTest, AProviderThatHangsKeepsNothingElse) {
    Script("diagnose.finding=0|name servers|192.0.2.1 answers|\ndiagnose.hang=1\n");
    const Result result = Ctl({"diagnose", "--timeout", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "ok       name servers: 192.0.2.1 answers\n"
                          "failure  directory: the provider did not finish within 1 s: its further "
                          "checks are missing here\n"
                          "         a longer --timeout waits longer\n" +
                              hostInOrder);
}

TEST_F(DiagnoseTest, AProviderThatBreaksOffIsAFailure) {
    Script("diagnose.status=8\ndescribeFailure.cause.8=no memory for the controllers\n");
    const Result result = Ctl({"diagnose"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, StartsWith("failure  directory: the provider broke off with status 8: "
                                       "no memory for the controllers\n         mend what"));
    EXPECT_THAT(result.out, EndsWith(hostInOrder));
}

TEST_F(DiagnoseTest, AProviderWithoutDiagnosisIsAWarning) {
    const std::string warning =
        "warning  directory: it was not looked at: the provider 'scripted' offers no diagnosis\n";
    Script("diagnose.missing=1\n");
    const Result entry = Ctl({"diagnose"});
    EXPECT_EQ(entry.status, 0);
    EXPECT_THAT(entry.out, StartsWith(warning));
    EXPECT_THAT(entry.out, EndsWith(hostInOrder));

    Script("maintenance.version=2\n");
    const Result version = Ctl({"diagnose"});
    EXPECT_THAT(version.out, StartsWith(warning));
    EXPECT_THAT(version.out, HasSubstr("maintenance version 2, which this command cannot use"));

    Script("");
    RemoveMaintenance();
    const Result table = Ctl({"diagnose"});
    EXPECT_EQ(table.status, 0);
    EXPECT_THAT(table.out, StartsWith(warning));
    EXPECT_THAT(table.out, HasSubstr("interface version 3, without maintenance, "));
    EXPECT_EQ(Calls("diagnose"), "");
}

/// Ways to have no provider, and how that is told.
struct NoProvider {
    const char* name;
    const char* settings;
    const char* check; ///< what tells it
    const char* why;
    const char* remedy;
};

class NoProviderTest : public DiagnoseTest, public testing::WithParamInterface<NoProvider> {};

TEST_P(NoProviderTest, IsAFailureAndTheRestIsLookedAt) {
    WriteFile(scripted::providerFile, GetParam().settings);
    const Result result = Ctl({"diagnose", "--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    const Json json = Json::parse(result.out);
    const Json directory = Finding(json, "directory");
    EXPECT_EQ(directory["severity"], "warning");
    EXPECT_EQ(directory["text"], "not looked at: see provider");
    const std::string check = GetParam().check;
    const Json told = Finding(json, check);
    EXPECT_EQ(told["severity"], "failure");
    EXPECT_THAT(told["text"].get<std::string>(), HasSubstr(GetParam().why));
    EXPECT_THAT(told["remedy"].get<std::string>(), StartsWith(GetParam().remedy));
    if (check != "provider") {
        EXPECT_EQ(Finding(json, "provider")["severity"], "warning");
        EXPECT_EQ(Finding(json, "provider")["text"], "not looked at: see " + check);
    }
    EXPECT_EQ(Failures(json), 1) << "one cause told twice: " << json;
    EXPECT_EQ(Finding(json, "authentication.conf")["severity"], "ok");
    EXPECT_EQ(Finding(json, "configuration store")["severity"], "ok");
}

INSTANTIATE_TEST_SUITE_P(
    Ways, NoProviderTest,
    testing::Values(NoProvider{"NotInstalled", "provider = \"nosuch\"\n", "provider",
                               "Unable to open provider: /usr/libexec/tesauth/libnosuch.so",
                               "install libnosuch.so in /usr/libexec/tesauth/"},
                    NoProvider{"Unset", "provider = \"\"\n", "provider",
                               "the settings name no provider",
                               "echo 'provider = \"adldap\"' > /etc/tessary/tesauth/provider.conf"},
                    NoProvider{"NoKey", "supplier = \"x\"\n", "provider.conf",
                               "'provider' was not found", "echo 'provider"},
                    NoProvider{"Nonsense", "nonsense\n", "provider.conf", "no delimiter found",
                               "echo 'provider"}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(DiagnoseTest, AProviderOfANewerInterfaceIsAFailure) {
    Script("metadata.version=4\n");
    const Result result = Ctl({"diagnose", "--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(Finding(Json::parse(result.out), "provider")["text"].get<std::string>(),
                HasSubstr("The API version (4) is not supported"));
    EXPECT_EQ(Calls("diagnose"), "");
}

TEST_F(DiagnoseTest, AnAnswerThatCannotBeWrittenIsAFailure) {
    const Result text = Ctl({"diagnose"}, {.outputFile = "/dev/full"});
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.err, "tesauthctl: cannot write the answer to standard output\n");
    ExpectFailure(Ctl({"diagnose", "--json"}, {.outputFile = "/dev/full"}), 1, "standard output");
}

TEST_F(DiagnoseTest, NobodyMayLookToo) {
    Script("diagnose.finding=0|name servers|192.0.2.1 answers|\n");
    const Result result = Ctl({"diagnose"}, {.asNobody = true});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("ok       name servers: 192.0.2.1 answers\n"
                                       "ok       provider: scripted, "));
    EXPECT_THAT(result.out, EndsWith("warning  configuration store: only root may read it\n"
                                     "         run as root: tesauthctl diagnose\n"));
}

TEST_F(DiagnoseTest, WhatRootIsToRunIsSaidOnce) {
    Script("diagnose.finding=1|keytab|this user may not read it|run as root: tesauthctl diagnose "
           "lab.example\n");
    scripted::Shell("chmod 0600 " + std::string(scripted::proxyProviderFile));
    const Result text = Ctl({"diagnose", "lab.example"}, {.asNobody = true});
    EXPECT_EQ(text.status, 0) << text.err;
    const std::string remedy = "         run as root: tesauthctl diagnose lab.example\n";
    EXPECT_THAT(text.out, StartsWith("warning  keytab: this user may not read it\n" + remedy));
    EXPECT_EQ(text.out.find("run as root"), text.out.rfind("run as root")) << text.out;

    const Json json = JsonOf(Ctl({"diagnose", "lab.example", "--json"}, {.asNobody = true}));
    for (const char* check : {"keytab", "apxprovider.conf", "configuration store"}) {
        EXPECT_EQ(Finding(json, check)["remedy"], "run as root: tesauthctl diagnose lab.example");
    }
}

TEST_F(DiagnoseTest, WhatRootIsToRunIsOneCommandWhateverTheDomain) {
    const Json json = JsonOf(Ctl({"diagnose", "it's; x", "--json"}, {.asNobody = true}));
    EXPECT_EQ(Finding(json, "configuration store")["remedy"],
              "run as root: tesauthctl diagnose 'it'\\''s; x'");
}

TEST_F(DiagnoseTest, SettingsThatThisUserMayNotReadAreNoFailure) {
    scripted::Shell("chmod 0600 " + std::string(scripted::providerFile));
    const Result result = Ctl({"diagnose"}, {.asNobody = true});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_THAT(result.out, HasSubstr("warning  provider: not looked at: see provider.conf\n"));
}

TEST_F(DiagnoseTest, AMissingFolderIsMadeByTheRemedy) {
    scripted::Shell("rm -r /etc/tessary/tesauth");
    const Json json = Json::parse(Ctl({"diagnose", "--json"}).out);
    for (const char* check : {"authentication.conf", "provider.conf", "apxprovider.conf"}) {
        const std::string remedy = Finding(json, check)["remedy"];
        EXPECT_THAT(remedy, StartsWith("mkdir -p /etc/tessary/tesauth && echo '")) << check;
        scripted::Shell(remedy);
    }
    scripted::Shell("cd /usr/libexec/tesauth && cp libscripted.so libadldap.so");
    EXPECT_EQ(Ctl({"diagnose"}).status, 0);
}

} // namespace
} // namespace ctl_test
