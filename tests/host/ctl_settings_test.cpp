#include <sys/stat.h>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using scripted::ReadFile;
using scripted::WriteFile;

constexpr const char* option = "UserVars.ActiveDirectoryVerifyAPXCertificate";

using StoreTest = CtlTest;

TEST_F(StoreTest, ListMarksTheActiveOne) {
    EXPECT_EQ(Ctl({"store", "list"}).out, "  Active Directory\n* None\n");
    EXPECT_EQ(JsonOf(Ctl({"store", "list", "--json"})), Json::parse(R"({"stores": [
        {"name": "Active Directory", "active": false}, {"name": "None", "active": true}]})"));
}

TEST_F(StoreTest, ShowPrintsTheNameAsTheSettingsHaveIt) {
    WriteFile(scripted::authenticationFile, "remote-authentication-store = \"Something Else\"\n");
    EXPECT_EQ(Ctl({"store", "show"}).out, "Something Else\n");
    EXPECT_EQ(JsonOf(Ctl({"store", "show", "--json"})),
              Json::parse(R"({"store": "Something Else"})"));
}

TEST_F(StoreTest, ActivationIsRecorded) {
    const Result there = Ctl({"store", "activate", "Active Directory"});
    EXPECT_EQ(there.status, 0) << there.err;
    EXPECT_EQ(there.out, "activated Active Directory\n");
    EXPECT_EQ(Ctl({"store", "show"}).out, "Active Directory\n");
    EXPECT_EQ(JsonOf(Ctl({"store", "activate", "None", "--json"})),
              Json::parse(R"({"store": "None"})"));
    EXPECT_EQ(Ctl({"store", "show"}).out, "None\n");
}

TEST_F(StoreTest, ActivationDoesNotWaitForADirectoryThatHangs) {
    Script("getActiveDomain.hang=1\n");
    const Result result = Ctl({"store", "activate", "Active Directory"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(Ctl({"store", "show"}).out, "Active Directory\n");
}

TEST_F(StoreTest, AnUnknownNameIsToldWithTheKnownOnes) {
    const Result result = Ctl({"store", "activate", "active directory", "--json"});
    ExpectFailure(result, 1,
                  "tesauthctl: The specified store 'active directory' is unknown\n"
                  "hint: the stores are \"Active Directory\", \"None\"\n");
    EXPECT_EQ(Json::parse(result.out)["error"],
              Json({{"text", "The specified store 'active directory' is unknown"},
                    {"code", 0},
                    {"hint", "the stores are \"Active Directory\", \"None\""}}));
    EXPECT_EQ(Ctl({"store", "show"}).out, "None\n");
}

TEST_F(StoreTest, WhatWasRecordedInSpiteOfAFailureIsTold) {
    WriteFile(scripted::authenticationFile, "remote-authentication-store = \"Old\"\n");
    ExpectFailure(Ctl({"store", "activate", "None"}), 1,
                  "tesauthctl: The specified store 'Old' is unknown\n"
                  "hint: \"None\" is recorded as the active store");
    EXPECT_EQ(Ctl({"store", "show"}).out, "None\n");
}

TEST_F(StoreTest, BrokenAndMissingSettingsAreFailures) {
    WriteFile(scripted::authenticationFile, "nonsense\n");
    for (const char* verb : {"list", "show"}) {
        ExpectFailure(Ctl({"store", verb}), 1, "no delimiter found");
    }
    ASSERT_EQ(remove(scripted::authenticationFile), 0);
    ExpectFailure(Ctl({"store", "show"}), 1, scripted::authenticationFile);
    ExpectFailure(Ctl({"store", "show"}, {.asNobody = true}), 1, scripted::authenticationFile);
}

TEST_F(StoreTest, SettingsThatMayNotBeReadAreNotPermitted) {
    EXPECT_EQ(Ctl({"store", "show"}, {.asNobody = true}).status, 0);
    ASSERT_EQ(chmod(scripted::authenticationFile, 0600), 0);
    ExpectFailure(Ctl({"store", "show"}, {.asNobody = true}), 3, "hint: try again as root");
    ExpectFailure(Ctl({"store", "list"}, {.asNobody = true}), 3, "hint: try again as root");
}

using OptionTest = CtlTest;

TEST_F(OptionTest, AnOptionIsReadAndSet) {
    EXPECT_EQ(Ctl({"option", "get", option}).out, "1\n");
    EXPECT_EQ(Ctl({"option", "set", option, "0"}).out, std::string(option) + " = 0\n");
    EXPECT_EQ(Ctl({"option", "get", option}).out, "0\n");
    EXPECT_EQ(JsonOf(Ctl({"option", "set", option, "1", "--json"})),
              Json({{"name", option}, {"value", 1}}));
    EXPECT_EQ(JsonOf(Ctl({"option", "get", option, "--json"})),
              Json({{"name", option}, {"value", 1}}));
}

TEST_F(OptionTest, ANegativeNumberIsAValue) {
    EXPECT_EQ(Ctl({"option", "set", option, "-5"}).status, 0);
    EXPECT_EQ(Ctl({"option", "get", option}).out, "-5\n");
}

TEST_F(OptionTest, WhatIsNoIntegerIsWrongUsage) {
    for (const char* value : {"", "one", "1x", " 1", "99999999999999999999"}) {
        ExpectFailure(Ctl({"option", "set", option, value}), 2, "the option takes an integer");
    }
    EXPECT_EQ(Ctl({"option", "get", option}).out, "1\n");
}

TEST_F(OptionTest, AnUnknownNameIsToldWithTheKnownOnes) {
    for (const char* name : {"", ".", "UserVars", "UserVars.", "Nothing.At.All",
                             "UserVars.ActiveDirectoryVerifyAPXCertificate.More"}) {
        for (const Words& words :
             {Words{"option", "get", name}, Words{"option", "set", name, "1"}}) {
            ExpectFailure(Ctl(words), 1,
                          std::string("tesauthctl: the host has no option '") + name +
                              "'\nhint: the options are " + option);
        }
    }
}

TEST_F(OptionTest, TheStoreMustBeReadable) {
    ASSERT_EQ(Ctl({"option", "set", option, "0"}).status, 0);
    ExpectFailure(Ctl({"option", "get", option}, {.asNobody = true}), 3, "Permission denied");
}

TEST_F(OptionTest, AStoreThatCannotBeMadeIsNotPermittedToo) {
    ExpectFailure(Ctl({"option", "get", option}, {.asNobody = true}), 3, "Permission denied");
}

class RootOnlyTest : public CtlTest, public testing::WithParamInterface<Words> {};

TEST_P(RootOnlyTest, IsNotPermittedToOthers) {
    Words words = GetParam();
    words.push_back("--json");
    const Result result = Ctl(words, {.input = "secret\n", .asNobody = true});
    ExpectFailure(result, 3, "needs root\nhint: try again as root\n");
    EXPECT_EQ(Json::parse(result.out)["error"]["code"], 0);
    EXPECT_EQ(ReadFile("/run/ctl-test-provider.log"), "(missing)") << "it called";
    EXPECT_EQ(Ctl({"store", "show"}).out, "None\n");
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, RootOnlyTest,
    testing::Values(Words{"join", "corp.example", "-U", "bob", "--password-stdin"}, Words{"leave"},
                    Words{"leave", "-U", "bob", "--password-stdin"},
                    Words{"store", "activate", "Active Directory"},
                    Words{"option", "set", option, "0"}, Words{"dcs", "set"},
                    Words{"smartcard", "set", "login"}, Words{"rotate-key"}));

} // namespace
} // namespace ctl_test
