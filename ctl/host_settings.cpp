#include "host_settings.h"

#include "tesauth/config_store.h"
#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"

namespace ctl {

namespace auth = tessary::authentication;

std::string ActiveStoreName() {
    auth::AuthenticationConfiguration settings;
    return settings["remote-authentication-store"];
}

StoredDomain ReadStoredDomain() {
    auth::ActiveDirectoryConfigStore store;
    try {
        return {store.GetDomainName(), store.GetOrganizationalUnit()};
    } catch (const auth::ConfigurationError&) {
        return {}; // nothing is stored about a domain
    }
}

} // namespace ctl
