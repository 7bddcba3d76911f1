#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <pty.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "ctl_file_fixture.h"

namespace ctl_test {
namespace {

using scripted::Mode;
using scripted::ReadFile;
using scripted::WriteFile;
using testing::HasSubstr;

constexpr uid_t nobody = 65534;
constexpr const char* policy = "auth required a.so\nauth required b.so\n";
constexpr const char* changed = "auth required a.so\nauth required b.so\nauth\trequired\tx.so\n";

void GiveTo(const std::string& path, uid_t owner) {
    ASSERT_EQ(chown(path.c_str(), owner, owner), 0) << path;
}

uid_t OwnerOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_uid, status.st_gid);
    return status.st_uid;
}

class FileChangeTest : public FileTest {
protected:
    FileChangeTest() { Fill(policy); }

    Words Add(const std::string& module = "x.so") const {
        return {"pam", "add", file, "auth", "required", module};
    }
    Words Restore() const { return {"pam", "restore", file}; }
};

TEST_F(FileChangeTest, TheBackupIsLikeTheFileAndStaysAtTheSecondChange) {
    GiveTo(file, nobody);
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    Done(Add());
    EXPECT_EQ(Text(), changed);
    EXPECT_EQ(ReadFile(backup), policy);
    Done(Add("y.so"));
    EXPECT_EQ(ReadFile(backup), policy);
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-backup"}));
    for (const std::string& path : {file, backup}) {
        EXPECT_EQ(Mode(path), 0640u);
        EXPECT_EQ(OwnerOf(path), nobody);
    }
}

TEST_F(FileChangeTest, AnAccessListIsKept) {
    // user::rw- user:65534:r-- group::--- mask::r-- other::---
    const std::string list("\2\0\0\0\1\0\6\0\377\377\377\377\2\0\4\0\376\377\0\0\4\0\0\0\377\377"
                           "\377\377\20\0\4\0\377\377\377\377\40\0\0\0\377\377\377\377",
                           44);
    const char* name = "system.posix_acl_access";
    ASSERT_EQ(setxattr(file.c_str(), name, list.data(), list.size(), 0), 0);
    Done(Add());
    for (const std::string& path : {file, backup}) {
        char value[64];
        const ssize_t length = getxattr(path.c_str(), name, value, sizeof value);
        ASSERT_GT(length, 0) << path;
        EXPECT_EQ(std::string(value, static_cast<std::size_t>(length)), list) << path;
    }
}

TEST_F(FileChangeTest, AnAccessListOfTheFolderLetsNobodyIn) {
    // user::rw- user:65534:rw- group::r-- mask::rw- other::---
    const std::string list("\2\0\0\0\1\0\6\0\377\377\377\377\2\0\6\0\376\377\0\0\4\0\4\0\377\377"
                           "\377\377\20\0\6\0\377\377\377\377\40\0\0\0\377\377\377\377",
                           44);
    if (setxattr(folder, "system.posix_acl_default", list.data(), list.size(), 0) != 0) {
        ASSERT_EQ(errno, ENOTSUP);
        GTEST_SKIP() << "this kernel has no access lists on the host's temporary file system";
    }
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    Done(Add());
    for (const std::string& path : {file, backup}) {
        EXPECT_EQ(getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0), -1) << path;
        EXPECT_EQ(errno, ENODATA);
        EXPECT_EQ(Mode(path), 0640u);
    }
    Done(Restore());
    EXPECT_EQ(getxattr(file.c_str(), "system.posix_acl_access", nullptr, 0), -1);
}

TEST_F(FileChangeTest, RestorePutsEverythingBack) {
    const std::string odd = std::string("# \xff\0\r\n\n auth   required a.so", 29);
    Fill(odd);
    Done({"pam", "add", file, "auth", "required", "x.so", "--rewrite"});
    ASSERT_EQ(chmod(file.c_str(), 0604), 0);
    const std::string now = Text();
    const std::string shown = Done(Restore() + Words{"--dry-run"});
    EXPECT_EQ(Text(), now);
    EXPECT_EQ(ReadFile(backup), odd);
    EXPECT_THAT(shown, HasSubstr("-auth\trequired\tx.so\t\n"));
    EXPECT_EQ(Done(Restore()), shown + "restored " + file + "\n");
    EXPECT_EQ(Mode(file), 0604u);
    ExpectUntouched();
    const Result again = Ctl(Restore() + Words{"--json"});
    ExpectFailure(again, 1, "tesauthctl: there is no " + backup + "\nhint: ");
    EXPECT_EQ(Json::parse(again.out)["error"]["text"], "there is no " + backup);
    ExpectUntouched();
}

