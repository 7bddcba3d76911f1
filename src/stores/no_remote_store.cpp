#include "tesauth/no_remote_store.h"

#include <memory>
#include <stdexcept>

#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"
#include "tesauth/store_factory.h"

namespace tessary::authentication {

NoRemoteAuthenticationStoreConfiguration::NoRemoteAuthenticationStoreConfiguration() = default;
NoRemoteAuthenticationStoreConfiguration::~NoRemoteAuthenticationStoreConfiguration() = default;

NoRemoteAuthenticationStore::NoRemoteAuthenticationStore() = default;
NoRemoteAuthenticationStore::~NoRemoteAuthenticationStore() = default;

StoreConfiguration* NoRemoteAuthenticationStore::GetStoreConfiguration() const {
    return new NoRemoteAuthenticationStoreConfiguration(configuration);
}

std::string NoRemoteAuthenticationStore::GetDisplayName() const {
    return "None";
}

void NoRemoteAuthenticationStore::MakeActive() {
    AuthenticationConfiguration authentication;
    std::string& activeName = authentication["remote-authentication-store"];
    const std::string previousName = activeName;
    if (previousName == GetDisplayName()) {
        return;
    }
    activeName = GetDisplayName();
    authentication.Write();

    AuthenticationStoreFactory* factory = Singleton<AuthenticationStoreFactory>::_instance;
    const std::unique_ptr<AuthenticationStore> previous =
        factory != nullptr ? factory->CreateInstance(previousName) : nullptr;
    if (previous == nullptr) {
        throw UnknownRemoteAuthenticationStoreException(previousName);
    }
    auto* remote = dynamic_cast<RemoteAuthenticationStore*>(previous.get());
    if (remote == nullptr) {
        throw InvalidRemoteAuthenticationStoreException(previousName);
    }
    remote->MakeInactive();
}

void NoRemoteAuthenticationStore::MakeInactive() {
    throw std::runtime_error("Attempted to disable None Store");
}

} // namespace tessary::authentication
