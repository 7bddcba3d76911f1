#include "configuration.h"

#include <gmock/gmock.h>

#include <fstream>

namespace {

using namespace tessary::proxy;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::StartsWith;
using testing::UnorderedElementsAre;

const std::string required = "domain = \"Corp.Example\"\n"
                             "container = \"OU=Hosts,DC=corp,DC=example\"\n"
                             "account = \"svc-apxd\"\n";

class ConfigurationTest : public testing::Test {
protected:
    const std::string file_ = testing::TempDir() + "apxd_configuration_test.toml";

    ~ConfigurationTest() override { std::remove(file_.c_str()); }

    Configuration Read(const std::string& text) {
        std::ofstream(file_) << text;
        return ReadConfiguration(file_);
    }

    /// Place and beginning of each fault, without the file's name.
    std::vector<std::string> FaultsOf(const std::string& text) {
        try {
            Read(text);
            return {};
        } catch (const ConfigurationError& error) {
            std::vector<std::string> faults;
            for (const std::string& fault : error.Faults()) {
                EXPECT_THAT(fault, StartsWith(file_ + ":"));
                faults.push_back(fault.substr(file_.size() + 1));
            }
            return faults;
        }
    }
    /// The faults of a line behind those that have to be there.
    std::vector<std::string> FaultsOfLine(const std::string& line) {
        return FaultsOf(required + line + "\n");
    }
};

TEST_F(ConfigurationTest, SaysLittleAndRefusesEverybody) {
    const Configuration it = Read(required);
    EXPECT_EQ(it.accounts.domain, "corp.example");
    EXPECT_THAT(it.accounts.hostDomains, ElementsAre());
    EXPECT_EQ(it.accounts.container, "OU=Hosts,DC=corp,DC=example");
    EXPECT_EQ(it.accounts.account, "svc-apxd");
    EXPECT_EQ(it.accounts.keytab, "/etc/tessary/tesauth/apxd.keytab");
    EXPECT_EQ(it.accounts.stateDirectory, "/var/lib/tesauth-apxd");
    EXPECT_EQ(it.accounts.resetAfter.count(), 0);
    EXPECT_EQ(it.accounts.unusedAfter.count(), 10);
    EXPECT_EQ(it.certificate, "/var/lib/tesauth-apxd/certificate.pem");
    EXPECT_EQ(it.privateKey, "/var/lib/tesauth-apxd/key.pem");
    EXPECT_EQ((Peer{it.server.front.listen, it.server.front.port}.Text()), "0.0.0.0:8447");
    EXPECT_TRUE(it.server.front.allowedNetworks.empty());
    EXPECT_TRUE(it.server.hostsWithoutForwardEntry.empty());
    EXPECT_EQ(it.server.front.requestsPerMinuteAndAddress, 60u);
    EXPECT_EQ(it.server.front.requestsPerMinute, 3000u);
    EXPECT_EQ(it.server.front.connectionsPerAddress, 64u);
    EXPECT_EQ(it.server.front.connections, 4096u);
}

TEST_F(ConfigurationTest, SaysEverything) {
    const Configuration it = Read(required + R"(
        host_domains = ["Other.Example.", "third.example"]
        keytab = "/k"
        listen = "::1"
        port = 65535
        certificate = "/c"
        private_key = "/p"
        state_directory = "/s"
        allowed_networks = ["192.0.2.0/24", "2001:db8::/32"]
        hosts_without_forward_entry = ["*", "WEB1.Corp.example."]
        reset_after_days = 3
        unused_account_minutes = 4
        requests_per_minute_per_address = 5
        requests_per_minute = 6
        connections_per_address = 7
        connections = 8)");
    EXPECT_THAT(it.accounts.hostDomains, ElementsAre("other.example", "third.example"));
    EXPECT_EQ(it.accounts.keytab, "/k");
    EXPECT_EQ((Peer{it.server.front.listen, it.server.front.port}.Text()), "[::1]:65535");
    EXPECT_EQ(it.certificate, "/c");
    EXPECT_EQ(it.privateKey, "/p");
    EXPECT_EQ(it.accounts.stateDirectory, "/s");
    ASSERT_EQ(it.server.front.allowedNetworks.size(), 2u);
    EXPECT_TRUE(it.server.front.allowedNetworks[0].Contains(*IpAddress::Parse("192.0.2.9")));
    EXPECT_TRUE(it.server.front.allowedNetworks[1].Contains(*IpAddress::Parse("2001:db8::9")));
    EXPECT_THAT(it.server.hostsWithoutForwardEntry, UnorderedElementsAre("*", "web1.corp.example"));
    EXPECT_EQ(it.accounts.resetAfter, std::chrono::hours(72));
    EXPECT_EQ(it.accounts.unusedAfter.count(), 4);
    EXPECT_EQ(it.server.front.requestsPerMinuteAndAddress, 5u);
    EXPECT_EQ(it.server.front.requestsPerMinute, 6u);
    EXPECT_EQ(it.server.front.connectionsPerAddress, 7u);
    EXPECT_EQ(it.server.front.connections, 8u);
}

TEST_F(ConfigurationTest, KeepsItsCertificateWhereItsStateIs) {
    EXPECT_EQ(Read(required + "state_directory = \"/s\"").privateKey, "/s/key.pem");
}

TEST_F(ConfigurationTest, TellsAllThatIsWrongAtOnceInTheOrderOfTheLines) {
    EXPECT_THAT(FaultsOf("unknown = 1\n"
                         "container = 7\n"
                         "port = 0\n"
                         "allowed_networks = [\"10.0.0.0/8\", \"10.0.0.1/8\", 3]\n"
                         "  listen = \"here\"\n"),
                ElementsAre(StartsWith("1:1: the key is missing: domain"),
                            StartsWith("1:1: the key is missing: account"),
                            StartsWith("1:1: there is no such key: unknown"),
                            StartsWith("2:13: container: text"),
                            StartsWith("3:8: port: a whole number from 1 to 65535"),
                            StartsWith("4:35: allowed_networks: a network"),
                            StartsWith("4:49: allowed_networks: text"),
                            StartsWith("5:12: listen: an IPv4 or IPv6 address")));
}

TEST_F(ConfigurationTest, TellsWhereItIsNoToml) {
    const auto faults = FaultsOf("domain = \"corp.example\"\nport = = 1\n");
    ASSERT_EQ(faults.size(), 1u);
    EXPECT_THAT(faults[0], StartsWith("2:8: "));
    EXPECT_THAT(FaultsOf("port = 1\nport = 2\n"), ElementsAre(StartsWith("2:")));
}

TEST_F(ConfigurationTest, TakesNoValueOfAnotherKind) {
    for (const char* line : {"keytab = 1",
                             "keytab = \"apxd.keytab\"",
                             "keytab = \"\"",
                             "keytab = \"/a\\u0000\"",
                             "port = \"8447\"",
                             "port = 65536",
                             "port = -1",
                             "port = 8447.0",
                             "port = true",
                             "listen = \"localhost\"",
                             "listen = \"\"",
                             "allowed_networks = \"10.0.0.0/8\"",
                             "allowed_networks = [[\"10.0.0.0/8\"]]",
                             "allowed_networks = [\"10.0.0.0/33\"]",
                             "allowed_networks = [\"\"]",
                             "hosts_without_forward_entry = [\"web1\"]",
                             "hosts_without_forward_entry = [\"*.corp.example\"]",
                             "host_domains = \"other.example\"",
                             "host_domains = [\"\"]",
                             "host_domains = [\".\"]",
                             "host_domains = [\"*.example\"]",
                             "host_domains = [\".example\"]",
                             "reset_after_days = -1",
                             "reset_after_days = 36501",
                             "unused_account_minutes = 0",
                             "requests_per_minute = 0",
                             "requests_per_minute_per_address = 1000001",
                             "connections = 0",
                             "connections = 100001",
                             "connections_per_address = 0",
                             "state_directory = \"state\"",
                             "certificate = \"/c\"",
                             "private_key = \"/p\"",
                             "[server]",
                             "domain.name = \"a\"",
                             "Port = 1"})
        EXPECT_EQ(FaultsOfLine(line).size(), 1u) << line;
}

TEST_F(ConfigurationTest, TakesNoNamesThatAreNone) {
    const auto with = [](const std::string& domain, const std::string& container,
                         const std::string& account) {
        return "domain = \"" + domain + "\"\ncontainer = \"" + container + "\"\naccount = \"" +
               account + "\"\n";
    };
    EXPECT_THAT(FaultsOf(with("corp.example", "Hosts/Web", "svc")), ElementsAre());
    EXPECT_THAT(FaultsOf(with("corp..example", "Hosts", "svc")), ElementsAre(StartsWith("1:10: ")));
    EXPECT_THAT(FaultsOf(with("", "Hosts", "svc")), ElementsAre(StartsWith("1:10: ")));
    EXPECT_THAT(FaultsOf(with("corp.example", "", "svc")), ElementsAre(StartsWith("2:13: ")));
    EXPECT_THAT(FaultsOf(with("corp.example", "Hosts//Web", "svc")),
                ElementsAre(StartsWith("2:13: ")));
    EXPECT_THAT(FaultsOf(with("corp.example", "OU=Hosts,DC=other,DC=example", "svc")),
                ElementsAre(StartsWith("2:13: ")));
    for (const char* account : {"", "svc@corp.example", "CORP\\\\svc", "s*", "s\\n"})
        EXPECT_THAT(FaultsOf(with("corp.example", "Hosts", account)),
                    ElementsAre(StartsWith("3:11: ")))
            << account;
}

TEST_F(ConfigurationTest, TellsThatThereIsNoFile) {
    try {
        ReadConfiguration("/nonexistent/apxd.toml");
        FAIL();
    } catch (const ConfigurationError& error) {
        EXPECT_THAT(error.Faults(), ElementsAre("/nonexistent/apxd.toml: there is no such file"));
    }
    EXPECT_THROW(ReadConfiguration("/"), ConfigurationError);
}

} // namespace
