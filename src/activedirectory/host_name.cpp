#include "host_name.h"

#include <netdb.h>
#include <unistd.h>

#include "tesauth/exceptions.h"

namespace tessary::authentication {

std::string GetHostName() {
    char name[64];
    if (gethostname(name, sizeof name) != 0) {
        throw InvalidHostNameException("unable to get hostname");
    }
    name[sizeof name - 1] = '\0';
    return name;
}

std::string ResolveCanonicalName(const std::string& hostName) {
    hostent entry = {};
    hostent* result = nullptr;
    char buffer[1024];
    int resolverError = 0;
    if (gethostbyname_r(hostName.c_str(), &entry, buffer, sizeof buffer, &result, &resolverError) !=
        0) {
        throw InvalidHostNameException(hstrerror(resolverError));
    }
    if (result == nullptr || result->h_name == nullptr) {
        throw InvalidHostNameException("hostname cannot be resolved");
    }
    return result->h_name;
}

std::string UpToFirstDot(const std::string& name) {
    return name.substr(0, name.find('.'));
}

} // namespace tessary::authentication
