// The record of accounts as a file: what it keeps, who may share it, what it refuses.

#include "account_records.h"
#include "directory_accounts.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>

namespace tessary::proxy {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t somebody = 65534;

AccountRecords::Time At(long time) {
    return AccountRecords::Time(seconds(time));
}

const AccountRecords::Time ever = At(2'000'000);

class ProxyAccountRecords : public testing::Test {
protected:
    ProxyAccountRecords() {
        char name[] = "/run/recordXXXXXX";
        folder_ = mkdtemp(name) ? name : "";
        file_ = folder_ + "/accounts.db";
    }
    ~ProxyAccountRecords() override { std::filesystem::remove_all(folder_); }

    static AccountRecord One(const std::string& account, const std::string& host,
                             const std::string& guid = "abc") {
        AccountRecord record;
        record.account = account;
        record.host = host;
        record.mark = "mark of " + account;
        record.guid = guid;
        record.passwordSet = 133'456'789'012'345'678;
        record.state = AccountState::Given;
        record.started = 7;
        return record;
    }

    std::string Failure() const {
        try {
            AccountRecords records(folder_);
            return "none";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }

    void Sql(const std::string& text) { AccountDatabase(file_).Execute(text, "test"); }

    /// Runs a function in a process of another user; its result is the process's.
    static int AsSomebody(const std::function<int()>& function) {
        const pid_t process = fork();
        if (process == 0)
            _exit(setgid(somebody) == 0 && setuid(somebody) == 0 ? function() : 99);
        int status = -1;
        waitpid(process, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    }

    std::string folder_;
    std::string file_;
};

TEST_F(ProxyAccountRecords, RecordIsKept) {
    {
        AccountRecords records(folder_);
        records.Put(One("WEB1$", "web1.corp.example"), At(10));
    }
    AccountRecords records(folder_);
    const AccountRecord kept = records.Find("web1$").value();
    EXPECT_EQ(kept.account, "WEB1$");
    EXPECT_EQ(kept.host, "web1.corp.example");
    EXPECT_EQ(kept.mark, "mark of WEB1$");
    EXPECT_EQ(kept.guid, "abc");
    EXPECT_EQ(kept.passwordSet, 133'456'789'012'345'678);
    EXPECT_EQ(kept.state, AccountState::Given);
    EXPECT_FALSE(kept.used);
    EXPECT_FALSE(kept.released);
    EXPECT_EQ(kept.started, 7);
    EXPECT_FALSE(records.Find("WEB2$"));
    struct stat file {};
    ASSERT_EQ(stat(file_.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777u, 0600u);
}

TEST_F(ProxyAccountRecords, TimeComesInItsOrder) {
    AccountRecords records(folder_);
    records.Put(One("LATE$", "late"), At(30));
    records.Put(One("SOON$", "soon"), At(10));
    records.Put(One("NEVER$", "never"), std::nullopt);
    EXPECT_THAT(records.Due(At(9), ever), IsEmpty());
    EXPECT_THAT(records.Due(At(10), ever), ElementsAre("SOON$"));
    EXPECT_THAT(records.Due(At(1'000'000), ever), ElementsAre("SOON$", "LATE$"));
    EXPECT_THAT(records.Due(At(9), At(29)), ElementsAre("LATE$")) << "the clock was ahead";
    EXPECT_THAT(records.Due(At(9), At(30)), IsEmpty());
    EXPECT_TRUE(records.FindDue("LATE$", At(9), At(29)));
    EXPECT_FALSE(records.FindDue("NEVER$", At(9), At(29)));
    records.Postpone("SOON$", At(40));
    EXPECT_THAT(records.Due(At(1'000'000), ever), ElementsAre("LATE$", "SOON$"));
    EXPECT_EQ(records.FindDue("soon$", At(40), ever).value().host, "soon");
    EXPECT_FALSE(records.FindDue("SOON$", At(39), ever));
    EXPECT_FALSE(records.FindDue("NEVER$", At(1'000'000), ever));
    EXPECT_FALSE(records.FindDue("OTHER$", At(1'000'000), ever));
    records.Remove("LATE$");
    EXPECT_THAT(records.Due(At(1'000'000), ever), ElementsAre("SOON$"));
}

TEST_F(ProxyAccountRecords, ReleaseStaysUntilThePasswordIsNew) {
    AccountRecords records(folder_);
    records.Put(One("WEB1$", "web1.corp.example"), At(10));
    EXPECT_FALSE(records.Release("web2.corp.example"));
    EXPECT_TRUE(records.Release("web1.corp.example"));
    records.Put(One("WEB1$", "web1.corp.example"), At(10));
    EXPECT_TRUE(records.Find("WEB1$").value().released);
    records.PutRenewed(One("WEB1$", "web1.corp.example"), At(10));
    EXPECT_FALSE(records.Find("WEB1$").value().released);
    records.Put(One("WEB1$", "web1.corp.example"), At(10));
    EXPECT_FALSE(records.Find("WEB1$").value().released);
}

TEST_F(ProxyAccountRecords, AccountThatIsNotKnownToBeThereIsNotReleased) {
    AccountRecords records(folder_);
    records.Put(One("WEB1$", "web1.corp.example", ""), At(10));
    EXPECT_FALSE(records.Release("web1.corp.example"));
}

TEST_F(ProxyAccountRecords, RootReleasesBesideADaemonOfAnotherUser) {
    ASSERT_EQ(chown(folder_.c_str(), somebody, somebody), 0);
    int ready[2];
    int released[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(released), 0);
    const pid_t root = fork();
    if (root == 0) {
        char byte = 0;
        close(ready[1]);
        if (read(ready[0], &byte, 1) != 1)
            _exit(1);
        ReleaseAccount(folder_, "WEB1.corp.example");
        _exit(write(released[1], "x", 1) == 1 ? 0 : 1);
    }
    const int daemon = AsSomebody([&] {
        AccountRecords records(folder_);
        records.Put(One("WEB1$", "web1.corp.example"), At(10));
        char byte = 0;
        close(released[1]);
        if (write(ready[1], "x", 1) != 1 || read(released[0], &byte, 1) != 1)
            return 1;
        if (!records.Find("WEB1$").value().released)
            return 2;
        records.PutRenewed(One("WEB1$", "web1.corp.example"), At(10));
        return 0;
    });
    EXPECT_EQ(daemon, 0);
    int status = -1;
    waitpid(root, &status, 0);
    EXPECT_EQ(status, 0);

    // And when nobody else has it open: what root makes on the way must not be in the daemon's.
    ReleaseAccount(folder_, "web1.corp.example");
    AccountRecords byRoot(folder_);
    ASSERT_TRUE(byRoot.Release("web1.corp.example"));
    EXPECT_EQ(AsSomebody([&] {
                  AccountRecords records(folder_);
                  records.PutRenewed(One("WEB1$", "web1.corp.example"), At(10));
                  return 0;
              }),
              0);
}

TEST_F(ProxyAccountRecords, OneAtATimeServesFromAFolder) {
    AccountSettings settings;
    settings.domain = "corp.example";
    settings.stateDirectory = folder_;
    AccountRecords(folder_).Put(One("WEB1$", "web1.corp.example"), std::nullopt);
    auto serving = OpenDirectoryAccounts(settings);
    try {
        OpenDirectoryAccounts(settings);
        FAIL() << "a second one";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "another process serves with " + folder_ + " already");
    }
    ReleaseAccount(folder_, "web1.corp.example");
    EXPECT_TRUE(AccountRecords(folder_).Find("WEB1$").value().released);
    serving.reset();
    serving = OpenDirectoryAccounts(settings);
}

TEST_F(ProxyAccountRecords, NothingIsMadeToReleaseAnAccountIn) {
    EXPECT_THROW(ReleaseAccount(folder_, "web1.corp.example"), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(ProxyAccountRecords, NewerVersionIsLeftAlone) {
    AccountRecords(folder_).Put(One("WEB1$", "web1.corp.example"), At(10));
    Sql("PRAGMA user_version = 2");
    EXPECT_EQ(Failure(), file_ + ": a newer version has written this (2; known is 1)");
    EXPECT_THROW(ReleaseAccount(folder_, "web1.corp.example"), std::runtime_error);
    Sql("PRAGMA user_version = 1");
    EXPECT_TRUE(AccountRecords(folder_).Find("WEB1$"));
}

TEST_F(ProxyAccountRecords, FileOfAnotherKindIsRefused) {
    std::ofstream(file_) << std::string(4096, 'x');
    EXPECT_THAT(Failure(), HasSubstr(file_ + ": cannot "));
    std::filesystem::remove(file_);
    std::ofstream(file_).flush();
    Sql("CREATE TABLE other (x)");
    EXPECT_EQ(Failure(), file_ + ": this is no record of accounts");
    std::filesystem::remove(file_);
    std::filesystem::create_directory(file_);
    EXPECT_THAT(Failure(), HasSubstr(file_));
}

TEST_F(ProxyAccountRecords, FolderThatIsMissingIsNamed) {
    std::filesystem::remove_all(folder_);
    EXPECT_THAT(Failure(), HasSubstr(file_));
}

TEST_F(ProxyAccountRecords, FullDiskIsAnErrorAndLosesNothing) {
    ASSERT_EQ(mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=256k"), 0);
    {
        AccountRecords records(folder_);
        records.Put(One("WEB1$", "web1.corp.example"), At(10));
        int made = 0;
        std::string failure;
        for (; made < 10'000 && failure.empty(); ++made) {
            try {
                const std::string name = "FILL" + std::to_string(made) + "$";
                records.Put(One(name, std::string(200, 'x') + name), At(10));
            } catch (const std::runtime_error& error) {
                failure = error.what();
            }
        }
        EXPECT_THAT(failure, HasSubstr(file_ + ": cannot write the record of FILL"));
        EXPECT_FALSE(records.Find("FILL" + std::to_string(made - 1) + "$"));
        EXPECT_TRUE(records.Find("WEB1$"));
    }
    umount(folder_.c_str());
}

TEST_F(ProxyAccountRecords, ManyProcessesWriteAtOnce) {
    constexpr int processes = 4;
    constexpr int each = 25;
    AccountRecords{folder_}; // only one process makes it: see OneAtATimeServesFromAFolder
    pid_t children[processes];
    for (int i = 0; i < processes; ++i) {
        children[i] = fork();
        if (children[i] == 0) {
            AccountRecords records(folder_);
            for (int j = 0; j < each; ++j)
                records.Put(One(std::to_string(i * each + j), "x"), At(1));
            _exit(0);
        }
    }
    for (const pid_t child : children) {
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(AccountRecords(folder_).Due(At(1), ever).size(), std::size_t{processes * each});
}

} // namespace
} // namespace tessary::proxy
