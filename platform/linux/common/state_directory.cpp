#include "common/state_directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace PlatformState {
namespace {

std::string Failure(const std::string& cause) {
    return std::string(kStateDirectory) + ": " + cause;
}

std::string SystemFailure(const std::string& action) {
    return Failure("cannot " + action + ": " + std::generic_category().message(errno));
}

} // namespace

std::string EnsureStateDirectory() {
    if (mkdir(kStateDirectory, 0700) == 0)
        return "";
    if (errno != EEXIST)
        return SystemFailure("create");
    struct stat info;
    if (lstat(kStateDirectory, &info) != 0)
        return SystemFailure("look up");
    if (S_ISLNK(info.st_mode))
        return Failure("a symbolic link, not a directory");
    if (!S_ISDIR(info.st_mode))
        return Failure("not a directory");
    if ((info.st_mode & 0077) == 0 || info.st_uid != geteuid())
        return "";
    // What is stored on a read-only file system can still be read; its files are closed themselves.
    if (chmod(kStateDirectory, 0700) != 0 && errno != EROFS)
        return SystemFailure("close to other users");
    return "";
}

} // namespace PlatformState
