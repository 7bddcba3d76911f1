#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>

#include "hykctl/network.h"
#include "platform_support.h"

namespace {

using namespace PlatformTest;
using HostCtl::Lib::HostCtlException;
using HostCtl::Network::Ipv4Address;
using HykCtl::Network::HostsFile;
using std::chrono::nanoseconds;

/// Called with the length of each pause in place of the pause, while it is set.
std::function<void(nanoseconds)> pauseHook;

} // namespace

extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec* length,
                                                                timespec* rest) {
    if (pauseHook) {
        pauseHook(std::chrono::seconds(length->tv_sec) + nanoseconds(length->tv_nsec));
        return 0;
    }
    errno = clock_nanosleep(CLOCK_REALTIME, 0, length, rest);
    return errno == 0 ? 0 : -1;
}

namespace {

const char* const kHosts = "/etc/hosts";
const char* const kDirectory = "/var/lib/tessary";
const char* const kLock = "/var/lib/tessary/hykctl.lock";
const std::string kOld = "127.0.0.1\tlocalhost\n";
const std::string kNew = kOld + "10.99.0.5\tweb1.corp.example\n";

class EditLockTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        WriteFile(kHosts, kOld);
    }
    void TearDown() override {
        pauseHook = nullptr;
        WriteFile(kHosts, kOld);
        HostTest::TearDown();
    }
};

void Add() {
    HostsFile().AddOrReplaceEntry(Ipv4Address("10.99.0.5"), "web1.corp.example", {});
}

/// Locks a file or directory for as long as it lives. A lock belongs to the open file: to the code
/// under test it is another process's.
class Held {
public:
    explicit Held(const char* path) : file_(open(path, O_RDONLY | O_CLOEXEC)) {
        EXPECT_EQ(flock(file_, LOCK_EX | LOCK_NB), 0) << path;
    }
    ~Held() { Release(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    void Release() {
        if (file_ >= 0)
            close(file_);
        file_ = -1;
    }

private:
    int file_;
};

TEST_F(EditLockTest, OnlyItsOwnerCanOpenIt) {
    umask(0);
    Add();
    EXPECT_EQ(Mode(kDirectory), 0700u);
    EXPECT_EQ(Mode(kLock), 0600u);
}

TEST_F(EditLockTest, WhatWasOpenedToOthersIsClosedAgain) {
    std::filesystem::create_directory(kDirectory);
    WriteFile(kLock, "");
    ASSERT_EQ(chmod(kLock, 0666), 0);
    Add();
    EXPECT_EQ(Mode(kDirectory), 0700u);
    EXPECT_EQ(Mode(kLock), 0600u);
}

TEST_F(EditLockTest, LocksThatAnyUserCanTakeStopNobody) {
    const pid_t editor = fork();
    if (editor == 0) {
        const Held directory("/etc");
        const Held file(kHosts);
        alarm(5); // what a lock stopped would otherwise never end
        Add();
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(editor, &status, 0), editor);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFile(kHosts), kNew);
}

TEST_F(EditLockTest, EditWaitsUntilTheLockIsFree) {
    Add();
    WriteFile(kHosts, kOld);
    Held held(kLock);
    int pauses = 0;
    pauseHook = [&](nanoseconds) {
        EXPECT_EQ(ReadFile(kHosts), kOld);
        if (++pauses == 3)
            held.Release();
    };
    Add();
    EXPECT_EQ(pauses, 3);
    EXPECT_EQ(ReadFile(kHosts), kNew);
}

TEST_F(EditLockTest, LockThatIsHeldOnIsAnErrorAfterTenSeconds) {
    Add();
    WriteFile(kHosts, kOld);
    const Held held(kLock);
    nanoseconds waited(0);
    pauseHook = [&](nanoseconds length) { waited += length; };
    EXPECT_EQ(FailureText<HostCtlException>(Add),
              std::string(kLock) + ": held by another process for 10 seconds");
    EXPECT_EQ(waited, std::chrono::seconds(10));
    EXPECT_EQ(ReadFile(kHosts), kOld);
}

TEST_F(EditLockTest, FailedEditLetsGo) {
    std::filesystem::remove(kHosts);
    std::filesystem::create_directory(kHosts);
    EXPECT_THROW(Add(), HostCtlException);
    std::filesystem::remove(kHosts);
    pauseHook = [](nanoseconds) { FAIL() << "the lock is still held"; };
    Add();
}

TEST_F(EditLockTest, WhatIsNoFileInItsPlaceIsAnError) {
    std::filesystem::create_directory(kDirectory);
    ASSERT_EQ(symlink("/run/elsewhere.lock", kLock), 0);
    EXPECT_EQ(FailureText<HostCtlException>(Add),
              std::string(kLock) + ": cannot open: Too many levels of symbolic links");
    EXPECT_FALSE(Exists("/run/elsewhere.lock"));
    std::filesystem::remove(kLock);
    ASSERT_EQ(mkfifo(kLock, 0600), 0);
    EXPECT_EQ(FailureText<HostCtlException>(Add), std::string(kLock) + ": not a regular file");
    EXPECT_EQ(ReadFile(kHosts), kOld);
}

TEST_F(EditLockTest, LinkInPlaceOfTheDirectoryIsAnError) {
    std::filesystem::create_directory("/run/elsewhere");
    ASSERT_EQ(symlink("/run/elsewhere", kDirectory), 0);
    EXPECT_EQ(FailureText<HostCtlException>(Add),
              std::string(kDirectory) + ": a symbolic link, not a directory");
    EXPECT_TRUE(std::filesystem::is_empty("/run/elsewhere"));
    EXPECT_EQ(ReadFile(kHosts), kOld);
    std::filesystem::remove("/run/elsewhere");
}

} // namespace
