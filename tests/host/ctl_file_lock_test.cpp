/// Two commands edit one file at once: the first is stopped at a call to the system, and goes on
/// when the second waits for it or has ended.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "ctl_file_fixture.h"
#include "file_change.h"
#include "file_lock.h"

namespace {

/// Where a thread can be stopped.
enum class Step { BeforeLock, BehindLink, BeforeRename, BehindRename, BeforeUnlink, AtAttribute };

thread_local std::function<void(Step)> stepHook;

/// The file that gets an attribute at this step.
thread_local int attributeDescriptor = -1;

/// Called with the length of each pause in place of the pause, while it is set.
thread_local std::function<void(std::chrono::nanoseconds)> pauseHook;

void Reach(Step step) {
    const int error = errno;
    if (stepHook) {
        stepHook(step);
    }
    errno = error;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int flock(int descriptor, int operation) noexcept {
    Reach(Step::BeforeLock);
    return static_cast<int>(syscall(SYS_flock, descriptor, operation));
}

__attribute__((visibility("default"))) int link(const char* from, const char* to) noexcept {
    const int result = linkat(AT_FDCWD, from, AT_FDCWD, to, 0);
    Reach(Step::BehindLink);
    return result;
}

__attribute__((visibility("default"))) int rename(const char* from, const char* to) noexcept {
    Reach(Step::BeforeRename);
    const int result = renameat(AT_FDCWD, from, AT_FDCWD, to);
    Reach(Step::BehindRename);
    return result;
}

__attribute__((visibility("default"))) int unlink(const char* path) noexcept {
    Reach(Step::BeforeUnlink);
    return unlinkat(AT_FDCWD, path, 0);
}

__attribute__((visibility("default"))) int fsetxattr(int descriptor, const char* name,
                                                     const void* value, std::size_t size,
                                                     int flags) noexcept {
    attributeDescriptor = descriptor;
    Reach(Step::AtAttribute);
    return static_cast<int>(syscall(SYS_fsetxattr, descriptor, name, value, size, flags));
}

__attribute__((visibility("default"))) int nanosleep(const timespec* length, timespec* rest) {
    if (pauseHook) {
        pauseHook(std::chrono::seconds(length->tv_sec) + std::chrono::nanoseconds(length->tv_nsec));
        return 0;
    }
    errno = clock_nanosleep(CLOCK_REALTIME, 0, length, rest);
    return errno == 0 ? 0 : -1;
}

} // extern "C"

namespace ctl_test {
namespace {

using ctl::FileArguments;
using ctl::FileLock;
using ctl::HintedError;

/// A command; what it says when it fails, else nothing.
using Command = std::function<std::string()>;

template <typename Action>
std::string FailureOf(Action&& action) {
    try {
        action();
        return "";
    } catch (const HintedError& failure) {
        return failure.what();
    }
}

/// A command in a thread of its own, which waits for others as long as Finish is not called.
class Second {
public:
    explicit Second(Command command) : command_(std::move(command)) {}
    ~Second() { Finish(); }
    Second(const Second&) = delete;
    Second& operator=(const Second&) = delete;

    /// Returns when the command waits or has ended.
    void Start() {
        thread_ = std::thread([this] {
            pauseHook = [this](std::chrono::nanoseconds) { Pause(); };
            failure_ = command_();
            Tell(hasEnded_);
        });
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return waits_ || hasEnded_; });
    }

    bool Waits() const {
        const std::lock_guard lock(mutex_);
        return waits_;
    }

    /// Lets it go on, and returns what it says at its end.
    std::string Finish() {
        Tell(mayGoOn_);
        if (thread_.joinable()) {
            thread_.join();
        }
        return failure_;
    }

private:
    void Tell(bool& what) {
        const std::lock_guard lock(mutex_);
        what = true;
        changed_.notify_all();
    }

    void Pause() {
        Tell(waits_);
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return mayGoOn_; });
    }

    Command command_;
    std::string failure_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool waits_ = false;
    bool mayGoOn_ = false;
    bool hasEnded_ = false;
    std::thread thread_;
};

constexpr const char* original = "original\n";

class FileLockTest : public FileTest {
protected:
    FileLockTest() { Fill(original); }
    ~FileLockTest() override {
        stepHook = nullptr;
        pauseHook = nullptr;
    }

    FileArguments Arguments() const {
        FileArguments arguments;
        arguments.file = file;
        return arguments;
    }

    /// Adds a line.
    Command Add(const std::string& line) const {
        return [this, line] {
            return FailureOf([&] {
                const auto before = ctl::ReadFile(file);
                ctl::ChangeFile(Arguments(), true, before, before.content + line);
            });
        };
    }

