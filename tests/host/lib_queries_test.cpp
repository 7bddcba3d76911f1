#include <dlfcn.h>
#include <syslog.h>

#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>

#include "faults.h"
#include "log_recorder.h"
#include "scripted_host.h"
#include "tesauth/configuration.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Words = std::vector<std::string>;
using Lines = std::vector<std::pair<int, std::string>>;

class QueriesTest : public ProviderTest {
protected:
    QueriesTest() { TestStore::ResetCache(); }
    ~QueriesTest() override {
        provider->reset();
        TesauthThreadUtil::SetScheduler(nullptr);
        EXPECT_TRUE(TestStore::WaitUntilIdle());
        TestStore::ResetCache();
    }

    Lines Log() { return log.TakeLines(); }

    LogRecorder log;
};

/// One query through the cache: what tells its kind apart, as texts.
struct Query {
    const char* name;
    const char* key;
    const char* entry; ///< the provider's
    const char* timedOut;
    std::function<std::string(const TestStore&)> ask;
    std::function<void()> fill; ///< puts another answer into the cache
    const char* live;           ///< what the provider answers unless told otherwise
    const char* cached;         ///< what `fill` left
    const char* afterTimeOut;
};

std::string Text(const std::deque<Domain>& domains) {
    std::string text;
    for (const Domain& domain : domains) {
        text += domain.dnsName + ":" + domain.netbiosName + " ";
    }
    return text;
}

std::string Text(const ActiveDirectoryStoreConfiguration& configuration) {
    std::string text = configuration.dnsDomainName + "|" + configuration.netbiosDomainName + "|";
    for (const std::string& controller : configuration.preferredDomainControllers) {
        text += controller + " ";
    }
    return text + "|" + configuration.machineAccountDN;
}

/// The object that a query hands over, as what it is.
std::unique_ptr<ActiveDirectoryStoreConfiguration> Owned(StoreConfiguration* told) {
    return std::unique_ptr<ActiveDirectoryStoreConfiguration>(
        &dynamic_cast<ActiveDirectoryStoreConfiguration&>(*told));
}

std::string AskConfiguration(const TestStore& store) {
    return Text(*Owned(store.GetStoreConfiguration()));
}

const Query queries[] = {
    {"GetStoreConfiguration", "StoreConfig", "getActiveDomain",
     "GetStoreConfiguration call timedout. Returning cached value.", AskConfiguration,
     [] {
         ActiveDirectoryStoreConfiguration configuration;
         configuration.dnsDomainName = "old.example";
         TestStore::Cache().SetConfiguration(std::move(configuration));
     },
     "corp.example|CORP|dc1.corp.example dc2.corp.example |CN=HOST1,CN=Computers,DC=corp,"
     "DC=example",
     "old.example|||", "old.example|||"},
    {"GetTrustedDomains", "TrustedDomains", "getTrustedDomains",
     "GetTrustedDomains call timedout. Returning cached value.",
     [](const TestStore& store) { return Text(store.GetTrustedDomains()); },
     [] { TestStore::Cache().SetTrustedDomains({Domain("old.example", "OLD")}); },
     "lab.example:LAB ", "old.example:OLD ", "old.example:OLD "},
    {"GetDomainTrustState", "TrustState", "getDomainTrustState",
     "GetDomainTrustState call timedout. Returning cached value.",
     [](const TestStore& store) { return std::to_string(store.GetDomainTrustState()); },
     [] { TestStore::Cache().SetDomainTrustState(TrustStateClockSkew); }, "1", "6", "2"},
    {"GetDomainTrustRelationship", "TrustRelationship:lab.example", "getDomainTrustRelationship",
     "GetDomainTrustRelationship call timedout. Returning cached value for lab.example.",
     [](const TestStore& store) {
         return std::to_string(store.GetDomainTrustRelationship("lab.example"));
     },
     [] { TestStore::Cache().SetDomainTrustRelationship("lab.example", TrustRelationshipInbound); },
     "3", "1", "1"},
};

