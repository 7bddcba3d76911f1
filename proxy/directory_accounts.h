/// Machine accounts in an Active Directory domain, and the record of those that the proxy made.
#ifndef TESSARY_PROXY_DIRECTORY_ACCOUNTS_H
#define TESSARY_PROXY_DIRECTORY_ACCOUNTS_H

#include "account_service.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tessary::proxy {

/// Where and as whom the proxy makes accounts.
struct AccountSettings {
    std::string domain;                   ///< DNS name
    std::vector<std::string> hostDomains; ///< besides the domain, what names of hosts may end in,
                                          ///< as directory::NormalizeDomainName() has them
    std::string container;                ///< the one organisational unit that it may write to
    std::string account;                  ///< the service account's name
    std::string keytab;                   ///< path of the file with its keys
    std::string stateDirectory;           ///< holds accounts.db
    std::chrono::hours resetAfter{0}; ///< an account of that age may get a new password; 0: none
    std::chrono::minutes unusedAfter{10}; ///< an account that its host has not taken over by then
                                          ///< is disabled, and removed a little later
};

/// Opens the record of accounts, and starts removing those that no host has taken over, also those
/// that an earlier process left. Asks no directory before it is asked itself. The object's
/// destructor ends that thread, within the time of one exchange with the directory.
/// \throws std::runtime_error when the record cannot be opened or read, or another process has it
/// open to serve; names the file and the cause
std::unique_ptr<AccountService> OpenDirectoryAccounts(const AccountSettings& settings);

/// Lets the account of a host be given a new password once. Works beside a running proxy.
/// \throws std::runtime_error when the record cannot be written, or has no account of that host
void ReleaseAccount(const std::string& stateDirectory, const std::string& hostName);

} // namespace tessary::proxy

#endif
