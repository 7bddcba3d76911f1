#include "tesauth/active_directory_store.h"

#include "configured_provider.h"
#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"

namespace tessary::authentication {

namespace {

std::shared_ptr<ActiveDirectoryProvider> LoadProvider(const std::string& name) {
    try {
        return std::make_shared<ActiveDirectoryProvider>(name);
    } catch (const IOError&) {
        throw InvalidActiveDirectoryProviderException(name);
    }
}

} // namespace

ActiveDirectoryStore::ActiveDirectoryStore(int timeout)
    : timeoutSeconds(timeout),
      provider(LoadProvider(ConfiguredProviderName<ProviderConfiguration,
                                                   InvalidActiveDirectoryProviderException>())) {}

ActiveDirectoryStore::~ActiveDirectoryStore() = default;

std::string ActiveDirectoryStore::GetDisplayName() const {
    return "Active Directory";
}

void ActiveDirectoryStore::MakeActive() {
    AuthenticationConfiguration configuration;
    configuration["remote-authentication-store"] = GetDisplayName();
    configuration.Write();
    UpdateCache(std::nullopt);
}

void ActiveDirectoryStore::MakeInactive() {
    UpdateCache(std::nullopt);
}

} // namespace tessary::authentication
