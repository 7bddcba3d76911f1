#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "hykctl/network.h"
#include "platform_support.h"

namespace {

using namespace PlatformTest;
using HostCtl::Lib::HostCtlException;
using HostCtl::Network::Ipv4Address;
using HykCtl::Network::HostsFile;
using testing::HasSubstr;
using testing::StartsWith;

const char* const kHosts = "/etc/hosts";
/// Where a new version of the file is until it takes its place.
const char* const kLeftover = "/etc/.hosts.hykctl-new";

class HostsFileTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        std::filesystem::remove(kHosts);
    }
    void TearDown() override {
        std::filesystem::remove(kHosts);
        WriteFile(kHosts, "127.0.0.1\tlocalhost\n");
        HostTest::TearDown();
    }
};

void Add() {
    HostsFile().AddOrReplaceEntry(Ipv4Address("10.99.0.5"), "web1.corp.example", {"web1"});
}

const std::string kEntry = "10.99.0.5\tweb1.corp.example web1";

/// The hosts file after the entry has been added to a file that holds `text`.
std::string Edited(const std::string& text) {
    WriteFile(kHosts, text);
    Add();
    return ReadFile(kHosts);
}

TEST_F(HostsFileTest, NewEntryIsAddedAtTheEnd) {
    EXPECT_EQ(Edited("127.0.0.1\tlocalhost\n# comment\n\n::1 ip6-localhost\n"),
              "127.0.0.1\tlocalhost\n# comment\n\n::1 ip6-localhost\n" + kEntry + "\n");
}

TEST_F(HostsFileTest, UnfinishedLastLineIsFinishedFirst) {
    EXPECT_EQ(Edited("127.0.0.1 localhost"), "127.0.0.1 localhost\n" + kEntry + "\n");
}

TEST_F(HostsFileTest, LineOfTheAddressIsReplacedInPlace) {
    EXPECT_EQ(Edited("10.99.0.4 a\n  10.99.0.5  old.example old  # note\n10.99.0.6 b"),
              "10.99.0.4 a\n" + kEntry + "  # note\n10.99.0.6 b");
    EXPECT_EQ(Edited("10.99.0.4 a\n10.99.0.5 old"), "10.99.0.4 a\n" + kEntry);
}

TEST_F(HostsFileTest, LineOfTheNameIsReplacedInPlace) {
    EXPECT_EQ(Edited("10.99.0.9 WEB1.Corp.Example web1 www\n10.99.0.6 b\n"),
              kEntry + "\n10.99.0.6 b\n");
    EXPECT_EQ(Edited("10.99.0.9 web1\n10.99.0.6 b\n"), kEntry + "\n10.99.0.6 b\n");
}

TEST_F(HostsFileTest, InstallersLineIsReplaced) {
    EXPECT_EQ(Edited("127.0.0.1\tlocalhost\n127.0.1.1\tweb1.corp.example\tweb1\n"),
              "127.0.0.1\tlocalhost\n" + kEntry + "\n");
    EXPECT_EQ(Edited("127.0.0.1\tlocalhost\n127.0.1.1\tweb1.old.example web1\n"),
              "127.0.0.1\tlocalhost\n" + kEntry + "\n");
    EXPECT_EQ(Edited("127.0.1.1\tother.example other\n"),
              "127.0.1.1\tother.example other\n" + kEntry + "\n");
}

TEST_F(HostsFileTest, AddressLineAndNameLineBecomeOneEntry) {
    EXPECT_EQ(Edited("10.99.0.9 web1.corp.example web1 www\n10.99.0.5 old\n"),
              "10.99.0.9\twww\n" + kEntry + "\n");
    EXPECT_EQ(Edited("10.99.0.5 old\n127.0.1.1 web1.old.example web1\n10.99.0.9 web1\n"),
              kEntry + "\n");
}

TEST_F(HostsFileTest, CommentOfALineThatGoesStays) {
    EXPECT_EQ(Edited("10.99.0.5 old\n10.99.0.9 web1 # spare\n"), kEntry + "\n# spare\n");
}

TEST_F(HostsFileTest, LoopbackKeepsLocalhost) {
    EXPECT_EQ(Edited("127.0.0.1 localhost web1.corp.example web1\n"),
              "127.0.0.1\tlocalhost\n" + kEntry + "\n");
    EXPECT_EQ(Edited("127.0.0.1 web1 localhost # me\n"),
              "127.0.0.1\tlocalhost # me\n" + kEntry + "\n");
}

TEST_F(HostsFileTest, AnotherHostOfTheSameShortNameKeepsItsFullName) {
    EXPECT_EQ(Edited("10.99.0.9 web1.lab.example web1\n"),
              "10.99.0.9\tweb1.lab.example\n" + kEntry + "\n");
}

