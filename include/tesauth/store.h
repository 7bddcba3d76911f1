/// The interface of the host's authentication stores.
#ifndef TESAUTH_STORE_H
#define TESAUTH_STORE_H

#include <string>

#include "tesauth/export.h"

namespace tessary {
namespace authentication {

/// Base of what a store tells about its configuration.
class TESAUTH_API StoreConfiguration {
public:
    StoreConfiguration();
    StoreConfiguration(const StoreConfiguration&);
    StoreConfiguration(StoreConfiguration&&) noexcept;
    StoreConfiguration& operator=(const StoreConfiguration&);
    StoreConfiguration& operator=(StoreConfiguration&&) noexcept;
    virtual ~StoreConfiguration();
};

/// A source of users and groups. A host has exactly one active store; its name is kept in the
/// authentication settings (AuthenticationConfiguration), not in the objects.
class TESAUTH_API AuthenticationStore {
public:
    // The order of these operations is part of the binary interface.

    /// A new configuration object of the store's own kind; the caller deletes it.
    virtual StoreConfiguration* GetStoreConfiguration() const = 0;

    /// The store's name, which is also its name in the factory and in the settings.
    virtual std::string GetDisplayName() const = 0;

    /// Whether this is the host's active store.
    virtual bool IsActive() const = 0;

    /// Makes this the host's active store.
    virtual void MakeActive() = 0;

    virtual ~AuthenticationStore();

protected:
    AuthenticationStore();

private:
    AuthenticationStore(const AuthenticationStore&) = delete;
    AuthenticationStore& operator=(const AuthenticationStore&) = delete;
};

/// A store beyond the host's local accounts.
class TESAUTH_API RemoteAuthenticationStore : public AuthenticationStore {
public:
    /// Compares the display name, byte for byte, with the name in the authentication settings,
    /// which are read anew on each call. Throws what reading them throws: IOError,
    /// ConfigurationError, and InvalidKeyException when they name no store.
    bool IsActive() const override;

    ~RemoteAuthenticationStore() override;

    /// Undoes what MakeActive() set up for this store.
    virtual void MakeInactive() = 0;
};

/// A store that is backed by a directory.
class TESAUTH_API DirectoryStore : public RemoteAuthenticationStore {
public:
    ~DirectoryStore() override;
};

} // namespace authentication
} // namespace tessary

#endif
