#include "spoiled_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>

#include "orvcfg/config_store.h"
#include "scripted_host.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"

namespace scripted {

using OrvConfigStore::ConfigStoreException;
using tessary::authentication::ActiveDirectoryConfigStore;

std::string BreakConfigStore() {
    constexpr const char* storeFolder = "/var/lib/tessary";
    std::filesystem::remove_all(storeFolder);
    WriteFile(storeFolder, "not a folder");
    return TextOf<ConfigStoreException>([] { ActiveDirectoryConfigStore(); });
}

std::string RefuseChanges() {
    ActiveDirectoryConfigStore store;
    sqlite3* opened = nullptr;
    EXPECT_EQ(sqlite3_open("/var/lib/tessary/configstore.db", &opened), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> database(opened, sqlite3_close);
    EXPECT_EQ(sqlite3_exec(database.get(),
                           "CREATE TRIGGER refuse_insert BEFORE INSERT ON object"
                           " BEGIN SELECT RAISE(ABORT, 'refused'); END;"
                           "CREATE TRIGGER refuse_delete BEFORE DELETE ON object"
                           " BEGIN SELECT RAISE(ABORT, 'refused'); END;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK)
        << sqlite3_errmsg(database.get());
    return TextOf<ConfigStoreException>([&] { store.StoreDomainInfo("probe.example", "", ""); });
}

std::string StoredDomain() {
    try {
        return ActiveDirectoryConfigStore().GetDomainName();
    } catch (const tessary::authentication::ConfigurationError&) {
        return "(none)";
    }
}

} // namespace scripted
