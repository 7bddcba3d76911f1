#include "files.h"

#include "error.h"
#include "operation.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <filesystem>

namespace tessary::directory {
namespace {

constexpr timespec lockPollInterval{0, 50'000'000};
constexpr int mostLinks = 40; // one after the other, as the kernel has it

// Also a link to a file that is yet to be made leads to where that will be.
std::string FollowLinks(const std::string& path) {
    std::filesystem::path followed(path);
    std::error_code error;
    for (int i = 0; i < mostLinks && std::filesystem::is_symlink(followed, error); ++i)
        followed = followed.parent_path() / std::filesystem::read_symlink(followed, error);
    return followed;
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
    if (mkdir(stateDirectory, 0700) == 0)
        return;
    struct stat information {};
    if (errno != EEXIST || stat(stateDirectory, &information) != 0)
        ThrowFileError(errno, std::string("cannot make ") + stateDirectory);
    if ((information.st_mode & 077) != 0 && chmod(stateDirectory, 0700) != 0)
        ThrowFileError(errno, std::string("cannot close to others ") + stateDirectory);
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

void Replacement::Sync() {
    if (fsync(fd_.Get()) != 0)
        ThrowFileError(errno, "cannot write " + target_);
}

void Replacement::Commit() {
    Sync();
    if (rename(path_.c_str(), target_.c_str()) != 0)
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

std::optional<Secret> ReadSecretFile(const std::string& path) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd && (errno == ENOENT || errno == ENOTDIR))
        return std::nullopt;
    if (!fd)
        ThrowFileError(errno, "cannot read " + path);
    return ReadSecretFile(fd.Get(), path);
}

Secret ReadSecretFile(int file, const std::string& name) {
    struct stat information {};
    if (fstat(file, &information) != 0)
        ThrowFileError(errno, "cannot read " + name);
    Secret bytes(static_cast<std::size_t>(information.st_size));
    for (std::size_t done = 0; done < bytes.Size();) {
        const ssize_t got =
            pread(file, bytes.Data() + done, bytes.Size() - done, static_cast<off_t>(done));
        if (got > 0)
            done += static_cast<std::size_t>(got);
        else if (got == 0 || errno != EINTR)
            ThrowFileError(got == 0 ? EIO : errno, "cannot read " + name);
    }
    return bytes;
}

void RemoveFile(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        SyncDirectoryOf(path);
    else if (errno != ENOENT && errno != ENOTDIR)
        ThrowFileError(errno, "cannot remove " + path);
}

} // namespace tessary::directory
