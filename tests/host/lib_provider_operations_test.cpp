#include <syslog.h>

#include <functional>
#include <sstream>

#include "faults.h"
#include "log_recorder.h"
#include "scripted_host.h"
#include "tesauth/exceptions.h"
#include "tesauth/provider.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Words = std::vector<std::string>;

const Credentials joiner = {"joiner", "secret"};
const APX::DirectoryDomainInfo domainInfo = {"", "CORP", "corp.example", "S-1-5-21"};
const APX::MachineAccountInfo accountInfo = {"host1", "corp.example", "", "HOST1$", "key"};

class ProviderOperationsTest : public ProviderTest {
protected:
    ProviderOperationsTest() {
        faults::hooks.sleep = [this](unsigned seconds) { return sleeps.push_back(seconds), 0u; };
    }

    const ActiveDirectoryProvider plugin{"scripted"};
    std::vector<unsigned> sleeps;
    const faults::Scope scope;
};

using Plugin = const ActiveDirectoryProvider&;

/// Every operation: its entry, whether it returns a status and needs version 2, and a call of it.
struct Operation {
    const char* entry;
    bool hasStatus;
    bool needsVersion2;
    std::function<void(Plugin)> call;
};

const Operation operations[] = {
    {"joinDomain", true, false, [](Plugin p) { p.JoinDomain("corp.example", "", joiner); }},
    {"partDomain", true, false, [](Plugin p) { p.PartDomain(); }},
    {"partDomain", true, false, [](Plugin p) { p.PartDomain(joiner); }},
    {"getActiveDomain", true, false, [](Plugin p) { p.GetActiveDomain(); }},
    {"setPreferredDomainControllers", true, false,
     [](Plugin p) { p.SetPreferredDomainControllers({"dc1"}); }},
    {"getPreferredDomainControllers", true, false,
     [](Plugin p) { p.GetPreferredDomainControllers(); }},
    {"getDomainTrustState", false, false, [](Plugin p) { p.GetDomainTrustState(); }},
    {"getTrustedDomains", true, false, [](Plugin p) { p.GetTrustedDomains(); }},
    {"getMachineAccountDN", true, false, [](Plugin p) { p.GetMachineAccountDN(); }},
    {"getAnyDomainController", true, false, [](Plugin p) { p.GetAnyDomainController("", "d"); }},
    {"convertCanonicalUsername", true, false, [](Plugin p) { p.ConvertCanonicalUsername("u"); }},
    {"joinDomainWithMachineAccount", true, true,
     [](Plugin p) { p.JoinDomainWithMachineAccount(domainInfo, accountInfo); }},
    {"getHostPrincipalForDomain", true, true, [](Plugin p) { p.GetHostPrincipalForDomain("d"); }},
    {"getDomainTrustRelationship", false, false,
     [](Plugin p) { p.GetDomainTrustRelationship("d"); }},
    {"setSmartCardEnabledServices", true, false,
     [](Plugin p) { p.SetSmartCardEnabledServices({"s"}); }},
    {"getSmartCardEnabledServices", true, false, [](Plugin p) { p.GetSmartCardEnabledServices(); }},
};

TEST_F(ProviderOperationsTest, EachCallsItsEntryOnce) {
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.entry);
        provider->reset();
        operation.call(plugin);
        for (const Operation& other : operations) {
            EXPECT_EQ(Calls(other.entry), std::string(other.entry) == operation.entry ? 1u : 0u)
                << other.entry;
        }
    }
}

TEST_F(ProviderOperationsTest, MissingEntryIsNotImplemented) {
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.entry);
        provider->reset();
        Set(std::string(operation.entry) + ".missing", "1");
        EXPECT_EQ(TextOf<CallNotImplementedException>([&] { operation.call(plugin); }),
                  "Exception 0x00000078: This function is not supported on this system.");
        EXPECT_EQ(Calls(operation.entry), 0u);
        for (const Operation& other : operations) {
            if (std::string(other.entry) != operation.entry) {
                EXPECT_NO_THROW(other.call(plugin)) << other.entry;
            }
        }
    }
}

TEST_F(ProviderOperationsTest, TableVersionDecidesWhichEntriesThereAre) {
    for (const char* version : {"-1", "0", "1", "2", "3", "4"}) {
        const bool hasVersion2 = std::string(version) >= "2" && *version != '-';
        for (const Operation& operation : operations) {
            SCOPED_TRACE(std::string(operation.entry) + " in version " + version);
            provider->reset();
            Set("table.version", version);
            if (operation.needsVersion2 && !hasVersion2) {
                EXPECT_THROW(operation.call(plugin), CallNotImplementedException);
                EXPECT_EQ(Calls(operation.entry), 0u);
            } else {
                EXPECT_NO_THROW(operation.call(plugin));
                EXPECT_EQ(Calls(operation.entry), 1u);
            }
        }
    }
}

