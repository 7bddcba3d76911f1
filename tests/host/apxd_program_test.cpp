#include "apxd_program.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/x509v3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>

#include "apxd_client.h"
#include "certificate.h"

/// The program while it serves.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using tessary::directory::UniqueFd;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr std::uint16_t port = 8447;
constexpr uid_t nobody = 65534;

TEST_F(ProgramTest, HelpsAndKnowsItsVersion) {
    const Result help = Apxd({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"--config", "--check", "--version", "release", "Exit codes: 0 done"})
        EXPECT_THAT(help.out, HasSubstr(word));
    EXPECT_EQ(Apxd({"--version"}).status, 0);
    EXPECT_THAT(Apxd({"--version"}).out, StartsWith("tesauth-apxd 1."));
}

TEST_F(ProgramTest, RefusesWrongUsage) {
    for (const Words& words :
         {Words{"--unknown"}, Words{"release"}, Words{"serve"}, Words{"--config"},
          Words{"release", "a.b", "c.d"}, Words{"--check", "release", "a.b"}})
        EXPECT_EQ(Apxd(words).status, 2) << words.front();
}

TEST_F(ProgramTest, MakesItsCertificateOnceAndServes) {
    Configure("allowed_networks = [\"127.0.0.0/8\"]\nhosts_without_forward_entry = [\"*\"]\n");
    std::string thumbprint;
    for (int start = 1; start <= 2; ++start) {
        const NotifySocket manager;
        Process process({}, manager.path);
        ASSERT_EQ(manager.Next(), "READY=1");
        EXPECT_EQ(Ask(port, GetRequest("/healthz")).body, R"({"status":"ok"})");
        const std::string seen = Client(port).CertificateThumbprint();
        EXPECT_TRUE(start == 1 || seen == thumbprint) << "it has one already";
        thumbprint = seen;
        process.Signal(SIGTERM);
        EXPECT_EQ(manager.Next(), "STOPPING=1");
        const Result result = process.Wait();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out, "thumbprint " + thumbprint + "\n");
        EXPECT_THAT(result.err, IsEmpty());
    }
    EXPECT_THAT(thumbprint, MatchesRegex("([0-9A-F]{2}:){19}[0-9A-F]{2}"));
    EXPECT_EQ(ModeOf(state), 0700u);
    EXPECT_EQ(ModeOf(ownKey), 0600u);
    EXPECT_TRUE(log_.Wait("serving corp.example at 127.0.0.1:8447"));
    for (const LogMessage& message : log_.Take()) {
        EXPECT_EQ(message.ident, "tesauth-apxd");
        EXPECT_EQ(message.facility, 3 << 3) << "LOG_DAEMON";
    }
}

TEST_F(ProgramTest, MakesItsCertificateAnewAfterAStartThatWasKilled) {
    MakeState();
    MakeIdentity({"a.b", {}}, ownCertificate, ownKey);
    const std::string left = Read(ownKey);
    std::filesystem::remove(ownCertificate);
    EXPECT_THAT(Apxd({"--check"}).out, HasSubstr(ownCertificate + " is made at the first start"));
    EXPECT_EQ(Read(ownKey), left);
    const NotifySocket manager;
    Process process({}, manager.path);
    ASSERT_EQ(manager.Next(), "READY=1");
    EXPECT_EQ(Client(port).CertificateThumbprint(),
              ReadIdentity(ownCertificate, ownKey).Thumbprint());
    EXPECT_NE(Read(ownKey), left);
}

TEST_F(ProgramTest, LeavesAKeyAloneThatIsNotItsOwn) {
    const std::string certificate = folder + "own.pem";
    const std::string key = folder + "own.key";
    Configure("certificate = \"" + certificate + "\"\nprivate_key = \"" + key + "\"\n");
    MakeIdentity({"a.b", {}}, certificate, key);
    const std::string left = Read(key);
    std::filesystem::remove(certificate);
    ExpectFault("cannot read " + certificate);
    EXPECT_EQ(Apxd({}).status, 1);
    EXPECT_EQ(Read(key), left);
    std::filesystem::remove(key);
    EXPECT_THAT(Apxd({"--check"}).out, HasSubstr(certificate + " is made at the first start"));
}

TEST_F(ProgramTest, KeepsItsFilesAndItsMemoryToItself) {
    const NotifySocket manager;
    const Process process({}, manager.path, 0, [] {
        umask(0);
        const rlimit whole{RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_CORE, &whole);
    });
    ASSERT_EQ(manager.Next(), "READY=1");
    EXPECT_THAT(process.Proc("status"), HasSubstr("Umask:\t0077\n"));
    for (const auto& entry : std::filesystem::directory_iterator(state))
        EXPECT_EQ(ModeOf(entry.path()), 0600u) << entry.path();
    EXPECT_THAT(process.Proc("limits"), ContainsRegex("Max core file size +0 +0 "));
}