TEST_F(FileChangeTest, RestoreOfAnUnchangedFileOnlyRemovesTheBackup) {
    WriteFile(backup, policy);
    struct stat before = {};
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    const std::string told = file + " is like its backup: nothing was changed";
    EXPECT_EQ(Done(Restore() + Words{"--dry-run"}), told + "\n");
    EXPECT_EQ(ReadFile(backup), policy);
    EXPECT_EQ(Done(Restore()), told + "; the backup was removed\n");
    struct stat after = {};
    ASSERT_EQ(stat(file.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    ExpectUntouched();
}

TEST_F(FileChangeTest, RestoreMakesAFileThatIsGone) {
    GiveTo(file, nobody);
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    Done(Add());
    ASSERT_EQ(unlink(file.c_str()), 0);
    EXPECT_THAT(Done(Restore()), HasSubstr("@@ -0,0 +1,2 @@\n+auth required a.so\n"));
    EXPECT_EQ(Mode(file), 0640u);
    EXPECT_EQ(OwnerOf(file), nobody);
    ExpectUntouched();
}

TEST_F(FileChangeTest, TheNameServiceSwitchIsRestoredAsWell) {
    Fill("passwd:   files\n");
    Done({"nss", "add", file, "passwd", "sss"});
    EXPECT_EQ(JsonOf(Ctl({"nss", "restore", file, "--json"})),
              Json({{"file", file},
                    {"diff", DiffOf(file, "@@ -1 +1 @@\n-passwd:   files sss\n+passwd:   files\n")},
                    {"changed", true},
                    {"backup", Json()}}));
    ExpectUntouched();
}

TEST_F(FileChangeTest, OfALinkTheTargetIsChanged) {
    ASSERT_TRUE(std::filesystem::create_directory(In("there")));
    const std::string target = In("there/target");
    WriteFile(target, policy);
    ASSERT_EQ(chmod(target.c_str(), 0604), 0);
    const std::string link = In("link");
    ASSERT_EQ(symlink("there/target", link.c_str()), 0);
    Done({"pam", "add", link, "auth", "required", "x.so"});
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(ReadFile(target), changed);
    EXPECT_EQ(Mode(target), 0604u);
    EXPECT_EQ(ReadFile(link + ".tesauth-backup"), policy);
    EXPECT_EQ(scripted::NamesIn(In("there")), Words{"target"});
    Done({"pam", "restore", link});
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(ReadFile(target), policy);
    EXPECT_EQ(Names(), (Words{"edited", "link", "there"}));

    Done({"pam", "add", link, "auth", "required", "x.so"});
    ASSERT_EQ(unlink(target.c_str()), 0);
    ExpectFailure(Ctl({"pam", "restore", link}), 1, link + " is a symbolic link to nothing");
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(ReadFile(link + ".tesauth-backup"), policy);
    ExpectFailure(Ctl({"pam", "show", link}), 1, "cannot read " + link);
}

TEST_F(FileChangeTest, WhatIsNoRegularFileIsRefused) {
    ASSERT_EQ(mkfifo(In("fifo").c_str(), 0600), 0);
    for (const std::string& path : {In("fifo"), std::string(folder), std::string("/dev/null")}) {
        ExpectFailure(Ctl({"pam", "show", path}), 1, path + " is not a regular file\nhint: ");
    }
    ExpectFailure(Ctl({"pam", "show", In("none")}), 1, "cannot read " + In("none") + ": No such");
    ASSERT_EQ(unlink(In("fifo").c_str()), 0);
    ASSERT_EQ(symlink("/nowhere", backup.c_str()), 0);
    ExpectFailure(Ctl(Add()), 1, backup + " is not a regular file\nhint: ");
    WriteFile(In("other"), "auth required other.so\n");
    for (const std::string& target : {std::string("/nowhere"), In("other")}) {
        ASSERT_EQ(unlink(backup.c_str()), 0);
        ASSERT_EQ(symlink(target.c_str(), backup.c_str()), 0);
        for (const Words& words : {Restore(), Restore() + Words{"--dry-run"}}) {
            const Result result = Ctl(words);
            ExpectFailure(result, 1, backup + " is not a regular file\nhint: ");
            EXPECT_EQ(result.out, "");
        }
    }
    EXPECT_EQ(Text(), policy);
    ASSERT_EQ(unlink(In("other").c_str()), 0);
    ASSERT_EQ(unlink(backup.c_str()), 0);
    ExpectUntouched();
}

TEST_F(FileChangeTest, AnyOwnerMayChangeHisFile) {
    GiveTo(folder, nobody);
    GiveTo(file, nobody);
    const Result added = Ctl(Add(), {.asNobody = true});
    EXPECT_EQ(added.status, 0) << added.err;
    EXPECT_EQ(Text(), changed);
    EXPECT_EQ(Ctl(Restore(), {.asNobody = true}).status, 0);
    EXPECT_EQ(OwnerOf(file), nobody);
    ExpectUntouched();
}

TEST_F(FileChangeTest, WhoLacksTheRightsIsNotPermitted) {
    const char* hint = "Permission denied\nhint: try again as root\n";
    for (const Words& words : {Add(), Add() + Words{"--json"}}) { // neither file nor folder
        ExpectFailure(Ctl(words, {.asNobody = true}), 3, hint);
        ExpectUntouched();
    }
    EXPECT_EQ(Ctl(Add() + Words{"--dry-run"}, {.asNobody = true}).status, 0);
    GiveTo(folder, nobody); // the folder, but not the file
    ExpectFailure(Ctl(Add(), {.asNobody = true}), 3, hint);
    ExpectUntouched();
    GiveTo(folder, 0); // the file, but not the folder
    GiveTo(file, nobody);
    ExpectFailure(Ctl(Add(), {.asNobody = true}), 3, hint);
    ExpectUntouched();
    GiveTo(folder, nobody); // both, but not the owner's right to stay the owner
    GiveTo(file, 0);
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    ExpectFailure(Ctl(Add(), {.asNobody = true}), 3,
                  "its owner and group: Operation not permitted");
    ExpectUntouched();
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    for (const Words& words : {Add(), Words{"pam", "show", file}}) {
        ExpectFailure(Ctl(words, {.asNobody = true}), 3, hint);
    }
    WriteFile(backup, policy);
    ASSERT_EQ(chmod(backup.c_str(), 0600), 0);
    ExpectFailure(Ctl(Restore(), {.asNobody = true}), 3, hint);
}

/// With the folder on a file system of its own.
class FileSystemTest : public FileChangeTest {
protected:
    FileSystemTest() {
        EXPECT_EQ(mount("small", folder, "tmpfs", 0, "size=64k"), 0);
        Fill(policy);
    }
    ~FileSystemTest() override { EXPECT_EQ(umount2(folder, MNT_DETACH), 0); }

    /// Uses all its room but so many pages.
    static void LeaveRoom(int pages) {
        const std::string filler = In("filler");
        const int descriptor = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string page(4096, 'x');
        off_t size = 0;
        while (write(descriptor, page.data(), page.size()) > 0) {
            size += 4096;
        }
        EXPECT_EQ(ftruncate(descriptor, size - off_t{4096} * pages), 0);
        close(descriptor);
    }
};

TEST_F(FileSystemTest, AReadOnlyOneIsLeftAlone) {
    ASSERT_EQ(mount(nullptr, folder, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    ExpectFailure(Ctl(Add()), 1,
                  "Read-only file system\nhint: its file system is mounted read-only\n");
    ExpectUntouched();
    Done(Add() + Words{"--dry-run"});
}

TEST_F(FileSystemTest, AFullOneKeepsTheFileAsItWas) {
    for (const int pages : {0, 1}) { // room for nothing, and for a backup alone
        LeaveRoom(pages);
        ExpectFailure(Ctl(Add()), 1,
                      "No space left on device\nhint: make room on that file system\n");
        EXPECT_EQ(Text(), policy);
        EXPECT_EQ(Names(), (Words{"edited", "filler"}));
    }
    LeaveRoom(2);
    Done(Add());
    LeaveRoom(0);
    ExpectFailure(Ctl(Add("y.so")), 1, "cannot write " + file + ": No space left on device");
    ExpectFailure(Ctl(Restore()), 1, "cannot write " + file + ": No space left on device");
    EXPECT_EQ(Text(), changed);
    EXPECT_EQ(ReadFile(backup), policy);
    EXPECT_EQ(Names(), (Words{"edited", "edited.tesauth-backup", "filler"}));
}

TEST_F(FileChangeTest, WhatCannotBeShownIsNotDone) {
    ExpectFailure(Ctl(Add(), {.outputFile = "/dev/full"}), 1, "nothing was changed");
    ExpectUntouched();
    Done(Add());
    ExpectFailure(Ctl(Restore(), {.outputFile = "/dev/full"}), 1, "nothing was changed");
    EXPECT_EQ(Text(), changed);
    EXPECT_EQ(ReadFile(backup), policy);
}

/// Takes the command's answer, but changes the file as soon as its first byte is there.
void ChangeMeanwhile(pid_t) {
    const int answer = open("/run/ctl-files/answer", O_RDONLY | O_CLOEXEC);
    char buffer[4096];
    EXPECT_EQ(read(answer, buffer, 1), 1);
    WriteFile("/run/ctl-files/edited", "auth required theirs.so\n");
    while (read(answer, buffer, sizeof buffer) > 0) {
    }
    close(answer);
}

/// There is no backup either: nothing was changed, as long as the command had not begun with it.
TEST_F(FileChangeTest, WhatSomebodyElseWritesMeanwhileStays) {
    std::string lines; // the difference must not fit into a pipe
    for (int i = 0; i < 10'000; ++i) {
        lines += "auth required module" + std::to_string(i) + ".so\n";
    }
    Fill(lines);
    ASSERT_EQ(mkfifo(In("answer").c_str(), 0600), 0);
    ExpectFailure(Ctl(Add() + Words{"--rewrite"},
                      {.outputFile = In("answer"), .whileRunning = ChangeMeanwhile}),
                  1, "tesauthctl: " + file + " was changed by somebody else meanwhile\nhint: ");
    EXPECT_EQ(Text(), "auth required theirs.so\n");
    EXPECT_EQ(Names(), (Words{"answer", "edited"}));
}

TEST_F(FileChangeTest, ATerminalGetsNothingThatItObeys) {
    Fill("# \x1b[31m \xc2\x9b red\tx\r\nauth required a.so\n");
    EXPECT_THAT(Done(Add() + Words{"--dry-run"}), HasSubstr("\n # \x1b[31m \xc2\x9b red\tx\r\n"));
    int terminal = -1;
    termios raw = {};
    cfmakeraw(&raw);
    const pid_t child = forkpty(&terminal, nullptr, &raw, nullptr);
    if (child == 0) {
        Execute(Add() + Words{"--dry-run"});
    }
    std::string shown;
    char buffer[4096];
    for (ssize_t count; (count = read(terminal, buffer, sizeof buffer)) > 0;) {
        shown.append(buffer, static_cast<std::size_t>(count));
    }
    close(terminal);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(StatusOf(status), 0);
    EXPECT_THAT(shown, HasSubstr("\n # ?[31m ? red\tx?\n"));
    EXPECT_THAT(shown, HasSubstr("+auth\trequired\tx.so\n"));
}

TEST_F(FileChangeTest, TextsFromTheFileAreToldAsOneLine) {
    Fill("\x1b[31mauth required a.so\n");
    ExpectFailure(Ctl(Add()), 1, file + ":1: '?[31mauth' is no facility\n");
    const Result result = Ctl(Add() + Words{"--json"});
    EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
    EXPECT_EQ(Json::parse(result.out)["error"]["text"], file + ":1: '\x1b[31mauth' is no facility");
    Fill("# \xff\nauth required a.so\n"); // JSON is UTF-8
    EXPECT_THAT(JsonOf(Ctl(Add() + Words{"--dry-run", "--json"}))["diff"],
                HasSubstr("\n # \xef\xbf\xbd\n"));
}

} // namespace
} // namespace ctl_test