TEST_F(ProviderOperationsTest, StatusIsThrownAndNothingReleased) {
    for (const Operation& operation : operations) {
        if (!operation.hasStatus) {
            continue;
        }
        SCOPED_TRACE(operation.entry);
        provider->reset();
        Set(std::string(operation.entry) + ".status", "1355");
        EXPECT_THROW(operation.call(plugin), NoSuchDomainException);
        Set(std::string(operation.entry) + ".status", "0x80000001");
        EXPECT_EQ(TextOf<UnknownException>([&] { operation.call(plugin); }),
                  "Exception 0x80000001: Unknown exception");
        EXPECT_EQ(Calls(operation.entry), 2u);
        EXPECT_EQ(Released(), std::vector<const void*>());
    }
    EXPECT_EQ(sleeps, std::vector<unsigned>());
}

TEST_F(ProviderOperationsTest, OnlyJoinsAreTriedAgain) {
    for (const Operation& operation : operations) {
        const bool isJoin = std::string(operation.entry).rfind("join", 0) == 0;
        if (!operation.hasStatus || isJoin) {
            continue;
        }
        SCOPED_TRACE(operation.entry);
        provider->reset();
        Set(std::string(operation.entry) + ".status", "1326");
        EXPECT_THROW(operation.call(plugin), LogonFailureException);
        EXPECT_EQ(Calls(operation.entry), 1u);
    }
    EXPECT_EQ(sleeps, std::vector<unsigned>());
}

struct RetryRow {
    const char* statuses;
    unsigned calls;
    unsigned long thrown; ///< 0 for none
};

const RetryRow retries[] = {
    {"0", 1, 0},
    {"1326,0", 2, 0},
    {"1326,1326,0", 3, 0},
    {"1326,1326,1326,0", 4, 0},
    {"1326,1326,1326,1326,0", 4, 1326},
    {"0xFFFF0000,0", 2, 0},
    {"-65536,1326,-65536,0", 4, 0},
    {"0xFFFF0000", 4, 0xFFFF0000},
    {"1326,1326,1326,0xFFFF0000", 4, 0xFFFF0000},
    {"0xFFFF0000,0xFFFF0000,0xFFFF0000,1326", 4, 1326},
    {"5", 1, 5},
    {"1326,5", 2, 5},
    {"1326,1326,1326,86", 4, 86},
    {"0xFFFF0001", 1, 0xFFFF0001},
    {"1325", 1, 1325},
    {"1327", 1, 1327},
};

void ExpectRetries(const Operation& operation, const RetryRow& row, Plugin plugin) {
    unsigned long thrown = 0;
    try {
        operation.call(plugin);
    } catch (const Exception& failure) {
        thrown = failure.GetCode();
    }
    EXPECT_EQ(thrown, row.thrown);
}

TEST_F(ProviderOperationsTest, JoinsAreTriedFourTimesThirtySecondsApart) {
    for (const Operation& operation : operations) {
        if (std::string(operation.entry).rfind("join", 0) != 0) {
            continue;
        }
        for (const RetryRow& row : retries) {
            SCOPED_TRACE(std::string(operation.entry) + " " + row.statuses);
            provider->reset();
            sleeps.clear();
            Set(std::string(operation.entry) + ".status", row.statuses);
            LogRecorder log;
            ExpectRetries(operation, row, plugin);
            EXPECT_EQ(Calls(operation.entry), row.calls);
            const bool lastPassed = row.thrown == 1326 || row.thrown == 0xFFFF0000;
            EXPECT_EQ(sleeps, std::vector<unsigned>(row.calls - (lastPassed ? 0 : 1), 30u));

            std::vector<std::string> lines, expected;
            for (const LogMessage& message : log.Take()) {
                EXPECT_EQ(message.priority, LOG_INFO);
                lines.push_back(message.text);
            }
            for (unsigned i = 1; operation.needsVersion2 && i <= row.calls; ++i) {
                expected.push_back("Adding host to domain: Attempt (" + std::to_string(i) + "/4)");
            }
            EXPECT_EQ(lines, expected);
        }
    }
}

TEST_F(ProviderOperationsTest, JoinDomainArguments) {
    plugin.JoinDomain("corp.example", "Servers/Hosts", joiner);
    EXPECT_EQ(Arguments("joinDomain"),
              (Words{"corp.example", "Servers/Hosts", "joiner", "secret"}));
    EXPECT_EQ(provider->lastRecord("joinDomain"), &joiner) << "the caller's own record";
    Set("joinDomain.status", "1326,1326,1326,0");
    plugin.JoinDomain("", "", joiner);
    for (unsigned call = 1; call < 4; ++call) {
        EXPECT_EQ(Arguments("joinDomain", call), (Words{"", "(null)", "joiner", "secret"}));
    }
}

