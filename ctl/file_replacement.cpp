#include "file_replacement.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "failure.h"
#include "tesauth/atomic_file_stream.h"
#include "tesauth/exceptions.h"
#include "unique_fd.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

/// The library's writer, whose temporary file goes when it is of no use.
class Writer : public auth::AtomicFileStream {
public:
    explicit Writer(const std::string& target)
        : AtomicFileStream(target.c_str(), std::ios::binary), temporary_(tempName) {}
    ~Writer() override {
        if (!committed_) {
            unlink(temporary_.c_str());
        }
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    const std::string& TemporaryName() const { return temporary_; }

    void CommitForGood() {
        try {
            Commit();
        } catch (const auth::FilePermissionError&) {
            // The file is in place, and it had its permissions before it came there.
        }
        committed_ = true;
    }

private:
    std::string temporary_;
    bool committed_ = false;
};

void WriteContent(Writer& writer, const FileSnapshot& model, const std::string& content,
                  const std::string& target) {
    errno = 0;
    writer.write(content.data(), static_cast<std::streamsize>(content.size()));
    writer.flush();
    if (!writer) {
        ThrowFileError("cannot write " + target, errno == 0 ? EIO : errno);
    }
    const UniqueFd file(
        open(writer.TemporaryName().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status = {};
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
        ThrowFileError("cannot write " + target, errno);
    }
    // In somebody else's folder it may not be the file that was just made.
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != geteuid()) {
        throw HintedError("somebody else changes files beside " + target, "nothing was changed");
    }
    MakeLike(model, file.Get(), target);
}

} // namespace

std::string TargetOf(const std::string& name, bool isThere) {
    struct stat status = {};
    if (!isThere) {
        if (lstat(name.c_str(), &status) == 0) {
            throw HintedError(name + " is a symbolic link to nothing", "remove it, or mend it");
        }
        return name;
    }
    const std::unique_ptr<char, decltype(&std::free)> path(realpath(name.c_str(), nullptr),
                                                           &std::free);
    if (path == nullptr) {
        ThrowFileError("cannot find " + name, errno);
    }
    return path.get();
}

void CheckThatNobodyChangedIt(const std::string& name, const std::optional<FileSnapshot>& before,
                              const std::optional<FileSnapshot>& now) {
    if (now.has_value() != before.has_value() || (now && now->content != before->content)) {
        throw HintedError(name + " was changed by somebody else meanwhile",
                          "look at it and try again; it was left as it is");
    }
}

void CheckThatReplaceable(const std::string& name, bool isThere) {
    const std::string target = TargetOf(name, isThere);
    if (isThere && faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0) {
        ThrowFileError("cannot write " + target, errno);
    }
    if (faccessat(AT_FDCWD, FolderOf(target).c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        ThrowFileError("cannot write in the folder of " + target, errno);
    }
}

void ReplaceFile(const std::string& name, const std::optional<FileSnapshot>& before,
                 const FileSnapshot& model, const std::string& content) {
    const std::string target = TargetOf(name, before.has_value());
    try {
        Writer writer(target);
        WriteContent(writer, model, content, target);
        CheckThatNobodyChangedIt(name, before, ReadIfThere(name));
        writer.CommitForGood();
    } catch (const auth::Exception& failure) {
        throw HintedError(failure.what(),
                          "check the folder of " + target + " and that its file system has room");
    }
    SyncFolderOf(target);
}

} // namespace ctl
