#include "files.h"

#include "error.h"
#include "operation.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <memory>

namespace tessary::directory {
namespace {

constexpr timespec lockPollInterval{0, 50'000'000};

struct FreeDeleter {
    void operator()(char* text) const { free(text); }
};

std::string FollowLinks(const std::string& path) {
    const std::unique_ptr<char, FreeDeleter> real(realpath(path.c_str(), nullptr));
    return real ? real.get() : path;
}

std::string NewVersionOf(const std::string& target) {
    return target + ".tessary-new";
}

void SyncDirectoryOf(const std::string& path) {
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        fsync(fd.Get());
}

} // namespace

void MakeStateDirectory() {
    if (mkdir(stateDirectory, 0700) != 0 && errno != EEXIST)
        ThrowFileError(errno, std::string("cannot make ") + stateDirectory);
}

Replacement::Replacement(const std::string& target)
    : target_(FollowLinks(target)), path_(NewVersionOf(target_)) {
    RemoveFile(path_);
    fd_ = UniqueFd(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd_)
        ThrowFileError(errno, "cannot write " + target_);
}

void Replacement::RemoveLeftover(const std::string& target) {
    RemoveFile(NewVersionOf(FollowLinks(target)));
}

Replacement::~Replacement() {
    if (!committed_)
        unlink(path_.c_str());
}

void Replacement::Write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd_.Get(), text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            ThrowFileError(errno, "cannot write " + target_);
    }
}

void Replacement::KeepOwnerAndMode() {
    struct stat old;
    if (stat(target_.c_str(), &old) != 0)
        return;
    if (fchown(fd_.Get(), old.st_uid, old.st_gid) != 0 ||
        fchmod(fd_.Get(), old.st_mode & 07777) != 0)
        ThrowFileError(errno, "cannot keep the owner of " + target_);
}

void Replacement::Commit() {
    if (fsync(fd_.Get()) != 0 || rename(path_.c_str(), target_.c_str()) != 0)
        ThrowFileError(errno, "cannot write " + target_);
    committed_ = true;
    SyncDirectoryOf(target_);
}

StateLock::StateLock(const char* name, const Deadline& deadline) {
    MakeStateDirectory();
    const std::string path = std::string(stateDirectory) + "/" + name;
    fd_ = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd_)
        ThrowFileError(errno, "cannot open " + path);
    while (flock(fd_.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            ThrowFileError(errno, "cannot lock " + path);
        if (deadline.Passed())
            throw Error(Status::CallInProgress,
                        "another process is changing " + std::string(stateDirectory));
        const Waiting waiting;
        nanosleep(&lockPollInterval, nullptr);
    }
}

std::optional<std::string> ReadFile(const std::string& path) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd && (errno == ENOENT || errno == ENOTDIR))
        return std::nullopt;
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t got = fd ? read(fd.Get(), buffer, sizeof buffer) : -1;
        if (got == 0)
            return text;
        if (got > 0)
            text.append(buffer, static_cast<std::size_t>(got));
        else if (errno != EINTR)
            ThrowFileError(errno, "cannot read " + path);
    }
}

void RemoveFile(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        SyncDirectoryOf(path);
    else if (errno != ENOENT && errno != ENOTDIR)
        ThrowFileError(errno, "cannot remove " + path);
}

} // namespace tessary::directory
