/// An output file stream that replaces its target whole or not at all.
#ifndef TESAUTH_ATOMIC_FILE_STREAM_H
#define TESAUTH_ATOMIC_FILE_STREAM_H

#include <fstream>
#include <string>

#include "tesauth/export.h"

namespace tessary {
namespace authentication {

/// Writes to a temporary file beside the target, "<target>." and six characters; Commit() renames
/// it over the target. Readers of the target see the old content or the new, never a part.
///
/// A stream that is destroyed without Commit() leaves the target as it was and, on purpose, the
/// temporary file as it is. Not synchronised: one object is used by one thread. Concurrent writers
/// of one target don't disturb each other; the last Commit() wins.
class TESAUTH_API AtomicFileStream : public std::ofstream {
public:
    /// Opens the stream, see open().
    AtomicFileStream(const char* path, std::ios_base::openmode mode);
    ~AtomicFileStream() override;

    /// Creates the temporary file (mode 0600) and opens the stream on it, with `mode` plus output;
    /// a failure to open it sets the fail bit. Throws IOError when it cannot be created. Opening
    /// again starts a new temporary file; the earlier one stays on disk.
    void open(const char* path, std::ios_base::openmode mode);

    /// Closes the stream and renames the temporary file over the target, then gives it the
    /// permission bits that the old target had; a new target keeps 0600. What reached the file is
    /// committed even if the stream has failed: check its state before.
    ///
    /// Throws IOError when the file cannot be renamed (the target is unchanged, the temporary file
    /// stays) and FilePermissionError when the permission bits could not be read or set (the new
    /// content is in place).
    void Commit();

protected:
    std::string tempName;
    std::string targetName;
};

} // namespace authentication
} // namespace tessary

#endif
