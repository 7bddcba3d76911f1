/// The interface between libtesauth and an Active Directory provider plug-in.
///
/// A provider is a shared object "lib<name>.so" in /usr/libexec/tesauth/lib64/ or
/// /usr/libexec/tesauth/ that exports two data symbols under their plain names:
///
///     const struct ActiveDirectoryClientMetadata ActiveDirectoryClientMetadata = { ... };
///     const struct ActiveDirectoryClientOperations ActiveDirectoryClientOperations = { ... };
///
/// Strings are NUL-terminated. What the library passes in is valid only during the call. What an
/// operation returns stays the plug-in's: beside it the operation stores a release function, which
/// the library calls on each returned buffer after copying it. An operation that fails returns a
/// non-zero status (a Win32 or Winsock error number); its out arguments are then neither read nor
/// released. Operations may be called from many threads at once and must not throw.
///
/// Plain C11, also valid C++17.
#ifndef TESAUTH_PLUGIN_PROVIDER_PLUGIN_H
#define TESAUTH_PLUGIN_PROVIDER_PLUGIN_H

#include <stdint.h>

#ifdef __cplusplus
#define TESAUTH_PLUGIN_ENUM32 : uint32_t
extern "C" {
#else
#define TESAUTH_PLUGIN_ENUM32
#endif

/// The newest interface version that the library accepts in the metadata record.
enum { TESAUTH_PROVIDER_API_VERSION = 3 };

/// A status that a join treats as passing, beside 1326: the library tries again, up to four times
/// in all with 30 seconds after each failure.
#define TESAUTH_PROVIDER_STATUS_TRY_AGAIN 0xFFFF0000u

/// State of the trust between the host's machine account and its domain. The library passes a
/// plug-in's value on unchanged and writes 0, 2 and 7 itself.
typedef enum TrustState TESAUTH_PLUGIN_ENUM32 {
    TrustStateUnknown = 0,         ///< the provider cannot tell (it does not implement the query)
    TrustStateGood = 1,            ///< the machine account's own key is accepted
    TrustStateTimedOut = 2,        ///< no answer within the caller's wait time
    TrustStateKeyRejected = 3,     ///< the domain does not accept the machine account's key
    TrustStateAccountMissing = 4,  ///< the domain has no account for this host
    TrustStateAccountDisabled = 5, ///< the machine account is disabled, locked or expired
    TrustStateClockSkew = 6,       ///< the clocks of host and controller are too far apart
    TrustStateNotJoined = 7,       ///< the host is not joined to a domain
    TrustStateNoController = 8     ///< no domain controller can be reached
} TrustState;

/// How the joined domain trusts another one. The library passes a plug-in's value on unchanged,
/// writes 0 itself and answers 6 for a domain that it knows nothing of.
typedef enum TrustRelationship TESAUTH_PLUGIN_ENUM32 {
    TrustRelationshipNotImplemented = 0, ///< the provider does not implement the query
    TrustRelationshipInbound = 1,        ///< the other domain trusts the joined one
    TrustRelationshipOutbound = 2,       ///< the joined domain trusts the other one
    TrustRelationshipTwoWay = 3,         ///< both trust each other
    TrustRelationshipWithinForest = 4,   ///< both are domains of one forest
    TrustRelationshipJoinedDomain = 5,   ///< the domain is the joined domain itself
    TrustRelationshipUnknown = 6,        ///< nothing is known about the domain
    TrustRelationshipNone = 7            ///< the two domains have no trust
} TrustRelationship;

/// A user's credentials. The library hands the caller's record to the plug-in by address.
struct Credentials {
    const char* userName;
    const char* password;
};

/// Releases one buffer that an operation returned; accepts a null pointer.
typedef void (*ActiveDirectoryReleaseFunction)(void* buffer);

/// The names of a domain, as getActiveDomain and getTrustedDomains return them.
struct ActiveDirectoryDomainNames {
    char* dnsName;
    char* netbiosName;
};

/// The domain of a join with a prepared machine account.
struct ActiveDirectoryDomainInfo {
    const char* reserved; ///< always empty
    const char* netbiosName;
    const char* dnsName;
    const char* sid; ///< in text form
};

/// The prepared machine account of such a join.
struct ActiveDirectoryMachineAccount {
    const char* hostName; ///< short name of the host
    const char* dnsDomainName;
    const char* reserved; ///< always empty
    const char* accountName;
    const char* password;
};

/// What a provider says about itself. The library accepts any apiVersion up to
/// TESAUTH_PROVIDER_API_VERSION.
struct ActiveDirectoryClientMetadata {
    int32_t apiVersion;
    const char* pamModule;
    const char* pamModuleParameters; ///< separated by white space, or null
    const char* nssModule;
    const char* nssModuleParameters; ///< separated by white space, or null
};

/// The operations of a provider. A null entry means "not implemented". The entries marked
/// "version 2" are called only if this table's apiVersion is 2 or more.
struct ActiveDirectoryClientOperations {
    int32_t apiVersion; ///< the same value as in the metadata record

    /// Joins the host; organizationalUnit is null when none was given.
    uint32_t (*joinDomain)(const char* domain, const char* organizationalUnit,
                           const struct Credentials* credentials);
    /// Leaves the domain; credentials is null to leave without.
    uint32_t (*partDomain)(const struct Credentials* credentials);
    /// Either name may be returned as null; the two are released one by one.
    uint32_t (*getActiveDomain)(struct ActiveDirectoryDomainNames* domain,
                                ActiveDirectoryReleaseFunction* release);
    /// controllers ends with a null pointer.
    uint32_t (*setPreferredDomainControllers)(const char* const* controllers);
    /// The array ends with a null pointer; releasing it frees the names as well.
    uint32_t (*getPreferredDomainControllers)(char*** controllers,
                                              ActiveDirectoryReleaseFunction* release);
    /// Never called.
    void (*reserved)(void);
    TrustState (*getDomainTrustState)(void);
    /// The array ends with a null pointer; releasing it frees the records as well.
    uint32_t (*getTrustedDomains)(struct ActiveDirectoryDomainNames*** domains,
                                  ActiveDirectoryReleaseFunction* release);
    uint32_t (*getMachineAccountDN)(char** distinguishedName,
                                    ActiveDirectoryReleaseFunction* release);
    /// first may be null. Returns the name of a controller of the domain.
    uint32_t (*getAnyDomainController)(const char* first, const char* domain, char** controller,
                                       ActiveDirectoryReleaseFunction* release);
    uint32_t (*convertCanonicalUsername)(const char* userName, char** canonicalName,
                                         ActiveDirectoryReleaseFunction* release);
    /// Version 2. Joins with an account that was created in advance.
    uint32_t (*joinDomainWithMachineAccount)(const struct ActiveDirectoryDomainInfo* domain,
                                             const struct ActiveDirectoryMachineAccount* account);
    /// Version 2.
    uint32_t (*getHostPrincipalForDomain)(const char* domain, char** principal,
                                          ActiveDirectoryReleaseFunction* release);
    TrustRelationship (*getDomainTrustRelationship)(const char* domain);
    /// services ends with a null pointer.
    uint32_t (*setSmartCardEnabledServices)(const char* const* services);
    /// The array ends with a null pointer; releasing it frees the names as well.
    uint32_t (*getSmartCardEnabledServices)(char*** services,
                                            ActiveDirectoryReleaseFunction* release);
};

#ifdef __cplusplus
}
#endif

#undef TESAUTH_PLUGIN_ENUM32

#endif
