#include "certificate.h"

#include <ctime>
#include <memory>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "failure.h"

namespace ctl {

namespace {

struct Deleter {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
};

/// Nobody is asked for the password of an encrypted text.
int NoPassword(char*, int, int, void*) {
    return -1;
}

std::string SubjectOf(const X509& certificate) {
    const std::unique_ptr<BIO, Deleter> text(BIO_new(BIO_s_mem()));
    if (text == nullptr || X509_NAME_print_ex(text.get(), X509_get_subject_name(&certificate), 0,
                                              XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0) {
        return "";
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(text.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

std::string TimeText(const ASN1_TIME* time) {
    std::tm parts = {};
    char text[sizeof "2036-11-18T17:28:07Z"];
    return ASN1_TIME_to_tm(time, &parts) == 1 &&
                   std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) != 0
               ? text
               : "";
}

} // namespace

Certificate ReadCertificate(const std::string& pem) {
    const std::unique_ptr<BIO, Deleter> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const std::unique_ptr<X509, Deleter> certificate(
        bio != nullptr ? PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr) : nullptr);
    if (certificate == nullptr) {
        throw HintedError("the stored certificate cannot be read",
                          "import it again: tesauthctl proxy import-certificate FILE");
    }
    const ASN1_TIME* end = X509_get0_notAfter(certificate.get());
    return {SubjectOf(*certificate), TimeText(end), X509_cmp_current_time(end) <= 0};
}

} // namespace ctl
