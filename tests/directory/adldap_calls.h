#pragma once

#include "provider_plugin.h"

#include <cstdint>
#include <string>
#include <vector>

/// Calls the plug-in as the library would, with its results copied and released. Where one text is
/// asked for and the call fails, the text is "status" and the number.
class Plugin {
public:
    /// @throws std::runtime_error when the plug-in cannot be loaded
    Plugin();

    const ActiveDirectoryClientOperations& Operations() const { return *operations_; }
    const ActiveDirectoryClientMetadata& Metadata() const { return *metadata_; }

    std::uint32_t Join(const std::string& domain, const std::string& unit, const std::string& user,
                       const std::string& password) const;
    std::uint32_t LeaveAs(const std::string& user, const std::string& password) const;
    std::uint32_t Leave() const { return operations_->partDomain(nullptr); }

    /// "dns netbios", or what stands for null.
    std::string ActiveDomain() const;
    std::string MachineDn() const;
    std::string Controller(const char* first, const std::string& domain) const;
    std::string User(const std::string& name) const;
    std::string HostPrincipal(const std::string& domain) const;
    /// "dns netbios" each; a status that is not the expected one fails the test.
    std::vector<std::string> Trusted(std::uint32_t expectedStatus = 0) const;

    std::uint32_t SetPreferred(const std::vector<std::string>& controllers) const;
    std::vector<std::string> Preferred() const;

private:
    const ActiveDirectoryClientOperations* operations_;
    const ActiveDirectoryClientMetadata* metadata_;
};
