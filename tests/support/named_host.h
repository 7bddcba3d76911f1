#pragma once

#include <string>

#include "scripted_host.h"

namespace scripted {

constexpr const char* hostsFile = "/etc/hosts";
constexpr const char* resolverFile = "/etc/resolv.conf";
constexpr const char* resolver = "nameserver 127.0.0.1\n"; ///< what a test finds in it

/// A host with the scripted provider and one interface, 10.99.7.5, whose names are those of the
/// hosts file.
class NamedHostTest : public ProviderTest {
protected:
    NamedHostTest();
    ~NamedHostTest() override;

    /// Gives the host a name and a hosts file.
    void Name(const std::string& name, const std::string& hosts);

private:
    std::string oldName_;
};

} // namespace scripted
