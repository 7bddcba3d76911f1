#include <dlfcn.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>

#include "log_recorder.h"
#include "orvcfg/config_store.h"
#include "scripted_host.h"
#include "spoiled_store.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"
#include "test_store.h"

namespace {
bool noDigest = false;
}

/// The library finds this before OpenSSL's.
[[gnu::visibility("default")]] int X509_digest(const X509* data, const EVP_MD* type,
                                               unsigned char* md, unsigned int* len) {
    using Function = int(const X509*, const EVP_MD*, unsigned char*, unsigned int*);
    static auto* const next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "X509_digest"));
    return noDigest ? 0 : next(data, type, md, len);
}

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Lines = std::vector<std::pair<int, std::string>>;

constexpr const char* keyFile = "/run/proxy-key.pem";
constexpr const char* certificateFile = "/run/proxy-certificate.pem";
constexpr const char* notPem = "The certificate format is invalid; only PEM format is supported.";

/// What a command prints, without the line end.
std::string OutputOf(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string output;
    std::array<char, 4096> piece;
    while (std::fgets(piece.data(), piece.size(), pipe.get()) != nullptr) {
        output += piece.data();
    }
    return output.substr(0, output.find_last_not_of('\n') + 1);
}

/// A host, and a certificate made by another program.
class ProxyCertificateTest : public ProviderTest {
protected:
    ProxyCertificateTest() { Make("proxy.corp.example"); }

    static void Make(const std::string& name) {
        Shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 "
              "-subj /CN=" +
              name + " -keyout " + keyFile + " -out " + certificateFile + " 2>/dev/null");
    }

    /// The thumbprint as the other program tells it.
    static std::string Thumbprint() {
        const std::string line =
            OutputOf(std::string("openssl x509 -noout -fingerprint -sha1 -in ") + certificateFile);
        return line.substr(line.find('=') + 1);
    }

    /// Nothing but PEM is taken, and what was stored stays.
    void ExpectRefused(const std::string& text) {
        ActiveDirectoryConfigStore().StoreAuthProxyCertInfo("stored", "before");
        EXPECT_EQ(TextOf<InvalidCertificateException>([&] { store.ImportCertificateForAPX(text); }),
                  notPem);
        EXPECT_EQ(ActiveDirectoryConfigStore().GetThumbprint(), "stored");
        EXPECT_EQ(ActiveDirectoryConfigStore().GetCertificate(), "before");
        EXPECT_EQ(ERR_peek_error(), 0u) << "the caller's list of errors";
        EXPECT_EQ(log.TakeLines(), Lines());
    }

    LogRecorder log;
    TestStore store{10};
};

TEST_F(ProxyCertificateTest, IsStoredAsGivenWithItsThumbprint) {
    const std::string pem = ReadFile(certificateFile);
    store.ImportCertificateForAPX(pem);
    const std::string thumbprint = ActiveDirectoryConfigStore().GetThumbprint();
    EXPECT_EQ(thumbprint, Thumbprint());
    EXPECT_EQ(thumbprint.size(), 59u);
    EXPECT_EQ(thumbprint.find_first_not_of("0123456789ABCDEF:"), std::string::npos);
    EXPECT_EQ(ActiveDirectoryConfigStore().GetCertificate(), pem);
    EXPECT_EQ(StoredDomain(), "(none)");
}

TEST_F(ProxyCertificateTest, LeadingZerosAreKept) {
    // A thumbprint has a byte below 16 three times out of four.
    bool seen = false;
    for (int i = 0; i < 20 && !seen; ++i) {
        Make("proxy" + std::to_string(i));
        const std::string thumbprint = Thumbprint();
        seen = thumbprint[0] == '0' || thumbprint.find(":0") != std::string::npos;
        store.ImportCertificateForAPX(ReadFile(certificateFile));
        EXPECT_EQ(ActiveDirectoryConfigStore().GetThumbprint(), thumbprint);
    }
    EXPECT_TRUE(seen);
}

TEST_F(ProxyCertificateTest, TextAroundItIsStoredToo) {
    const std::string text = "the proxy of Hall 3\n" + ReadFile(certificateFile) + "trailing\n";
    store.ImportCertificateForAPX(text);
    EXPECT_EQ(ActiveDirectoryConfigStore().GetCertificate(), text);
    EXPECT_EQ(ActiveDirectoryConfigStore().GetThumbprint(), Thumbprint());
}

TEST_F(ProxyCertificateTest, FirstOfSeveralCounts) {
    const std::string first = ReadFile(certificateFile), thumbprint = Thumbprint();
    Make("second");
    store.ImportCertificateForAPX(first + ReadFile(certificateFile));
    EXPECT_EQ(ActiveDirectoryConfigStore().GetThumbprint(), thumbprint);
}

