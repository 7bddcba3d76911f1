/// The store that means: local accounts only.
#ifndef TESAUTH_NO_REMOTE_STORE_H
#define TESAUTH_NO_REMOTE_STORE_H

#include <string>

#include "tesauth/store.h"

namespace tessary {
namespace authentication {

/// The "None" store has nothing to configure.
class TESAUTH_API NoRemoteAuthenticationStoreConfiguration : public StoreConfiguration {
public:
    NoRemoteAuthenticationStoreConfiguration();
    ~NoRemoteAuthenticationStoreConfiguration() override;
};

/// The store named "None". Making it active is how a host leaves another store; it cannot be made
/// inactive itself, one activates another store instead. Stateless; may be used from any thread.
class TESAUTH_API NoRemoteAuthenticationStore : public RemoteAuthenticationStore {
public:
    NoRemoteAuthenticationStore();

    /// A new NoRemoteAuthenticationStoreConfiguration; the caller deletes it.
    StoreConfiguration* GetStoreConfiguration() const override;

    /// "None".
    std::string GetDisplayName() const override;

    /// Records "None" as the active store, then makes the store that was active before inactive.
    /// Does nothing when "None" is active already.
    ///
    /// The order is kept on purpose: when the old store cannot be torn down, the host is recorded
    /// as using no remote store, and the exception tells which store is left to clean up:
    /// UnknownRemoteAuthenticationStoreException when there is no store of that name (or no
    /// factory to make it), InvalidRemoteAuthenticationStoreException when it is no remote store,
    /// and whatever its construction or MakeInactive() throws. Failures to read or write the
    /// settings are thrown before anything changes.
    void MakeActive() override;

    ~NoRemoteAuthenticationStore() override;

    /// Always throws std::runtime_error, "Attempted to disable None Store".
    void MakeInactive() override;

private:
    NoRemoteAuthenticationStoreConfiguration configuration;
};

} // namespace authentication
} // namespace tessary

#endif
