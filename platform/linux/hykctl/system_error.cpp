#include "hykctl/system_error.h"

#include <system_error>

#include "hostctl/host.h"

namespace HykCtl {

void ThrowSystemError(const std::string& what, const std::string& action, int error) {
    throw HostCtl::Lib::HostCtlException(what + ": cannot " + action + ": " +
                                         std::generic_category().message(error));
}

} // namespace HykCtl
