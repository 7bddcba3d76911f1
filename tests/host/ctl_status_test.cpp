#include "ctl_host.h"

namespace ctl_test {
namespace {

using scripted::WriteFile;

class StatusTest : public CtlTest {
protected:
    static Json Status() { return JsonOf(Ctl({"status", "--json", "--timeout", "1"})); }
};

TEST_F(StatusTest, TellsAllOfAJoinedHost) {
    Join("corp.example/Servers/Hosts");
    WriteFile(scripted::authenticationFile, "remote-authentication-store = \"Active Directory\"\n");
    EXPECT_EQ(JsonOf(Ctl({"status", "--json"})), Json::parse(R"({
        "store": "Active Directory", "joined": true, "domain": "corp.example", "netbios": "CORP",
        "organizationalUnit": "Servers/Hosts",
        "machineAccount": "CN=HOST1,CN=Computers,DC=corp,DC=example",
        "preferredDomainControllers": ["dc1.corp.example", "dc2.corp.example"],
        "domainController": "dc1.corp.example",
        "trustState": {"value": 1, "name": "good", "live": true},
        "live": {"netbios": true, "machineAccount": true, "preferredDomainControllers": true,
                 "domainController": true, "trustState": true},
        "errors": {}})"));
    EXPECT_EQ(Calls("getAnyDomainController"), "getAnyDomainController|(null)|corp.example\n");
}

TEST_F(StatusTest, TellsItInText) {
    Join("corp.example/Servers");
    const Result result = Ctl({"status"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "store                         None\n"
                          "domain                        corp.example\n"
                          "NetBIOS name                  CORP\n"
                          "organisational unit           Servers\n"
                          "machine account               CN=HOST1,CN=Computers,DC=corp,DC=example\n"
                          "preferred domain controllers  dc1.corp.example, dc2.corp.example\n"
                          "domain controller             dc1.corp.example\n"
                          "trust state                   good\n");
}

TEST_F(StatusTest, AHostInNoDomainIsNoFailure) {
    PlayUnjoined();
    const Result text = Ctl({"status"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "store   None\ndomain  not joined\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(Status(), Json::parse(R"({
        "store": "None", "joined": false, "domain": null, "netbios": null,
        "organizationalUnit": null, "machineAccount": null, "preferredDomainControllers": [],
        "domainController": null, "trustState": {"value": 7, "name": "not joined", "live": true},
        "live": {"netbios": true, "machineAccount": true, "preferredDomainControllers": true,
                 "domainController": false, "trustState": true},
        "errors": {}})"));
    EXPECT_EQ(Calls("getAnyDomainController"), "");
}

TEST_F(StatusTest, WithoutAProviderAHostInNoDomainIsNoFailure) {
    WriteFile(scripted::providerFile, "provider = \"\"\n");
    const Json status = Status();
    EXPECT_EQ(status["joined"], false);
    EXPECT_EQ(status["trustState"], Json::parse(R"({"value":7,"name":"not joined","live":false})"));
    EXPECT_EQ(status["errors"]["provider"]["text"],
              "The specified Active Directory provider '(unset)' is invalid");
}

TEST_F(StatusTest, WithoutAProviderAJoinedHostTellsWhatItKnowsAndFails) {
    Join("corp.example/Servers");
    WriteFile(scripted::providerFile, "provider = \"\"\n");
    const Result result = Ctl({"status", "--json"});
    ExpectFailure(result, 1, "provider '(unset)' is invalid\nhint: ");
    const Json status = Json::parse(result.out);
    EXPECT_EQ(status["domain"], "corp.example");
    EXPECT_EQ(status["organizationalUnit"], "Servers");
    EXPECT_EQ(status["trustState"]["live"], false);
}

TEST_F(StatusTest, AJoinThatIsNotStoredIsSeenByTheProvider) {
    Script("getActiveDomain.dns=other.example\n");
    const Json status = Status();
    EXPECT_EQ(status["domain"], "other.example");
    EXPECT_EQ(status["domainController"], "dc1.corp.example");
    EXPECT_EQ(Calls("getAnyDomainController"), "getAnyDomainController|(null)|other.example\n");
}

TEST_F(StatusTest, WhatIsLeftOnRecordOfALeftDomainIsNoMembership) {
    Join("corp.example/Servers");
    PlayUnjoined();
    EXPECT_EQ(
        Ctl({"status"}).out,
        "store   None\n"
        "domain  not joined (corp.example is still on record; `tesauthctl leave` clears it)\n");
    const Json status = Status();
    EXPECT_EQ(status["joined"], false);
    EXPECT_EQ(status["domain"], nullptr);
    EXPECT_EQ(Ctl({"leave"}).status, 0);
    EXPECT_EQ(Ctl({"status"}).out, "store   None\ndomain  not joined\n");
}

TEST_F(StatusTest, ALineEndInANameStartsNoLine) {
    Join("corp.example");
    Script("getMachineAccountDN.text=CN=HOST1\vtrust state  good\n");
    EXPECT_NE(Ctl({"status"}).out.find("  CN=HOST1 trust state  good\n"), std::string::npos);
    EXPECT_EQ(Status()["machineAccount"], "CN=HOST1\ntrust state  good");
}

struct Hanging {
    const char* operation;
    Words notLive;
    int trustState;
};

class HangingTest : public StatusTest, public testing::WithParamInterface<Hanging> {};

TEST_P(HangingTest, IsToldAsNotLive) {
    Join("corp.example/Servers");
    Script(std::string(GetParam().operation) + ".hang=1\n");
    const Json status = Status();
    EXPECT_EQ(status["domain"], "corp.example");
    EXPECT_EQ(status["organizationalUnit"], "Servers");
    Words notLive;
    for (const auto& [key, live] : status["live"].items()) {
        if (!live) {
            notLive.push_back(key);
        }
    }
    EXPECT_EQ(notLive, GetParam().notLive);
    EXPECT_EQ(status["trustState"]["value"], GetParam().trustState);
}

const Words configuration = {"machineAccount", "netbios", "preferredDomainControllers"};

INSTANTIATE_TEST_SUITE_P(
    Operations, HangingTest,
    testing::Values(Hanging{"getActiveDomain", configuration, 1},
                    Hanging{"getPreferredDomainControllers", configuration, 1},
                    Hanging{"getMachineAccountDN", configuration, 1},
                    Hanging{"getTrustedDomains", {}, 1}, // only a failure of it would count
                    Hanging{"getDomainTrustState", {"trustState"}, 2},
                    Hanging{"getAnyDomainController", {"domainController"}, 1}),
    [](const auto& instance) { return std::string(instance.param.operation); });

TEST_F(StatusTest, AProviderThatNeverAnswersLeavesWhatTheHostKnows) {
    Join("corp.example/Servers");
    Script("getActiveDomain.hang=1\ngetTrustedDomains.hang=1\ngetDomainTrustState.hang=1\n"
           "getAnyDomainController.hang=1\n");
    const Result result = Ctl({"status", "--timeout", "1"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "store                         None\n"
              "domain                        corp.example\n"
              "NetBIOS name                  (not live: no answer within 1 s)\n"
              "organisational unit           Servers\n"
              "machine account               (not live: no answer within 1 s)\n"
              "preferred domain controllers  (not live: no answer within 1 s)\n"
              "domain controller             (not live: no answer within 1 s)\n"
              "trust state                   timed out (not live: no answer within 1 s)\n");
}

TEST_F(StatusTest, AWorkerThatBreaksOffDoesNotHang) {
    Script("getAnyDomainController.exit_thread=1\n");
    const Json status = Status();
    EXPECT_EQ(status["domainController"], nullptr);
    EXPECT_EQ(status["errors"]["domainController"]["text"], "Thread Error: Worker broke off");
}

TEST_F(StatusTest, AControllerThatCannotBeFoundIsALiveAnswer) {
    Script("getAnyDomainController.status=1311\n");
    const Json status = Status();
    EXPECT_EQ(status["domainController"], nullptr);
    EXPECT_EQ(status["live"]["domainController"], true);
    EXPECT_EQ(status["errors"]["domainController"]["code"], 1311);
    EXPECT_NE(Ctl({"status"}).out.find("domain controller             none: Exception 0x0000051f"),
              std::string::npos);
}

TEST_F(StatusTest, NoTrustedDomainsToBeFoundMeansNotJoined) {
    Join("corp.example");
    Script("getTrustedDomains.status=2\n");
    EXPECT_EQ(Status()["trustState"],
              Json::parse(R"({"value":7,"name":"not joined","live":true})"));
}

TEST_F(StatusTest, OtherFailuresToGetTheTrustedDomainsDoNotCount) {
    Script("getTrustedDomains.status=1311\n");
    EXPECT_EQ(Status()["trustState"], Json::parse(R"({"value":1,"name":"good","live":true})"));
}

TEST_F(StatusTest, EveryTrustStateHasItsName) {
    const char* const names[] = {
        "unknown",          "good",       "timed out",  "key rejected",  "account missing",
        "account disabled", "clock skew", "not joined", "no controller", "state 9"};
    for (int state = 0; state < 10; ++state) {
        Script("getDomainTrustState.value=" + std::to_string(state) + "\n");
        const Json told = Status()["trustState"];
        EXPECT_EQ(told["value"], state);
        EXPECT_EQ(told["name"], names[state]);
    }
}

TEST_F(StatusTest, WhatATerminalWouldObeyIsNotPassedOn) {
    Script("getAnyDomainController.text=dc1\033[2J\x7f.corp.example\n");
    EXPECT_NE(Ctl({"status"}).out.find("dc1?[2J?.corp.example\n"), std::string::npos);
}

TEST_F(StatusTest, NamesThatAreNoUtf8DoNotSpoilTheAnswer) {
    Script("getAnyDomainController.text=dc1\xff.corp.example\n");
    EXPECT_EQ(Status()["domainController"], "dc1\xEF\xBF\xBD.corp.example");
}

TEST_F(StatusTest, NeedsToReadTheHostsFiles) {
    Join("corp.example");
    const Result result = Ctl({"status", "--json"}, {.asNobody = true});
    ExpectFailure(result, 3, "Permission denied");
    EXPECT_EQ(Json::parse(result.out)["error"]["code"], 0);
}

} // namespace
} // namespace ctl_test
