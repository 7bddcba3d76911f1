/// The proxy's configuration file.
#ifndef TESSARY_PROXY_CONFIGURATION_H
#define TESSARY_PROXY_CONFIGURATION_H

#include "directory_accounts.h"
#include "server.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace tessary::proxy {

inline constexpr char defaultConfiguration[] = "/etc/tessary/tesauth/apxd.toml";

/// What the file says, and for what it does not say, what goes without saying.
struct Configuration {
    AccountSettings accounts;
    ServerSettings server;
    std::string certificate;       ///< path
    std::string privateKey;        ///< path
    bool namesCertificate = false; ///< else these two are the proxy's own, in its state directory
};

/// All that is wrong with a configuration, a line each: "FILE:LINE:COLUMN: cause", or "FILE: cause"
/// where no line is to blame.
class ConfigurationError : public std::runtime_error {
public:
    explicit ConfigurationError(std::vector<std::string> faults);

    const std::vector<std::string>& Faults() const { return faults_; }

private:
    std::vector<std::string> faults_;
};

/// \throws ConfigurationError
Configuration ReadConfiguration(const std::string& file);

/// What a configuration allows to nobody or to everybody, a line each.
std::vector<std::string> Warnings(const Configuration& configuration);

} // namespace tessary::proxy

#endif
