#include <syslog.h>

#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>

#include "faults.h"
#include "log_recorder.h"
#include "scripted_host.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Words = std::vector<std::string>;
using Lines = std::vector<std::pair<int, std::string>>;

const std::string complete = "AD cache updated in N ms";
const std::string partial = "AD cache updated partially in N ms";
const std::string denied = "Exception 0x00000005: Access is denied.";

class RefreshTest : public ProviderTest {
protected:
    RefreshTest() { TestStore::ResetCache(); }
    ~RefreshTest() override {
        provider->reset();
        TesauthThreadUtil::SetScheduler(nullptr);
        EXPECT_TRUE(TestStore::WaitUntilIdle());
        TestStore::ResetCache();
    }

    /// The log with the milliseconds of "in 12 ms" replaced by N.
    Lines Log() {
        static const std::regex milliseconds("in [0-9]+ ms$");
        Lines lines;
        for (const LogMessage& message : log.Take()) {
            lines.emplace_back(message.priority,
                               std::regex_replace(message.text, milliseconds, "in N ms"));
        }
        return lines;
    }

    static bool IsEnabled(const char* service) {
        return TestStore::Cache().IsSmartCardAuthenticationEnabled(&service, 1);
    }

    static bool PolicyIsOn() {
        return TestStore::Cache().IsSmartCardAuthenticationEnabled(nullptr, 0);
    }

    /// The domains whose relationship was asked for, in order.
    Words AskedDomains() const {
        Words domains;
        for (unsigned i = 0; i < Calls("getDomainTrustRelationship"); ++i) {
            domains.push_back(Arguments("getDomainTrustRelationship", i).at(0));
        }
        return domains;
    }

    LogRecorder log;
    const TestStore store{10};
};

TEST_F(RefreshTest, WholeCacheOfAMember) {
    Set("getTrustedDomains.items", "z.example:Z,a.example:A");
    store.UpdateCache(true);
    EXPECT_EQ(Log(), (Lines{{LOG_DEBUG, complete}}));
    const ADCache& cache = TestStore::Cache();
    EXPECT_EQ(cache.GetConfiguration().dnsDomainName, "corp.example");
    EXPECT_EQ(cache.GetDomainTrustState(), 1u);
    EXPECT_EQ(cache.GetTrustedDomains().size(), 2u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("corp.example"), 5u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("z.example"), 3u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("a.example"), 3u);
    EXPECT_TRUE(IsEnabled("login"));
    EXPECT_EQ(AskedDomains(), (Words{"corp.example", "z.example", "a.example"}))
        << "the joined domain first, then the provider's order";
    EXPECT_EQ(Calls("getActiveDomain"), 1u);
    EXPECT_EQ(Calls("getTrustedDomains"), 2u) << "once for the trust state, once for itself";
    EXPECT_EQ(Calls("getDomainTrustState"), 1u);
    EXPECT_EQ(Calls("getSmartCardEnabledServices"), 1u);
}

TEST_F(RefreshTest, HostThatIsNoMember) {
    Set("getActiveDomain.status", "2");
    store.UpdateCache(std::nullopt);
    EXPECT_EQ(Log(), (Lines{{LOG_DEBUG, complete}}));
    for (const char* entry : {"getDomainTrustState", "getTrustedDomains",
                              "getDomainTrustRelationship", "getSmartCardEnabledServices"}) {
        EXPECT_EQ(Calls(entry), 0u) << entry;
    }
    EXPECT_EQ(Calls("getActiveDomain"), 1u);
    store.UpdateCache(true);
    EXPECT_TRUE(PolicyIsOn()) << "the policy is stored all the same";
}

TEST_F(RefreshTest, MembershipIsWhatTheConfigurationSaysNow) {
    store.UpdateCache(std::nullopt);
    EXPECT_TRUE(TestStore::Cache().IsDomainMember());
    Set("getActiveDomain.dns", "");
    store.UpdateCache(std::nullopt);
    EXPECT_FALSE(TestStore::Cache().IsDomainMember());
    EXPECT_EQ(Calls("getDomainTrustState"), 1u);
}

