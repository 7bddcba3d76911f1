#include "join_record.h"

#include <syslog.h>

#include "orvcfg/config_store.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"

namespace tessary::authentication {

namespace {

/// Leaves a domain that was joined a moment ago. What made this necessary is what the caller is to
/// learn, so a failure here does not take its place.
void UndoJoin(const ActiveDirectoryProvider& provider) {
    try {
        provider.PartDomain();
    } catch (...) {
        return;
    }
}

} // namespace

void RecordJoin(const ActiveDirectoryProvider& provider, const std::string& domain,
                const std::string& organizationalUnit, const std::string& proxyAddress) {
    try {
        ActiveDirectoryConfigStore().StoreDomainInfo(domain, organizationalUnit, proxyAddress);
    } catch (const OrvConfigStore::ConfigStoreException& failure) {
        syslog(LOG_ERR, "Failed to store domain details to Config Store: %s.Leaving Domain...",
               failure.what());
        UndoJoin(provider);
        throw;
    }
}

} // namespace tessary::authentication
