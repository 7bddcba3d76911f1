#include <syslog.h>

#include "join_record.h"
#include "orvcfg/config_store.h"
#include "tesauth/active_directory_store.h"
#include "tesauth/config_store.h"
#include "tesauth/exceptions.h"

namespace tessary::authentication {

namespace {

void CheckCredentials(const Credentials& credentials) {
    if (credentials.userName == nullptr) { // an empty one is the provider's to judge
        throw InvalidCredentialsException("no username was specified");
    }
    if (credentials.password == nullptr || *credentials.password == '\0') {
        throw InvalidCredentialsException("empty or no password was specified; the account must "
                                          "have a non-empty password to join the host to domain");
    }
}

struct DomainPath {
    std::string domain;
    std::string organizationalUnit;
};

DomainPath SplitAtFirstSlash(const std::string& text) {
    const auto slash = text.find('/');
    return {text.substr(0, slash),
            slash == std::string::npos ? std::string() : text.substr(slash + 1)};
}

} // namespace

void ActiveDirectoryStore::JoinDomain(const std::string& domainPath, const Credentials& credentials,
                                      bool skipHostnameCheck) {
    CheckCredentials(credentials);
    const DomainPath path = SplitAtFirstSlash(domainPath);
    if (!skipHostnameCheck) {
        SanitiseHostnameForDomain(path.domain);
    }
    provider->JoinDomain(path.domain, path.organizationalUnit, credentials);
    RecordJoin(*provider, path.domain, path.organizationalUnit, "");
}

void ActiveDirectoryStore::PartDomain() {
    provider->PartDomain();
    try {
        ActiveDirectoryConfigStore().RemoveDomainInfo();
    } catch (const OrvConfigStore::ConfigStoreException& failure) {
        syslog(LOG_ERR, "Failed to remove domain details from Config Store: %s", failure.what());
        throw;
    }
}

void ActiveDirectoryStore::PartDomain(const Credentials& credentials) {
    provider->PartDomain(credentials);
}

} // namespace tessary::authentication
