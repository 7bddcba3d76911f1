/// The host's store, for the verbs.
#ifndef TESAUTHCTL_HOST_STORE_H
#define TESAUTHCTL_HOST_STORE_H

#include "tesauth/active_directory_store.h"

namespace ctl {

/// The store over the provider that the host's settings name. The provider stays loaded until the
/// process ends: what it knows about a failure is asked for when the store is gone already.
class HostStore : public tessary::authentication::ActiveDirectoryStore {
public:
    /// Throws InvalidActiveDirectoryProviderException, and what reading the settings throws. Call
    /// it on the main thread.
    explicit HostStore(int timeoutSeconds);

    /// The provider itself, for what the store does not pass on.
    const tessary::authentication::ActiveDirectoryProvider& Provider() const { return *provider; }
};

/// Keeps a provider loaded until the process ends.
void KeepLoaded(std::shared_ptr<tessary::authentication::ActiveDirectoryProvider> provider);

} // namespace ctl

#endif