/// What the cache holds of a query's kind.
std::string Cached(const Query& query) {
    const std::string name = query.name;
    ADCache& cache = TestStore::Cache();
    return name == "GetStoreConfiguration" ? Text(cache.GetConfiguration())
           : name == "GetTrustedDomains"   ? Text(cache.GetTrustedDomains())
           : name == "GetDomainTrustState"
               ? std::to_string(cache.GetDomainTrustState())
               : std::to_string(cache.GetDomainTrustRelationship("lab.example"));
}

TEST_F(QueriesTest, AnswerIsTheProvidersAndIsCached) {
    const TestStore store(10);
    for (const Query& query : queries) {
        SCOPED_TRACE(query.name);
        query.fill();
        EXPECT_EQ(Cached(query), query.cached);
        EXPECT_EQ(query.ask(store), query.live);
        EXPECT_EQ(Cached(query), query.live);
        EXPECT_FALSE(TestStore::IsInFlight(query.key));
        const unsigned calls = Calls(query.entry);
        EXPECT_EQ(query.ask(store), query.live);
        EXPECT_EQ(Calls(query.entry), calls + 1) << "asked anew each time";
    }
    EXPECT_EQ(Log(), Lines());
}

TEST_F(QueriesTest, TimeOutAnswersFromTheCacheAndTheWorkerRunsOn) {
    const TestStore store(0), patient(10);
    for (const Query& query : queries) {
        SCOPED_TRACE(query.name);
        query.fill();
        patient.GetTrustedDomains(); // so that the trust state's inner query has an answer
        if (std::string(query.name) == "GetTrustedDomains") {
            query.fill();
        }
        Log();
        Set(std::string(query.entry) + ".hang", "1");
        EXPECT_EQ(query.ask(store), query.afterTimeOut);
        EXPECT_TRUE(TestStore::IsInFlight(query.key));
        const Lines lines = Log();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), std::make_pair(LOG_WARNING, std::string(query.timedOut)));
        EXPECT_EQ(Cached(query), query.afterTimeOut);

        Set(std::string(query.entry) + ".hang", "0");
        ASSERT_TRUE(TestStore::WaitUntilIdle());
        EXPECT_EQ(Cached(query), query.live) << "written when the worker finished";
    }
}

