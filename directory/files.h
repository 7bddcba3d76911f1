/// Small files that are replaced as a whole.
#ifndef TESSARY_DIRECTORY_FILES_H
#define TESSARY_DIRECTORY_FILES_H

#include "deadline.h"
#include "secret.h"
#include "unique_fd.h"

#include <optional>
#include <string>
#include <string_view>

namespace tessary::directory {

/// Where the state of the host's membership lives.
inline constexpr char stateDirectory[] = "/var/lib/tessary";

/// Makes stateDirectory if it is not there, and sees to its mode: 0700.
/// \throws Error AccessDenied, NotEnoughMemory or InternalError
void MakeStateDirectory();

/// A new version of a file, made beside it; takes its place with Commit() or vanishes. It always
/// has the same name, so that what a killed process left behind is found and replaced: hold the
/// target's StateLock.
class Replacement {
public:
    /// Makes the new file, empty, mode 0600. A target that is a symbolic link is followed.
    explicit Replacement(const std::string& target);
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    /// Removes what a killed process left behind.
    static void RemoveLeftover(const std::string& target);

    /// Where the new version is until it is committed.
    const std::string& Path() const { return path_; }
    /// What it will replace, links followed.
    const std::string& Target() const { return target_; }

    void Write(std::string_view text);

    /// Has what was written on the disk, as Commit() does first of all.
    void Sync();

    /// Replaces the target; at no time is there neither the old nor the new version, also when the
    /// host loses power.
    void Commit();

private:
    std::string target_;
    std::string path_;
    UniqueFd fd_;
    bool committed_ = false;
};

/// Keeps other threads and processes from changing the same files. It is a file in stateDirectory.
class StateLock {
public:
    /// \param name what is locked: see membershipLock, listLock
    /// \throws Error CallInProgress when the other has not finished by the deadline
    StateLock(const char* name, const Deadline& deadline);

private:
    UniqueFd fd_;
};

/// Joining and leaving: the membership and the keytab.
inline constexpr char membershipLock[] = "domain_lock";
/// The lists of stored_list.h.
inline constexpr char listLock[] = "list_lock";

/// \return the file's text, or nothing when there is no such file
std::optional<std::string> ReadFile(const std::string& path);

/// \return the bytes of a file that has keys in it, or nothing when there is no such file
std::optional<Secret> ReadSecretFile(const std::string& path);
/// \param file read from its beginning
/// \param name of the file, for the Error's text
Secret ReadSecretFile(int file, const std::string& name);

/// Removes a file; one that is not there counts as removed.
void RemoveFile(const std::string& path);

} // namespace tessary::directory

#endif
