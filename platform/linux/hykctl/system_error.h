/// How a failed system call is reported.
#ifndef HYKCTL_SYSTEM_ERROR_H
#define HYKCTL_SYSTEM_ERROR_H

#include <string>

namespace HykCtl {

/// Throws HostCtl::Lib::HostCtlException "WHAT: cannot ACTION: the text of `error`".
[[noreturn]] void ThrowSystemError(const std::string& what, const std::string& action, int error);

} // namespace HykCtl

#endif
