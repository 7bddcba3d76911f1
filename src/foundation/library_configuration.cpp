#include "tesauth/configuration.h"

namespace tessary::authentication {

AuthenticationConfiguration::AuthenticationConfiguration()
    : Configuration("/etc/tessary/tesauth/authentication.conf") {}
AuthenticationConfiguration::~AuthenticationConfiguration() = default;

ProviderConfiguration::ProviderConfiguration()
    : Configuration("/etc/tessary/tesauth/provider.conf") {}
ProviderConfiguration::~ProviderConfiguration() = default;

APXProviderConfiguration::APXProviderConfiguration()
    : Configuration("/etc/tessary/tesauth/apxprovider.conf") {}
APXProviderConfiguration::~APXProviderConfiguration() = default;

} // namespace tessary::authentication