TEST_F(HostsFileTest, OtherLinesOfTheAddressKeepTheirOtherNames) {
    EXPECT_EQ(Edited("10.99.0.5 old\n10.99.0.5 shop.example  shop\n10.99.0.5 shop web1\n"),
              kEntry + "\n10.99.0.5 shop.example  shop\n10.99.0.5\tshop\n");
}

TEST_F(HostsFileTest, Ipv6LinesAndWhatIsNoEntryStay) {
    const std::string other = "::1 localhost web1.corp.example web1\n#10.99.0.5 web1\nweb1\n"
                              "10.99.0.500 web1\n \t\n";
    EXPECT_EQ(Edited(other), other + kEntry + "\n");
}

TEST_F(HostsFileTest, CarriageReturnsStay) {
    EXPECT_EQ(Edited("127.0.0.1 localhost\r\n10.99.0.5 old # note\r\n10.99.0.6 b\r\n"),
              "127.0.0.1 localhost\r\n" + kEntry + " # note\r\n10.99.0.6 b\r\n");
    EXPECT_EQ(Edited("127.0.0.1 localhost\r\n"), "127.0.0.1 localhost\r\n" + kEntry + "\r\n");
}

TEST_F(HostsFileTest, EntryThatIsThereIsNotWrittenAgain) {
    const std::string text = " 10.99.0.5 \tweb1.corp.example  web1 # kept\n";
    WriteFile(kHosts, text);
    const ino_t inode = Inode(kHosts);
    Add();
    EXPECT_EQ(ReadFile(kHosts), text);
    EXPECT_EQ(Inode(kHosts), inode);
}

TEST_F(HostsFileTest, RepeatedNamesAreWrittenOnce) {
    WriteFile(kHosts, "");
    HostsFile().AddOrReplaceEntry(Ipv4Address("10.99.0.5"), "web1", {"WEB1", "www", "www"});
    EXPECT_EQ(ReadFile(kHosts), "10.99.0.5\tweb1 www\n");
}

TEST_F(HostsFileTest, NamesThatWouldBreakTheFileAreRefused) {
    WriteFile(kHosts, "# only this\n");
    const Ipv4Address address("10.99.0.5");
    for (const char* name : {"", "two words", "line\nbreak", "tab\t", "#web1", "web1\r"}) {
        EXPECT_THROW(HostsFile().AddOrReplaceEntry(address, name, {}), HostCtlException);
        EXPECT_THROW(HostsFile().AddOrReplaceEntry(address, "web1", {name}), HostCtlException);
    }
    EXPECT_EQ(ReadFile(kHosts), "# only this\n");
}

TEST_F(HostsFileTest, MissingFileIsCreated) {
    umask(077);
    Add();
    EXPECT_EQ(ReadFile(kHosts), kEntry + "\n");
    EXPECT_EQ(Mode(kHosts), 0644u);
}

TEST_F(HostsFileTest, ModeAndOwnerStay) {
    WriteFile(kHosts, "");
    chmod(kHosts, 0640);
    // As an ordinary user's private host, this one may know no other group.
    const bool otherGroup = chown(kHosts, 0, 12) == 0;
    Add();
    EXPECT_EQ(Mode(kHosts), 0640u);
    struct stat info;
    ASSERT_EQ(stat(kHosts, &info), 0);
    EXPECT_EQ(info.st_gid, otherGroup ? 12u : 0u);
}

TEST_F(HostsFileTest, LinkIsKeptAndItsTargetEdited) {
    std::filesystem::create_directories("/etc/network-files");
    WriteFile("/etc/network-files/hosts", "127.0.0.1 localhost\n");
    ASSERT_EQ(symlink("network-files/hosts", kHosts), 0);
    Add();
    EXPECT_TRUE(std::filesystem::is_symlink(kHosts));
    EXPECT_EQ(ReadFile("/etc/network-files/hosts"), "127.0.0.1 localhost\n" + kEntry + "\n");
    std::filesystem::remove("/etc/network-files/hosts");
    Add(); // a link that leads nowhere
    EXPECT_TRUE(std::filesystem::is_symlink(kHosts));
    EXPECT_EQ(ReadFile("/etc/network-files/hosts"), kEntry + "\n");
    std::filesystem::remove_all("/etc/network-files");
}

TEST_F(HostsFileTest, CircularLinkIsAnError) {
    ASSERT_EQ(symlink("hosts", kHosts), 0);
    EXPECT_THAT(FailureText<HostCtlException>(Add), HasSubstr("Too many levels"));
}

TEST_F(HostsFileTest, MountPointIsRewrittenInPlace) {
    WriteFile("/run/hosts-of-container",
              "127.0.0.1 localhost\n10.99.0.9 web1.corp.example " + std::string(100, 'x') + "\n");
    WriteFile(kHosts, "");
    {
        const Mounted mounted = Mounted::Bind("/run/hosts-of-container", kHosts);
        Add();
        EXPECT_EQ(ReadFile(kHosts), "127.0.0.1 localhost\n" + kEntry + "\n");
        EXPECT_FALSE(Exists(kLeftover));
    }
    EXPECT_EQ(ReadFile("/run/hosts-of-container"), "127.0.0.1 localhost\n" + kEntry + "\n");
    std::filesystem::remove("/run/hosts-of-container");
}

