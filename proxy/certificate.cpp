#include "certificate.h"

#include "directory/unique_fd.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace tessary::proxy {
namespace {

/// Keys of users' own are not asked a passphrase for: nobody is there to type it.
int NoPassphrase(char*, int, int, void*) {
    return -1;
}

UniqueBio Open(const std::string& path, bool isKey) {
    // Nobody is waited for who would write into a pipe.
    directory::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!fd || fstat(fd.Get(), &status) != 0)
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw std::runtime_error(path + " is no file");
    if (isKey && (status.st_mode & S_IRWXO) != 0)
        throw std::runtime_error(path + " is open to every user (chmod o= would close it)");
    UniqueBio bio(BIO_new_fd(fd.Get(), BIO_CLOSE));
    CheckOpenSsl(bio != nullptr, "cannot read " + path);
    fd.Release();
    return bio;
}

void CheckDates(const X509& certificate, const std::string& path) {
    if (X509_cmp_current_time(X509_get0_notAfter(&certificate)) <= 0)
        throw std::runtime_error("the certificate in " + path + " has expired");
    if (X509_cmp_current_time(X509_get0_notBefore(&certificate)) >= 0)
        throw std::runtime_error("the certificate in " + path + " is not valid yet");
}

} // namespace

std::string Identity::Thumbprint() const {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    CheckOpenSsl(X509_digest(certificate.get(), EVP_sha1(), digest.data(), &size) == 1,
                 "cannot digest the certificate");
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
        if (i > 0)
            text += ':';
        text += digits[digest[i] >> 4];
        text += digits[digest[i] & 15];
    }
    return text;
}

int Identity::DaysLeft() const {
    int days = 0;
    int seconds = 0;
    CheckOpenSsl(ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) ==
                     1,
                 "cannot read the certificate's dates");
    return seconds < 0 ? days - 1 : days;
}

Identity ReadIdentity(const std::string& certificateFile, const std::string& keyFile) {
    Identity identity;
    const UniqueBio certificates = Open(certificateFile, false);
    identity.certificate.reset(
        PEM_read_bio_X509(certificates.get(), nullptr, NoPassphrase, nullptr));
    CheckOpenSsl(identity.certificate != nullptr, "no certificate in " + certificateFile);
    while (X509* next = PEM_read_bio_X509(certificates.get(), nullptr, NoPassphrase, nullptr))
        identity.chain.emplace_back(next);
    TakeOpenSslReason(); // that the file has no more of them

    const UniqueBio keys = Open(keyFile, true);
    identity.key.reset(PEM_read_bio_PrivateKey(keys.get(), nullptr, NoPassphrase, nullptr));
    CheckOpenSsl(identity.key != nullptr, "no key without a passphrase in " + keyFile);
    if (X509_check_private_key(identity.certificate.get(), identity.key.get()) != 1) {
        TakeOpenSslReason();
        throw std::runtime_error("the key in " + keyFile + " is not that of the certificate in " +
                                 certificateFile);
    }
    CheckDates(*identity.certificate, certificateFile);
    return identity;
}

} // namespace tessary::proxy