    Command Restore() const {
        return [this] { return FailureOf([&] { ctl::RestoreFile(Arguments(), true); }); };
    }

    /// Runs a command and, when it comes to this step for the first time, the other one. The first
    /// must succeed, and the other must have waited for it.
    std::string RunBoth(const Command& first, Step step, Command other) {
        Second second(std::move(other));
        bool isReached = false;
        stepHook = [&](Step at) {
            if (at == step && !isReached) {
                isReached = true;
                second.Start();
            }
        };
        EXPECT_EQ(first(), "");
        stepHook = nullptr;
        EXPECT_TRUE(isReached);
        EXPECT_TRUE(second.Waits());
        return second.Finish();
    }

    const std::string changedMeanwhile = file + " was changed by somebody else meanwhile";
    const std::string lockFile = file + ".tesauth-lock";
};

TEST_F(FileLockTest, PermissionsThatChangeWhileACommandWaitsAreKept) {
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    bool isReached = false;
    stepHook = [&](Step at) {
        if (at == Step::BeforeLock && !isReached) {
            isReached = true;
            ASSERT_EQ(chmod(file.c_str(), 0600), 0);
        }
    };
    EXPECT_EQ(Add("A\n")(), "");
    EXPECT_EQ(scripted::Mode(file), 0600u);
    EXPECT_EQ(scripted::Mode(backup), 0600u);
}

TEST_F(FileLockTest, NobodyGetsInBeforeTheAccessListIsThere) {
    // user::rw- user:65534:rw- group::--- mask::rw- other::---
    const std::string list("\2\0\0\0\1\0\6\0\377\377\377\377\2\0\6\0\376\377\0\0\4\0\0\0\377\377"
                           "\377\377\20\0\6\0\377\377\377\377\40\0\0\0\377\377\377\377",
                           44);
    if (setxattr(file.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) != 0) {
        ASSERT_EQ(errno, ENOTSUP);
        GTEST_SKIP() << "this kernel has no access lists on the host's temporary file system";
    }
    int seen = 0;
    stepHook = [&](Step at) {
        struct stat status = {};
        if (at == Step::AtAttribute) {
            ASSERT_EQ(fstat(attributeDescriptor, &status), 0);
            EXPECT_EQ(status.st_mode & 07777, 0600u);
            ++seen;
        }
    };
    EXPECT_EQ(Add("A\n")(), "");
    EXPECT_GE(seen, 2) << "the file and its backup";
    EXPECT_EQ(scripted::Mode(file), 0660u) << "the list's mask";
}

TEST_F(FileLockTest, TheBackupOfTheFirstSurvivesTheSecond) {
    EXPECT_EQ(RunBoth(Add("A\n"), Step::BehindLink, Add("B\n")), changedMeanwhile);
    EXPECT_EQ(Text(), "original\nA\n");
    EXPECT_EQ(scripted::ReadFile(backup), original);
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-backup"}));
}

TEST_F(FileLockTest, WhatTheFirstWritesIsNotReplacedUnseen) {
    EXPECT_EQ(RunBoth(Add("A\n"), Step::BeforeRename, Add("B\n")), changedMeanwhile);
    EXPECT_EQ(Text(), "original\nA\n");
    EXPECT_EQ(scripted::ReadFile(backup), original);
}

TEST_F(FileLockTest, WhatIsChangedDuringARestoreHasABackup) {
    ASSERT_EQ(Add("A\n")(), "");
    EXPECT_EQ(RunBoth(Restore(), Step::BehindRename, Add("B\n")), "");
    EXPECT_EQ(Text(), "original\nB\n");
    EXPECT_EQ(scripted::ReadFile(backup), original);
}

TEST_F(FileLockTest, WhatIsChangedWhileOnlyTheBackupGoesHasOneToo) {
    scripted::WriteFile(backup, original);
    EXPECT_EQ(RunBoth(Restore(), Step::BeforeUnlink, Add("B\n")), "");
    EXPECT_EQ(Text(), "original\nB\n");
    EXPECT_EQ(scripted::ReadFile(backup), original);
}

TEST_F(FileLockTest, ABackupIsPutBackOnce) {
    ASSERT_EQ(Add("A\n")(), "");
    EXPECT_EQ(RunBoth(Restore(), Step::BeforeRename, Restore()),
              backup + " was changed by somebody else meanwhile");
    ExpectUntouched();

    ASSERT_EQ(Add("A\n")(), "");
    ASSERT_EQ(unlink(file.c_str()), 0);
    EXPECT_EQ(RunBoth(Restore(), Step::BeforeRename, Restore()),
              backup + " was changed by somebody else meanwhile");
    ExpectUntouched();
}

