/// The file that the configuration store lives in.
#ifndef ORVCFG_STORE_FILE_H
#define ORVCFG_STORE_FILE_H

namespace OrvConfigStore {

inline constexpr const char* kStoreFile = "/var/lib/tessary/configstore.db";

/// Makes sure that the store's file is there: a regular file of mode 0600, empty when it is new,
/// in a directory of mode 0700. A new file or directory is at no moment open to others, whatever
/// the umask; one that somebody opened to others is closed to them again. Symbolic links are
/// refused.
///
/// Throws ConfigStoreException. May be called by several threads and processes at once.
void EnsureStoreFile();

} // namespace OrvConfigStore

#endif