TEST_F(RefreshTest, PolicyIsStoredOnlyWhenThereIsOne) {
    store.UpdateCache(true);
    EXPECT_TRUE(PolicyIsOn());
    store.UpdateCache(std::nullopt);
    EXPECT_TRUE(PolicyIsOn());
    store.UpdateCache(false);
    EXPECT_FALSE(PolicyIsOn());
    store.UpdateCache(std::nullopt);
    EXPECT_FALSE(PolicyIsOn());
}

TEST_F(RefreshTest, FailedServicesWithoutAPolicyEndTheRefresh) {
    store.UpdateCache(true);
    Log();
    Set("getSmartCardEnabledServices.status", "5");
    store.UpdateCache(std::nullopt);
    EXPECT_EQ(Log(), (Lines{{LOG_ERR, "Failed to get smart card enabled services: " + denied},
                            {LOG_WARNING, partial}}));
    EXPECT_TRUE(PolicyIsOn());
    EXPECT_TRUE(IsEnabled("login")) << "the old list stays";
}

TEST_F(RefreshTest, FailedServicesWithoutAPolicyComeAfterTheOtherSteps) {
    Set("getSmartCardEnabledServices.status", "5");
    Set("getTrustedDomains.items", "lab.example:LAB");
    store.UpdateCache(std::nullopt);
    EXPECT_EQ(Calls("getDomainTrustState"), 1u);
    EXPECT_EQ(Calls("getTrustedDomains"), 2u);
    EXPECT_EQ(AskedDomains(), (Words{"corp.example", "lab.example"}));
    EXPECT_EQ(Calls("getSmartCardEnabledServices"), 1u);
    EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 1u);
    EXPECT_EQ(TestStore::Cache().GetTrustedDomains().size(), 1u);
    EXPECT_EQ(TestStore::Cache().GetDomainTrustRelationship("lab.example"), 3u);
}

TEST_F(RefreshTest, FailedServicesWithAPolicyStillStoreIt) {
    Set("getSmartCardEnabledServices.status", "5");
    store.UpdateCache(true);
    EXPECT_EQ(Log(), (Lines{{LOG_ERR, "Failed to get smart card enabled services: " + denied},
                            {LOG_WARNING, partial}}));
    EXPECT_TRUE(PolicyIsOn());
}

TEST_F(RefreshTest, FailedTrustedDomains) {
    Set("getTrustedDomains.status", "5");
    store.UpdateCache(std::nullopt);
    EXPECT_EQ(Log(), (Lines{{LOG_WARNING,
                             "GetDomainTrustState: Call to GetTrustedDomains() failed: " + denied},
                            {LOG_ERR, "Failed to get trusted domains: " + denied},
                            {LOG_WARNING, partial}}));
    EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 1u);
    EXPECT_EQ(AskedDomains(), Words{"corp.example"}) << "the other steps go on";
    EXPECT_EQ(Calls("getSmartCardEnabledServices"), 1u);
}

TEST_F(RefreshTest, NotImplementedCallsCountAsSuccess) {
    for (const char* entry :
         {"getTrustedDomains", "getDomainTrustState", "getDomainTrustRelationship"}) {
        Set(std::string(entry) + ".missing", "1");
    }
    store.UpdateCache(std::nullopt);
    EXPECT_EQ(Log(), (Lines{{LOG_DEBUG, complete}}));
    EXPECT_EQ(TestStore::Cache().GetDomainTrustRelationship("corp.example"), 0u);
    Set("getSmartCardEnabledServices.missing", "1");
    store.UpdateCache(std::nullopt);
    EXPECT_EQ(Log(), (Lines{{LOG_ERR, "Failed to get smart card enabled services: Exception "
                                      "0x00000078: This function is not supported on this system."},
                            {LOG_WARNING, partial}}));
}