TEST_F(HostsFileTest, MountPointInAReadOnlyDirectoryIsRewrittenInPlace) {
    const Mounted disk = Mounted::Memory("/run/readonly", "size=1m");
    WriteFile("/run/readonly/hosts", "");
    ASSERT_EQ(mount("test", "/run/readonly", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    WriteFile("/run/hosts-of-container", "127.0.0.1 localhost\n");
    const Mounted mounted = Mounted::Bind("/run/hosts-of-container", "/run/readonly/hosts");
    ASSERT_EQ(symlink("/run/readonly/hosts", kHosts), 0);
    Add();
    EXPECT_EQ(ReadFile("/run/hosts-of-container"), "127.0.0.1 localhost\n" + kEntry + "\n");
    std::filesystem::remove("/run/hosts-of-container");
}

class FullDiskTest : public HostsFileTest {
protected:
    /// A disk of four pages whose file "hosts" holds `text` and whose rest is taken.
    Mounted FullDisk(const std::string& text) {
        Mounted disk = Mounted::Memory("/run/full", "size=16k");
        WriteFile("/run/full/hosts", text);
        std::string ballast;
        while (std::filesystem::space("/run/full").available > 0)
            WriteFile("/run/full/ballast", ballast.append(4096, 'x'));
        return disk;
    }
};

TEST_F(FullDiskTest, ReplacedFileStaysAsItWas) {
    const Mounted disk = FullDisk("127.0.0.1 localhost\n");
    ASSERT_EQ(symlink("/run/full/hosts", kHosts), 0);
    const std::string text = FailureText<HostCtlException>(Add);
    EXPECT_EQ(text, "/run/full/hosts: cannot write: No space left on device");
    EXPECT_EQ(ReadFile(kHosts), "127.0.0.1 localhost\n");
    int files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/run/full"))
        ++files;
    EXPECT_EQ(files, 2); // the hosts file and the ballast
}

TEST_F(FullDiskTest, MountedFileStaysAsItWas) {
    std::string old = "127.0.0.1 localhost\n";
    old.append(4096 - old.size() - 1, '#').append("\n"); // the new entry needs another page
    const Mounted disk = FullDisk(old);
    WriteFile(kHosts, "");
    const Mounted mounted = Mounted::Bind("/run/full/hosts", kHosts);
    EXPECT_EQ(FailureText<HostCtlException>(Add),
              "/etc/hosts: cannot write: No space left on device");
    EXPECT_EQ(ReadFile(kHosts), old);
    EXPECT_FALSE(Exists(kLeftover));
}

TEST_F(HostsFileTest, ReadOnlyFileSystemIsAnErrorThatNamesTheFile) {
    const Mounted disk = Mounted::Memory("/run/readonly", "size=1m");
    WriteFile("/run/readonly/hosts", "127.0.0.1 localhost\n");
    ASSERT_EQ(mount("test", "/run/readonly", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    ASSERT_EQ(symlink("/run/readonly/hosts", kHosts), 0);
    const std::string text = FailureText<HostCtlException>(Add);
    EXPECT_THAT(text, StartsWith("/run/readonly/"));
    EXPECT_THAT(text, HasSubstr("hosts"));
    EXPECT_THAT(text, HasSubstr("Read-only file system"));
}

TEST_F(HostsFileTest, DirectoryInPlaceOfTheFileIsAnError) {
    std::filesystem::create_directory(kHosts);
    EXPECT_EQ(FailureText<HostCtlException>(Add), "/etc/hosts: not a regular file");
}

TEST_F(HostsFileTest, WhatACrashLeftIsNoObstacle) {
    WriteFile(kLeftover, "half of an en");
    EXPECT_EQ(Edited(""), kEntry + "\n");
    EXPECT_FALSE(Exists(kLeftover));
}

TEST_F(HostsFileTest, ProcessesDoNotLoseEachOthersEntries) {
    WriteFile(kHosts, "127.0.0.1 localhost\n");
    ASSERT_TRUE(InProcesses(8, [](int number) {
        for (int i = 1; i <= 20; ++i) {
            const std::string last = std::to_string(number) + "." + std::to_string(i);
            HostsFile().AddOrReplaceEntry(Ipv4Address("10.99." + last), "h" + last, {});
        }
        return true;
    }));
    const std::string text = ReadFile(kHosts);
    for (int number = 0; number < 8; ++number)
        for (int i = 1; i <= 20; ++i) {
            const std::string last = std::to_string(number) + "." + std::to_string(i);
            EXPECT_THAT(text, HasSubstr("\n10.99." + last + "\th" + last + "\n"));
        }
}

} // namespace
