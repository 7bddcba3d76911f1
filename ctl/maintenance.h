/// What the loaded provider offers beside the library's operations.
#ifndef TESAUTHCTL_MAINTENANCE_H
#define TESAUTHCTL_MAINTENANCE_H

#include <cstdint>
#include <optional>
#include <string>

#include "finding.h"
#include "tesauth/plugin/maintenance_plugin.h"

namespace ctl {

/// The maintenance table of a provider. Copies share the table, which lives as long as the plug-in
/// is loaded. May be used from any thread.
class Maintenance {
public:
    /// That of the provider that the library has loaded; nothing when there is none, or one that
    /// has no such table or one of another version.
    static std::optional<Maintenance> OfLoadedProvider();

    /// The version of the loaded provider's table, whatever it is; nothing without a table.
    static std::optional<int32_t> VersionOfLoadedProvider();

    /// Why the latest operation that returned this status did so; empty when the provider does not
    /// know.
    std::string DescribeFailure(uint32_t status) const;

    bool CanDiagnose() const { return table_->diagnose != nullptr; }

    /// Hands each finding of the provider to `report`, on this thread. An empty domain stands for
    /// the one that the host is joined to. `report` must not throw. Returns the provider's status.
    uint32_t Diagnose(const std::string& domain, const Report& report) const;

    /// Gives the machine account a new key if its key is at least so old; returns whether it did.
    /// Throws CallNotImplementedException, and the exception of the provider's status.
    bool RotateMachineKey(uint32_t minimumAgeSeconds) const;

private:
    explicit Maintenance(const ActiveDirectoryClientMaintenance& table) : table_(&table) {}

    const ActiveDirectoryClientMaintenance* table_;
};

/// Why the latest exchange with an authentication proxy ended with this status; empty when the
/// proxy client that the library has loaded does not tell. It may have been closed since.
std::string DescribeProxyFailure(uint32_t status);

} // namespace ctl

#endif
