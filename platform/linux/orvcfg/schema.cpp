#include "orvcfg/schema.h"

#include <string>

#include "orvcfg/config_store.h"

namespace OrvConfigStore {
namespace {

constexpr int64_t kApplicationId = 0x54534353;
constexpr int64_t kSchemaVersion = 1;

constexpr const char* kCreateTables = R"sql(
CREATE TABLE object(
    id        INTEGER PRIMARY KEY,
    namespace TEXT NOT NULL,
    component TEXT NOT NULL,
    grp       TEXT NOT NULL,
    key       TEXT NOT NULL,
    UNIQUE(namespace, component, grp, key)
);
CREATE TABLE value(
    object INTEGER NOT NULL REFERENCES object(id) ON DELETE CASCADE,
    name   TEXT NOT NULL,
    value  BLOB NOT NULL,
    PRIMARY KEY(object, name)
) WITHOUT ROWID;
)sql";

constexpr const char* kIdentityQuery = "SELECT (SELECT application_id FROM pragma_application_id),"
                                       "       (SELECT user_version FROM pragma_user_version),"
                                       "       (SELECT count(*) FROM sqlite_schema)";

/// True for our tables, false for an empty database, an exception for anything else.
bool HasSchema(Database& database) {
    Statement query(database, kIdentityQuery, "read the configuration store");
    query.Step();
    const int64_t applicationId = query.Integer(0);
    const int64_t version = query.Integer(1);
    if (applicationId == 0 && version == 0 && query.Integer(2) == 0)
        return false;
    if (applicationId != kApplicationId)
        throw ConfigStoreException(database.Path() + ": a database of another application");
    if (version > kSchemaVersion)
        throw ConfigStoreException(database.Path() + ": written by a newer version (schema " +
                                   std::to_string(version) + ", known up to " +
                                   std::to_string(kSchemaVersion) + ")");
    if (version < kSchemaVersion)
        throw ConfigStoreException(database.Path() + ": invalid schema version " +
                                   std::to_string(version));
    return true;
}

} // namespace

void EnsureSchema(Database& database) {
    if (HasSchema(database))
        return;
    const std::string action = "create the configuration store";
    WriteTransaction transaction(database, action);
    if (HasSchema(database)) // another process was first
        return;
    database.Execute(kCreateTables, action);
    database.Execute(("PRAGMA application_id = " + std::to_string(kApplicationId) +
                      "; PRAGMA user_version = " + std::to_string(kSchemaVersion))
                         .c_str(),
                     action);
    transaction.Commit();
}

} // namespace OrvConfigStore
