#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>

#include "tesauth/ad_cache.h"

namespace {

using namespace tessary::authentication;

ActiveDirectoryStoreConfiguration Configured(const std::string& dns, const std::string& netbios) {
    ActiveDirectoryStoreConfiguration configuration;
    configuration.dnsDomainName = dns;
    configuration.netbiosDomainName = netbios;
    configuration.preferredDomainControllers = {"dc1." + dns, "dc2." + dns};
    configuration.machineAccountDN = "CN=HOST1";
    return configuration;
}

std::vector<std::string> Names(const std::vector<Domain>& domains) {
    std::vector<std::string> names;
    for (const Domain& domain : domains) {
        names.push_back(domain.dnsName + ":" + domain.netbiosName);
    }
    return names;
}

using NameList = std::vector<std::string>;

TEST(ADCacheTest, StartsEmpty) {
    const ADCache cache;
    EXPECT_FALSE(cache.IsDomainMember());
    EXPECT_EQ(cache.GetConfiguration().dnsDomainName, "");
    EXPECT_EQ(cache.GetConfiguration().preferredDomainControllers.size(), 0u);
    EXPECT_EQ(cache.GetDomainTrustState(), 0u);
    EXPECT_EQ(cache.GetTrustedDomains().size(), 0u);
    EXPECT_EQ(Names(cache.GetAllDomains()), NameList{":"});
    EXPECT_EQ(cache.GetDomainTrustRelationship("x"), 6u);
    EXPECT_FALSE(cache.IsSmartCardAuthenticationEnabled(nullptr, 0));
}

TEST(ADCacheTest, ConfigurationIsMovedInAndCopiedOut) {
    ADCache cache;
    cache.SetConfiguration(Configured("old.example", "OLD"));
    ActiveDirectoryStoreConfiguration configuration = Configured("corp.example", "CORP");
    cache.SetConfiguration(std::move(configuration));
    EXPECT_EQ(configuration.dnsDomainName, "old.example") << "the old value is in the argument";
    EXPECT_EQ(configuration.netbiosDomainName, "OLD");
    EXPECT_EQ(configuration.preferredDomainControllers.at(0), "dc1.old.example");

    ActiveDirectoryStoreConfiguration copy = cache.GetConfiguration();
    EXPECT_EQ(copy.dnsDomainName, "corp.example");
    EXPECT_EQ(copy.netbiosDomainName, "CORP");
    EXPECT_EQ(copy.preferredDomainControllers,
              (std::deque<std::string>{"dc1.corp.example", "dc2.corp.example"}));
    EXPECT_EQ(copy.machineAccountDN, "CN=HOST1");
    copy.dnsDomainName.clear();
    copy.preferredDomainControllers.clear();
    EXPECT_EQ(cache.GetConfiguration().dnsDomainName, "corp.example");
    EXPECT_EQ(cache.GetConfiguration().preferredDomainControllers.size(), 2u);
}

TEST(ADCacheTest, ConfigurationIsAStoreConfigurationOfItsOwnKind) {
    using Configuration = ActiveDirectoryStoreConfiguration;
    static_assert(std::is_base_of_v<StoreConfiguration, Configuration>);
    static_assert(std::has_virtual_destructor_v<StoreConfiguration>);
    static_assert(std::is_copy_assignable_v<Configuration>);
    static_assert(std::is_nothrow_move_constructible_v<Configuration>);
    Configuration one = Configured("corp.example", "CORP");
    const Configuration copied = one;
    const Configuration moved = std::move(one);
    EXPECT_EQ(copied.dnsDomainName, "corp.example");
    EXPECT_EQ(moved.machineAccountDN, "CN=HOST1");
    EXPECT_EQ(moved.preferredDomainControllers, copied.preferredDomainControllers);
}

TEST(ADCacheTest, MemberMeansADnsDomainName) {
    ADCache cache;
    cache.SetConfiguration(Configured("corp.example", ""));
    EXPECT_TRUE(cache.IsDomainMember());
    cache.SetConfiguration(Configured("", "CORP"));
    EXPECT_FALSE(cache.IsDomainMember());
}

TEST(ADCacheTest, TrustStateIsKeptUnchanged) {
    ADCache cache;
    for (const uint32_t state : {0u, 1u, 2u, 7u, 4000000000u}) {
        cache.SetDomainTrustState(static_cast<TrustState>(state));
        EXPECT_EQ(cache.GetDomainTrustState(), state);
    }
}

TEST(ADCacheTest, SmartCardAuthentication) {
    struct Row {
        bool policy;
        std::vector<std::string> enabled;
        std::vector<const char*> asked;
        bool answer;
    };
    const Row table[] = {
        {false, {}, {}, false},
        {false, {"a"}, {"a"}, false},
        {true, {}, {}, true},
        {true, {"a"}, {}, true},
        {true, {"a"}, {"a"}, true},
        {true, {"a"}, {"a", "b"}, false},
        {true, {"a"}, {"b", "a"}, false},
        {true, {"b", "c", "a"}, {"a", "b"}, true},
        {true, {}, {"a"}, false},
        {true, {"A"}, {"a"}, false},
        {true, {"ab"}, {"a"}, false},
        {true, {"a"}, {"a", "a"}, true},
    };
    for (const Row& row : table) {
        ADCache cache;
        cache.SetPcscdSvcPolicyOn(row.policy);
        cache.SetSmartCardEnabledServices(row.enabled);
        EXPECT_EQ(cache.IsSmartCardAuthenticationEnabled(row.asked.data(), row.asked.size()),
                  row.answer)
            << &row - table;
    }
}

TEST(ADCacheTest, OnlySoManyServicesAreLookedAtAsAreCounted) {
    ADCache cache;
    cache.SetPcscdSvcPolicyOn(true);
    cache.SetSmartCardEnabledServices({"a"});
    const char* const services[] = {"a", "b"};
    EXPECT_TRUE(cache.IsSmartCardAuthenticationEnabled(services, 1));
    EXPECT_FALSE(cache.IsSmartCardAuthenticationEnabled(services, 2));
    cache.SetPcscdSvcPolicyOn(false);
    EXPECT_FALSE(cache.IsSmartCardAuthenticationEnabled(services, 1));
    cache.SetPcscdSvcPolicyOn(true);
    cache.SetSmartCardEnabledServices({"b"});
    EXPECT_FALSE(cache.IsSmartCardAuthenticationEnabled(services, 1)) << "the list is replaced";
}

TEST(ADCacheTest, AllDomainsAreTheJoinedOneAndTheTrustedOnesInOrder) {
    ADCache cache;
    cache.SetTrustedDomains({Domain("z.example", "Z"), Domain("a.example", "A")});
    EXPECT_EQ(Names(cache.GetAllDomains()), (NameList{":", "z.example:Z", "a.example:A"}));
    cache.SetConfiguration(Configured("corp.example", "CORP"));
    EXPECT_EQ(Names(cache.GetAllDomains()),
              (NameList{"corp.example:CORP", "z.example:Z", "a.example:A"}));
    std::deque<Domain> copy = cache.GetTrustedDomains();
    ASSERT_EQ(copy.size(), 2u);
    copy.clear();
    EXPECT_EQ(cache.GetTrustedDomains().size(), 2u);
    cache.SetTrustedDomains({});
    EXPECT_EQ(Names(cache.GetAllDomains()), NameList{"corp.example:CORP"});
}

TEST(ADCacheTest, TrustRelationshipsAreKeyedByTheExactName) {
    ADCache cache;
    cache.SetDomainTrustRelationship("lab.example", TrustRelationshipOutbound);
    cache.SetDomainTrustRelationship("LAB.example", TrustRelationshipInbound);
    EXPECT_EQ(cache.GetDomainTrustRelationship("lab.example"), 2u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("LAB.example"), 1u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("lab.example."), 6u);
    cache.SetDomainTrustRelationship("lab.example", static_cast<TrustRelationship>(99));
    EXPECT_EQ(cache.GetDomainTrustRelationship("lab.example"), 99u);
}

TEST(ADCacheTest, CleanUpKeepsTheCurrentGeneration) {
    ADCache cache;
    cache.SetDomainTrustRelationship("old", TrustRelationshipTwoWay);
    cache.SetDomainTrustRelationship("x", TrustRelationshipTwoWay);
    cache.CleanupOldTrustRelationships();
    EXPECT_EQ(cache.GetDomainTrustRelationship("old"), 3u) << "nothing is older yet";
    cache.IncreaseTrustRelationshipsGenNo();
    EXPECT_EQ(cache.GetDomainTrustRelationship("old"), 3u);
    cache.SetDomainTrustRelationship("x", TrustRelationshipOutbound);
    cache.CleanupOldTrustRelationships();
    EXPECT_EQ(cache.GetDomainTrustRelationship("old"), 6u);
    EXPECT_EQ(cache.GetDomainTrustRelationship("x"), 2u);
}

TEST(ADCacheTest, GenerationsWrapAfter256) {
    ADCache cache;
    cache.SetDomainTrustRelationship("x", TrustRelationshipOutbound);
    for (int i = 0; i < 256; ++i) {
        cache.IncreaseTrustRelationshipsGenNo();
    }
    cache.CleanupOldTrustRelationships();
    EXPECT_EQ(cache.GetDomainTrustRelationship("x"), 2u);
    for (int i = 0; i < 255; ++i) {
        cache.IncreaseTrustRelationshipsGenNo();
    }
    cache.CleanupOldTrustRelationships();
    EXPECT_EQ(cache.GetDomainTrustRelationship("x"), 6u);
}

TEST(ADCacheTest, MayBeUsedFromManyThreads) {
    ADCache cache;
    std::atomic<bool> torn(false);
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            const std::string name = "domain" + std::to_string(number);
            for (int i = 0; i < 500; ++i) {
                cache.SetConfiguration(Configured(name, name));
                cache.SetTrustedDomains({Domain(name, name), Domain(name, name)});
                cache.SetDomainTrustRelationship(name, TrustRelationshipTwoWay);
                cache.IncreaseTrustRelationshipsGenNo();
                cache.CleanupOldTrustRelationships();
                cache.SetSmartCardEnabledServices({name});
                cache.SetPcscdSvcPolicyOn(i % 2 != 0);
                cache.SetDomainTrustState(TrustStateGood);
                const auto configuration = cache.GetConfiguration();
                const auto domains = cache.GetTrustedDomains();
                torn = torn || configuration.dnsDomainName != configuration.netbiosDomainName ||
                       domains.size() != 2 || domains[0].dnsName != domains[1].dnsName ||
                       cache.GetAllDomains().size() != 3 || !cache.IsDomainMember() ||
                       cache.GetDomainTrustState() != TrustStateGood;
                const char* service = name.c_str();
                cache.IsSmartCardAuthenticationEnabled(&service, 1);
                cache.GetDomainTrustRelationship(name);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(torn);
}

} // namespace
