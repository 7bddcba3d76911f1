#include <netdb.h>
#include <syslog.h>

#include <cstring>
#include <filesystem>

#include "faults.h"
#include "log_recorder.h"
#include "named_host.h"
#include "tesauth/config_store.h"
#include "test_store.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Lines = std::vector<std::pair<int, std::string>>;

class HostNameTest : public NamedHostTest {
protected:
    void Sanitise(const std::string& domain) { store.SanitiseHostnameForDomain(domain); }

    std::string Refusal(const std::string& domain) {
        return TextOf<InvalidHostNameException>([&] { Sanitise(domain); });
    }

    Lines Log() { return log.TakeLines(); }

    LogRecorder log;
    const TestStore store{10};
};

Lines Mismatch(const std::string& full, const std::string& expected) {
    return {{LOG_WARNING, "The fully qualified hostname " + full +
                              " does not match the expected value " + expected}};
}

TEST_F(HostNameTest, MapsTheManagementAddress) {
    struct Row {
        const char *name, *hosts, *entry; ///< entry: full name and alias that the host gets
    };
    const Row table[] = {
        {"web1", "127.0.1.1 web1.corp.example web1\n", "web1.corp.example web1"},
        {"web1.corp.example", "127.0.1.1 web1.corp.example\n", "web1.corp.example web1"},
        {"web1", "127.0.1.1 web1\n", "web1.corp.example web1"}, // no domain: the expected name
        {"web1", "127.0.1.1 web1.CORP.Example web1\n", "web1.CORP.Example web1"},
        {"web1.other.example", "127.0.1.1 web1.corp.example web1.other.example\n",
         "web1.corp.example web1"},
    };
    for (const Row& row : table) {
        SCOPED_TRACE(row.hosts);
        Name(row.name, row.hosts);
        Sanitise("corp.example");
        const std::string hosts = ReadFile(hostsFile);
        std::string words;
        for (const char c : hosts) {
            words += c == '\t' ? ' ' : c;
        }
        EXPECT_NE(words.find("10.99.7.5 " + std::string(row.entry) + "\n"), std::string::npos)
            << hosts;
        EXPECT_EQ(ReadFile(resolverFile), resolver);
        EXPECT_EQ(Log(), Lines());
    }
}

TEST_F(HostNameTest, OtherDnsDomainIsRepairedNotRefused) {
    const std::string hosts = "127.0.1.1 web1.lab.example web1\n10.99.0.10 corp.example\n";
    Name("web1", hosts);
    Sanitise("corp.example");
    EXPECT_EQ(Log(), Mismatch("web1.lab.example", "web1.corp.example"));
    EXPECT_EQ(ReadFile(resolverFile).find("search corp.example\n") != std::string::npos, true)
        << ReadFile(resolverFile);
    EXPECT_NE(ReadFile(hostsFile).find("10.99.7.5"), std::string::npos);
    EXPECT_NE(ReadFile(hostsFile).find("web1.lab.example"), std::string::npos);
    EXPECT_EQ(ReadFile(hostsFile).find("web1.corp.example"), std::string::npos);
}

TEST_F(HostNameTest, MismatchIsLoggedWithALineEnd) {
    Name("web1", "127.0.1.1 web1.lab.example web1\n");
    std::vector<std::string> formats; // the log itself drops line ends
    const faults::Scope scope;
    faults::hooks.seeLog = [&](int, const char* format) { formats.push_back(format); };
    Sanitise("corp.example");
    EXPECT_EQ(formats, std::vector<std::string>{"The fully qualified hostname %s does not match "
                                                "the expected value %s\n"});
}

TEST_F(HostNameTest, DomainThatDoesNotResolveIsNoSearchDomain) {
    Name("web1", "127.0.1.1 web1.lab.example web1\n");
    Sanitise("corp.example");
    EXPECT_EQ(Log(), Mismatch("web1.lab.example", "web1.corp.example"));
    EXPECT_EQ(ReadFile(resolverFile), resolver);
    EXPECT_NE(ReadFile(hostsFile).find("10.99.7.5"), std::string::npos);
}

TEST_F(HostNameTest, LongerDomainOfTheSameEndIsAnotherOne) {
    Name("web1", "127.0.1.1 web1.eu.corp.example web1\n");
    Sanitise("corp.example");
    EXPECT_EQ(Log(), Mismatch("web1.eu.corp.example", "web1.corp.example"));
}

TEST_F(HostNameTest, ShortNameHasToBeTheFirstPartOfTheFullOne) {
    struct Row {
        const char *name, *hosts;
    };
    const Row table[] = {
        {"web1", "127.0.1.1 web2.corp.example web1\n"},
        {"web1", "127.0.1.1 WEB1.corp.example web1\n"}, // case counts
        {"web1", "127.0.1.1 web10.corp.example web1\n"},
        {"web1", "127.0.1.1 localhost web1\n"},
        {"web1.corp.example", "127.0.1.1 web web1.corp.example\n"},
    };
    for (const Row& row : table) {
        Name(row.name, row.hosts);
        EXPECT_EQ(Refusal("corp.example"),
                  "The current hostname is invalid: shortname does not match FQDN");
        EXPECT_EQ(ReadFile(hostsFile), row.hosts);
        EXPECT_EQ(ReadFile(resolverFile), resolver);
        EXPECT_EQ(Log(), Lines());
    }
}

