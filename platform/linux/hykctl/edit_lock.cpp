#include "hykctl/edit_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "common/state_directory.h"
#include "hostctl/host.h"
#include "hykctl/system_error.h"

namespace HykCtl {
namespace {

using HostCtl::Lib::HostCtlException;

constexpr std::chrono::milliseconds kPatience(10000);
constexpr std::chrono::milliseconds kPause(20);

const std::string& LockFile() {
    static const std::string path = std::string(PlatformState::kStateDirectory) + "/hykctl.lock";
    return path;
}

int OpenLockFile() {
    const std::string failure = PlatformState::EnsureStateDirectory();
    if (!failure.empty())
        throw HostCtlException(failure);
    return open(LockFile().c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
}

void RequireClosedToOthers(int descriptor) {
    struct stat info;
    if (fstat(descriptor, &info) != 0)
        ThrowSystemError(LockFile(), "look up", errno);
    if (!S_ISREG(info.st_mode))
        throw HostCtlException(LockFile() + ": not a regular file");
    if ((info.st_mode & 0077) != 0 && fchmod(descriptor, 0600) != 0)
        ThrowSystemError(LockFile(), "close to other users", errno);
}

} // namespace

EditLock::EditLock() : descriptor_(OpenLockFile()) {
    if (!descriptor_.IsOpen())
        ThrowSystemError(LockFile(), "open", errno);
    RequireClosedToOthers(descriptor_.Get());
    // The pauses are added up instead of looking at a clock: a suspended host takes up no patience.
    std::chrono::milliseconds waited(0);
    while (flock(descriptor_.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK)
            ThrowSystemError(LockFile(), "lock", errno);
        if (waited >= kPatience)
            throw HostCtlException(
                LockFile() + ": held by another process for " +
                std::to_string(std::chrono::duration_cast<std::chrono::seconds>(waited).count()) +
                " seconds");
        std::this_thread::sleep_for(kPause);
        waited += kPause;
    }
}

} // namespace HykCtl
