/// Makes authentication stores by name.
#ifndef TESAUTH_STORE_FACTORY_H
#define TESAUTH_STORE_FACTORY_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tesauth/export.h"
#include "tesauth/store.h"

namespace tessary {
namespace authentication {

class ActiveDirectoryStore;
class NoRemoteAuthenticationStore;

/// Points to the one T that exists now, null when there is none. T's constructor and destructor
/// keep it; nothing is created on demand.
template <typename T>
struct Singleton {
    static T* _instance;
};

/// Allocates a store.
template <typename T>
std::unique_ptr<AuthenticationStore> Constructor() {
    return std::make_unique<T>();
}
template <>
TESAUTH_API std::unique_ptr<AuthenticationStore> Constructor<NoRemoteAuthenticationStore>();
/// The store waits 60 seconds for each provider call.
template <>
TESAUTH_API std::unique_ptr<AuthenticationStore> Constructor<ActiveDirectoryStore>();

/// Knows the stores "Active Directory" and "None" and those that are registered with it.
///
/// While it exists it is the process's factory (Singleton<AuthenticationStoreFactory>), which the
/// "None" store needs to tear down its predecessor. One factory is meant to exist at a time. Not
/// synchronised: create and use it on one thread.
class TESAUTH_API AuthenticationStoreFactory {
public:
    using Creator = std::function<std::unique_ptr<AuthenticationStore>()>;

    AuthenticationStoreFactory();
    ~AuthenticationStoreFactory();
    AuthenticationStoreFactory(const AuthenticationStoreFactory&) = delete;
    AuthenticationStoreFactory& operator=(const AuthenticationStoreFactory&) = delete;

    /// Adds a store, or replaces the creator of a name that is registered already.
    void RegisterType(const std::string& name, Creator creator);

    /// A new store of exactly that name, or an empty pointer when the name is not registered.
    /// Throws what the store's constructor throws.
    std::unique_ptr<AuthenticationStore> CreateInstance(const std::string& name);

    /// The registered names in ascending byte-wise order.
    std::vector<std::string> GetRegisteredStores() const;

private:
    std::map<std::string, Creator> creators;
};

template <>
TESAUTH_API AuthenticationStoreFactory* Singleton<AuthenticationStoreFactory>::_instance;

} // namespace authentication
} // namespace tessary

#endif
