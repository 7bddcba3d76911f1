#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "apxd_client.h"
#include "certificate.h"
#include "log_recorder.h"

/// The program as it is installed.
namespace apxd_test {
namespace {

using namespace tessary::proxy;
using tessary::directory::UniqueFd;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<std::string>;

const char* const program = "/usr/sbin/tesauth-apxd";
const std::string folder = "/etc/tessary/tesauth/";
const std::string file = folder + "apxd.toml";
const std::string keytab = folder + "apxd.keytab";
const std::string state = "/var/lib/tesauth-apxd";
constexpr std::uint16_t port = 8447;
constexpr uid_t nobody = 65534;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

int StatusOf(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

std::string ReadAll(int fd) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (ssize_t size; (size = read(fd, buffer.data(), buffer.size())) > 0;)
        text.append(buffer.data(), static_cast<std::size_t>(size));
    return text;
}

/// A process of the program, with its output.
class Process {
public:
    explicit Process(const Words& arguments, const std::string& notifySocket = "", uid_t user = 0) {
        std::array<int, 2> out{};
        std::array<int, 2> err{};
        if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        process_ = fork();
        if (process_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            if (!notifySocket.empty())
                setenv("NOTIFY_SOCKET", notifySocket.c_str(), 1);
            if (user != 0 && (setgid(user) != 0 || setuid(user) != 0))
                _exit(126);
            alarm(30);
            std::vector<char*> words = {const_cast<char*>(program)};
            for (const std::string& argument : arguments)
                words.push_back(const_cast<char*>(argument.c_str()));
            words.push_back(nullptr);
            execv(program, words.data());
            _exit(127);
        }
        out_ = UniqueFd(out[0]);
        err_ = UniqueFd(err[0]);
        close(out[1]);
        close(err[1]);
    }
    ~Process() {
        if (process_ > 0) {
            kill(process_, SIGKILL);
            waitpid(process_, nullptr, 0);
        }
    }

    void Signal(int signal) const { kill(process_, signal); }
    Result Wait() {
        Result result;
        result.out = ReadAll(out_.Get());
        result.err = ReadAll(err_.Get());
        int status = 0;
        waitpid(process_, &status, 0);
        process_ = -1;
        result.status = StatusOf(status);
        return result;
    }

private:
    pid_t process_;
    UniqueFd out_;
    UniqueFd err_;
};

Result Apxd(const Words& arguments) {
    return Process(arguments).Wait();
}

void Write(const std::string& path, const std::string& text, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
}

std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

void Append(std::string& text, std::uint32_t number, int bytes) {
    for (int i = bytes - 1; i >= 0; --i)
        text += static_cast<char>(number >> (8 * i));
}

void Append(std::string& text, const std::string& counted) {
    Append(text, static_cast<std::uint32_t>(counted.size()), 2);
    text += counted;
}

/// A keytab with one key, in the form that every Kerberos reads.
std::string KeytabOf(const std::string& account) {
    std::string entry;
    Append(entry, 1, 2);
    Append(entry, "CORP.EXAMPLE");
    Append(entry, account);
    Append(entry, 1, 4);  // kind of name
    Append(entry, 0, 4);  // time
    Append(entry, 1, 1);  // version
    Append(entry, 18, 2); // AES-256
    Append(entry, std::string(32, 'k'));
    std::string text = "\x05\x02";
    Append(text, static_cast<std::uint32_t>(entry.size()), 4);
    return text + entry;
}

class ProgramTest : public testing::Test {
protected:
    ProgramTest() {
        std::filesystem::create_directories(folder);
        std::filesystem::remove_all(state);
        Configure("");
        Write(keytab, KeytabOf("svc-apxd"), 0600);
    }

    static void Configure(const std::string& more) {
        Write(file, "domain = \"corp.example\"\ncontainer = \"OU=Hosts,DC=corp,DC=example\"\n"
                    "account = \"svc-apxd\"\nlisten = \"127.0.0.1\"\n" +
                        more);
    }

    /// Exit status 1 and a line with this.
    static void ExpectFault(const std::string& part) {
        const Result result = Apxd({"--check"});
        EXPECT_EQ(result.status, 1) << part;
        EXPECT_THAT(result.err, AllOf(StartsWith(file + ":"), HasSubstr(part)));
    }

