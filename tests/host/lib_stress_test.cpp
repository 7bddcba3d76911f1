#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "scripted_host.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

constexpr unsigned threadCount = 64;
constexpr unsigned domainCount = 8;

/// How long to go on; more than a few seconds on demand.
std::chrono::seconds Duration() {
    const char* seconds = std::getenv("TESAUTH_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 5);
}

class StressTest : public ProviderTest {
protected:
    ~StressTest() override {
        provider->reset();
        EXPECT_TRUE(TestStore::WaitUntilIdle());
    }

    /// One random query; failures that the provider was told to make are expected.
    void Ask(const TestStore& store, std::minstd_rand& random) {
        const std::string domain = "domain" + std::to_string(random() % domainCount);
        try {
            switch (random() % 6) {
            case 0: {
                ++configurations;
                const std::unique_ptr<StoreConfiguration> told(store.GetStoreConfiguration());
                break;
            }
            case 1:
                ++trustedDomains;
                store.GetTrustedDomains();
                break;
            case 2:
                ++trustStates;
                ++trustedDomains;
                store.GetDomainTrustState();
                break;
            case 3:
            case 4:
                ++relationships;
                store.GetDomainTrustRelationship(domain);
                break;
            default:
                store.GetDomainControllerForDomain(domain);
            }
        } catch (const NoSuchDomainException&) {
            ++failures;
        }
    }

    std::atomic<unsigned> configurations{0}, trustedDomains{0}, trustStates{0}, relationships{0},
        failures{0};
};

TEST_F(StressTest, ManyCallersShareFewCallsThatNeverOverlap) {
    Set("getActiveDomain.delay_ms", "0-3");
    Set("getActiveDomain.random_failure", "10:1355");
    Set("getPreferredDomainControllers.random_failure", "10:5");
    Set("getTrustedDomains.delay_ms", "0-5");
    Set("getTrustedDomains.random_failure", "20:1355");
    Set("getDomainTrustState.delay_ms", "0-5");
    Set("getDomainTrustState.random_failure", "20:8");
    Set("getDomainTrustRelationship.delay_ms", "0-5");
    Set("getDomainTrustRelationship.random_failure", "20:7");
    Set("getAnyDomainController.delay_ms", "0-2");
    Set("getAnyDomainController.random_failure", "20:1355");

    const auto end = std::chrono::steady_clock::now() + Duration();
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < threadCount; ++number) {
        threads.emplace_back([this, number, end] {
            std::minstd_rand random(number + 1);
            // Some wait for each answer, some never do; stores come and go.
            while (std::chrono::steady_clock::now() < end) {
                const TestStore store(number % 4 != 0 ? 30 : 0);
                for (int i = 0; i < 20 && std::chrono::steady_clock::now() < end; ++i) {
                    Ask(store, random);
                }
                if (number == 0) {
                    store.UpdateCache(true);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(TestStore::WaitUntilIdle());

    EXPECT_GT(failures, 0u);
    EXPECT_LT(Calls("getActiveDomain"), configurations / 2);
    EXPECT_LT(Calls("getTrustedDomains"), trustedDomains / 2);
    EXPECT_LT(Calls("getDomainTrustState"), trustStates / 2);
    EXPECT_LT(Calls("getDomainTrustRelationship"), relationships);
    for (const char* entry :
         {"getActiveDomain", "getPreferredDomainControllers", "getMachineAccountDN",
          "getTrustedDomains", "getDomainTrustState", "getDomainTrustRelationship"}) {
        EXPECT_GT(Calls(entry), 0u) << entry;
        EXPECT_EQ(provider->overlaps(entry), 0u) << entry;
    }
    EXPECT_EQ(Returned().size(), Released().size()) << "every buffer went back";
}

} // namespace
