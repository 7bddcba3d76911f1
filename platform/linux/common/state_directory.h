/// The directory that the platform libraries keep their state in.
#ifndef COMMON_STATE_DIRECTORY_H
#define COMMON_STATE_DIRECTORY_H

#include <string>

namespace PlatformState {

inline constexpr const char* kStateDirectory = "/var/lib/tessary";

/// Makes sure that the directory is there and closed to other users: a new one has mode 0700
/// whatever the umask, and one of this user's that somebody opened to others is closed to them
/// again. A symbolic link in its place is refused.
///
/// Returns an empty text, or what failed: the path and the cause. May be called by several threads
/// and processes at once.
std::string EnsureStateDirectory();

} // namespace PlatformState

#endif