TEST_F(HostNameTest, NamesOfUnnamedHosts) {
    for (const std::string name : {"localhost", "linux", "hostname"}) {
        const std::string hosts = "127.0.1.1 " + name + ".corp.example " + name + "\n";
        for (const std::string& full : {name, name + ".corp.example"}) {
            Name(full, hosts);
            EXPECT_EQ(Refusal("corp.example"),
                      "The current hostname is invalid: hostname is in blacklist");
            EXPECT_EQ(ReadFile(hostsFile), hosts);
        }
    }
    for (const std::string name : {"Localhost", "LINUX", "hostname1", "linu"}) {
        Name(name, "127.0.1.1 " + name + ".corp.example " + name + "\n");
        EXPECT_NO_THROW(Sanitise("corp.example")) << name;
    }
}

TEST_F(HostNameTest, UnnamedHostIsRefusedOnlyAfterTheSearchDomainWasAdded) {
    Name("linux", "127.0.1.1 linux.lab.example linux\n10.99.0.10 corp.example\n");
    EXPECT_EQ(Refusal("corp.example"), "The current hostname is invalid: hostname is in blacklist");
    EXPECT_EQ(Log(), Mismatch("linux.lab.example", "linux.corp.example"));
    EXPECT_NE(ReadFile(resolverFile).find("search corp.example"), std::string::npos);
    Name("linux", "127.0.1.1 other.corp.example linux\n");
    EXPECT_EQ(Refusal("corp.example"),
              "The current hostname is invalid: shortname does not match FQDN");
}

TEST_F(HostNameTest, NameThatCannotBeHad) {
    const faults::Scope scope;
    faults::hooks.getHostName = [](char*, std::size_t) { return errno = EFAULT, -1; };
    EXPECT_EQ(Refusal("corp.example"), "The current hostname is invalid: unable to get hostname");
}

TEST_F(HostNameTest, NameThatFillsTheBufferIsEnded) {
    const faults::Scope scope;
    std::size_t room = 0;
    std::string asked;
    faults::hooks.getHostName = [&](char* name, std::size_t size) {
        room = size;
        std::memset(name, 'a', size);
        return 0;
    };
    faults::hooks.resolveReentrantly = [&](const char* name, hostent**, int* error) {
        asked = name;
        *error = NO_RECOVERY;
        return 1;
    };
    EXPECT_EQ(Refusal("corp.example"),
              std::string("The current hostname is invalid: ") + hstrerror(NO_RECOVERY));
    EXPECT_EQ(room, 64u);
    EXPECT_EQ(asked, std::string(63, 'a'));
}

TEST_F(HostNameTest, ResolversErrorIsTold) {
    Name("web1", "127.0.0.1 localhost\n");
    const faults::Scope scope;
    for (const int code : {HOST_NOT_FOUND, TRY_AGAIN, NO_RECOVERY, NO_DATA}) {
        faults::hooks.resolveReentrantly = [code](const char* name, hostent** result, int* error) {
            EXPECT_STREQ(name, "web1");
            *result = nullptr;
            *error = code;
            return code == TRY_AGAIN ? EAGAIN : ENOENT;
        };
        EXPECT_EQ(Refusal("corp.example"),
                  std::string("The current hostname is invalid: ") + hstrerror(code));
    }
}

TEST_F(HostNameTest, NameThatResolvesToNothing) {
    const faults::Scope scope;
    faults::hooks.resolveReentrantly = [](const char*, hostent** result, int*) {
        *result = nullptr;
        return 0;
    };
    EXPECT_EQ(Refusal("corp.example"),
              "The current hostname is invalid: hostname cannot be resolved");
    // This is what the C library does with a name that is nowhere.
    faults::hooks = faults::Hooks();
    Name("web1", "127.0.0.1 localhost\n");
    EXPECT_EQ(Refusal("corp.example").rfind("The current hostname is invalid: ", 0), 0u);
}

TEST_F(HostNameTest, JoinChecksTheNameFirst) {
    TestStore joining(10);
    Name("web1", "127.0.1.1 web2.corp.example web1\n");
    EXPECT_THROW(joining.JoinDomain("corp.example/Servers", {"u", "p"}, false),
                 InvalidHostNameException);
    EXPECT_EQ(Calls("joinDomain"), 0u);
    EXPECT_NO_THROW(joining.JoinDomain("corp.example/Servers", {"u", "p"}, true));
    EXPECT_EQ(Calls("joinDomain"), 1u);
}

TEST_F(HostNameTest, JoinRepairsTheNameForTheDomainOfThePath) {
    TestStore joining(10);
    Name("web1", "127.0.1.1 web1\n");
    joining.JoinDomain("corp.example/Servers", {"u", "p"}, false);
    EXPECT_NE(ReadFile(hostsFile).find("web1.corp.example"), std::string::npos);
    EXPECT_EQ(ReadFile(hostsFile).find("Servers"), std::string::npos);
}

TEST_F(HostNameTest, JoinThatSkipsTheCheckTouchesNothing) {
    TestStore joining(10);
    const std::string hosts = "127.0.1.1 linux.lab.example linux\n10.99.0.10 corp.example\n";
    Name("linux", hosts);
    joining.JoinDomain("corp.example", {"u", "p"}, true);
    EXPECT_EQ(ReadFile(hostsFile), hosts);
    EXPECT_EQ(ReadFile(resolverFile), resolver);
    EXPECT_EQ(Log(), Lines());
}

} // namespace
