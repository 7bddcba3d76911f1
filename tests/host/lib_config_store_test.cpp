#include <filesystem>
#include <map>

#include "orvcfg/config_store.h"
#include "scripted_host.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;
using namespace OrvConfigStore;

using Ours = ActiveDirectoryConfigStore;
using Values = std::map<std::string, std::string>;

class ConfigStoreTest : public HostTest {
protected:
    /// All values of an object in the store, without the class under test.
    static Values Stored(const char* key) {
        const auto object = ConfigStore::GetStore(sGlobalNamespace)
                                ->GetObject(ConfigStoreObjectId(key, "identity", "orv"));
        return object != nullptr ? object->Values() : Values{{"(no object)", ""}};
    }

    template <typename Action>
    static void ExpectAbsent(Action action) {
        EXPECT_EQ(TextOf<ConfigurationError>(action), "Failed to get the requested object");
    }
};

TEST_F(ConfigStoreTest, Names) {
    EXPECT_STREQ(Ours::AD_CONFIG_COMPONENT, "orv");
    EXPECT_STREQ(Ours::AD_CONFIG_GROUP, "identity");
    EXPECT_STREQ(Ours::AD_CONFIG_KEY, "active_directory");
    EXPECT_STREQ(Ours::AUTH_PROXY_CONFIG_KEY, "auth_proxy_certificate");
    EXPECT_STREQ(Ours::DOMAIN_NAME_KEY, "domain_name");
    EXPECT_STREQ(Ours::ORG_UNIT_KEY, "organizational_unit");
    EXPECT_STREQ(Ours::AUTH_PROXY_ADDR_KEY, "auth_proxy_address");
    EXPECT_STREQ(Ours::AUTH_PROXY_CERT_KEY, "certificate");
    EXPECT_STREQ(Ours::AUTH_PROXY_THUMBPRINT_KEY, "thumbprint");
    EXPECT_EQ(Ours::AD_CSO_ID.Key(), "active_directory");
    EXPECT_EQ(Ours::AD_CSO_ID.Group(), "identity");
    EXPECT_EQ(Ours::AD_CSO_ID.Component(), "orv");
    EXPECT_EQ(Ours::AUTH_PROXY_CERT_CSO_ID.Key(), "auth_proxy_certificate");
    EXPECT_EQ(Ours::AUTH_PROXY_CERT_CSO_ID.Group(), "identity");
    EXPECT_EQ(Ours::AUTH_PROXY_CERT_CSO_ID.Component(), "orv");
}

TEST_F(ConfigStoreTest, AbsentObjectIsAnError) {
    Ours store;
    ExpectAbsent([&] { store.GetDomainName(); });
    ExpectAbsent([&] { store.GetOrganizationalUnit(); });
    ExpectAbsent([&] { store.GetAuthProxyAddr(); });
    ExpectAbsent([&] { store.GetThumbprint(); });
    ExpectAbsent([&] { store.GetCertificate(); });
    ExpectAbsent([&] { store.GetStringValue(Ours::AD_CSO_ID, "domain_name"); });
    EXPECT_EQ(ConfigurationError("").GetCode(), 0u);
}

TEST_F(ConfigStoreTest, DomainIsStoredUnderItsNames) {
    Ours().StoreDomainInfo("corp.example", "Servers/Hosts", "proxy.example");
    EXPECT_EQ(Stored("active_directory"), (Values{{"domain_name", "corp.example"},
                                                  {"organizational_unit", "Servers/Hosts"},
                                                  {"auth_proxy_address", "proxy.example"}}));
    EXPECT_EQ(Ours().GetDomainName(), "corp.example");
    EXPECT_EQ(Ours().GetOrganizationalUnit(), "Servers/Hosts");
    EXPECT_EQ(Ours().GetAuthProxyAddr(), "proxy.example");
    ExpectAbsent([] { Ours().GetThumbprint(); });
}

TEST_F(ConfigStoreTest, EmptyOrganizationalUnitIsNotStoredAndNotCarriedOver) {
    Ours().StoreDomainInfo("old.example", "Servers", "proxy.example");
    Ours().StoreDomainInfo("corp.example", "", "");
    EXPECT_EQ(Stored("active_directory"),
              (Values{{"domain_name", "corp.example"}, {"auth_proxy_address", ""}}));
    EXPECT_EQ(Ours().GetOrganizationalUnit(), "");
    EXPECT_EQ(Ours().GetAuthProxyAddr(), "");
}

TEST_F(ConfigStoreTest, AbsentValueIsEmpty) {
    Ours().StoreDomainInfo("corp.example", "", "");
    EXPECT_EQ(Ours().GetStringValue(Ours::AD_CSO_ID, "no such key"), "");
    EXPECT_EQ(Ours().GetStringValue(Ours::AD_CSO_ID, "domain_name"), "corp.example");
}

TEST_F(ConfigStoreTest, ProxyCertificateIsStoredExactlyAsGiven) {
    const std::string certificate = "-----BEGIN\n\"'\t\xC3\xA9 = %s\n";
    Ours().StoreAuthProxyCertInfo("AB:CD", certificate);
    EXPECT_EQ(Stored("auth_proxy_certificate"),
              (Values{{"thumbprint", "AB:CD"}, {"certificate", certificate}}));
    EXPECT_EQ(Ours().GetThumbprint(), "AB:CD");
    EXPECT_EQ(Ours().GetCertificate(), certificate);
    Ours().StoreAuthProxyCertInfo("", "");
    EXPECT_EQ(Stored("auth_proxy_certificate"), (Values{{"thumbprint", ""}, {"certificate", ""}}));
}

TEST_F(ConfigStoreTest, RemovingTheDomainKeepsTheCertificate) {
    Ours().RemoveDomainInfo(); // nothing there: nothing to do
    Ours().StoreAuthProxyCertInfo("AB", "PEM");
    Ours().StoreDomainInfo("corp.example", "", "");
    Ours().RemoveDomainInfo();
    ExpectAbsent([] { Ours().GetDomainName(); });
    EXPECT_EQ(Ours().GetThumbprint(), "AB");
    EXPECT_EQ(Ours().GetCertificate(), "PEM");
    Ours().RemoveDomainInfo();
}

TEST_F(ConfigStoreTest, StoreFailuresPassUntranslated) {
    Ours opened;
    std::filesystem::remove_all("/var/lib/tessary");
    WriteFile("/var/lib/tessary", "not a folder");
    EXPECT_THROW(Ours(), ConfigStoreException);
    std::filesystem::remove_all("/var/lib/tessary");
}

} // namespace