TEST_F(ProgramTest, ServesAlsoWhereNobodyReadsItsOutput) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    close(ends[0]);
    const UniqueFd broken(ends[1]);
    const NotifySocket manager;
    const Process process({}, manager.path, 0, [&] {
        signal(SIGPIPE, SIG_DFL);
        dup2(broken.Get(), STDOUT_FILENO);
    });
    EXPECT_EQ(manager.Next(), "READY=1");
}

TEST_F(ProgramTest, EndsInOrderWhenItsTerminalIsClosed) {
    const NotifySocket manager;
    Process process({}, manager.path);
    ASSERT_EQ(manager.Next(), "READY=1");
    process.Signal(SIGHUP);
    EXPECT_EQ(manager.Next(), "STOPPING=1");
    EXPECT_EQ(process.Wait().status, 0);
    EXPECT_TRUE(log_.Wait("ended"));
}

TEST_F(ProgramTest, RunsAsAUserOfItsOwn) {
    chown(keytab.c_str(), nobody, nobody);
    std::filesystem::create_directory(state);
    chown(state.c_str(), nobody, nobody);
    chmod(state.c_str(), 0700);
    const Result looked = Apxd({"--check"});
    EXPECT_EQ(looked.status, 0) << "root looks as that user";
    EXPECT_THAT(looked.out, Not(HasSubstr("root looked")));
    EXPECT_THAT(Apxd({}).err, HasSubstr("belongs to the user 65534")) << "root would spoil it";
    const NotifySocket manager;
    Process process({}, manager.path, nobody);
    ASSERT_EQ(manager.Next(), "READY=1");
    EXPECT_EQ(Ask(port, GetRequest("/healthz")).status, 403) << "no network is allowed";
    process.Signal(SIGINT);
    EXPECT_EQ(process.Wait().status, 0);
}

TEST_F(ProgramTest, SaysInItsCertificateWhoItIs) {
    const std::string certificate = testing::TempDir() + "apxd_program_test.pem";
    const std::string key = testing::TempDir() + "apxd_program_test.key";
    MakeIdentity(
        {"web1.corp.example", {*IpAddress::Parse("192.0.2.7"), *IpAddress::Parse("2001:db8::7")}},
        certificate, key);
    const Identity identity = ReadIdentity(certificate, key);
    X509* const it = identity.certificate.get();
    EXPECT_EQ(X509_check_host(it, "web1.corp.example", 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_host(it, "web2.corp.example", 0, 0, nullptr), 0);
    EXPECT_EQ(X509_check_ip_asc(it, "192.0.2.7", 0), 1);
    EXPECT_EQ(X509_check_ip_asc(it, "2001:db8::7", 0), 1);
    EXPECT_EQ(X509_check_ca(it), 0);
    EXPECT_EQ(X509_verify(it, identity.key.get()), 1);
    EXPECT_GE(identity.DaysLeft(), 3650);
    EXPECT_EQ(EVP_PKEY_get_bits(identity.key.get()), 256);
    EXPECT_EQ(ModeOf(key), 0600u);
    EXPECT_THAT(Read(key), HasSubstr("BEGIN PRIVATE KEY"));

    const auto serial = [](const Identity& of) {
        return ASN1_INTEGER_dup(X509_get0_serialNumber(of.certificate.get()));
    };
    using Serial = std::unique_ptr<ASN1_INTEGER, decltype(&ASN1_INTEGER_free)>;
    const Serial first(serial(identity), ASN1_INTEGER_free);
    MakeIdentity({"web1.corp.example", {}}, certificate, key);
    const Serial second(serial(ReadIdentity(certificate, key)), ASN1_INTEGER_free);
    EXPECT_NE(ASN1_INTEGER_cmp(first.get(), second.get()), 0);
    std::filesystem::remove(certificate);
    std::filesystem::remove(key);
}

TEST_F(ProgramTest, ReleasesOnlyHostsThatItKnows) {
    EXPECT_EQ(Apxd({"release", "not a host"}).status, 1);
    EXPECT_EQ(Apxd({"release", ""}).status, 1) << "it must not serve";
    const Result result = Apxd({"release", "web1.corp.example"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, Not(IsEmpty()));
}

TEST_F(ProgramTest, TellsThatThePortIsTaken) {
    const UniqueFd taken(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int yes = 1; // connections of other tests may linger there
    setsockopt(taken.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ASSERT_EQ(bind(taken.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taken.Get(), 1), 0);
    const Result result = Apxd({});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("cannot listen at 127.0.0.1:8447: Address already in use"));
}

} // namespace
} // namespace apxd_test
