#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "orvcfg/config_store.h"
#include "platform_support.h"

namespace {

using namespace OrvConfigStore;
using namespace PlatformTest;
using testing::HasSubstr;
using testing::StartsWith;

const char* const kDirectory = "/var/lib/tessary";
const char* const kFile = "/var/lib/tessary/configstore.db";

using ConfigStoreFaultsTest = HostTest;

std::shared_ptr<ConfigStore> Store() {
    return ConfigStore::GetStore(sGlobalNamespace);
}

const ConfigStoreObjectId kId("key", "group", "component");

std::shared_ptr<ConfigStoreObject> Object(const std::string& value) {
    auto object = std::make_shared<ConfigStoreObject>(kId);
    object->SetValue("first", value);
    object->SetValue("second", value);
    return object;
}

std::string Value() {
    const auto object = Store()->GetObject(kId);
    std::string first = "(none)";
    std::string second;
    if (object && object->GetValue("first", &first) && object->GetValue("second", &second)) {
        EXPECT_EQ(first, second);
    }
    return first;
}

std::string OpeningFailure() {
    return FailureText<ConfigStoreException>([] { Store(); });
}

/// Makes a database of another program.
void MakeDatabase(const std::string& sql) {
    std::filesystem::create_directories(kDirectory);
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(kFile, &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
}

TEST_F(ConfigStoreFaultsTest, GarbageIsAnErrorAndStays) {
    for (const std::string& garbage :
         {std::string("x"), std::string(5000, 'x'), std::string(8192, '\0')}) {
        std::filesystem::create_directories(kDirectory);
        WriteFile(kFile, garbage);
        EXPECT_THAT(OpeningFailure(), StartsWith(std::string(kFile) + ": "));
        EXPECT_THAT(OpeningFailure(), HasSubstr("file is not a database"));
        EXPECT_TRUE(ReadFile(kFile) == garbage);
    }
}

TEST_F(ConfigStoreFaultsTest, TruncatedFileIsAnError) {
    Store()->SetObject(Object(std::string(100000, 'x')), 0);
    ASSERT_EQ(truncate(kFile, 20000), 0);
    const std::string before = ReadFile(kFile);
    const std::string text = FailureText<ConfigStoreException>([] { Store()->GetObject(kId); });
    EXPECT_THAT(text, StartsWith(std::string(kFile) + ": "));
    EXPECT_THAT(text, HasSubstr("malformed"));
    EXPECT_THROW(Store()->SetObject(Object("new"), 0), ConfigStoreException);
    EXPECT_TRUE(ReadFile(kFile) == before);
}

TEST_F(ConfigStoreFaultsTest, DatabaseOfAnotherApplicationIsAnErrorAndStays) {
    for (const char* sql : {"CREATE TABLE object(id)", "PRAGMA application_id = 7",
                            "PRAGMA user_version = 1", "PRAGMA journal_mode = WAL"}) {
        std::filesystem::remove_all(kDirectory);
        MakeDatabase(std::string(sql) + "; CREATE TABLE theirs(x)");
        const std::string before = ReadFile(kFile);
        EXPECT_EQ(OpeningFailure(), std::string(kFile) + ": a database of another application");
        EXPECT_TRUE(ReadFile(kFile) == before) << sql;
    }
}

TEST_F(ConfigStoreFaultsTest, NewerSchemaIsAnErrorThatSaysSo) {
    Store()->SetObject(Object("stored"), 0);
    MakeDatabase("PRAGMA user_version = 2");
    EXPECT_EQ(OpeningFailure(),
              std::string(kFile) + ": written by a newer version (schema 2, known up to 1)");
    MakeDatabase("PRAGMA user_version = 1");
    EXPECT_EQ(Value(), "stored");
}

TEST_F(ConfigStoreFaultsTest, LinkInPlaceOfTheFileIsAnError) {
    std::filesystem::create_directories(kDirectory);
    ASSERT_EQ(symlink("/run/elsewhere.db", kFile), 0);
    EXPECT_EQ(OpeningFailure(), std::string(kFile) + ": not a regular file");
    EXPECT_FALSE(Exists("/run/elsewhere.db"));
}

TEST_F(ConfigStoreFaultsTest, DirectoryThatCannotBeMadeIsAnError) {
    WriteFile(kDirectory, "in the way");
    EXPECT_EQ(OpeningFailure(), std::string(kDirectory) + ": not a directory");
}

TEST_F(ConfigStoreFaultsTest, LinkInPlaceOfTheDirectoryIsAnErrorAndItsTargetStays) {
    std::filesystem::create_directory("/run/elsewhere");
    ASSERT_EQ(symlink("/run/elsewhere", kDirectory), 0);
    EXPECT_EQ(OpeningFailure(), std::string(kDirectory) + ": a symbolic link, not a directory");
    EXPECT_EQ(Mode("/run/elsewhere"), 0755u);
    EXPECT_TRUE(std::filesystem::is_empty("/run/elsewhere"));
    std::filesystem::remove_all("/run/elsewhere");
}

TEST_F(ConfigStoreFaultsTest, ReadOnlyFileSystemReadsAndDoesNotWrite) {
    const Mounted disk = Mounted::Memory(kDirectory, "size=1m");
    Store()->SetObject(Object("stored"), 0);
    ASSERT_EQ(mount("test", kDirectory, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(Value(), "stored");
    // Closing the directory to others is then out of reach, too, and no reason to fail.
    ASSERT_EQ(mount("test", kDirectory, nullptr, MS_REMOUNT, nullptr), 0);
    ASSERT_EQ(chmod(kDirectory, 0755), 0);
    ASSERT_EQ(mount("test", kDirectory, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(Value(), "stored");
    for (const std::string& text :
         {FailureText<ConfigStoreException>([] { Store()->SetObject(Object("new"), 0); }),
          FailureText<ConfigStoreException>([] { Store()->RemoveObject(kId); })}) {
        EXPECT_THAT(text, StartsWith(std::string(kFile) + ": cannot "));
        EXPECT_THAT(text, HasSubstr("component/group/key"));
        EXPECT_THAT(text, HasSubstr("readonly database"));
    }
}

TEST_F(ConfigStoreFaultsTest, ReadOnlyFileSystemWithoutAStoreIsAnError) {
    const Mounted disk = Mounted::Memory(kDirectory, "size=1m,ro");
    EXPECT_EQ(OpeningFailure(), std::string(kFile) + ": cannot create: Read-only file system");
}

TEST_F(ConfigStoreFaultsTest, FullDiskKeepsWhatWasStored) {
    const Mounted disk = Mounted::Memory(kDirectory, "size=128k");
    Store()->SetObject(Object("stored"), 0);
    const std::string text = FailureText<ConfigStoreException>(
        [] { Store()->SetObject(Object(std::string(200000, 'x')), 0); });
    EXPECT_THAT(text, StartsWith(std::string(kFile) + ": cannot write component/group/key: "));
    EXPECT_THAT(text, HasSubstr("full"));
    EXPECT_EQ(Value(), "stored");
    Store()->SetObject(Object("small"), 0);
    EXPECT_EQ(Value(), "small");
}

TEST_F(ConfigStoreFaultsTest, StoreIsCreatedOnceAFullDiskHasRoomAgain) {
    const Mounted disk = Mounted::Memory(kDirectory, "size=64k");
    const std::string ballast = std::string(kDirectory) + "/ballast";
    WriteFile(ballast, std::string(65536, 'x'));
    EXPECT_THAT(OpeningFailure(), StartsWith(std::string(kFile) + ": cannot create "));
    std::filesystem::remove(ballast);
    EXPECT_EQ(Store()->GetObject(kId), nullptr);
}

TEST_F(ConfigStoreFaultsTest, UnknownOptionsAndNoObjectAreErrors) {
    EXPECT_THROW(Store()->SetObject(Object("stored"), 1), ConfigStoreException);
    EXPECT_THROW(Store()->SetObject(nullptr, 0), ConfigStoreException);
    EXPECT_EQ(Store()->GetObject(kId), nullptr);
}

/// Writes the numbers from `first` on, without end, and reports each one that is stored.
[[noreturn]] void WriteNumbers(int report, int first) {
    umask(0);
    for (int number = first;; ++number) {
        Store()->SetObject(Object(std::to_string(number)), 0);
        if (write(report, &number, sizeof number) != sizeof number)
            _exit(1);
    }
}

/// Starts a writer, kills it after it has reported a few writes, returns the last report.
int KillWriter(int first, int reports) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t writer = fork();
    if (writer == 0)
        WriteNumbers(ends[1], first);
    close(ends[1]);
    int number = -1;
    for (int i = 0; i < reports; ++i)
        EXPECT_EQ(read(ends[0], &number, sizeof number), static_cast<ssize_t>(sizeof number));
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    while (read(ends[0], &number, sizeof number) == sizeof number) {
    }
    close(ends[0]);
    return number;
}

TEST_F(ConfigStoreFaultsTest, KilledWriterLeavesAWholeStoreWithAllItReported) {
    int next = 0;
    for (int round = 0; round < 60; ++round) {
        const int reported = KillWriter(next, 1 + round % 5);
        for (const auto& entry : std::filesystem::directory_iterator(kDirectory))
            EXPECT_EQ(Mode(entry.path()), 0600u) << entry.path();
        const int stored = std::stoi(Value());
        EXPECT_GE(stored, reported);
        EXPECT_LE(stored, reported + 1);
        next = stored + 1;
    }
}

} // namespace
