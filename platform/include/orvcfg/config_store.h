/// The host configuration store: named objects of string values that survive a restart.
///
/// Objects are addressed by component, group and key within a namespace. Every failure (opening,
/// look-up, write, removal) is thrown as ConfigStoreException. A store may be used from any thread
/// and by many processes at once.
#ifndef ORVCFG_CONFIG_STORE_H
#define ORVCFG_CONFIG_STORE_H

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <string>

#if defined(__GNUC__)
#define ORVCFG_API __attribute__((visibility("default")))
#else
#define ORVCFG_API
#endif

namespace OrvConfigStore {

/// The namespace of settings that belong to the host as a whole.
ORVCFG_API extern const char* const sGlobalNamespace;

/// Any failure of the store; what() names the file and the cause.
class ORVCFG_API ConfigStoreException : public std::exception {
public:
    explicit ConfigStoreException(const std::string& text);
    ~ConfigStoreException() override;
    const char* what() const noexcept override;

private:
    std::string text_;
};

/// The address of an object. Immutable.
class ORVCFG_API ConfigStoreObjectId {
public:
    ConfigStoreObjectId(const char* key, const char* group, const char* component);

    const std::string& Key() const { return key_; }
    const std::string& Group() const { return group_; }
    const std::string& Component() const { return component_; }

private:
    std::string key_;
    std::string group_;
    std::string component_;
};

/// A set of named string values. Not synchronised.
class ORVCFG_API StoreObject {
public:
    virtual ~StoreObject();

    /// Sets or replaces one value.
    void SetValue(const char* key, const std::string& value);

    /// Copies the value of `key` into `*value` and returns true; without such a value returns
    /// false and leaves `*value` alone.
    bool GetValue(const char* key, std::string* value) const;

    /// All values, in the order of their names.
    const std::map<std::string, std::string>& Values() const { return values_; }

private:
    std::map<std::string, std::string> values_;
};

/// An object of the store, held in memory until it is written.
class ORVCFG_API ConfigStoreObject : public StoreObject {
public:
    explicit ConfigStoreObject(const ConfigStoreObjectId& id);
    ~ConfigStoreObject() override;

    const ConfigStoreObjectId& Id() const { return id_; }

private:
    ConfigStoreObjectId id_;
};

/// A handle to the store of one namespace.
class ORVCFG_API ConfigStore {
public:
    virtual ~ConfigStore();

    /// Opens the store of a namespace and creates its file on first use. The handle may be used
    /// from any thread, and by a child process forked while no other thread was in the store.
    static std::shared_ptr<ConfigStore> GetStore(const std::string& storeNamespace);

    /// Returns the object, or an empty handle when there is none.
    virtual std::shared_ptr<ConfigStoreObject> GetObject(const ConfigStoreObjectId& id) = 0;

    /// Writes the object whole, in place of any object stored under its id. `options` is reserved
    /// and must be 0.
    virtual void SetObject(const std::shared_ptr<ConfigStoreObject>& object,
                           const uint32_t& options) = 0;

    /// Removes the object; removing one that does not exist changes nothing.
    virtual void RemoveObject(const ConfigStoreObjectId& id) = 0;
};

} // namespace OrvConfigStore

#endif
