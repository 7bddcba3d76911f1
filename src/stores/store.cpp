#include "tesauth/store.h"

#include "tesauth/configuration.h"

namespace tessary::authentication {

StoreConfiguration::StoreConfiguration() = default;
StoreConfiguration::StoreConfiguration(const StoreConfiguration&) = default;
StoreConfiguration::StoreConfiguration(StoreConfiguration&&) noexcept = default;
StoreConfiguration& StoreConfiguration::operator=(const StoreConfiguration&) = default;
StoreConfiguration& StoreConfiguration::operator=(StoreConfiguration&&) noexcept = default;
StoreConfiguration::~StoreConfiguration() = default;

AuthenticationStore::AuthenticationStore() = default;
AuthenticationStore::~AuthenticationStore() = default;

bool RemoteAuthenticationStore::IsActive() const {
    AuthenticationConfiguration configuration;
    const std::string& activeName = configuration["remote-authentication-store"];
    return activeName == GetDisplayName();
}

RemoteAuthenticationStore::~RemoteAuthenticationStore() = default;

DirectoryStore::~DirectoryStore() = default;

} // namespace tessary::authentication