    LogRecorder log_;
};

/// The socket that the service manager would have.
class NotifySocket {
public:
    NotifySocket() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        chmod(path.c_str(), 0777);
    }
    ~NotifySocket() { unlink(path.c_str()); }

    std::string Next() const {
        pollfd watched{socket_.Get(), POLLIN, 0};
        std::array<char, 256> text{};
        if (poll(&watched, 1, 20'000) != 1)
            return "nothing";
        const ssize_t size = recv(socket_.Get(), text.data(), text.size(), 0);
        return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
    }

    const std::string path = "/run/apxd_program_test.socket";

private:
    UniqueFd socket_;
};

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
    EXPECT_EQ(started.status, 1);
    EXPECT_THAT(started.err, HasSubstr(file + ":2:8: port"));
    EXPECT_TRUE(log_.Wait(file + ":2:8: port"));
    EXPECT_FALSE(std::filesystem::exists(state));
    EXPECT_THAT(Apxd({"--check", "--config", "/nonexistent"}).err,
                StartsWith("/nonexistent: there is no such file"));
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
    std::filesystem::create_directory(state);
    chmod(state.c_str(), 0700);
    const std::string certificate = state + "/certificate.pem";
    const std::string key = state + "/key.pem";
    MakeIdentity({"a.b", {}}, certificate, key);
    const Result result = Apxd({"--check"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out,
                HasSubstr("thumbprint " + ReadIdentity(certificate, key).Thumbprint() + "\n"));
    chmod(key.c_str(), 0604);
    ExpectFault("is open to every user");
    chmod(key.c_str(), 0600);
    MakeIdentity({"a.b", {}}, state + "/other.pem", state + "/other.key");
    std::filesystem::copy_file(state + "/other.key", key,
                               std::filesystem::copy_options::overwrite_existing);
    ExpectFault("is not that of the certificate");
    Write(key, "nonsense", 0600);
    ExpectFault("no key without a passphrase in " + key);
    std::filesystem::remove(key);
    ExpectFault("cannot read " + key);
}

/// Gives a certificate another end.
void ChangeEnd(const std::string& certificate, const std::string& key, long secondsFromNow) {
    const Identity identity = ReadIdentity(certificate, key);
    X509* const it = identity.certificate.get();
    X509_gmtime_adj(X509_getm_notAfter(it), secondsFromNow);
    ASSERT_GT(X509_sign(it, identity.key.get(), EVP_sha256()), 0);
    const UniqueBio out(BIO_new_file(certificate.c_str(), "w"));
    ASSERT_EQ(PEM_write_bio_X509(out.get(), it), 1);
}

TEST_F(ProgramTest, TakesNoCertificateThatHasExpired) {
    std::filesystem::create_directory(state);
    chmod(state.c_str(), 0700);
    const std::string certificate = state + "/certificate.pem";
    const std::string key = state + "/key.pem";
    MakeIdentity({"a.b", {}}, certificate, key);
    constexpr long day = 24 * 60 * 60;
    ChangeEnd(certificate, key, 20 * day + 60);
    EXPECT_THAT(Apxd({"--check"}).out, HasSubstr("expires in 20 days: time for another"));
    ChangeEnd(certificate, key, -60);
    ExpectFault("has expired");
    EXPECT_EQ(Apxd({}).status, 1);
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
    EXPECT_EQ(ModeOf(state + "/key.pem"), 0600u);
    EXPECT_TRUE(log_.Wait("serving corp.example at 127.0.0.1:8447"));
    for (const LogMessage& message : log_.Take()) {
        EXPECT_EQ(message.ident, "tesauth-apxd");
        EXPECT_EQ(message.facility, 3 << 3) << "LOG_DAEMON";
    }
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

TEST_F(ProgramTest, TellsThatFilesWouldRunOut) {
    Configure("connections = 2000\n");
    EXPECT_EQ(Apxd({"--check"}).status, 0);
    const rlimit few{1024, 1024};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    ExpectFault("the limit on open files, 1024, is too low for 2000 connections; 2256 would do");
}

} // namespace
} // namespace apxd_test
