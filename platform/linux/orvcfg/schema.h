/// The tables of the configuration store.
///
///     object(id, namespace, component, grp, key)   one row an object, even one without values
///     value(object, name, value)                   its values, as bytes
///
/// The file carries this system's application id and the version of the tables, so that neither
/// another program's database nor a newer version's is taken for ours.
#ifndef ORVCFG_SCHEMA_H
#define ORVCFG_SCHEMA_H

#include "orvcfg/database.h"

namespace OrvConfigStore {

/// Checks that the database is ours and of a version that this code knows, and creates the tables
/// in an empty one. Throws ConfigStoreException otherwise; what is in the file is left alone.
void EnsureSchema(Database& database);

} // namespace OrvConfigStore

#endif
