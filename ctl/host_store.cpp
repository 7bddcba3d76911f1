#include "host_store.h"

namespace ctl {

namespace auth = tessary::authentication;

HostStore::HostStore(int timeout) : ActiveDirectoryStore(timeout) {
    KeepLoaded(provider);
}

void KeepLoaded(std::shared_ptr<auth::ActiveDirectoryProvider> provider) {
    // Never destroyed, on purpose.
    static auto& kept = *new std::vector<std::shared_ptr<auth::ActiveDirectoryProvider>>;
    kept.push_back(std::move(provider));
}

} // namespace ctl
