#include "ctl_host.h"

namespace ctl_test {
namespace {

using RotateKeyTest = CtlTest;

TEST_F(RotateKeyTest, TellsThatThereIsANewKey) {
    const Result text = Ctl({"rotate-key"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "new key for this host in corp.example\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(JsonOf(Ctl({"rotate-key", "--json"})),
              Json::parse(R"({"rotated": true, "domain": "corp.example"})"));
    EXPECT_EQ(Calls("rotateMachineKey"), "rotateMachineKey|0\nrotateMachineKey|0\n");
}

TEST_F(RotateKeyTest, TellsItWithoutADomainToo) {
    Script("getActiveDomain.status=1359\n");
    EXPECT_EQ(Ctl({"rotate-key"}).out, "new key for this host\n");
    EXPECT_EQ(JsonOf(Ctl({"rotate-key", "--json"})),
              Json::parse(R"({"rotated": true, "domain": null})"));
}

TEST_F(RotateKeyTest, ALineEndInTheDomainsNameStartsNoLine) {
    Script("getActiveDomain.dns=a\vb\n");
    EXPECT_EQ(Ctl({"rotate-key"}).out, "new key for this host in a b\n");
}

TEST_F(RotateKeyTest, DaysAreHandedOverInSeconds) {
    EXPECT_EQ(Ctl({"rotate-key", "--older-than", "30"}).status, 0);
    EXPECT_EQ(Ctl({"rotate-key", "--older-than", "36500"}).status, 0);
    EXPECT_EQ(Calls("rotateMachineKey"), "rotateMachineKey|2592000\nrotateMachineKey|3153600000\n");
}

TEST_F(RotateKeyTest, AYoungKeyIsLeftAlone) {
    Script("rotateMachineKey.key_stays=1\n");
    EXPECT_EQ(Ctl({"rotate-key", "--older-than", "30"}).out,
              "the key is younger than 30 days: nothing to do\n");
    EXPECT_EQ(Ctl({"rotate-key", "--older-than", "1"}).out,
              "the key is younger than 1 day: nothing to do\n");
    EXPECT_EQ(Ctl({"rotate-key"}).out, "the provider left the key as it is\n");
    EXPECT_EQ(JsonOf(Ctl({"rotate-key", "--older-than", "30", "--json"})),
              Json::parse(R"({"rotated": false, "domain": "corp.example"})"));
}

TEST_F(RotateKeyTest, AHostInNoDomainHasNoKey) {
    Script("rotateMachineKey.status=2\n");
    const Result result = Ctl({"rotate-key", "--json"});
    ExpectFailure(result, 1, "tesauthctl: Exception 0x00000002: ");
    ExpectFailure(result, 1, "\nhint: is the host joined to a domain?");
    EXPECT_EQ(Json::parse(result.out)["error"]["code"], 2);
}

TEST_F(RotateKeyTest, AHostInNoDomainHasNoOldKeyEither) {
    const std::string unjoined = "rotateMachineKey.status=2\ngetActiveDomain.null=1\n";
    Script(unjoined);
    const Result text = Ctl({"rotate-key", "--older-than", "30"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, "this host is in no domain: nothing to do\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(JsonOf(Ctl({"rotate-key", "--older-than", "30", "--json"})),
              Json::parse(R"({"rotated": false, "domain": null})"));
    EXPECT_EQ(Ctl({"rotate-key"}).status, 1) << "who asks for a new key has to learn it";
}

TEST_F(RotateKeyTest, AnotherFailureOfAnOldKeyIsAFailure) {
    Script("rotateMachineKey.status=2\n"); // the host is joined
    ExpectFailure(Ctl({"rotate-key", "--older-than", "30"}), 1, "Exception 0x00000002: ");
    Script("rotateMachineKey.status=2\ngetActiveDomain.status=1359\n"); // who knows
    ExpectFailure(Ctl({"rotate-key", "--older-than", "30"}), 1, "Exception 0x00000002: ");
    Script("rotateMachineKey.status=1787\ngetActiveDomain.null=1\n");
    ExpectFailure(Ctl({"rotate-key", "--older-than", "30"}), 1, "Exception 0x000006fb: ");
}

TEST_F(RotateKeyTest, AProviderThatCannotIsAFailure) {
    const char* const refusal = "tesauthctl: Exception 0x00000078: This function is not supported "
                                "on this system.\nhint: the directory provider cannot do this";
    Script("rotateMachineKey.missing=1\n");
    ExpectFailure(Ctl({"rotate-key"}), 1, refusal);
    ExpectFailure(Ctl({"rotate-key", "--older-than", "30"}), 1, refusal);
    Script("maintenance.version=2\n");
    ExpectFailure(Ctl({"rotate-key"}), 1, refusal);
    Script("");
    RemoveMaintenance();
    ExpectFailure(Ctl({"rotate-key"}), 1, refusal);
    EXPECT_EQ(Calls("rotateMachineKey"), "");
}

TEST_F(RotateKeyTest, WithoutAProviderFails) {
    scripted::WriteFile(scripted::providerFile, "provider = \"nosuch\"\n");
    ExpectFailure(Ctl({"rotate-key"}), 1, "provider 'nosuch' is invalid\nhint: check the key");
}

} // namespace
} // namespace ctl_test
