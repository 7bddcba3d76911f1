#include "tesauth/atomic_file_stream.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "tesauth/exceptions.h"

namespace tessary::authentication {

AtomicFileStream::AtomicFileStream(const char* path, std::ios_base::openmode mode) {
    open(path, mode);
}

AtomicFileStream::~AtomicFileStream() = default;

void AtomicFileStream::open(const char* path, std::ios_base::openmode mode) {
    // A name that does not fit loses the end of its template, which mkstemp then refuses.
    char name[4096] = {};
    const int length = std::snprintf(name, sizeof name, "%s.XXXXXX", path);
    const int descriptor = length < 0 ? -1 : mkstemp(name);
    if (descriptor < 0) {
        throw IOError(std::string("Unable to create temporary file to write '") + path +
                      "': " + std::strerror(errno));
    }
    fchmod(descriptor, S_IRUSR | S_IWUSR); // also where the umask takes bits from the owner
    ::close(descriptor);

    tempName = name;
    targetName = path;
    if (is_open()) {
        rdbuf()->close();
    }
    std::ofstream::open(tempName, mode | std::ios_base::out);
}

void AtomicFileStream::Commit() {
    flush();
    close();

    errno = 0;
    std::string permissionProblem;
    struct stat oldStatus = {};
    if (stat(targetName.c_str(), &oldStatus) != 0) {
        if (errno != ENOENT) {
            permissionProblem = std::strerror(errno);
        } else if (rename(tempName.c_str(), targetName.c_str()) == 0) {
            return; // a new target keeps the temporary file's 0600
        }
    }

    const int statusError = errno;
    if (rename(tempName.c_str(), targetName.c_str()) != 0) {
        throw IOError("Unable to rename '" + tempName + "' to '" + targetName +
                      "': " + std::strerror(errno));
    }
    if (statusError == 0 && permissionProblem.empty() &&
        chmod(targetName.c_str(), oldStatus.st_mode & 07777) != 0) {
        permissionProblem = std::strerror(errno);
    }
    if (!permissionProblem.empty()) {
        throw FilePermissionError(
            "Failed to save file permissions, file permissions may be incorrect: " +
            permissionProblem);
    }
}

} // namespace tessary::authentication
