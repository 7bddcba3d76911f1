/// Editing a configuration file of the host.
#ifndef HYKCTL_TEXT_FILE_H
#define HYKCTL_TEXT_FILE_H

#include <functional>
#include <string>

namespace HykCtl {

/// The path that `path` leads to when symbolic links in its last component are followed; that
/// file need not exist. Throws HostCtl::Lib::HostCtlException.
std::string FollowLinks(const std::string& path);

/// Hands the text of a file to `edit` and makes the file hold what it returns.
///
/// The file is replaced by a new one, complete and on the disk, with the mode and owner of the
/// old; or stays as it is when anything fails. (One failure comes later: when the directory cannot
/// be synced, the new file is in place and may not outlive a power failure.) A symbolic link is
/// followed and kept. A file that is a mount point or lies in a read-only directory cannot be
/// replaced: it is rewritten in place, after its room on the disk has been reserved. A missing file
/// counts as empty and is created with mode 0644. Nothing is written when the text does not change.
///
/// Callers exclude each other, between processes too, from the reading to the end of the writing;
/// see EditLock for how long one waits. Throws HostCtl::Lib::HostCtlException that names the file
/// and the cause, and what `edit` throws.
void EditTextFile(const std::string& path,
                  const std::function<std::string(const std::string& text)>& edit);

} // namespace HykCtl

#endif
