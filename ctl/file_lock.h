/// The right to edit a file and its backup.
#ifndef TESAUTHCTL_FILE_LOCK_H
#define TESAUTHCTL_FILE_LOCK_H

#include <optional>
#include <string>

#include "unique_fd.h"

namespace ctl {

/// Keeps other commands from editing a file while it lives; a file that is not there, too.
///
/// It is a file of its own, FILE.tesauth-lock, that only its owner can open: on the file itself any
/// of its readers could hold a lock for as long as he likes. It goes with this object. One that a
/// killed command left is taken over.
class FileLock {
public:
    /// Waits up to 10 seconds for the others.
    ///
    /// \param file the file itself, not a link to it
    /// Throws HintedError when another command still edits the file then, NotPermittedError or
    /// HintedError when the lock cannot be made.
    explicit FileLock(const std::string& file);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    bool Take();

    std::string name_;
    std::optional<UniqueFd> descriptor_;
};

} // namespace ctl

#endif
