/// The Active Directory settings that survive a restart of the host.
#ifndef TESAUTH_CONFIG_STORE_H
#define TESAUTH_CONFIG_STORE_H

#include <memory>
#include <string>

#include "tesauth/export.h"

// Whoever has the store's header, as every host with the library installed has, gets its types.
#if __has_include("orvcfg/config_store.h")
#include "orvcfg/config_store.h"
#endif

namespace OrvConfigStore {
class ConfigStore;
class ConfigStoreObjectId;
} // namespace OrvConfigStore

namespace tessary {
namespace authentication {

/// Reads and writes the joined domain and the authentication proxy's certificate in the host
/// configuration store.
///
/// Each call is complete in itself. Every failure of the store is thrown as
/// OrvConfigStore::ConfigStoreException, unchanged. Construct one object for each operation, on the
/// thread that uses it.
class TESAUTH_API ActiveDirectoryConfigStore {
public:
    static const char* const AD_CONFIG_COMPONENT;
    static const char* const AD_CONFIG_GROUP;
    static const char* const AD_CONFIG_KEY;
    static const char* const AUTH_PROXY_CONFIG_KEY;
    static const char* const DOMAIN_NAME_KEY;
    static const char* const ORG_UNIT_KEY;
    static const char* const AUTH_PROXY_ADDR_KEY;
    static const char* const AUTH_PROXY_CERT_KEY;
    static const char* const AUTH_PROXY_THUMBPRINT_KEY;

    /// The object of the joined domain, and the object of the proxy's certificate.
    static const OrvConfigStore::ConfigStoreObjectId AD_CSO_ID;
    static const OrvConfigStore::ConfigStoreObjectId AUTH_PROXY_CERT_CSO_ID;

    /// Opens the host's global store.
    ActiveDirectoryConfigStore();

    /// The value of an object, empty when the object has none of that name. Throws
    /// ConfigurationError when the object does not exist.
    std::string GetStringValue(const OrvConfigStore::ConfigStoreObjectId& id,
                               const std::string& key);
    std::string GetDomainName();
    std::string GetOrganizationalUnit();
    std::string GetAuthProxyAddr();
    std::string GetThumbprint();
    std::string GetCertificate();

    /// Replaces what is stored about the joined domain. An empty organisational unit is not stored;
    /// an empty proxy address is.
    void StoreDomainInfo(const std::string& domainName, const std::string& organizationalUnit,
                         const std::string& authProxyAddress);

    /// Replaces the proxy's thumbprint and certificate.
    void StoreAuthProxyCertInfo(const std::string& thumbprint, const std::string& certificate);

    /// Removes what is stored about the joined domain, if anything is. The proxy's certificate
    /// stays.
    void RemoveDomainInfo();

private:
    std::shared_ptr<OrvConfigStore::ConfigStore> store;
};

} // namespace authentication
} // namespace tessary

#endif