TEST_F(FileLockTest, LinksToOneFileShareItsLock) {
    const std::string link = In("link");
    ASSERT_EQ(symlink("edited", link.c_str()), 0);
    EXPECT_EQ(RunBoth(Add("A\n"), Step::BehindLink,
                      [&] {
                          FileArguments arguments = Arguments();
                          arguments.file = link;
                          return FailureOf([&] {
                              ctl::ChangeFile(arguments, true, ctl::ReadFile(link), "B\n");
                          });
                      }),
              link + " was changed by somebody else meanwhile");
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-backup", "link"}));
}

TEST_F(FileLockTest, NobodyIsWaitedForLongerThanTenSeconds) {
    scripted::WriteFile(backup, "old\n");
    const FileLock held(file);
    for (const Command& command : {Add("A\n"), Restore()}) {
        std::chrono::nanoseconds waited(0);
        pauseHook = [&](std::chrono::nanoseconds length) { waited += length; };
        EXPECT_EQ(command(), "another command edits " + file);
        EXPECT_EQ(waited, std::chrono::seconds(10));
    }
    EXPECT_EQ(Text(), original);
    EXPECT_EQ(scripted::ReadFile(backup), "old\n");
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-backup", "edited.tesauth-lock"}));
}

TEST_F(FileLockTest, LocksThatAnyReaderCanTakeStopNobody) {
    pauseHook = [](std::chrono::nanoseconds) { ADD_FAILURE() << "it waits"; };
    const ctl::UniqueFd whole(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(whole.Get(), LOCK_EX), 0);
    const ctl::UniqueFd bytes(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct flock all = {};
    all.l_type = F_RDLCK;
    ASSERT_EQ(fcntl(bytes.Get(), F_OFD_SETLK, &all), 0);
    EXPECT_EQ(Add("A\n")(), "");
}

TEST_F(FileLockTest, NobodyElseCanOpenIt) {
    const mode_t mask = umask(0);
    {
        const FileLock lock(file);
        EXPECT_EQ(scripted::Mode(lockFile), 0600u);
    }
    umask(mask);
    ExpectUntouched();
}

TEST_F(FileLockTest, WhatAKilledCommandLeftIsTakenOver) {
    pauseHook = [](std::chrono::nanoseconds) { ADD_FAILURE() << "it waits"; };
    scripted::WriteFile(lockFile, "");
    EXPECT_EQ(Add("A\n")(), "");
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-backup"}));
}

TEST_F(FileLockTest, ALockWhoseNameIsGoneIsNone) {
    auto held = std::make_optional<FileLock>(file);
    std::optional<FileLock> next;
    stepHook = [&](Step at) { // the lock that it has just opened is removed, and there is another
        if (at == Step::BeforeLock && held) {
            held.reset();
            next.emplace(file);
        }
    };
    int pauses = 0;
    pauseHook = [&](std::chrono::nanoseconds) {
        EXPECT_EQ(Text(), original);
        if (++pauses == 2) {
            next.reset();
        }
    };
    EXPECT_EQ(Add("A\n")(), "");
    EXPECT_EQ(pauses, 2);
    EXPECT_EQ(Text(), "original\nA\n");
}

TEST_F(FileLockTest, WhatIsNoLockIsRefused) {
    ASSERT_EQ(mkfifo(lockFile.c_str(), 0600), 0);
    EXPECT_EQ(Add("A\n")(), lockFile + " is not a regular file");
    ASSERT_EQ(unlink(lockFile.c_str()), 0);
    ASSERT_EQ(symlink("none", lockFile.c_str()), 0);
    EXPECT_THAT(Add("A\n")(), testing::StartsWith("cannot open " + lockFile + ": "));
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-lock"}));
    EXPECT_EQ(Text(), original);
}

/// Held until the command waits for it.
std::optional<FileLock> heldForCommand;
bool commandWaited = false;

void LetGoWhenTheCommandWaits(pid_t process) {
    siginfo_t ended = {};
    while (!commandWaited && ended.si_pid == 0) {
        std::ifstream call("/proc/" + std::to_string(process) + "/syscall");
        long number = -1;
        call >> number;
        commandWaited = number == SYS_clock_nanosleep || number == SYS_nanosleep;
        waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT);
    }
    heldForCommand.reset();
}

TEST_F(FileLockTest, TheInstalledCommandTakesIt) {
    const std::string policy = "auth required a.so\n";
    Fill(policy);
    heldForCommand.emplace(file);
    commandWaited = false;
    const Result result = Ctl({"pam", "add", file, "auth", "required", "b.so"},
                              {.whileRunning = LetGoWhenTheCommandWaits});
    EXPECT_TRUE(commandWaited);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(Text(), policy + "auth\trequired\tb.so\n");
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-backup"}));
}

} // namespace
} // namespace ctl_test
