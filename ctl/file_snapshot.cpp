#include "file_snapshot.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/xattr.h>
#include <unistd.h>

#include "failure.h"
#include "unique_fd.h"

namespace ctl {

namespace {

std::string ReadAll(int descriptor, const std::string& path) {
    std::string content;
    char buffer[65536];
    for (;;) {
        const ssize_t count = read(descriptor, buffer, sizeof buffer);
        if (count == 0) {
            return content;
        }
        if (count > 0) {
            content.append(buffer, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            ThrowFileError("cannot read " + path, errno);
        }
    }
}

/// What `call` puts into a buffer, which it is first asked to measure; empty when it fails.
template <typename Call>
std::string Measured(Call call) {
    const ssize_t size = call(nullptr, 0);
    std::string value(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
    const ssize_t length = value.empty() ? 0 : call(value.data(), value.size());
    value.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return value;
}

std::vector<std::string> AttributeNames(int descriptor) {
    const std::string listed = Measured(
        [&](char* buffer, std::size_t size) { return flistxattr(descriptor, buffer, size); });
    std::vector<std::string> names;
    for (std::size_t at = 0; at < listed.size(); at = listed.find('\0', at) + 1) {
        names.emplace_back(listed.c_str() + at);
    }
    return names;
}

std::vector<std::pair<std::string, std::string>> ReadAttributes(int descriptor) {
    std::vector<std::pair<std::string, std::string>> attributes;
    for (const std::string& name : AttributeNames(descriptor)) {
        attributes.emplace_back(name, Measured([&](char* buffer, std::size_t size) {
                                    return fgetxattr(descriptor, name.c_str(), buffer, size);
                                }));
    }
    return attributes;
}

/// Those that the kernel gives by itself may be refused, and stay where it gave them; an ACL is
/// access, which must not change.
bool MayBeLost(std::string_view attribute) {
    return attribute.substr(0, 9) == "security." || attribute.substr(0, 8) == "trusted.";
}

/// Takes away what the file has and the model lacks.
void RemoveAttributesBeyond(const FileSnapshot& model, int descriptor, const std::string& path) {
    for (const std::string& name : AttributeNames(descriptor)) {
        const bool isWanted =
            std::any_of(model.attributes.begin(), model.attributes.end(),
                        [&](const auto& attribute) { return attribute.first == name; });
        if (!isWanted && !MayBeLost(name) && fremovexattr(descriptor, name.c_str()) != 0) {
            ThrowFileError("cannot take the attribute " + name + " from " + path, errno);
        }
    }
}

} // namespace

void ThrowFileError(const std::string& text, int error) {
    const std::string told = text + ": " + std::strerror(error);
    if (error == EACCES || error == EPERM) {
        throw NotPermittedError(told);
    }
    const bool isFull = error == ENOSPC || error == EDQUOT;
    throw HintedError(told, isFull            ? "make room on that file system"
                            : error == EROFS  ? "its file system is mounted read-only"
                            : error == ENOENT ? "check the name"
                                              : "check the file and its folder");
}

std::optional<FileSnapshot> ReadIfThere(const std::string& path, Links links) {
    // One that is no regular file must not keep us waiting.
    const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    const UniqueFd file(open(path.c_str(), flags | (links == Links::Refuse ? O_NOFOLLOW : 0)));
    if (file.Get() < 0) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        ThrowFileError("cannot read " + path, errno);
    }
    FileSnapshot snapshot;
    if (fstat(file.Get(), &snapshot.status) != 0) {
        ThrowFileError("cannot read " + path, errno);
    }
    if (!S_ISREG(snapshot.status.st_mode)) {
        throw HintedError(path + " is not a regular file", "name a file");
    }
    snapshot.content = ReadAll(file.Get(), path);
    snapshot.attributes = ReadAttributes(file.Get());
    return snapshot;
}

FileSnapshot ReadFile(const std::string& path) {
    auto snapshot = ReadIfThere(path);
    if (!snapshot) {
        ThrowFileError("cannot read " + path, ENOENT);
    }
    return std::move(*snapshot);
}

void MakeLike(const FileSnapshot& model, int descriptor, const std::string& path) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        ThrowFileError("cannot look at " + path, errno);
    }
    const bool sameOwner =
        status.st_uid == model.status.st_uid && status.st_gid == model.status.st_gid;
    if (!sameOwner && fchown(descriptor, model.status.st_uid, model.status.st_gid) != 0) {
        ThrowFileError("cannot give " + path + " its owner and group", errno);
    }
    // The permissions last: until then an ACL, be it the folder's or the model's, lets nobody in.
    RemoveAttributesBeyond(model, descriptor, path);
    for (const auto& [name, value] : model.attributes) {
        if (fsetxattr(descriptor, name.c_str(), value.data(), value.size(), 0) != 0 &&
            !MayBeLost(name)) {
            ThrowFileError("cannot give " + path + " its attribute " + name, errno);
        }
    }
    if (fchmod(descriptor, model.status.st_mode & 07777) != 0) {
        ThrowFileError("cannot give " + path + " its permissions", errno);
    }
    if (fsync(descriptor) != 0) {
        ThrowFileError("cannot write " + path, errno);
    }
}

void SyncFolderOf(const std::string& path) {
    const UniqueFd folder(open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.Get() >= 0) {
        fsync(folder.Get());
    }
}

std::string FolderOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

} // namespace ctl
