#include "tesauth/store_factory.h"

#include <utility>

#include "tesauth/active_directory_store.h"
#include "tesauth/no_remote_store.h"

namespace tessary::authentication {

namespace {

constexpr int providerWaitSeconds = 60;

} // namespace

template <>
AuthenticationStoreFactory* Singleton<AuthenticationStoreFactory>::_instance = nullptr;

template <>
std::unique_ptr<AuthenticationStore> Constructor<NoRemoteAuthenticationStore>() {
    return std::make_unique<NoRemoteAuthenticationStore>();
}

template <>
std::unique_ptr<AuthenticationStore> Constructor<ActiveDirectoryStore>() {
    return std::make_unique<ActiveDirectoryStore>(providerWaitSeconds);
}

AuthenticationStoreFactory::AuthenticationStoreFactory() {
    Singleton<AuthenticationStoreFactory>::_instance = this;
    try {
        RegisterType("Active Directory", Constructor<ActiveDirectoryStore>);
        RegisterType("None", Constructor<NoRemoteAuthenticationStore>);
    } catch (...) {
        Singleton<AuthenticationStoreFactory>::_instance = nullptr;
        throw;
    }
}

AuthenticationStoreFactory::~AuthenticationStoreFactory() {
    // Kept on purpose: also when another factory has taken the place since.
    Singleton<AuthenticationStoreFactory>::_instance = nullptr;
}

void AuthenticationStoreFactory::RegisterType(const std::string& name, Creator creator) {
    creators.insert_or_assign(name, std::move(creator));
}

std::unique_ptr<AuthenticationStore>
AuthenticationStoreFactory::CreateInstance(const std::string& name) {
    const auto entry = creators.find(name);
    return entry != creators.end() ? entry->second() : nullptr;
}

std::vector<std::string> AuthenticationStoreFactory::GetRegisteredStores() const {
    std::vector<std::string> names;
    names.reserve(creators.size());
    for (const auto& entry : creators) {
        names.push_back(entry.first);
    }
    return names;
}

} // namespace tessary::authentication
