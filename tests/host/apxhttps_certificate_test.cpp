// Which proxies are trusted.

#include "apxhttps_proxy_fixture.h"

#include <algorithm>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace proxied;
using testing::IsEmpty;
using testing::SizeIs;

/// A proxy that would answer, and what is seen of it.
class Certificates : public testing::Test {
protected:
    struct Outcome {
        std::uint32_t status;
        std::vector<std::string> requests;
    };

    static Outcome Ask(const ServerCertificate& shown, bool verify, const std::string& thumbprint,
                       const std::string& certificate) {
        ScriptedProxyServer server(shown, {HttpAnswer(201, accountBody)});
        const Proxy proxy{server.Address(), verify, thumbprint, certificate};
        const std::uint32_t status =
            StatusOf([&] { AskForMachineAccount(proxy, "web1.corp.example", "", patient); });
        EXPECT_EQ(server.Connections(), 1);
        return {status, server.Requests()};
    }

    static void ExpectTrusted(const ServerCertificate& shown, const std::string& thumbprint,
                              const std::string& certificate) {
        const Outcome outcome = Ask(shown, true, thumbprint, certificate);
        EXPECT_EQ(outcome.status, success);
        EXPECT_THAT(outcome.requests, SizeIs(1));
    }

    /// Whoever is not trusted sees nothing of the request either.
    static void ExpectUntrusted(const ServerCertificate& shown, const std::string& thumbprint,
                                const std::string& certificate) {
        const Outcome outcome = Ask(shown, true, thumbprint, certificate);
        EXPECT_EQ(outcome.status, untrusted);
        EXPECT_THAT(outcome.requests, IsEmpty());
    }
};

using Key = ServerCertificate::Key;

TEST_F(Certificates, TrustedOneIsTrustedThoughNoAuthorityIssuedItAndItsNameIsAnother) {
    for (const Key key : {Key::P256, Key::Rsa}) {
        const ServerCertificate certificate(key, -1, 30, "another.example");
        ExpectTrusted(certificate, certificate.Thumbprint(), certificate.Pem());
    }
}

TEST_F(Certificates, ThumbprintAloneIsEnough) {
    const ServerCertificate certificate;
    ExpectTrusted(certificate, certificate.Thumbprint(), "");
}

TEST_F(Certificates, ThumbprintMayBeInLowerCase) {
    const ServerCertificate certificate;
    std::string thumbprint = certificate.Thumbprint();
    std::transform(thumbprint.begin(), thumbprint.end(), thumbprint.begin(), ::tolower);
    ASSERT_NE(thumbprint, certificate.Thumbprint());
    ExpectTrusted(certificate, thumbprint, certificate.Pem());
}

TEST_F(Certificates, TextMayHaveMoreAroundTheCertificate) {
    const ServerCertificate certificate;
    ExpectTrusted(certificate, certificate.Thumbprint(),
                  "the proxy's\n" + certificate.Pem() + "# end\n");
}

TEST_F(Certificates, OtherThumbprintsAreNotTrusted) {
    const ServerCertificate certificate;
    const std::string right = certificate.Thumbprint();
    std::string withoutColons = right;
    std::erase(withoutColons, ':');
    std::string lastDigit = right;
    lastDigit.back() = lastDigit.back() == '0' ? '1' : '0';
    for (const std::string& thumbprint :
         {std::string(), lastDigit, withoutColons, right + " ", " " + right, right + ":00",
          right.substr(0, right.size() - 3), ServerCertificate().Thumbprint(), std::string(":")}) {
        SCOPED_TRACE(thumbprint);
        ExpectUntrusted(certificate, thumbprint, certificate.Pem());
        ExpectUntrusted(certificate, thumbprint, "");
    }
}

TEST_F(Certificates, OtherCertificateTextIsNotTrusted) {
    const ServerCertificate certificate;
    const std::string pem = certificate.Pem();
    for (const std::string& text :
         {ServerCertificate().Pem(), ServerCertificate().Pem() + pem, std::string("no certificate"),
          std::string(" "), pem.substr(0, pem.size() / 2)}) {
        SCOPED_TRACE(text);
        ExpectUntrusted(certificate, certificate.Thumbprint(), text);
    }
}

TEST_F(Certificates, EncryptedTextIsNotTrusted) {
    const ServerCertificate certificate;
    const std::string encrypted = "-----BEGIN CERTIFICATE-----\nProc-Type: 4,ENCRYPTED\n"
                                  "DEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n" +
                                  certificate.Pem().substr(28);
    ExpectUntrusted(certificate, certificate.Thumbprint(), encrypted);
}

TEST_F(Certificates, SameSubjectDoesNotMakeItTheSame) {
    const ServerCertificate trusted, other;
    ASSERT_EQ(X509_NAME_cmp(X509_get_subject_name(trusted.Certificate()),
                            X509_get_subject_name(other.Certificate())),
              0);
    ExpectUntrusted(other, trusted.Thumbprint(), trusted.Pem());
    ExpectUntrusted(other, trusted.Thumbprint(), "");
    ExpectUntrusted(other, other.Thumbprint(), trusted.Pem());
}

TEST_F(Certificates, TimeCounts) {
    for (const Key key : {Key::P256, Key::Rsa}) {
        const ServerCertificate expired(key, -30, -1), notYet(key, 1, 30);
        ExpectUntrusted(expired, expired.Thumbprint(), expired.Pem());
        ExpectUntrusted(expired, expired.Thumbprint(), "");
        ExpectUntrusted(notYet, notYet.Thumbprint(), notYet.Pem());
        ExpectUntrusted(notYet, notYet.Thumbprint(), "");
    }
}

TEST_F(Certificates, NothingIsCheckedWhenVerificationIsOff) {
    const ServerCertificate trusted, other, expired(Key::Rsa, -30, -1), notYet(Key::P256, 1, 30);
    for (const ServerCertificate* shown : {&trusted, &other, &expired, &notYet}) {
        for (const std::string& thumbprint : {std::string(), trusted.Thumbprint()}) {
            const Outcome outcome = Ask(*shown, false, thumbprint, trusted.Pem());
            EXPECT_EQ(outcome.status, success);
            EXPECT_THAT(outcome.requests, SizeIs(1));
        }
    }
}

TEST_F(Certificates, EveryExchangeIsChecked) {
    const ServerCertificate trusted, other;
    ScriptedProxyServer server(trusted, {HttpAnswer(200, domainBody)});
    EXPECT_EQ(DomainStatus(Trusting(server.Address(), trusted)), success);
    EXPECT_EQ(DomainStatus(Trusting(server.Address(), other)), untrusted);
    EXPECT_EQ(DomainStatus(Trusting(server.Address(), trusted)), success);
    EXPECT_THAT(server.Requests(), SizeIs(2));
}

TEST_F(Certificates, AuthoritiesOfTheSystemAreNotNeeded) {
    std::filesystem::remove_all("/etc/ssl/certs");
    std::filesystem::create_directories("/etc/ssl/certs");
    ExpectTrusted(AnyCertificate(), AnyCertificate().Thumbprint(), AnyCertificate().Pem());
}

} // namespace
