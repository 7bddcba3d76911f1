#include "verbs.h"

#include "certificate.h"
#include "failure.h"
#include "file_snapshot.h"
#include "host_store.h"
#include "output.h"
#include "progress.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

/// For what is asked of the directory on the side.
constexpr int queryWaitSeconds = 10;

/// The proxy's certificate that this host trusts, as it is told.
Answer DescribeTrusted(const std::string& thumbprint, const std::string& pem) {
    const Certificate certificate = ReadCertificate(pem);
    Table table;
    table.Add("thumbprint", thumbprint);
    table.Add("subject", certificate.subject);
    table.Add("expires", certificate.expires + (certificate.expired ? " (expired)" : ""));
    return {table.Text(),
            {{"thumbprint", thumbprint},
             {"subject", certificate.subject},
             {"expires", certificate.expires},
             {"expired", certificate.expired}}};
}

} // namespace

Answer ShowProxyDomain(const Arguments& arguments) {
    HostStore store(queryWaitSeconds);
    std::string domain;
    RunReported("asking the proxy " + arguments.proxy,
                [&] { domain = store.GetDomainForAPXService(arguments.proxy); });
    return {OneLine(domain), {{"proxy", arguments.proxy}, {"domain", domain}}};
}

Answer ImportCertificate(const Arguments& arguments) {
    const std::string& file = arguments.file.file;
    const std::string pem = ReadFile(file).content;
    if (pem.find("PRIVATE KEY-----") != std::string::npos) {
        throw HintedError(file + " has a private key in it",
                          "leave the key with the proxy and import the certificate alone: openssl "
                          "x509 -in " +
                              file + " -out proxy.pem");
    }
    HostStore store(queryWaitSeconds);
    store.ImportCertificateForAPX(pem);
    return DescribeTrusted(auth::ActiveDirectoryConfigStore().GetThumbprint(), pem);
}

Answer ShowCertificate(const Arguments&) {
    auth::ActiveDirectoryConfigStore store;
    try {
        return DescribeTrusted(store.GetThumbprint(), store.GetCertificate());
    } catch (const auth::ConfigurationError&) { // there is no such object
        return {"no proxy's certificate has been imported",
                {{"thumbprint", nullptr},
                 {"subject", nullptr},
                 {"expires", nullptr},
                 {"expired", nullptr}}};
    }
}

} // namespace ctl
