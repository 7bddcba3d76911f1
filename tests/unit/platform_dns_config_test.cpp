#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "hykctl/network.h"
#include "platform_support.h"

namespace {

using namespace PlatformTest;
using HostCtl::Lib::HostCtlException;
using HykCtl::Network::DnsConfigImpl;

const char* const kResolver = "/etc/resolv.conf";

class DnsConfigTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        std::filesystem::remove(kResolver);
    }
    void TearDown() override {
        std::filesystem::remove(kResolver);
        WriteFile(kResolver, "nameserver 127.0.0.1\n");
        HostTest::TearDown();
    }
};

/// The resolver file after domains have been added to one that holds `text`.
std::string Edited(const std::string& text,
                   const std::vector<std::string>& domains = {"corp.example"}) {
    WriteFile(kResolver, text);
    DnsConfigImpl config("defaultTcpipStack");
    for (const std::string& domain : domains)
        config.AddUserSearchDomain(domain);
    config.SaveConfig();
    return ReadFile(kResolver);
}

TEST_F(DnsConfigTest, SearchLineIsAddedWhereThereIsNone) {
    EXPECT_EQ(Edited("# by hand\nnameserver 10.99.0.10\noptions timeout:1"),
              "# by hand\nnameserver 10.99.0.10\noptions timeout:1\nsearch corp.example\n");
}

TEST_F(DnsConfigTest, DomainIsAddedToTheSearchLineInPlace) {
    EXPECT_EQ(Edited("search\ta.example  b.example\nnameserver 10.99.0.10\n"),
              "search a.example b.example corp.example\nnameserver 10.99.0.10\n");
    EXPECT_EQ(Edited("search a.example\r\nnameserver 10.99.0.10\r\n"),
              "search a.example corp.example\r\nnameserver 10.99.0.10\r\n");
}

TEST_F(DnsConfigTest, LastSearchOrDomainLineCounts) {
    EXPECT_EQ(Edited("search a.example\nsearch b.example\n"),
              "search a.example\nsearch b.example corp.example\n");
    EXPECT_EQ(Edited("search corp.example\nsearch b.example\n"),
              "search corp.example\nsearch b.example corp.example\n");
    EXPECT_EQ(Edited("search a.example\ndomain b.example\nnameserver 10.99.0.10\n"),
              "search a.example\ndomain b.example\nsearch b.example corp.example\n"
              "nameserver 10.99.0.10\n");
}

TEST_F(DnsConfigTest, WhatTheResolverDoesNotTakeForASearchLineIsNone) {
    const std::string others = "#search x\n;search x\n search x\nsearching x\n";
    EXPECT_EQ(Edited(others), others + "search corp.example\n");
}

TEST_F(DnsConfigTest, DomainThatIsThereIsNotWrittenAgain) {
    for (const std::string& text :
         {std::string("search  a.example Corp.Example.\n"), std::string("domain corp.example\n")}) {
        WriteFile(kResolver, text);
        const ino_t inode = Inode(kResolver);
        DnsConfigImpl config("defaultTcpipStack");
        config.AddUserSearchDomain("corp.example");
        config.SaveConfig();
        EXPECT_EQ(ReadFile(kResolver), text);
        EXPECT_EQ(Inode(kResolver), inode);
    }
    EXPECT_EQ(Edited("search a\n", {"b.", "B", "a."}), "search a b.\n");
}

TEST_F(DnsConfigTest, LastDomainsMakeRoomForTheJoinedOne) {
    EXPECT_EQ(Edited("search a b c d e\n"), "search a b c d e corp.example\n");
    EXPECT_EQ(Edited("search a b c d e f\n"), "search a b c d e corp.example\n");
    EXPECT_EQ(Edited("search a b c d e f corp.example\n"), "search a b c d e corp.example\n");
    EXPECT_EQ(Edited("search a b c d e f\n", {"x", "y"}), "search a b c d x y\n");
    EXPECT_EQ(Edited("search a\n", {"1", "2", "3", "4", "5", "6", "7"}), "search 1 2 3 4 5 6\n");
    EXPECT_EQ(Edited("search corp.example a b c d e f\n"),
              "search corp.example a b c d e f\n"); // it is in already, the rest is not ours
}

TEST_F(DnsConfigTest, NothingAddedWritesNothing) {
    DnsConfigImpl config("defaultTcpipStack");
    config.SaveConfig();
    EXPECT_FALSE(Exists(kResolver));
    config.AddUserSearchDomain("corp.example");
    EXPECT_FALSE(Exists(kResolver));
    config.SaveConfig();
    EXPECT_EQ(ReadFile(kResolver), "search corp.example\n");
    EXPECT_EQ(Mode(kResolver), 0644u);
}

TEST_F(DnsConfigTest, FailedSaveCanBeTriedAgain) {
    std::filesystem::create_directory(kResolver);
    DnsConfigImpl config("defaultTcpipStack");
    config.AddUserSearchDomain("corp.example");
    EXPECT_EQ(FailureText<HostCtlException>([&] { config.SaveConfig(); }),
              "/etc/resolv.conf: not a regular file");
    std::filesystem::remove(kResolver);
    config.SaveConfig();
    EXPECT_EQ(ReadFile(kResolver), "search corp.example\n");
}

TEST_F(DnsConfigTest, LinkToAnotherFileIsFollowed) {
    WriteFile("/run/other-resolv.conf", "nameserver 10.99.0.10\n");
    ASSERT_EQ(symlink("../run/other-resolv.conf", kResolver), 0);
    DnsConfigImpl config("defaultTcpipStack");
    config.AddUserSearchDomain("corp.example");
    config.SaveConfig();
    EXPECT_TRUE(std::filesystem::is_symlink(kResolver));
    EXPECT_EQ(ReadFile("/run/other-resolv.conf"), "nameserver 10.99.0.10\nsearch corp.example\n");
    std::filesystem::remove("/run/other-resolv.conf");
}

TEST_F(DnsConfigTest, InvalidDomainsAndStacksAreRefused) {
    DnsConfigImpl config("defaultTcpipStack");
    for (const char* domain : {"", "a b", "a\nnameserver 10.0.0.1", "#a"})
        EXPECT_THROW(config.AddUserSearchDomain(domain), HostCtlException);
    EXPECT_EQ(FailureText<HostCtlException>([] { DnsConfigImpl("other"); }),
              "no network stack 'other' on this host");
}

TEST_F(DnsConfigTest, ProcessesDoNotLoseEachOthersDomains) {
    WriteFile(kResolver, "nameserver 10.99.0.10\n");
    ASSERT_TRUE(InProcesses(6, [](int number) {
        DnsConfigImpl config("defaultTcpipStack");
        config.AddUserSearchDomain("d" + std::to_string(number) + ".example");
        config.SaveConfig();
        return true;
    }));
    const std::string text = ReadFile(kResolver);
    for (int number = 0; number < 6; ++number)
        EXPECT_THAT(text, testing::HasSubstr(" d" + std::to_string(number) + ".example"));
}

} // namespace
