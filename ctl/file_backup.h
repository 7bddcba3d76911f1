/// What a file was before the command changed it for the first time.
#ifndef TESAUTHCTL_FILE_BACKUP_H
#define TESAUTHCTL_FILE_BACKUP_H

#include <optional>
#include <string>

#include "file_snapshot.h"

namespace ctl {

/// FILE.tesauth-backup, beside the name that was given.
std::string BackupNameOf(const std::string& file);

/// A file's backup; nothing when there is none. Throws NotPermittedError or HintedError, also when
/// something else than a file has its name, as a symbolic link.
std::optional<FileSnapshot> ReadBackup(const std::string& file);

/// Makes a file's backup unless there is one. It comes into being whole, like the file in all but
/// its name; one that this object made goes with it unless it is kept. The file's lock is to be
/// held all that time.
class FileBackup {
public:
    /// Throws NotPermittedError or HintedError; there is no new backup then.
    FileBackup(const std::string& file, const FileSnapshot& snapshot);
    ~FileBackup();
    FileBackup(const FileBackup&) = delete;
    FileBackup& operator=(const FileBackup&) = delete;

    void Keep() { isOurs_ = false; }

private:
    std::string name_;
    bool isOurs_ = false;
};

} // namespace ctl

#endif