TEST_F(ProviderOperationsTest, EntryIsReadBeforeEachAttempt) {
    Set("joinDomain.status", "1326");
    faults::hooks.sleep = [this](unsigned) { return Set("joinDomain.missing", "1"), 0u; };
    EXPECT_THROW(plugin.JoinDomain("corp.example", "", joiner), CallNotImplementedException);
    EXPECT_EQ(Calls("joinDomain"), 1u);
}

TEST_F(ProviderOperationsTest, MachineAccountJoinArguments) {
    const APX::DirectoryDomainInfo domain = {"d0", "d1", "d2", "d3"};
    const APX::MachineAccountInfo account = {"a0", "a1", "a2", "a3", "a4"};
    plugin.JoinDomainWithMachineAccount(domain, account);
    EXPECT_EQ(Arguments("joinDomainWithMachineAccount"),
              (Words{"d0", "d1", "d2", "d3", "a0", "a1", "a2", "a3", "a4"}));
    plugin.JoinDomainWithMachineAccount({}, {});
    EXPECT_EQ(Arguments("joinDomainWithMachineAccount", 1), Words(9, ""));
}

TEST_F(ProviderOperationsTest, UnimplementedMachineAccountJoinLogsNothing) {
    LogRecorder log;
    Set("joinDomainWithMachineAccount.missing", "1");
    EXPECT_THROW(plugin.JoinDomainWithMachineAccount(domainInfo, accountInfo),
                 CallNotImplementedException);
    EXPECT_EQ(log.Take().size(), 0u);
}

TEST_F(ProviderOperationsTest, PartDomainArguments) {
    plugin.PartDomain();
    EXPECT_EQ(provider->lastRecord("partDomain"), nullptr);
    plugin.PartDomain(joiner);
    EXPECT_EQ(provider->lastRecord("partDomain"), &joiner);
    EXPECT_EQ(Arguments("partDomain", 1), (Words{"joiner", "secret"}));
}

TEST_F(ProviderOperationsTest, ActiveDomain) {
    struct Row {
        const char *dns, *netbios;
        unsigned released;
    };
    const Row table[] = {
        {"corp.example", "CORP", 2},
        {"corp.example", "(null)", 1},
        {"(null)", "CORP", 1},
        {"(null)", "(null)", 0},
        {"", "", 2},
    };
    for (const Row& row : table) {
        provider->reset();
        Set("getActiveDomain.dns", row.dns);
        Set("getActiveDomain.netbios", row.netbios);
        const Domain domain = plugin.GetActiveDomain();
        EXPECT_EQ(domain.dnsName, row.dns[0] == '(' ? "" : row.dns);
        EXPECT_EQ(domain.netbiosName, row.netbios[0] == '(' ? "" : row.netbios);
        EXPECT_EQ(Released().size(), row.released);
        EXPECT_EQ(Released(), Returned()) << "each once, in order, null ones not at all";
    }
}

/// The operations that return one string.
struct StringOperation {
    const char* entry;
    std::function<std::string(Plugin)> call;
    Words arguments;
};

const StringOperation stringOperations[] = {
    {"getMachineAccountDN", [](Plugin p) { return p.GetMachineAccountDN(); }, {}},
    {"getAnyDomainController",
     [](Plugin p) { return p.GetAnyDomainController("f", "d"); },
     {"f", "d"}},
    {"getAnyDomainController",
     [](Plugin p) { return p.GetAnyDomainController("", ""); },
     {"(null)", ""}},
    {"convertCanonicalUsername",
     [](Plugin p) { return p.ConvertCanonicalUsername("alice"); },
     {"alice"}},
    {"convertCanonicalUsername", [](Plugin p) { return p.ConvertCanonicalUsername(""); }, {""}},
    {"getHostPrincipalForDomain", [](Plugin p) { return p.GetHostPrincipalForDomain("d"); }, {"d"}},
};

TEST_F(ProviderOperationsTest, SingleStrings) {
    for (const StringOperation& operation : stringOperations) {
        SCOPED_TRACE(operation.entry);
        provider->reset();
        Set(std::string(operation.entry) + ".text", "an answer");
        EXPECT_EQ(operation.call(plugin), "an answer");
        EXPECT_EQ(Arguments(operation.entry), operation.arguments);
        EXPECT_EQ(Released().size(), 1u);
        EXPECT_EQ(Released(), Returned());

        provider->reset();
        Set(std::string(operation.entry) + ".null", "1");
        EXPECT_EQ(operation.call(plugin), "");
        EXPECT_EQ(Released(), std::vector<const void*>{nullptr}) << "null is given back as well";
    }
}

