#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "orvcfg/config_store.h"
#include "platform_support.h"

namespace {

using namespace OrvConfigStore;
using namespace PlatformTest;

const char* const kDirectory = "/var/lib/tessary";
const char* const kFile = "/var/lib/tessary/configstore.db";

using ConfigStoreTest = HostTest;

std::shared_ptr<ConfigStore> Store() {
    return ConfigStore::GetStore(sGlobalNamespace);
}

ConfigStoreObjectId Id(const std::string& key) {
    return ConfigStoreObjectId(key.c_str(), "group", "component");
}

std::shared_ptr<ConfigStoreObject> Object(const std::string& key, const std::string& value) {
    auto object = std::make_shared<ConfigStoreObject>(Id(key));
    object->SetValue("value", value);
    return object;
}

std::string Value(const std::shared_ptr<ConfigStoreObject>& object) {
    std::string value = "(none)";
    if (object)
        object->GetValue("value", &value);
    return object ? value : "(no object)";
}

TEST_F(ConfigStoreTest, ObjectOfAHostThatNeverWroteIsAbsent) {
    EXPECT_EQ(Store()->GetObject(Id("key")), nullptr);
}

TEST_F(ConfigStoreTest, StoredObjectIsReadBackByAnotherHandle) {
    Store()->SetObject(Object("key", "stored"), 0);
    const auto read = Store()->GetObject(Id("key"));
    EXPECT_EQ(Value(read), "stored");
    EXPECT_EQ(read->Id().Key(), "key");
    EXPECT_EQ(read->Id().Group(), "group");
    EXPECT_EQ(read->Id().Component(), "component");
}

TEST_F(ConfigStoreTest, ValuesHoldAnyBytes) {
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    bytes += "-----BEGIN\nlines\r\n\n";
    auto object = Object("key", bytes);
    object->SetValue("empty", "");
    object->SetValue("big", std::string(1 << 20, '\xff'));
    Store()->SetObject(object, 0);
    EXPECT_EQ(Store()->GetObject(Id("key"))->Values(), object->Values());
}

TEST_F(ConfigStoreTest, WritingReplacesTheWholeObject) {
    auto first = Object("key", "first");
    first->SetValue("other", "left over");
    Store()->SetObject(first, 0);
    Store()->SetObject(Object("key", "second"), 0);
    const std::map<std::string, std::string> expected = {{"value", "second"}};
    EXPECT_EQ(Store()->GetObject(Id("key"))->Values(), expected);
}

TEST_F(ConfigStoreTest, ObjectWithoutValuesIsThere) {
    Store()->SetObject(std::make_shared<ConfigStoreObject>(Id("key")), 0);
    const auto read = Store()->GetObject(Id("key"));
    ASSERT_NE(read, nullptr);
    EXPECT_TRUE(read->Values().empty());
}

TEST_F(ConfigStoreTest, EachPartOfTheIdCounts) {
    const ConfigStoreObjectId otherGroup("key", "other", "component");
    const ConfigStoreObjectId otherComponent("key", "group", "other");
    Store()->SetObject(Object("key", "stored"), 0);
    EXPECT_EQ(Store()->GetObject(Id("KEY")), nullptr);
    EXPECT_EQ(Store()->GetObject(otherGroup), nullptr);
    EXPECT_EQ(Store()->GetObject(otherComponent), nullptr);
    EXPECT_EQ(ConfigStore::GetStore("other")->GetObject(Id("key")), nullptr);
}

TEST_F(ConfigStoreTest, RemovedObjectIsGoneAndOthersStay) {
    Store()->SetObject(Object("key", "stored"), 0);
    Store()->SetObject(Object("other", "kept"), 0);
    Store()->RemoveObject(Id("key"));
    EXPECT_EQ(Store()->GetObject(Id("key")), nullptr);
    EXPECT_EQ(Value(Store()->GetObject(Id("other"))), "kept");
    EXPECT_NO_THROW(Store()->RemoveObject(Id("key")));
}

TEST_F(ConfigStoreTest, MissingValueLeavesTheVariableAlone) {
    const ConfigStoreObject object(Id("key"));
    std::string value = "before";
    EXPECT_FALSE(object.GetValue("value", &value));
    EXPECT_EQ(value, "before");
}

TEST_F(ConfigStoreTest, FileAndDirectoryAreClosedToOthersWhateverTheUmask) {
    umask(0);
    Store()->SetObject(Object("key", "stored"), 0);
    EXPECT_EQ(Mode(kDirectory), 0700u);
    EXPECT_EQ(Mode(kFile), 0600u);
}

TEST_F(ConfigStoreTest, FileThatWasOpenedToOthersIsClosedAgain) {
    Store();
    chmod(kFile, 0666);
    Store();
    EXPECT_EQ(Mode(kFile), 0600u);
}

TEST_F(ConfigStoreTest, DirectoryThatWasOpenedToOthersIsClosedAgain) {
    Store()->SetObject(Object("key", "stored"), 0);
    for (const mode_t open : {0755, 0710, 01777}) {
        ASSERT_EQ(chmod(kDirectory, open), 0);
        EXPECT_EQ(Value(Store()->GetObject(Id("key"))), "stored");
        EXPECT_EQ(Mode(kDirectory), 0700u);
    }
}

TEST_F(ConfigStoreTest, DirectoryOfAnotherUserIsLeftAlone) {
    std::filesystem::create_directory(kDirectory);
    if (chown(kDirectory, 65534, 0) != 0)
        GTEST_SKIP() << "this user namespace maps one user, so no file can be another's";
    Store();
    EXPECT_EQ(Mode(kDirectory), 0755u);
}

TEST_F(ConfigStoreTest, ThreadsShareOneHandle) {
    const auto store = Store();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&store, i] {
            for (int j = 0; j < 25; ++j) {
                const std::string key = std::to_string(i) + "-" + std::to_string(j);
                store->SetObject(Object(key, key), 0);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 25; ++j) {
            const std::string key = std::to_string(i) + "-" + std::to_string(j);
            EXPECT_EQ(Value(store->GetObject(Id(key))), key);
        }
}

TEST_F(ConfigStoreTest, ForkedChildUsesTheHandle) {
    const auto store = Store();
    store->SetObject(Object("parent", "before"), 0);
    EXPECT_TRUE(InProcesses(1, [&](int) {
        store->SetObject(Object("child", Value(store->GetObject(Id("parent")))), 0);
        return true;
    }));
    EXPECT_EQ(Value(store->GetObject(Id("child"))), "before");
}

TEST_F(ConfigStoreTest, ProcessesThatCreateTheStoreAtOnceAllSucceed) {
    for (int round = 0; round < 10; ++round) {
        std::filesystem::remove_all(kDirectory);
        ASSERT_TRUE(InProcesses(8, [](int number) {
            Store()->SetObject(Object(std::to_string(number), "stored"), 0);
            return true;
        }));
        for (int number = 0; number < 8; ++number)
            ASSERT_EQ(Value(Store()->GetObject(Id(std::to_string(number)))), "stored");
    }
}

TEST_F(ConfigStoreTest, NoWriteOfManyProcessesIsLost) {
    ASSERT_TRUE(InProcesses(8, [](int number) {
        for (int i = 0; i < 50; ++i) {
            const std::string key = std::to_string(number) + "-" + std::to_string(i);
            Store()->SetObject(Object(key, key), 0);
        }
        return true;
    }));
    for (int number = 0; number < 8; ++number)
        for (int i = 0; i < 50; ++i) {
            const std::string key = std::to_string(number) + "-" + std::to_string(i);
            ASSERT_EQ(Value(Store()->GetObject(Id(key))), key);
        }
}

/// An object of twenty values that are all the same.
std::shared_ptr<ConfigStoreObject> Uniform(const std::string& value) {
    auto object = std::make_shared<ConfigStoreObject>(Id("shared"));
    for (int i = 0; i < 20; ++i)
        object->SetValue(std::to_string(i).c_str(), value);
    return object;
}

bool IsUniform(const ConfigStoreObject& object) {
    for (const auto& [name, value] : object.Values())
        if (value != object.Values().begin()->second)
            return false;
    return object.Values().size() == 20;
}

TEST_F(ConfigStoreTest, ObjectThatManyProcessesWriteIsAlwaysWhole) {
    Store()->SetObject(Uniform("first"), 0);
    EXPECT_TRUE(InProcesses(8, [](int number) {
        for (int i = 0; i < 50; ++i) {
            Store()->SetObject(Uniform(std::to_string(number) + "-" + std::to_string(i)), 0);
            if (!IsUniform(*Store()->GetObject(Id("shared"))))
                return false;
        }
        return true;
    }));
    const auto last = Store()->GetObject(Id("shared"));
    EXPECT_TRUE(IsUniform(*last));
    const std::string value = last->Values().begin()->second;
    EXPECT_EQ(value.substr(value.find('-')), "-49"); // the last write of one of them
}

} // namespace
