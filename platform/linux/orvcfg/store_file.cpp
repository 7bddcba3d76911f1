#include "orvcfg/store_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "common/state_directory.h"
#include "orvcfg/config_store.h"

namespace OrvConfigStore {
namespace {

[[noreturn]] void Fail(const char* action) {
    const std::string cause = std::generic_category().message(errno);
    throw ConfigStoreException(std::string(kStoreFile) + ": cannot " + action + ": " + cause);
}

bool Missing() {
    struct stat info;
    if (lstat(kStoreFile, &info) == 0)
        return false;
    if (errno != ENOENT)
        Fail("look up");
    return true;
}

} // namespace

void EnsureStoreFile() {
    const std::string failure = PlatformState::EnsureStateDirectory();
    if (!failure.empty())
        throw ConfigStoreException(failure);

    // mknod makes the file without a descriptor. Closing a descriptor of our own would drop the
    // locks that SQLite holds on the file for other connections of this process.
    if (Missing() && mknod(kStoreFile, S_IFREG | 0600, 0) != 0 && errno != EEXIST)
        Fail("create");

    struct stat info;
    if (lstat(kStoreFile, &info) != 0)
        Fail("look up");
    if (!S_ISREG(info.st_mode))
        throw ConfigStoreException(std::string(kStoreFile) + ": not a regular file");
    // SQLite takes a file of one byte for an empty one and would write over it.
    if (info.st_size == 1)
        throw ConfigStoreException(std::string(kStoreFile) + ": file is not a database");
    if ((info.st_mode & 0077) != 0 && chmod(kStoreFile, 0600) != 0)
        Fail("close to other users");
}

} // namespace OrvConfigStore