template <typename Container>
void ExpectList(const Container& container, const Words& expected) {
    EXPECT_EQ(Words(container.begin(), container.end()), expected);
}

TEST_F(ProviderOperationsTest, Arrays) {
    for (const Words& words : {Words{}, Words{"b"}, Words{"b", "a", "b"}}) {
        std::string list;
        for (const std::string& word : words) {
            list += (list.empty() ? "" : ",") + word;
        }
        provider->reset();
        Set("getPreferredDomainControllers.items", list);
        Set("getSmartCardEnabledServices.items", list);
        ExpectList(plugin.GetPreferredDomainControllers(), words);
        EXPECT_EQ(Released().size(), 1u);
        ExpectList(plugin.GetSmartCardEnabledServices(), words);
        EXPECT_EQ(Released().size(), 2u);
        EXPECT_EQ(Released(), Returned());
    }
}

TEST_F(ProviderOperationsTest, TrustedDomains) {
    Set("getTrustedDomains.items", "z.example:Z,a.example:A,n.example:");
    const std::deque<Domain> domains = plugin.GetTrustedDomains();
    Words names;
    for (const Domain& domain : domains) {
        names.push_back(domain.dnsName + ":" + domain.netbiosName);
    }
    EXPECT_EQ(names, (Words{"z.example:Z", "a.example:A", "n.example:"}));
    EXPECT_EQ(Released().size(), 1u);
    EXPECT_EQ(Released(), Returned());
    Set("getTrustedDomains.items", "");
    EXPECT_EQ(plugin.GetTrustedDomains().size(), 0u);
    EXPECT_EQ(Released().size(), 2u);
}

TEST_F(ProviderOperationsTest, NullArraysAreGivenBackToo) {
    for (const char* entry :
         {"getPreferredDomainControllers", "getSmartCardEnabledServices", "getTrustedDomains"}) {
        Set(std::string(entry) + ".null", "1");
    }
    EXPECT_EQ(plugin.GetPreferredDomainControllers().size(), 0u);
    EXPECT_EQ(plugin.GetSmartCardEnabledServices().size(), 0u);
    EXPECT_EQ(plugin.GetTrustedDomains().size(), 0u);
    EXPECT_EQ(Released(), std::vector<const void*>(3, nullptr));
}

TEST_F(ProviderOperationsTest, ArrayArguments) {
    plugin.SetPreferredDomainControllers({"dc2", "dc1", ""});
    EXPECT_EQ(Arguments("setPreferredDomainControllers"), (Words{"dc2", "dc1", ""}));
    plugin.SetPreferredDomainControllers({});
    EXPECT_EQ(Arguments("setPreferredDomainControllers", 1), Words());
    EXPECT_NE(provider->lastRecord("setPreferredDomainControllers"), nullptr)
        << "an array that holds only the terminator";
    plugin.SetSmartCardEnabledServices({"ssh", "login"});
    EXPECT_EQ(Arguments("setSmartCardEnabledServices"), (Words{"ssh", "login"}));
    plugin.SetSmartCardEnabledServices({});
    EXPECT_EQ(Arguments("setSmartCardEnabledServices", 1), Words());
}

TEST_F(ProviderOperationsTest, EnumerationsPassThroughUnchanged) {
    for (const uint32_t value : {0u, 1u, 6u, 8u, 0x12345678u, 0xFFFFFFFFu}) {
        Set("getDomainTrustState.value", std::to_string(value));
        Set("getDomainTrustRelationship.value", std::to_string(value));
        EXPECT_EQ(plugin.GetDomainTrustState(), value);
        EXPECT_EQ(plugin.GetDomainTrustRelationship("lab.example"), value);
    }
    EXPECT_EQ(Arguments("getDomainTrustRelationship"), Words{"lab.example"});
}

TEST(DomainTest, Prints) {
    struct Row {
        const char *dns, *netbios, *text;
    };
    const Row table[] = {
        {"corp.example", "CORP", "DNS Name: corp.example, NetBIOS Name: CORP"},
        {"corp.example", "", "DNS Name: corp.example, NetBIOS Name: (unset)"},
        {"", "CORP", "DNS Name: (unset), NetBIOS Name: CORP"},
        {"", "", "DNS Name: (unset), NetBIOS Name: (unset)"},
    };
    for (const Row& row : table) {
        std::ostringstream stream;
        stream << Domain(row.dns, row.netbios) << "|";
        EXPECT_EQ(stream.str(), std::string(row.text) + "|");
    }
}

} // namespace
