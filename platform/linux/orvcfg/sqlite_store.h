/// The configuration store in an SQLite file.
#ifndef ORVCFG_SQLITE_STORE_H
#define ORVCFG_SQLITE_STORE_H

#include <functional>
#include <memory>
#include <string>

#include "orvcfg/config_store.h"

namespace OrvConfigStore {

/// The store of a namespace. Checks and, on first use, creates the file.
///
/// The store keeps no connection between calls: each one opens the file, so that any thread may
/// call, a forked child may go on using the handle, and a file restored from a backup is seen.
std::shared_ptr<ConfigStore> OpenSqliteStore(const std::string& storeNamespace);

/// Reads an object of the global namespace (a new, empty one when there is none), lets `change`
/// alter it and writes it back, all in one transaction: no other process writes in between.
/// Throws ConfigStoreException, and what `change` throws, with nothing written.
ORVCFG_API void UpdateGlobalObject(const ConfigStoreObjectId& id,
                                   const std::function<void(ConfigStoreObject&)>& change);

} // namespace OrvConfigStore

#endif