TEST_F(ProxyCertificateTest, ReplacesTheFormerOne) {
    store.ImportCertificateForAPX(ReadFile(certificateFile));
    Make("second");
    store.ImportCertificateForAPX(ReadFile(certificateFile));
    EXPECT_EQ(ActiveDirectoryConfigStore().GetThumbprint(), Thumbprint());
    EXPECT_EQ(ActiveDirectoryConfigStore().GetCertificate(), ReadFile(certificateFile));
}

TEST_F(ProxyCertificateTest, OnlyPemIsTaken) {
    Shell(std::string("openssl x509 -in ") + certificateFile + " -outform DER -out /run/proxy.der");
    const std::string pem = ReadFile(certificateFile);
    std::string damaged = pem;
    damaged[pem.size() / 2] = '!';
    ExpectRefused(ReadFile("/run/proxy.der"));
    ExpectRefused("arbitrary text");
    ExpectRefused("");
    ExpectRefused(ReadFile(keyFile));
    ExpectRefused(damaged);
    ExpectRefused(pem.substr(0, pem.size() / 2));
    for (const std::string& nothing : {std::string("\0", 1), std::string("x\0", 2)}) {
        ExpectRefused(nothing);
        ExpectRefused(nothing + "\n" + pem); // whoever verifies with it would see as little
    }
}

TEST_F(ProxyCertificateTest, DigestThatCannotBeHad) {
    const std::string pem = ReadFile(certificateFile);
    noDigest = true;
    ExpectRefused(pem);
    noDigest = false;
    store.ImportCertificateForAPX(pem);
}

TEST_F(ProxyCertificateTest, EncryptedTextAsksNobodyForAPassword) {
    std::string pem = ReadFile(certificateFile);
    const std::string head = "-----BEGIN CERTIFICATE-----\n";
    pem.insert(head.size(), "Proc-Type: 4,ENCRYPTED\n"
                            "DEK-Info: AES-256-CBC,00112233445566778899AABBCCDDEEFF\n\n");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "secret\n", 7), 7);
    const int input = dup(STDIN_FILENO);
    dup2(ends[0], STDIN_FILENO);
    ExpectRefused(pem);
    int unread = 0;
    EXPECT_EQ(ioctl(STDIN_FILENO, FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 7);
    dup2(input, STDIN_FILENO);
    for (const int end : {ends[0], ends[1], input}) {
        close(end);
    }
}

TEST_F(ProxyCertificateTest, CallersErrorsStayOnTheirList) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 7);
    EXPECT_THROW(store.ImportCertificateForAPX("x"), InvalidCertificateException);
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 7);
    EXPECT_EQ(ERR_get_error(), 0u);
}

TEST_F(ProxyCertificateTest, FileIsReadWhole) {
    store.ImportCertificateForAPX(certificateFile, "whatever this says");
    EXPECT_EQ(ActiveDirectoryConfigStore().GetThumbprint(), Thumbprint());
    EXPECT_EQ(ActiveDirectoryConfigStore().GetCertificate(), ReadFile(certificateFile));
}

TEST_F(ProxyCertificateTest, FileThatCannotBeOpened) {
    EXPECT_EQ(TextOf<FileNotFoundException>(
                  [&] { store.ImportCertificateForAPX("/run/nowhere.pem", ""); }),
              "Exception 0x00000002: The system cannot find the file specified.");
    EXPECT_EQ(
        TextOf<InvalidCertificateException>([&] { store.ImportCertificateForAPX("/run", ""); }),
        notPem)
        << "a folder opens and has nothing to read";
    EXPECT_EQ(
        TextOf<InvalidCertificateException>([&] { store.ImportCertificateForAPX(keyFile, ""); }),
        notPem);
}

TEST_F(ProxyCertificateTest, StoreThatFailsIsLoggedAndThrown) {
    const std::string pem = ReadFile(certificateFile);
    for (const auto spoil : {RefuseChanges, BreakConfigStore}) {
        spoil();
        const std::string reason = TextOf<OrvConfigStore::ConfigStoreException>(
            [] { ActiveDirectoryConfigStore().StoreAuthProxyCertInfo("", ""); });
        EXPECT_EQ(TextOf<OrvConfigStore::ConfigStoreException>(
                      [&] { store.ImportCertificateForAPX(pem); }),
                  reason);
        EXPECT_EQ(log.TakeLines(),
                  (Lines{{LOG_ERR, "Failed to store thumbprint to Config Store: " + reason}}));
    }
}

} // namespace
