/// A file as it was at one moment.
#ifndef TESAUTHCTL_FILE_SNAPSHOT_H
#define TESAUTHCTL_FILE_SNAPSHOT_H

#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace ctl {

/// What a file has, so that another one can be given the same.
struct FileSnapshot {
    std::string content;
    struct stat status = {};
    std::vector<std::pair<std::string, std::string>> attributes; ///< extended ones, such as an ACL
};

/// What is done with the name of a symbolic link.
enum class Links { Follow, Refuse };

/// Reads a regular file; nothing when there is none. Throws NotPermittedError or HintedError.
std::optional<FileSnapshot> ReadIfThere(const std::string& path, Links links = Links::Follow);

/// As above, and throws HintedError when there is none.
FileSnapshot ReadFile(const std::string& path);

/// Gives an open file the owner, the permission bits and the extended attributes of another, takes
/// those away that only it has, such as an ACL from its folder, and waits until it is on the disk.
/// Throws NotPermittedError or HintedError.
void MakeLike(const FileSnapshot& model, int descriptor, const std::string& path);

/// Throws NotPermittedError when the error is a lack of rights, else HintedError. The text goes
/// before that of the error.
[[noreturn]] void ThrowFileError(const std::string& text, int error);

/// Waits until what was renamed, linked or removed in a file's folder is on the disk, as far as
/// that can be done.
void SyncFolderOf(const std::string& path);

/// The folder that a file is in.
std::string FolderOf(const std::string& path);

} // namespace ctl

#endif