/// One thread after another cannot be started: each step fails by itself, and is told by itself.
TEST_F(RefreshTest, EachStepThatFailsIsLoggedAndTheOthersGoOn) {
    Set("getTrustedDomains.items", "lab.example:LAB");
    store.UpdateCache(std::nullopt);
    Log();
    const std::string thread = "Thread Error: ate failed. RC=";
    struct Row {
        int failing; ///< which of the threads that a refresh starts, from 1
        Lines lines;
    };
    const Row table[] = {
        {1, {{LOG_ERR, "Failed to get AD config: " + thread}, {LOG_WARNING, partial}}},
        {2,
         {{LOG_WARNING, "GetDomainTrustState: Call to GetTrustedDomains() failed: " + thread},
          {LOG_DEBUG, complete}}},
        {3, {{LOG_ERR, "Failed to get domain trust state: " + thread}, {LOG_WARNING, partial}}},
        {4, {{LOG_ERR, "Failed to get trusted domains: " + thread}, {LOG_WARNING, partial}}},
        {5,
         {{LOG_ERR, "Failed to get trust relationship for corp.example: " + thread},
          {LOG_WARNING, partial}}},
        {6,
         {{LOG_ERR, "Failed to get trust relationship for lab.example: " + thread},
          {LOG_WARNING, partial}}},
        {7, {{LOG_DEBUG, complete}}},
    };
    for (const Row& row : table) {
        SCOPED_TRACE(row.failing);
        int started = 0;
        const faults::Scope scope;
        faults::hooks.createThread = [&] { return ++started == row.failing ? 11 : 0; };
        store.UpdateCache(std::nullopt);
        EXPECT_EQ(started, 6);
        EXPECT_EQ(Log(), row.lines);
    }
}

TEST_F(RefreshTest, StepsTellWhetherTheySucceeded) {
    EXPECT_TRUE(store.FetchAdConfig());
    EXPECT_TRUE(store.FetchDomainTrustState());
    EXPECT_TRUE(store.FetchTrustedDomains());
    EXPECT_TRUE(store.FetchTrustRelationships());
    EXPECT_TRUE(store.FetchScEnabledSvcs());
    EXPECT_EQ(Log(), Lines());
    Set("getTrustedDomains.status", "5");
    Set("getSmartCardEnabledServices.status", "5");
    EXPECT_TRUE(store.FetchDomainTrustState());
    EXPECT_FALSE(store.FetchTrustedDomains());
    EXPECT_FALSE(store.FetchScEnabledSvcs());
    const faults::Scope scope;
    faults::hooks.createThread = [] { return 11; };
    EXPECT_FALSE(store.FetchAdConfig());
    EXPECT_FALSE(store.FetchDomainTrustState());
    EXPECT_FALSE(store.FetchTrustRelationships());
}

/// The host's scheduler may throw what is none of the library's exceptions. Not all steps stop it.
TEST_F(RefreshTest, ForeignExceptionsOfTheScheduler) {
    store.UpdateCache(true);
    Log();
    TesauthThreadUtil::SetScheduler(
        [](std::function<void()>) { throw std::runtime_error("no thread to spare"); });
    EXPECT_FALSE(store.FetchAdConfig());
    EXPECT_FALSE(store.FetchTrustedDomains());
    EXPECT_FALSE(store.FetchTrustRelationships());
    EXPECT_EQ(Log(), (Lines{{LOG_ERR, "Failed to get AD config: no thread to spare"},
                            {LOG_ERR, "Failed to get trusted domains: no thread to spare"},
                            {LOG_ERR, "Failed to get trust relationship for corp.example: "
                                      "no thread to spare"},
                            {LOG_ERR, "Failed to get trust relationship for lab.example: "
                                      "no thread to spare"}}));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { store.FetchDomainTrustState(); }),
              "no thread to spare");
    EXPECT_THROW(store.UpdateCache(false), std::runtime_error);
    EXPECT_TRUE(PolicyIsOn()) << "what comes after the trust state is not reached";
}

TEST_F(RefreshTest, ForeignExceptionOfThePlugInWhileServicesAreFetched) {
    InstallPlugin(THROWING_PROVIDER_FILE, "throwing");
    WriteFile(providerFile, "provider = throwing\n");
    const TestStore throwing(10);
    Log();
    EXPECT_EQ(TextOf<std::runtime_error>([&] { throwing.FetchScEnabledSvcs(); }),
              "thrown by the plug-in");
    EXPECT_EQ(Log(), Lines());
}

