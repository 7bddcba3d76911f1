#include "start.h"

#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tessary::proxy {
namespace {

/// Descriptors besides those of connections: of the directory's clients, the record of accounts,
/// the log.
constexpr rlim_t otherDescriptors = 256;

[[noreturn]] void ThrowSystemError(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

bool IsMissing(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) != 0 && errno == ENOENT;
}

void PrepareStateDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        ThrowSystemError("cannot make " + path);
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        ThrowSystemError("cannot read " + path);
    if (!S_ISDIR(status.st_mode))
        throw std::runtime_error(path + " is no directory");
    if (status.st_uid != geteuid())
        throw std::runtime_error(path + " belongs to the user " + std::to_string(status.st_uid) +
                                 ", and the proxy runs as " + std::to_string(geteuid()));
    if ((status.st_mode & 077) != 0)
        throw std::runtime_error(path + " is open to other users (chmod 0700 would close it)");
}

bool MakesIdentity(const Configuration& configuration) {
    return IsMissing(configuration.certificate) &&
           (!configuration.namesCertificate || IsMissing(configuration.privateKey));
}

Identity PrepareIdentity(const Configuration& configuration) {
    if (MakesIdentity(configuration))
        MakeIdentity(HostIdentity::OfThisHost(), configuration.certificate,
                     configuration.privateKey);
    return ReadIdentity(configuration.certificate, configuration.privateKey);
}

void AllowConnections(unsigned connections) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t wanted = connections + otherDescriptors;
    if (limit.rlim_cur >= wanted)
        return;
    if (limit.rlim_max < wanted)
        throw std::runtime_error("the limit on open files, " + std::to_string(limit.rlim_max) +
                                 ", is too low for " + std::to_string(connections) +
                                 " connections; " + std::to_string(wanted) + " would do");
    limit.rlim_cur = wanted;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        ThrowSystemError("cannot raise the limit on open files");
}

void BecomeOwnerOf(const std::string& directory) {
    struct stat status {};
    if (geteuid() != 0 || stat(directory.c_str(), &status) != 0 || status.st_uid == 0)
        return;
    const passwd* const user = getpwuid(status.st_uid);
    const bool grouped =
        user != nullptr ? initgroups(user->pw_name, user->pw_gid) == 0 : setgroups(0, nullptr) == 0;
    if (!grouped || setgid(user != nullptr ? user->pw_gid : status.st_gid) != 0 ||
        setuid(status.st_uid) != 0)
        ThrowSystemError("cannot become the user who owns " + directory);
}

} // namespace tessary::proxy
