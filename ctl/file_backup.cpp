#include "file_backup.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "failure.h"
#include "unique_fd.h"

namespace ctl {

namespace {

/// A file that is removed at the end of its scope.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& beside)
        : path_(beside + ".XXXXXX"), descriptor_(mkostemp(path_.data(), O_CLOEXEC)) {
        if (descriptor_.Get() < 0) {
            ThrowFileError("cannot make " + beside, errno);
        }
    }
    ~TemporaryFile() { unlink(path_.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& Path() const { return path_; }
    int Descriptor() const { return descriptor_.Get(); }

private:
    std::string path_;
    UniqueFd descriptor_;
};

void WriteAll(int descriptor, const std::string& content, const std::string& path) {
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t count = write(descriptor, content.data() + done, content.size() - done);
        if (count < 0 && errno != EINTR) {
            ThrowFileError("cannot write " + path, errno);
        }
        done += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}

/// Whether there is a backup. Throws HintedError when something else has its name.
bool IsThere(const std::string& name) {
    struct stat status = {};
    if (lstat(name.c_str(), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        throw HintedError(name + " is not a regular file",
                          "the backup needs this name: move it away");
    }
    return true;
}

} // namespace

std::string BackupNameOf(const std::string& file) {
    return file + ".tesauth-backup";
}

std::optional<FileSnapshot> ReadBackup(const std::string& file) {
    const std::string name = BackupNameOf(file);
    return IsThere(name) ? ReadIfThere(name, Links::Refuse) : std::nullopt;
}

FileBackup::FileBackup(const std::string& file, const FileSnapshot& snapshot)
    : name_(BackupNameOf(file)) {
    if (IsThere(name_)) {
        return;
    }
    const TemporaryFile copy(name_);
    WriteAll(copy.Descriptor(), snapshot.content, name_);
    MakeLike(snapshot, copy.Descriptor(), name_);
    // A link, because it never takes the place of a backup that somebody else made meanwhile.
    if (link(copy.Path().c_str(), name_.c_str()) != 0) {
        if (errno != EEXIST) {
            ThrowFileError("cannot make " + name_, errno);
        }
        IsThere(name_);
        return;
    }
    isOurs_ = true;
    SyncFolderOf(name_);
}

FileBackup::~FileBackup() {
    if (isOurs_) {
        unlink(name_.c_str());
    }
}

} // namespace ctl
