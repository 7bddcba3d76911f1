/// The part of a diagnosis that the provider makes.
#ifndef TESAUTHCTL_DIRECTORY_DIAGNOSIS_H
#define TESAUTHCTL_DIRECTORY_DIAGNOSIS_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "finding.h"
#include "maintenance.h"
#include "tesauth/provider.h"

namespace ctl {

/// The provider that the host's settings name, loaded for good, or why it could not be loaded.
struct LoadedProvider {
    /// Nothing when provider.conf does not tell; a check of that file's own says why.
    std::optional<std::string> name;
    std::shared_ptr<tessary::authentication::ActiveDirectoryProvider> provider;
    std::string whyNot; ///< set when there is a name, but no provider
    std::optional<Maintenance> maintenance;
};

/// Throws nothing but what a lack of memory throws.
LoadedProvider LoadProvider();

/// Lets the provider look at the directory and reports its findings as they come, on this thread.
/// When the time is over, or when the provider cannot look, that is a finding; that there is no
/// provider is one of CheckProvider() and only referred to. What is not done by
/// then runs on until the process ends, so leave with _exit.
void DiagnoseDirectory(const LoadedProvider& loaded, const std::string& domain,
                       std::chrono::seconds limit, const Report& report);

/// Whether the provider can be used, and what it offers.
void CheckProvider(const LoadedProvider& loaded, const Report& report);

} // namespace ctl

#endif
