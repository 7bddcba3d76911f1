#include "hykctl/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "hostctl/host.h"
#include "hykctl/descriptor.h"
#include "hykctl/edit_lock.h"
#include "hykctl/system_error.h"

namespace HykCtl {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kNewFileMode = 0644;
constexpr int kMostLinks = 40; // as many as the kernel follows

/// What is known of a file before it is edited.
struct OldFile {
    std::string text;
    struct stat info;
};

/// The file that is to take the place of another; removed again unless it did.
class Replacement {
public:
    /// Makes the new file, empty and closed to others. Where that fails, IsOpen() is false and
    /// errno tells why.
    explicit Replacement(const fs::path& target)
        : target_(target),
          path_(target.parent_path() / ("." + target.filename().string() + ".hykctl-new")),
          file_(Create(path_)) {}
    ~Replacement() {
        if (file_.IsOpen() && !done_)
            unlink(path_.c_str());
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    const std::string& Path() const { return path_; }
    int Get() const { return file_.Get(); }
    bool IsOpen() const { return file_.IsOpen(); }

    /// False when it failed; errno tells why.
    bool TakePlace() {
        done_ = rename(path_.c_str(), target_.c_str()) == 0;
        return done_;
    }

private:
    static int Create(const std::string& path) {
        // A name of its own is safe under the lock; what stands there was left by a crash.
        unlink(path.c_str());
        return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }

    std::string target_;
    std::string path_;
    Descriptor file_;
    bool done_ = false;
};

std::string ReadAll(int descriptor, const std::string& path) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(descriptor, buffer, sizeof buffer);
        if (count == 0)
            return text;
        if (count > 0)
            text.append(buffer, static_cast<size_t>(count));
        else if (errno != EINTR)
            ThrowSystemError(path, "read", errno);
    }
}

/// The file as it is, or nothing when there is none.
std::optional<OldFile> ReadOldFile(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.IsOpen()) {
        if (errno == ENOENT)
            return std::nullopt;
        ThrowSystemError(path, "open", errno);
    }
    OldFile old;
    if (fstat(file.Get(), &old.info) != 0)
        ThrowSystemError(path, "look up", errno);
    if (!S_ISREG(old.info.st_mode))
        throw HostCtl::Lib::HostCtlException(path + ": not a regular file");
    old.text = ReadAll(file.Get(), path);
    return old;
}

/// Writes from the start of the file; returns 0 or the error.
int WriteAll(int descriptor, const std::string& text) {
    for (size_t written = 0; written < text.size();) {
        const ssize_t count = pwrite(descriptor, text.data() + written, text.size() - written,
                                     static_cast<off_t>(written));
        if (count >= 0)
            written += static_cast<size_t>(count);
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

/// Makes the text, the mode and the owner of the new file durable.
void Complete(int descriptor, const std::string& path, const std::optional<OldFile>& old,
              const std::string& text) {
    if (const int error = WriteAll(descriptor, text))
        ThrowSystemError(path, "write", error);
    if (old && fchown(descriptor, old->info.st_uid, old->info.st_gid) != 0)
        ThrowSystemError(path, "keep the owner", errno);
    const mode_t mode = old ? old->info.st_mode & 07777 : kNewFileMode;
    if (fchmod(descriptor, mode) != 0)
        ThrowSystemError(path, "keep the mode", errno);
    if (fsync(descriptor) != 0)
        ThrowSystemError(path, "sync", errno);
}

/// Puts a new file in place of the old. Returns false, and leaves nothing behind, where only the
/// file itself can be written: it is a mount point, or lies in a read-only directory, as it may in
/// a container.
bool Replace(const std::string& path, const std::optional<OldFile>& old, const std::string& text) {
    const std::string directory = fs::path(path).parent_path();
    const Descriptor parent(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent.IsOpen())
        ThrowSystemError(directory, "open", errno);
    Replacement replacement(path);
    if (!replacement.IsOpen()) {
        if (old && errno == EROFS)
            return false;
        ThrowSystemError(replacement.Path(), "create", errno);
    }
    Complete(replacement.Get(), path, old, text);
    if (!replacement.TakePlace()) {
        if (old && errno == EBUSY)
            return false;
        ThrowSystemError(path, "replace", errno);
    }
    // A directory that cannot be synced (EINVAL on some file systems) is as durable as it gets.
    if (fsync(parent.Get()) != 0 && errno != EINVAL)
        ThrowSystemError(directory, "sync", errno);
    return true;
}

/// Writes the new text over the old; returns 0 or the error. `room` is the size that the file
/// must have room for before its first byte changes.
int Overwrite(int descriptor, const std::string& text, size_t room) {
    if (room > 0)
        if (const int error = posix_fallocate(descriptor, 0, static_cast<off_t>(room)))
            return error;
    if (const int error = WriteAll(descriptor, text))
        return error;
    if (ftruncate(descriptor, static_cast<off_t>(text.size())) != 0 || fsync(descriptor) != 0)
        return errno;
    return 0;
}

void RewriteInPlace(const std::string& path, const OldFile& old, const std::string& text) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.IsOpen())
        ThrowSystemError(path, "open for writing", errno);
    const int error = Overwrite(file.Get(), text, std::max(text.size(), old.text.size()));
    if (error == 0)
        return;
    // The old text needs no room that the file does not have already.
    Overwrite(file.Get(), old.text, 0);
    ThrowSystemError(path, "write", error);
}

} // namespace

std::string FollowLinks(const std::string& path) {
    fs::path current = path;
    for (int links = 0; links < kMostLinks; ++links) {
        std::error_code error;
        const fs::path target = fs::read_symlink(current, error);
        if (error == std::errc::invalid_argument || error == std::errc::no_such_file_or_directory)
            return current;
        if (error)
            ThrowSystemError(current, "follow the link", error.value());
        current = current.parent_path() / target;
    }
    ThrowSystemError(path, "follow the link", ELOOP);
}

void EditTextFile(const std::string& path,
                  const std::function<std::string(const std::string& text)>& edit) {
    const std::string target = FollowLinks(path);
    const EditLock lock;
    const std::optional<OldFile> old = ReadOldFile(target);
    const std::string oldText = old ? old->text : std::string();
    const std::string newText = edit(oldText);
    if (newText == oldText)
        return;
    if (!Replace(target, old, newText))
        RewriteInPlace(target, *old, newText);
}

} // namespace HykCtl