TEST_F(RefreshTest, RelationshipOfANamelessFirstDomainIsAskedForToo) {
    std::deque<Domain> trusted;
    trusted.emplace_back("lab.example", "LAB");
    TestStore::Cache().SetTrustedDomains(std::move(trusted));
    EXPECT_TRUE(store.FetchTrustRelationships());
    EXPECT_EQ(AskedDomains(), (Words{"", "lab.example"}));
    Set("getDomainTrustRelationship.hang", "1");
    const TestStore impatient(0);
    EXPECT_TRUE(impatient.FetchTrustRelationships());
    EXPECT_TRUE(TestStore::IsInFlight("TrustRelationship:"));
    EXPECT_TRUE(TestStore::IsInFlight("TrustRelationship:lab.example"));
}

TEST_F(RefreshTest, ConfigurationIsFetchedThroughTheVirtualInterface) {
    class Overriding : public TestStore {
    public:
        using TestStore::TestStore;
        StoreConfiguration* GetStoreConfiguration() const override {
            if (fails) {
                throw std::runtime_error("overridden");
            }
            ++asked;
            return new ActiveDirectoryStoreConfiguration;
        }
        mutable int asked = 0;
        bool fails = false;
    };
    Overriding overriding(10);
    EXPECT_TRUE(overriding.FetchAdConfig());
    EXPECT_EQ(overriding.asked, 1);
    overriding.fails = true;
    EXPECT_FALSE(overriding.FetchAdConfig());
    EXPECT_EQ(Log(), (Lines{{LOG_ERR, "Failed to get AD config: overridden"}}));
    EXPECT_EQ(Calls("getActiveDomain"), 0u);
}

TEST_F(RefreshTest, RelationshipsOfDomainsThatAreGoneAreForgotten) {
    Set("getTrustedDomains.items", "a.example:A,b.example:B");
    store.UpdateCache(std::nullopt);
    TestStore::Cache().SetDomainTrustRelationship("other.example", TrustRelationshipTwoWay);
    Set("getTrustedDomains.items", "b.example:B");
    store.UpdateCache(std::nullopt);
    const ADCache& cache = TestStore::Cache();
    EXPECT_EQ(cache.GetDomainTrustRelationship("a.example"), 6u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("other.example"), 6u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("b.example"), 3u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("corp.example"), 5u);
}

TEST_F(RefreshTest, RelationshipThatCannotBeHadIsForgotten) {
    Set("getTrustedDomains.items", "a.example:A,b.example:B");
    store.UpdateCache(std::nullopt);
    int started = 0;
    const faults::Scope scope;
    faults::hooks.createThread = [&] { return ++started == 2 ? 11 : 0; }; // a.example's
    EXPECT_FALSE(store.FetchTrustRelationships());
    EXPECT_EQ(TestStore::Cache().GetDomainTrustRelationship("a.example"), 6u);
    EXPECT_EQ(TestStore::Cache().GetDomainTrustRelationship("b.example"), 3u);
}

TEST_F(RefreshTest, TimeOutsAreNoFailures) {
    store.UpdateCache(std::nullopt);
    Log();
    Set("getTrustedDomains.hang", "1");
    Set("getDomainTrustState.hang", "1");
    const TestStore impatient(0);
    EXPECT_TRUE(impatient.FetchTrustedDomains());
    EXPECT_TRUE(impatient.FetchDomainTrustState());
    EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 2u);
    for (const auto& [priority, text] : Log()) {
        EXPECT_EQ(priority, LOG_WARNING) << text;
    }
}

TEST_F(RefreshTest, DurationIsInMilliseconds) {
    Set("getSmartCardEnabledServices.delay_ms", "120");
    store.UpdateCache(std::nullopt);
    const std::vector<LogMessage> messages = log.Take();
    ASSERT_EQ(messages.size(), 1u);
    int milliseconds = 0;
    ASSERT_EQ(std::sscanf(messages[0].text.c_str(), "AD cache updated in %d ms", &milliseconds), 1);
    EXPECT_GE(milliseconds, 120);
    EXPECT_LT(milliseconds, 60000);
}

} // namespace
