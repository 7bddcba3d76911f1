#include "tesauth/config_store.h"

#include "orvcfg/config_store.h"
#include "tesauth/exceptions.h"

namespace tessary::authentication {

using OrvConfigStore::ConfigStore;
using OrvConfigStore::ConfigStoreObject;
using OrvConfigStore::ConfigStoreObjectId;

namespace {

constexpr uint32_t noOptions = 0;

} // namespace

const char* const ActiveDirectoryConfigStore::AD_CONFIG_COMPONENT = "orv";
const char* const ActiveDirectoryConfigStore::AD_CONFIG_GROUP = "identity";
const char* const ActiveDirectoryConfigStore::AD_CONFIG_KEY = "active_directory";
const char* const ActiveDirectoryConfigStore::AUTH_PROXY_CONFIG_KEY = "auth_proxy_certificate";
const char* const ActiveDirectoryConfigStore::DOMAIN_NAME_KEY = "domain_name";
const char* const ActiveDirectoryConfigStore::ORG_UNIT_KEY = "organizational_unit";
const char* const ActiveDirectoryConfigStore::AUTH_PROXY_ADDR_KEY = "auth_proxy_address";
const char* const ActiveDirectoryConfigStore::AUTH_PROXY_CERT_KEY = "certificate";
const char* const ActiveDirectoryConfigStore::AUTH_PROXY_THUMBPRINT_KEY = "thumbprint";

const ConfigStoreObjectId ActiveDirectoryConfigStore::AD_CSO_ID(AD_CONFIG_KEY, AD_CONFIG_GROUP,
                                                                AD_CONFIG_COMPONENT);
const ConfigStoreObjectId ActiveDirectoryConfigStore::AUTH_PROXY_CERT_CSO_ID(AUTH_PROXY_CONFIG_KEY,
                                                                             AD_CONFIG_GROUP,
                                                                             AD_CONFIG_COMPONENT);

ActiveDirectoryConfigStore::ActiveDirectoryConfigStore()
    : store(ConfigStore::GetStore(OrvConfigStore::sGlobalNamespace)) {}

std::string ActiveDirectoryConfigStore::GetStringValue(const ConfigStoreObjectId& id,
                                                       const std::string& key) {
    std::string value;
    const auto object = store->GetObject(id);
    if (object == nullptr) {
        throw ConfigurationError("Failed to get the requested object");
    }
    // Kept on purpose: an absent object is an error, an absent value is an empty string.
    static_cast<void>(object->GetValue(key.c_str(), &value));
    return value;
}

std::string ActiveDirectoryConfigStore::GetDomainName() {
    return GetStringValue(AD_CSO_ID, DOMAIN_NAME_KEY);
}

std::string ActiveDirectoryConfigStore::GetOrganizationalUnit() {
    return GetStringValue(AD_CSO_ID, ORG_UNIT_KEY);
}

std::string ActiveDirectoryConfigStore::GetAuthProxyAddr() {
    return GetStringValue(AD_CSO_ID, AUTH_PROXY_ADDR_KEY);
}

std::string ActiveDirectoryConfigStore::GetThumbprint() {
    return GetStringValue(AUTH_PROXY_CERT_CSO_ID, AUTH_PROXY_THUMBPRINT_KEY);
}

std::string ActiveDirectoryConfigStore::GetCertificate() {
    return GetStringValue(AUTH_PROXY_CERT_CSO_ID, AUTH_PROXY_CERT_KEY);
}

void ActiveDirectoryConfigStore::StoreDomainInfo(const std::string& domainName,
                                                 const std::string& organizationalUnit,
                                                 const std::string& authProxyAddress) {
    // A fresh object, so that nothing of an earlier join is carried over.
    const auto object = std::make_shared<ConfigStoreObject>(AD_CSO_ID);
    object->SetValue(DOMAIN_NAME_KEY, domainName);
    object->SetValue(AUTH_PROXY_ADDR_KEY, authProxyAddress);
    if (!organizationalUnit.empty()) {
        object->SetValue(ORG_UNIT_KEY, organizationalUnit);
    }
    store->SetObject(object, noOptions);
}

void ActiveDirectoryConfigStore::StoreAuthProxyCertInfo(const std::string& thumbprint,
                                                        const std::string& certificate) {
    const auto object = std::make_shared<ConfigStoreObject>(AUTH_PROXY_CERT_CSO_ID);
    object->SetValue(AUTH_PROXY_THUMBPRINT_KEY, thumbprint);
    object->SetValue(AUTH_PROXY_CERT_KEY, certificate);
    store->SetObject(object, noOptions);
}

void ActiveDirectoryConfigStore::RemoveDomainInfo() {
    if (store->GetObject(AD_CSO_ID) != nullptr) {
        store->RemoveObject(AD_CSO_ID);
    }
}

} // namespace tessary::authentication
