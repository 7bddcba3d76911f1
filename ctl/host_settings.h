/// What the host itself knows, without asking anybody.
#ifndef TESAUTHCTL_HOST_SETTINGS_H
#define TESAUTHCTL_HOST_SETTINGS_H

#include <string>

namespace ctl {

/// The name of the active store. Throws what reading the settings throws.
std::string ActiveStoreName();

/// The domain that the host has stored; both are empty when it has stored none.
struct StoredDomain {
    std::string name;
    std::string organizationalUnit;
};

/// Throws OrvConfigStore::ConfigStoreException.
StoredDomain ReadStoredDomain();

} // namespace ctl

#endif
