#include "file_lock.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "failure.h"
#include "file_snapshot.h"

namespace ctl {

namespace {

constexpr std::chrono::milliseconds patience(10'000);
constexpr std::chrono::milliseconds pause(20);

} // namespace

FileLock::FileLock(const std::string& file) : name_(file + ".tesauth-lock") {
    // The pauses are added up instead of looking at a clock: a suspended host takes up no patience.
    for (std::chrono::milliseconds waited(0); !Take(); waited += pause) {
        if (waited >= patience) {
            throw HintedError("another command edits " + file,
                              "try again when it is done; nothing was changed");
        }
        std::this_thread::sleep_for(pause);
    }
}

FileLock::~FileLock() {
    // Before the lock is let go: behind it the name may be another command's.
    unlink(name_.c_str());
}

/// Returns whether the lock is ours now.
bool FileLock::Take() {
    descriptor_.emplace(
        open(name_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    const int descriptor = descriptor_->Get();
    struct stat status = {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        ThrowFileError("cannot open " + name_, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw HintedError(name_ + " is not a regular file", "remove it; nothing was changed");
    }
    if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            ThrowFileError("cannot lock " + name_, errno);
        }
        return false;
    }
    // The one who had it removed the name; a third may have made it anew by now.
    struct stat named = {};
    return lstat(name_.c_str(), &named) == 0 && named.st_dev == status.st_dev &&
           named.st_ino == status.st_ino;
}

} // namespace ctl