TEST_F(QueriesTest, TimeOutIsTheStores) {
    const TestStore store(1);
    Set("getTrustedDomains.hang", "1");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(store.GetTrustedDomains().size(), 0u);
    EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(QueriesTest, SameQuestionAttachesToTheRunningCall) {
    const TestStore store(10), other(10);
    for (const Query& query : queries) {
        SCOPED_TRACE(query.name);
        const std::string entry = query.entry;
        const unsigned before = Calls(entry);
        Set(entry + ".hang", "1");
        std::vector<std::future<std::string>> answers;
        for (int i = 0; i < 6; ++i) {
            answers.push_back(std::async(std::launch::async, [&, i] {
                return query.ask(i % 2 != 0 ? store : other); // the requests are the process's
            }));
        }
        ASSERT_TRUE(provider->waitForCalls(query.entry, before + 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // lets the others attach
        Set(entry + ".hang", "0");
        for (auto& answer : answers) {
            EXPECT_EQ(answer.get(), query.live);
        }
        EXPECT_EQ(Calls(entry), before + 1);
    }
}

TEST_F(QueriesTest, DifferentDomainsAreDifferentQuestions) {
    const TestStore store(10);
    Set("getDomainTrustRelationship.value.a", "1");
    Set("getDomainTrustRelationship.value.A", "2");
    Set("getDomainTrustRelationship.hang", "1");
    auto one =
        std::async(std::launch::async, [&] { return store.GetDomainTrustRelationship("a"); });
    auto two =
        std::async(std::launch::async, [&] { return store.GetDomainTrustRelationship("A"); });
    ASSERT_TRUE(provider->waitForCalls("getDomainTrustRelationship", 2));
    EXPECT_TRUE(TestStore::IsInFlight("TrustRelationship:a"));
    EXPECT_TRUE(TestStore::IsInFlight("TrustRelationship:A"));
    Set("getDomainTrustRelationship.hang", "0");
    EXPECT_EQ(one.get(), 1u);
    EXPECT_EQ(two.get(), 2u);
}

TEST_F(QueriesTest, FailureIsThrownWithItsTypeAndTheCacheIsLeftAlone) {
    const TestStore store(10);
    const Query& query = queries[1]; // the other two have no status to fail with
    query.fill();
    Set("getTrustedDomains.status", "1355");
    EXPECT_EQ(TextOf<NoSuchDomainException>([&] { store.GetTrustedDomains(); }),
              "Exception 0x0000054b: The specified domain either does not exist or could not be "
              "contacted.");
    EXPECT_EQ(Cached(query), query.cached);
    EXPECT_FALSE(TestStore::IsInFlight(query.key));
    EXPECT_EQ(Log(), Lines());
}

TEST_F(QueriesTest, FailureReachesEveryAttachedCaller) {
    const TestStore store(10);
    Set("getTrustedDomains.status", "1398,0");
    Set("getTrustedDomains.hang", "1");
    std::vector<std::future<void>> callers;
    for (int i = 0; i < 5; ++i) {
        callers.push_back(std::async(std::launch::async, [&] {
            EXPECT_THROW(store.GetTrustedDomains(), TimeSkewException);
        }));
    }
    ASSERT_TRUE(provider->waitForCalls("getTrustedDomains", 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // lets the others attach
    Set("getTrustedDomains.hang", "0");
    callers.clear();
    EXPECT_EQ(Calls("getTrustedDomains"), 1u);
}

TEST_F(QueriesTest, WhatIsNotImplementedCountsAsAnAnswer) {
    const TestStore store(10);
    for (const Query& query : queries) {
        query.fill();
        Set(std::string(query.entry) + ".missing", "1");
    }
    EXPECT_EQ(store.GetTrustedDomains().size(), 0u);
    EXPECT_EQ(TestStore::Cache().GetTrustedDomains().size(), 0u);
    EXPECT_EQ(store.GetDomainTrustState(), 0u);
    EXPECT_EQ(store.GetDomainTrustRelationship("lab.example"), 0u);
    EXPECT_EQ(TestStore::Cache().GetDomainTrustRelationship("lab.example"), 0u);
    Set("getTrustedDomains.missing", "0");
    Set("getTrustedDomains.status", "120");
    queries[1].fill();
    EXPECT_EQ(store.GetTrustedDomains().size(), 0u) << "a status of that meaning as well";
    EXPECT_EQ(Log(), Lines());
}

TEST_F(QueriesTest, ThreadThatCannotBeStarted) {
    const TestStore store(10);
    for (const Query& query : queries) {
        SCOPED_TRACE(query.name);
        query.fill();
        const faults::Scope scope;
        faults::hooks.createThread = [] { return 11; };
        EXPECT_EQ(TextOf<ThreadErrorException>([&] { query.ask(store); }),
                  "Thread Error: ate failed. RC=");
        EXPECT_FALSE(TestStore::IsInFlight(query.key));
    }
}

/// What the host's scheduler throws by itself reaches the caller, and the trust state is left
/// alone.
TEST_F(QueriesTest, SchedulerThatThrowsAForeignException) {
    const TestStore store(10);
    TestStore::Cache().SetDomainTrustState(TrustStateGood);
    int asked = 0;
    TesauthThreadUtil::SetScheduler([&](std::function<void()>) {
        ++asked;
        throw std::runtime_error("no thread to spare");
    });
    EXPECT_EQ(TextOf<std::runtime_error>([&] { store.GetDomainTrustState(); }),
              "no thread to spare");
    EXPECT_EQ(asked, 1) << "the trusted domains' worker alone";
    EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 1u);
    EXPECT_EQ(TestStore::InFlight(), 0u);
    EXPECT_EQ(Log(), Lines());
}

TEST_F(QueriesTest, WaitThatFails) {
    const TestStore store(10);
    const faults::Scope scope;
    faults::hooks.waitOnCondition = [](const timespec&) { return EINVAL; };
    Set("getTrustedDomains.hang", "1");
    EXPECT_EQ(TextOf<ThreadErrorException>([&] { store.GetTrustedDomains(); }),
              "Thread Error:  failed. RC=");
    faults::hooks = faults::Hooks();
    provider->reset();
}

TEST_F(QueriesTest, ConfigurationIsToldAsFarAsItIsKnown) {
    const char* const full[] = {"corp.example|CORP|", "dc1.corp.example dc2.corp.example ",
                                "|CN=HOST1,CN=Computers,DC=corp,DC=example"};
    const char* const none[] = {"||", "", "|"};
    const char* const entries[] = {"getActiveDomain", "getPreferredDomainControllers",
                                   "getMachineAccountDN"};
    const TestStore store(10);
    for (unsigned failing = 0; failing < 8; ++failing) {
        for (const char* how : {"status", "missing"}) {
            provider->reset();
            queries[0].fill();
            std::string expected;
            for (unsigned i = 0; i < 3; ++i) {
                const bool fails = (failing & 1u << i) != 0;
                Set(std::string(entries[i]) + "." + how, fails ? "5" : "0");
                expected += fails ? none[i] : full[i];
            }
            EXPECT_EQ(AskConfiguration(store), expected) << how << " " << failing;
        }
    }
    EXPECT_EQ(Log(), Lines());
}

TEST_F(QueriesTest, ConfigurationIsAskedForInOrder) {
    const std::string callLog = "/run/configuration-calls.log";
    std::filesystem::remove(callLog);
    Set("log", callLog);
    const TestStore store(10);
    AskConfiguration(store);
    EXPECT_EQ(ReadFile(callLog),
              "getActiveDomain\ngetPreferredDomainControllers\ngetMachineAccountDN\n");
    std::filesystem::remove(callLog);
}

TEST_F(QueriesTest, EachCallerGetsItsOwnConfiguration) {
    const TestStore store(10);
    const auto one = Owned(store.GetStoreConfiguration());
    one->dnsDomainName = "changed";
    EXPECT_EQ(TestStore::Cache().GetConfiguration().dnsDomainName, "corp.example");
    EXPECT_EQ(AskConfiguration(store).substr(0, 12), "corp.example");
}

TEST_F(QueriesTest, TrustStateAsksForTheTrustedDomainsFirst) {
    const TestStore store(10);
    EXPECT_EQ(store.GetDomainTrustState(), 1u);
    EXPECT_EQ(Calls("getTrustedDomains"), 1u);
    EXPECT_EQ(TestStore::Cache().GetTrustedDomains().size(), 1u);
}

TEST_F(QueriesTest, TrustStateOfAHostThatIsNotJoined) {
    const TestStore store(10);
    for (const char* status : {"2", "0x2"}) {
        TestStore::Cache().SetDomainTrustState(TrustStateGood);
        Set("getTrustedDomains.status", status);
        EXPECT_EQ(store.GetDomainTrustState(), 7u);
        EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 7u);
    }
    EXPECT_EQ(Calls("getDomainTrustState"), 0u);
    EXPECT_EQ(Log(), Lines());
}

TEST_F(QueriesTest, TrustStateGoesOnAfterAnyOtherFailureOfTheTrustedDomains) {
    const TestStore store(10);
    Set("getTrustedDomains.status", "1355");
    EXPECT_EQ(store.GetDomainTrustState(), 1u);
    EXPECT_EQ(Log(), (Lines{{LOG_WARNING,
                             "GetDomainTrustState: Call to GetTrustedDomains() failed: Exception "
                             "0x0000054b: The specified domain either does not exist or could not "
                             "be contacted."}}));
    Set("getTrustedDomains.status", "3"); // not the code of a file that is missing
    EXPECT_EQ(store.GetDomainTrustState(), 1u);
}

TEST_F(QueriesTest, TrustStateAfterATimeOutOfTheTrustedDomains) {
    const TestStore store(0), patient(10);
    Set("getTrustedDomains.hang", "1");
    Set("getDomainTrustState.hang", "1");
    EXPECT_EQ(store.GetDomainTrustState(), 2u);
    EXPECT_EQ(Log(),
              (Lines{{LOG_WARNING, "GetTrustedDomains call timedout. Returning cached value."},
                     {LOG_WARNING, "GetDomainTrustState call timedout. Returning cached value."}}));
    EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 2u);
    Set("getDomainTrustState.hang", "0");
    ASSERT_TRUE(provider->waitForReturns("getDomainTrustState", 1));
    Set("getTrustedDomains.hang", "0");
    ASSERT_TRUE(TestStore::WaitUntilIdle());
    EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 1u) << "the late answer";
}

TEST_F(QueriesTest, WorkerKeepsThePlugInWhenTheStoreIsGone) {
    const std::string path = std::string(pluginDirectory) + "libown.so";
    InstallPlugin(SCRIPTED_PROVIDER_FILE, "own");
    WriteFile(providerFile, "provider = own\n");
    // The test itself must not call into a plug-in that may be unloaded under it.
    WriteFile("/etc/tessary/scripted-provider.conf", "getTrustedDomains.delay_ms=300\n");
    {
        const TestStore store(0);
        store.GetTrustedDomains();
    }
    const bool wasLoaded = IsLoaded(path);
    EXPECT_TRUE(wasLoaded || !TestStore::IsInFlight("TrustedDomains"));
    ASSERT_TRUE(TestStore::WaitUntilIdle());
    for (int i = 0; i < 10000 && IsLoaded(path); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_FALSE(IsLoaded(path)) << "the worker was the last to hold it";
}

TEST_F(QueriesTest, WorkerWhoseThreadEndsTellsItsWaiters) {
    const TestStore store(10);
    for (const Query& query : queries) {
        SCOPED_TRACE(query.name);
        provider->reset();
        query.fill();
        Set(std::string(query.entry) + ".exit_thread", "1");
        EXPECT_EQ(TextOf<ThreadErrorException>([&] { query.ask(store); }),
                  "Thread Error: Unexpected thread termination");
        EXPECT_EQ(Cached(query), query.cached);
        EXPECT_FALSE(TestStore::IsInFlight(query.key));
    }
}

/// A provider that throws, called by workers that a host's scheduler runs.
class ThrowingProviderTest : public QueriesTest {
protected:
    ThrowingProviderTest() {
        InstallPlugin(THROWING_PROVIDER_FILE, "throwing");
        WriteFile(providerFile, "provider = throwing\n");
        handle = dlopen("/usr/libexec/tesauth/libthrowing.so", RTLD_NOW);
        numbers = static_cast<bool*>(dlsym(handle, "throwing_provider_throws_numbers"));
    }
    ~ThrowingProviderTest() override { dlclose(handle); }

    /// Whether the query's exception passes its worker and reaches what runs the worker.
    bool ReachesTheScheduler(const Query& query, const TestStore& store) {
        std::promise<bool> reached;
        TesauthThreadUtil::SetScheduler([&](std::function<void()> functor) {
            std::thread([&, functor] {
                bool threw = false;
                try {
                    functor();
                } catch (...) {
                    threw = true;
                }
                reached.set_value(threw);
            }).detach();
        });
        try {
            query.ask(store);
        } catch (const ThreadErrorException& failure) {
            EXPECT_STREQ(failure.what(), "Thread Error: Unexpected thread termination");
        }
        const bool result = reached.get_future().get();
        TesauthThreadUtil::SetScheduler(nullptr);
        return result;
    }

    void* handle;
    bool* numbers;
};

TEST_F(ThrowingProviderTest, WaitersAreToldAndTheExceptionGoesOn) {
    const TestStore store(10);
    for (const Query& query : queries) {
        if (std::string(query.name) == "GetDomainTrustState") {
            continue; // asks twice, see below
        }
        for (const bool throwsNumbers : {false, true}) {
            SCOPED_TRACE(query.name);
            *numbers = throwsNumbers;
            query.fill();
            const bool swallowed =
                std::string(query.name) == "GetStoreConfiguration" && !throwsNumbers;
            EXPECT_EQ(ReachesTheScheduler(query, store), !swallowed);
            EXPECT_EQ(Cached(query), swallowed ? "|||" : query.cached);
            EXPECT_FALSE(TestStore::IsInFlight(query.key));
        }
    }
}

TEST_F(ThrowingProviderTest, ProcessSurvivesOnThreadsOfItsOwn) {
    const TestStore store(10);
    for (const bool throwsNumbers : {false, true}) {
        *numbers = throwsNumbers;
        TestStore::Cache().SetDomainTrustState(TrustStateGood);
        EXPECT_THROW(store.GetTrustedDomains(), ThreadErrorException);
        EXPECT_THROW(store.GetDomainTrustState(), ThreadErrorException);
        EXPECT_EQ(TestStore::Cache().GetDomainTrustState(), 1u);
        EXPECT_THROW(store.GetDomainTrustRelationship("d"), ThreadErrorException);
    }
}

TEST_F(QueriesTest, DirectOperationsGoStraightToTheProvider) {
    TestStore store(0); // a time-out of none: what answers has not gone through a worker
    const faults::Scope scope;
    faults::hooks.createThread = [] { return 11; };
    EXPECT_EQ(store.GetDomainControllerForDomain("lab.example"), "dc1.corp.example");
    EXPECT_EQ(Arguments("getAnyDomainController"), (Words{"(null)", "lab.example"}));
    EXPECT_EQ(store.GetHostPrincipalForDomain("lab.example"),
              "host/host1.corp.example@CORP.EXAMPLE");
    EXPECT_EQ(Arguments("getHostPrincipalForDomain"), Words{"lab.example"});
    EXPECT_EQ(store.ConvertCanonicalUsername("alice@corp.example"), "CORP\\alice");
    EXPECT_EQ(Arguments("convertCanonicalUsername"), Words{"alice@corp.example"});
    EXPECT_EQ(store.GetSmartCardEnabledServices(), Words{"login"});
    store.SetSmartCardEnabledServices({"ssh", "login"});
    EXPECT_EQ(Arguments("setSmartCardEnabledServices"), (Words{"ssh", "login"}));
    store.SetPreferredDomainControllers({"dc2", "dc1"});
    EXPECT_EQ(Arguments("setPreferredDomainControllers"), (Words{"dc2", "dc1"}));
    EXPECT_EQ(store.GetDisplayName(), "Active Directory");
    EXPECT_EQ(Log(), Lines());
}

TEST_F(QueriesTest, DirectOperationsThrowWhatTheProviderThrows) {
    TestStore store(10);
    const std::pair<const char*, std::function<void()>> table[] = {
        {"getAnyDomainController", [&] { store.GetDomainControllerForDomain("d"); }},
        {"getHostPrincipalForDomain", [&] { store.GetHostPrincipalForDomain("d"); }},
        {"convertCanonicalUsername", [&] { store.ConvertCanonicalUsername("u"); }},
        {"getSmartCardEnabledServices", [&] { store.GetSmartCardEnabledServices(); }},
        {"setSmartCardEnabledServices", [&] { store.SetSmartCardEnabledServices({}); }},
        {"setPreferredDomainControllers", [&] { store.SetPreferredDomainControllers({}); }},
    };
    for (const auto& [entry, call] : table) {
        SCOPED_TRACE(entry);
        const bool isSwallowed = std::string(entry) == "setPreferredDomainControllers";
        Set(std::string(entry) + ".status", "5");
        EXPECT_THROW(call(), AccessDeniedException);
        EXPECT_EQ(Log(), Lines());
        Set(std::string(entry) + ".missing", "1");
        if (isSwallowed) {
            EXPECT_NO_THROW(call());
            EXPECT_EQ(Log(),
                      (Lines{{LOG_WARNING,
                              "Setting of preferred domain controllers is not implemented."}}));
        } else {
            EXPECT_THROW(call(), CallNotImplementedException);
            EXPECT_EQ(Log(), Lines());
        }
    }
}

TEST_F(QueriesTest, SettingSmartCardServicesLeavesTheCacheAlone) {
    const TestStore store(10);
    TestStore::Cache().SetPcscdSvcPolicyOn(true);
    store.SetSmartCardEnabledServices({"ssh"});
    const char* const ssh = "ssh";
    EXPECT_FALSE(TestStore::Cache().IsSmartCardAuthenticationEnabled(&ssh, 1));
    store.GetSmartCardEnabledServices();
    const char* const login = "login";
    EXPECT_FALSE(TestStore::Cache().IsSmartCardAuthenticationEnabled(&login, 1));
}

} // namespace
