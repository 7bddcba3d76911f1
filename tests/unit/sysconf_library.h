/// The library's readers, in the shape of the models.
#ifndef TESTS_UNIT_SYSCONF_LIBRARY_H
#define TESTS_UNIT_SYSCONF_LIBRARY_H

#include <string>

#include "sysconf_reading.h"
#include "systemconfiguration/nss.h"
#include "systemconfiguration/pam.h"

namespace SysconfTest {

class PAMLibrary {
public:
    /// Adds what `text` holds.
    Reading Read(const std::string& text);

    /// What has been read, put together from its pieces instead of written by the library. Makes
    /// the stacks that there are not.
    std::string Pieces();

    SystemConfiguration::PAMPolicy& Policy() { return policy_; }

private:
    SystemConfiguration::PAMPolicy policy_{"service"};
};

class NSSLibrary {
public:
    Reading Read(const std::string& text);
    std::string Pieces();
    SystemConfiguration::NSSConfiguration& Configuration() { return configuration_; }

private:
    SystemConfiguration::NSSConfiguration configuration_;
};

} // namespace SysconfTest

#endif
