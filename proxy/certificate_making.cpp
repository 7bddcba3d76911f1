#include "certificate.h"

#include "directory/files.h"

#include <ifaddrs.h>
#include <limits.h>
#include <net/if.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include "host_name.h"

namespace tessary::proxy {
namespace {

constexpr long daySeconds = 24L * 60 * 60;
constexpr long lifeSeconds = 3652 * daySeconds;
constexpr int serialBits = 127; // at most 20 bytes with a sign, as X.509 has it
constexpr std::size_t longestCommonName = 64;

using UniqueExtension = std::unique_ptr<X509_EXTENSION, OpenSslDeleter<X509_EXTENSION_free>>;
using UniqueNumber = std::unique_ptr<BIGNUM, OpenSslDeleter<BN_free>>;
using UniqueAddresses = std::unique_ptr<ifaddrs, OpenSslDeleter<freeifaddrs>>;

void AddExtension(X509& certificate, int kind, const std::string& value) {
    X509V3_CTX context{};
    X509V3_set_ctx(&context, &certificate, &certificate, nullptr, nullptr, 0);
    const UniqueExtension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    CheckOpenSsl(extension && X509_add_ext(&certificate, extension.get(), -1) == 1,
                 "cannot make a certificate");
}

void SetSerial(X509& certificate) {
    const UniqueNumber number(BN_new());
    CheckOpenSsl(number && BN_rand(number.get(), serialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) &&
                     BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(&certificate)),
                 "cannot make a certificate's serial number");
}

void SetNames(X509& certificate, const std::string& host) {
    // A name that is too long for the common name is still whole among the alternative ones.
    const std::string common = host.substr(0, longestCommonName);
    X509_NAME* const subject = X509_get_subject_name(&certificate);
    CheckOpenSsl(X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_ASC,
                                            reinterpret_cast<const unsigned char*>(common.data()),
                                            static_cast<int>(common.size()), -1, 0) == 1 &&
                     X509_set_issuer_name(&certificate, subject) == 1,
                 "cannot make a certificate's names");
}

std::string AlternativeNames(const HostIdentity& host) {
    std::string names = "DNS:" + host.name;
    for (const IpAddress& address : host.addresses)
        names += ",IP:" + address.Text();
    return names;
}

UniqueCertificate Certify(EVP_PKEY& key, const HostIdentity& host) {
    UniqueCertificate certificate(X509_new());
    CheckOpenSsl(certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
                     X509_set_pubkey(certificate.get(), &key) == 1,
                 "cannot make a certificate");
    SetSerial(*certificate);
    SetNames(*certificate, host.name);
    // A day back: the clocks of clients may be behind.
    CheckOpenSsl(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -daySeconds) &&
                     X509_gmtime_adj(X509_getm_notAfter(certificate.get()), lifeSeconds),
                 "cannot set a certificate's dates");
    AddExtension(*certificate, NID_basic_constraints, "critical,CA:FALSE");
    AddExtension(*certificate, NID_key_usage, "critical,digitalSignature");
    AddExtension(*certificate, NID_ext_key_usage, "serverAuth");
    AddExtension(*certificate, NID_subject_key_identifier, "hash");
    AddExtension(*certificate, NID_subject_alt_name, AlternativeNames(host));
    CheckOpenSsl(X509_sign(certificate.get(), &key, EVP_sha256()) > 0, "cannot sign a certificate");
    return certificate;
}

/// Writes what `print` puts into memory, which is cleansed.
template <class Print>
void WriteFile(const std::string& path, Print print) {
    const UniqueBio memory(BIO_new(BIO_s_secmem()));
    CheckOpenSsl(memory && print(memory.get()) == 1, "cannot write " + path);
    char* text = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &text);
    directory::Replacement file(path);
    file.Write({text, static_cast<std::size_t>(size)});
    file.Commit();
}

bool IsReachable(const ifaddrs& entry) {
    if (entry.ifa_addr == nullptr || (entry.ifa_flags & IFF_LOOPBACK) != 0)
        return false;
    if (entry.ifa_addr->sa_family == AF_INET)
        return true;
    static const Network linkLocal = *Network::Parse("fe80::/10");
    return entry.ifa_addr->sa_family == AF_INET6 &&
           !linkLocal.Contains(IpAddress::Of(entry.ifa_addr));
}

} // namespace

HostIdentity HostIdentity::OfThisHost() {
    HostIdentity host;
    char name[HOST_NAME_MAX + 1] = "";
    gethostname(name, sizeof name - 1);
    // A certificate's text has signs of its own, which no host name has; one without a domain is
    // fine here.
    const std::string text = name;
    host.name = NormalizeHostName(text + ".x") ? text : "localhost";
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        list = nullptr;
    const UniqueAddresses addresses(list);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next)
        if (IsReachable(*entry))
            host.addresses.push_back(IpAddress::Of(entry->ifa_addr));
    return host;
}

void MakeIdentity(const HostIdentity& host, const std::string& certificateFile,
                  const std::string& keyFile) {
    const UniqueKey key(EVP_EC_gen("P-256"));
    CheckOpenSsl(key != nullptr, "cannot make a key");
    const UniqueCertificate certificate = Certify(*key, host);
    WriteFile(keyFile, [&](BIO* out) {
        return PEM_write_bio_PKCS8PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    WriteFile(certificateFile,
              [&](BIO* out) { return PEM_write_bio_X509(out, certificate.get()); });
}

} // namespace tessary::proxy
