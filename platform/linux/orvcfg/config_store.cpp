#include "orvcfg/config_store.h"

#include <utility>

#include "orvcfg/sqlite_store.h"

namespace OrvConfigStore {

const char* const sGlobalNamespace = "global";

ConfigStoreException::ConfigStoreException(const std::string& text) : text_(text) {}
ConfigStoreException::~ConfigStoreException() = default;
const char* ConfigStoreException::what() const noexcept {
    return text_.c_str();
}

ConfigStoreObjectId::ConfigStoreObjectId(const char* key, const char* group, const char* component)
    : key_(key), group_(group), component_(component) {}

StoreObject::~StoreObject() = default;

void StoreObject::SetValue(const char* key, const std::string& value) {
    values_[key] = value;
}

bool StoreObject::GetValue(const char* key, std::string* value) const {
    const auto found = values_.find(key);
    if (found == values_.end())
        return false;
    *value = found->second;
    return true;
}

ConfigStoreObject::ConfigStoreObject(const ConfigStoreObjectId& id) : id_(id) {}
ConfigStoreObject::~ConfigStoreObject() = default;

ConfigStore::~ConfigStore() = default;

std::shared_ptr<ConfigStore> ConfigStore::GetStore(const std::string& storeNamespace) {
    return OpenSqliteStore(storeNamespace);
}

} // namespace OrvConfigStore
