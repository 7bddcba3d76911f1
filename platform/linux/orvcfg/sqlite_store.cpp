#include "orvcfg/sqlite_store.h"

#include <utility>

#include "orvcfg/database.h"
#include "orvcfg/schema.h"
#include "orvcfg/store_file.h"

namespace OrvConfigStore {
namespace {

constexpr const char* kSelectObject =
    "SELECT value.name, value.value FROM object LEFT JOIN value ON value.object = object.id"
    " WHERE namespace = ?1 AND component = ?2 AND grp = ?3 AND key = ?4";
constexpr const char* kDeleteObject =
    "DELETE FROM object WHERE namespace = ?1 AND component = ?2 AND grp = ?3 AND key = ?4";
constexpr const char* kInsertObject =
    "INSERT INTO object(namespace, component, grp, key) VALUES (?1, ?2, ?3, ?4)";
constexpr const char* kInsertValue = "INSERT INTO value(object, name, value) VALUES (?1, ?2, ?3)";

Database OpenDatabase() {
    EnsureStoreFile();
    Database database(kStoreFile);
    EnsureSchema(database);
    return database;
}

std::string Name(const ConfigStoreObjectId& id) {
    return id.Component() + "/" + id.Group() + "/" + id.Key();
}

void BindId(Statement& statement, const std::string& storeNamespace,
            const ConfigStoreObjectId& id) {
    statement.BindText(1, storeNamespace)
        .BindText(2, id.Component())
        .BindText(3, id.Group())
        .BindText(4, id.Key());
}

std::shared_ptr<ConfigStoreObject> ReadObject(Database& database, const std::string& storeNamespace,
                                              const ConfigStoreObjectId& id) {
    Statement select(database, kSelectObject, "read " + Name(id));
    BindId(select, storeNamespace, id);
    std::shared_ptr<ConfigStoreObject> object;
    while (select.Step()) {
        if (!object)
            object = std::make_shared<ConfigStoreObject>(id);
        if (!select.IsNull(0)) // an object without values gives one row of nulls
            object->SetValue(select.Bytes(0).c_str(), select.Bytes(1));
    }
    return object;
}

void DeleteObject(Database& database, const std::string& storeNamespace,
                  const ConfigStoreObjectId& id, const std::string& action) {
    Statement remove(database, kDeleteObject, action);
    BindId(remove, storeNamespace, id);
    remove.Run();
}

void WriteObject(Database& database, const std::string& storeNamespace,
                 const ConfigStoreObject& object) {
    const std::string action = "write " + Name(object.Id());
    DeleteObject(database, storeNamespace, object.Id(), action);
    Statement insert(database, kInsertObject, action);
    BindId(insert, storeNamespace, object.Id());
    insert.Run();
    const int64_t row = sqlite3_last_insert_rowid(database.Handle());
    Statement insertValue(database, kInsertValue, action);
    for (const auto& [name, value] : object.Values())
        insertValue.BindInteger(1, row).BindText(2, name).BindBytes(3, value).Run();
}

class SqliteStore final : public ConfigStore {
public:
    explicit SqliteStore(std::string storeNamespace) : namespace_(std::move(storeNamespace)) {
        OpenDatabase();
    }

    std::shared_ptr<ConfigStoreObject> GetObject(const ConfigStoreObjectId& id) override {
        Database database = OpenDatabase();
        return ReadObject(database, namespace_, id);
    }

    void SetObject(const std::shared_ptr<ConfigStoreObject>& object,
                   const uint32_t& options) override {
        if (!object)
            throw ConfigStoreException(std::string(kStoreFile) + ": no object to write");
        if (options != 0)
            throw ConfigStoreException(std::string(kStoreFile) + ": unknown write options " +
                                       std::to_string(options));
        Database database = OpenDatabase();
        WriteTransaction transaction(database, "write " + Name(object->Id()));
        WriteObject(database, namespace_, *object);
        transaction.Commit();
    }

    void RemoveObject(const ConfigStoreObjectId& id) override {
        const std::string action = "remove " + Name(id);
        Database database = OpenDatabase();
        WriteTransaction transaction(database, action);
        DeleteObject(database, namespace_, id, action);
        transaction.Commit();
    }

private:
    const std::string namespace_;
};

} // namespace

std::shared_ptr<ConfigStore> OpenSqliteStore(const std::string& storeNamespace) {
    return std::make_shared<SqliteStore>(storeNamespace);
}

void UpdateGlobalObject(const ConfigStoreObjectId& id,
                        const std::function<void(ConfigStoreObject&)>& change) {
    Database database = OpenDatabase();
    WriteTransaction transaction(database, "write " + Name(id));
    std::shared_ptr<ConfigStoreObject> object = ReadObject(database, sGlobalNamespace, id);
    if (!object)
        object = std::make_shared<ConfigStoreObject>(id);
    change(*object);
    WriteObject(database, sGlobalNamespace, *object);
    transaction.Commit();
}

} // namespace OrvConfigStore
