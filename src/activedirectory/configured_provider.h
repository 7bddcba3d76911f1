/// The plug-ins that the host's settings name.
#ifndef TESAUTH_ACTIVEDIRECTORY_CONFIGURED_PROVIDER_H
#define TESAUTH_ACTIVEDIRECTORY_CONFIGURED_PROVIDER_H

#include <string>

#include "tesauth/exceptions.h"

namespace tessary::authentication {

/// The name under the key "provider" of a settings file. Throws `Failure` carrying "(none
/// installed)" when the file cannot be read and "(unset)" when the name is empty.
template <typename Settings, typename Failure>
std::string ConfiguredProviderName() {
    std::string name;
    try {
        name = Settings()["provider"];
    } catch (const IOError&) {
        throw Failure("(none installed)");
    }
    if (name.empty()) {
        throw Failure("(unset)");
    }
    return name;
}

} // namespace tessary::authentication

#endif
