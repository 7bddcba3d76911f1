#include "error.h"

#include <cerrno>
#include <system_error>

namespace tessary::directory {

void ThrowFileError(int error, const std::string& what) {
    Status status = Status::InternalError;
    if (error == EACCES || error == EPERM || error == EROFS)
        status = Status::AccessDenied;
    else if (error == ENOMEM)
        status = Status::NotEnoughMemory;
    throw Error(status, what + ": " + std::generic_category().message(error));
}

} // namespace tessary::directory
