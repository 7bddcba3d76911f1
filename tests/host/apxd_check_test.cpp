#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "apxd_program.h"
#include "certificate.h"

/// What the program says about its configuration and what that names.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

TEST_F(ProgramTest, ChecksAndChangesNothing) {
    const Result result = Apxd({"--check"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("certificate.pem is made at the first start"));
    EXPECT_THAT(result.out, HasSubstr("root looked; whether the proxy's user"));
    EXPECT_THAT(result.out, HasSubstr("allowed_networks is empty: everybody is refused"));
    EXPECT_FALSE(std::filesystem::exists(state));
}

TEST_F(ProgramTest, SaysWhatIsOpenToEverybody) {
    const std::string everyAddress = "a network of all addresses: everybody may ask";
    const std::string everyHost = "whoever may ask can have the account of any host";
    for (const char* network : {"0.0.0.0/0", "::/0"}) {
        Configure("allowed_networks = [\"192.0.2.0/24\", \"" + std::string(network) + "\"]\n");
        EXPECT_THAT(Apxd({"--check"}).out, HasSubstr(everyAddress)) << network;
    }
    Configure(
        "allowed_networks = [\"0.0.0.0/1\", \"::/1\"]\nhosts_without_forward_entry = [\"*\"]\n");
    const std::string found = Apxd({"--check"}).out;
    EXPECT_THAT(found, AllOf(HasSubstr(everyHost), Not(HasSubstr(everyAddress))));
    const NotifySocket manager;
    const Process process({}, manager.path);
    ASSERT_EQ(manager.Next(), "READY=1");
    EXPECT_TRUE(log_.Wait(everyHost));
}

TEST_F(ProgramTest, TellsEveryFaultOfTheConfiguration) {
    Write(file, "domain = \"corp.example\"\nport = \"a\"\nunknown = 1\n");
    const Result result = Apxd({"--check"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, file + ":1:1: the key is missing: container\n" + file +
                              ":1:1: the key is missing: account\n" + file +
                              ":2:8: port: a whole number from 1 to 65535 is wanted\n" + file +
                              ":3:1: there is no such key: unknown\n");
    const Result started = Apxd({});
    EXPECT_EQ(started.status, 3) << "so that it is not tried again";
    EXPECT_THAT(started.err, HasSubstr(file + ":2:8: port"));
    EXPECT_TRUE(log_.Wait(file + ":2:8: port"));
    EXPECT_EQ(Apxd({"release", "web1.corp.example"}).status, 3);
    EXPECT_FALSE(std::filesystem::exists(state));
    EXPECT_THAT(Apxd({"--check", "--config", "/nonexistent"}).err,
                StartsWith("/nonexistent: there is no such file"));
}

TEST_F(ProgramTest, TellsAFaultOnceWhereStandardErrorIsLogged) {
    Configure("port = 0\n");
    const auto startWithJournal = [](int descriptor) {
        return Process({}, "", 0,
                       [descriptor] {
                           struct stat status {};
                           fstat(descriptor, &status);
                           const std::string stream =
                               std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
                           setenv("JOURNAL_STREAM", stream.c_str(), 1);
                       })
            .Wait();
    };
    EXPECT_THAT(startWithJournal(STDERR_FILENO).err, IsEmpty());
    EXPECT_THAT(log_.TakeLines(), ElementsAre(Pair(LOG_ERR, HasSubstr("port: a whole number"))));
    EXPECT_THAT(startWithJournal(STDOUT_FILENO).err, HasSubstr("port: a whole number"));
    EXPECT_THAT(log_.TakeLines(), SizeIs(1));
}

TEST_F(ProgramTest, WaitsForNobodyWhoWouldWriteIntoAPipe) {
    const std::string pipe = testing::TempDir() + "apxd_program_test.pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(Apxd({"--check", "--config", pipe}).err, pipe + ": it is no file\n");
    Configure("keytab = \"" + pipe + "\"\n");
    ExpectFault("the keytab " + pipe + " is no file");
    Configure("certificate = \"" + pipe + "\"\nprivate_key = \"" + pipe + "\"\n");
    ExpectFault(pipe + " is no file");
    std::filesystem::remove(pipe);
}

TEST_F(ProgramTest, ChecksTheKeytab) {
    Write(keytab, KeytabOf("svc-apxd"), 0644);
    ExpectFault("is open to every user");
    EXPECT_THAT(Apxd({}).err, HasSubstr("is open to every user")) << "it does not serve either";
    Write(keytab, KeytabOf("other"), 0600);
    ExpectFault("has no key of svc-apxd");
    Write(keytab, "nonsense", 0600);
    ExpectFault("is no keytab");
    std::filesystem::remove(keytab);
    ExpectFault("cannot read the keytab");
}

TEST_F(ProgramTest, ChecksTheStateDirectory) {
    std::filesystem::create_directory(state);
    chmod(state.c_str(), 0755);
    ExpectFault("is open to other users");
    chmod(state.c_str(), 0700);
    EXPECT_EQ(Apxd({"--check"}).status, 0);
    std::filesystem::remove(state);
    Write(state, "");
    ExpectFault("is no directory");
}

TEST_F(ProgramTest, ChecksTheCertificate) {
    MakeState();
    MakeIdentity({"a.b", {}}, ownCertificate, ownKey);
    const Result result = Apxd({"--check"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("thumbprint " +
                                      ReadIdentity(ownCertificate, ownKey).Thumbprint() + "\n"));
    chmod(ownKey.c_str(), 0604);
    ExpectFault("is open to every user");
    chmod(ownKey.c_str(), 0600);
    MakeIdentity({"a.b", {}}, state + "/other.pem", state + "/other.key");
    std::filesystem::copy_file(state + "/other.key", ownKey,
                               std::filesystem::copy_options::overwrite_existing);
    ExpectFault("is not that of the certificate");
    Write(ownKey, "nonsense", 0600);
    ExpectFault("no key without a passphrase in " + ownKey);
    std::filesystem::remove(ownKey);
    ExpectFault("cannot read " + ownKey);
}

/// Gives the certificate another end.
void ChangeEnd(long secondsFromNow) {
    const Identity identity = ReadIdentity(ownCertificate, ownKey);
    X509* const it = identity.certificate.get();
    X509_gmtime_adj(X509_getm_notAfter(it), secondsFromNow);
    ASSERT_GT(X509_sign(it, identity.key.get(), EVP_sha256()), 0);
    const UniqueBio out(BIO_new_file(ownCertificate.c_str(), "w"));
    ASSERT_EQ(PEM_write_bio_X509(out.get(), it), 1);
}

TEST_F(ProgramTest, TakesNoCertificateThatHasExpired) {
    MakeState();
    MakeIdentity({"a.b", {}}, ownCertificate, ownKey);
    constexpr long day = 24 * 60 * 60;
    ChangeEnd(20 * day + 60);
    EXPECT_THAT(Apxd({"--check"}).out, HasSubstr("expires in 20 days: time for another"));
    {
        const NotifySocket manager;
        const Process process({}, manager.path);
        ASSERT_EQ(manager.Next(), "READY=1");
        EXPECT_TRUE(log_.Wait("the certificate in " + ownCertificate + " expires in 20 days"));
    }
    ChangeEnd(-60);
    ExpectFault("has expired");
    EXPECT_EQ(Apxd({}).status, 1);
}

TEST_F(ProgramTest, TellsThatFilesWouldRunOut) {
    Configure("connections = 2000\n");
    EXPECT_EQ(Apxd({"--check"}).status, 0);
    const Result result = Process({"--check"}, "", 0, [] {
                              const rlimit few{1024, 1024};
                              setrlimit(RLIMIT_NOFILE, &few);
                          }).Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, file +
                              ": the limit on open files, 1024, is too low for 2000 connections; "
                              "2256 would do\n");
}

} // namespace
} // namespace apxd_test
